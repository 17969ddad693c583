#pragma once
// The registry of interface types behind Korva::IntfId.
//
// Each interface type (Ethernet, Vlan, Port-Channel, ...) is described at run time by an
// IntfIdDesc: its long and short name prefixes and the width, zero rule and separator of
// each numeric part of its names. Descriptors are registered with the process-wide
// IntfIdMgr, mostly by plugins of the category "IntfIdPlugin" that the manager runs when it
// is initialised. From them the manager builds an IntfIdTrie, which turns names into
// identifiers and back.
//
//   Korva::IntfIdMgr::ensureInitialized();
//   Korva::IntfId id("Ethernet3/1");  // through the manager's trie
//
// Part 0 of a layout is the last part printed; a type whose names may end in ".n" gives
// part 0 the separator "." and keeps the sub-interface number there.

#include <Korva/IntfId.h>
#include <Korva/Types.h>
#include <Mox/Entity.h>
#include <Mox/Text.h>

#include <array>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

namespace Korva {

class IntfIdMgr;

// One numeric part of a name: its width in bits, whether 0 is a valid value, and the
// character printed in front of it.
class IntfIdPart {
 public:
  constexpr IntfIdPart() noexcept = default;
  constexpr IntfIdPart(U8 size, bool zeroBased, char separator) noexcept
      : size_(size), zeroBased_(zeroBased), separator_(separator) {}

  constexpr U8 size() const noexcept { return size_; }
  constexpr bool zeroBased() const noexcept { return zeroBased_; }
  constexpr char separator() const noexcept { return separator_; }

  friend constexpr bool operator==(const IntfIdPart&, const IntfIdPart&) noexcept = default;

 private:
  U8 size_ = 0;
  bool zeroBased_ = false;
  char separator_ = '/';
};

Mox::String8 valueToStrep(const IntfIdPart& part);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IntfIdPart* part);

// Index of a part, 0 to 3.
class IntfIdPartKey {
 public:
  static constexpr U8 min = 0;
  static constexpr U8 max = 3;
  // Raises Mox::RangeException outside 0 to 3.
  IntfIdPartKey(U8 value);
  constexpr U8 value() const noexcept { return value_; }
  constexpr operator U8() const noexcept { return value_; }

 private:
  U8 value_;
};

// Sub-type of a descriptor, 0 to 2; each sub-type has its own long prefix.
class SubIntfIdKey {
 public:
  static constexpr U8 min = 0;
  static constexpr U8 max = 2;
  // Raises Mox::RangeException outside 0 to 2.
  SubIntfIdKey(U8 value);
  constexpr U8 value() const noexcept { return value_; }
  constexpr operator U8() const noexcept { return value_; }

 private:
  U8 value_;
};

// The prefix of short names, at most 5 bytes; empty means the type prints its long prefix.
class ShortPrefix {
 public:
  static constexpr size_t maxBytes = 5;
  ShortPrefix() = default;
  // Raises Mox::RangeException "ShortPrefix::bytes > 5 not allowed".
  explicit ShortPrefix(std::string_view text);

  const Mox::String8& stringValue() const noexcept { return text_; }
  size_t bytes() const noexcept { return text_.size(); }
  bool empty() const noexcept { return text_.empty(); }
  friend bool operator==(const ShortPrefix&, const ShortPrefix&) = default;

 private:
  Mox::String8 text_;
};

Mox::String8 valueToStrep(const ShortPrefix& prefix);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ShortPrefix* prefix);

// Describes one interface type. A plugin creates it (IntfIdMgr::newIntfIdDesc), sets its
// parts and prefixes, then sets `initialized`; from then on the manager's trie knows it.
class IntfIdDesc : public Mox::Entity {
 public:
  static constexpr size_t maxParts = 4;

  // Raises Mox::RangeException for a type id above 126.
  IntfIdDesc(U8 typeId, Mox::String8 firstPrefix, U8 minPart);

  U8 typeId() const noexcept { return typeId_; }
  const Mox::String8& firstPrefix() const noexcept { return firstPrefix_; }
  // The least number of parts a name must have, counting a sub-interface part.
  U8 minPart() const noexcept { return minPart_; }

  // Long prefix per sub-type; sub-type 0 starts as firstPrefix. Empty when absent.
  const Mox::String8& prefix(SubIntfIdKey subType) const;
  void prefixIs(SubIntfIdKey subType, std::string_view text);
  void prefixDel(SubIntfIdKey subType);

  const ShortPrefix& shortPrefix() const noexcept { return shortPrefix_; }
  void shortPrefixIs(const ShortPrefix& prefix);
  // Short prefix per sub-type; empty when the sub-type prints its long prefix.
  ShortPrefix shortPrefixSubType(SubIntfIdKey subType) const;
  void shortPrefixSubTypeIs(SubIntfIdKey subType, const ShortPrefix& prefix);

  // Parts in index order; part 0 is printed last.
  const IntfIdPart& part(IntfIdPartKey key) const noexcept { return parts_[key]; }
  void partIs(IntfIdPartKey key, const IntfIdPart& part);
  U8 parts() const noexcept { return partCount_; }

  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool initialized);

 private:
  friend class IntfIdMgr;

  void handleInitialized();
  void handleShortPrefix();
  void handleShortPrefixSubType(SubIntfIdKey subintfId);
  void checkShortPrefixFits(SubIntfIdKey subintfId) const;
  // Tells the manager that holds this descriptor that it changed.
  void changed();

  U8 typeId_;
  Mox::String8 firstPrefix_;
  U8 minPart_;
  std::array<Mox::String8, SubIntfIdKey::max + 1> prefix_;
  ShortPrefix shortPrefix_;
  std::array<ShortPrefix, SubIntfIdKey::max + 1> shortPrefixSubType_;
  std::array<IntfIdPart, maxParts> parts_;
  U8 partCount_ = 0;
  bool initialized_ = false;
  IntfIdMgr* mgr_ = nullptr;
};

// Names to identifiers and back for one set of descriptors: one layout record per
// (type id, sub-type) and a character trie over all long prefixes.
class IntfIdTrie {
 public:
  static constexpr U32 layoutCount = 128 * 4;
  static constexpr U32 leaf = 0xFFFFFC00u;  // child entries from here on are leaves
  static constexpr U8 upperWord = 0x20;     // placement code: shift within the upper word

  struct Layout {
    std::array<U32, IntfIdDesc::maxParts> mask{};
    std::array<U8, IntfIdDesc::maxParts> code{};  // shift, plus upperWord
    std::array<bool, IntfIdDesc::maxParts> zeroAllowed{};
    std::array<char, IntfIdDesc::maxParts> separator{};
    bool hasDotPart = false;
    bool hasShortPrefix = false;
    U8 minParts = 0;
    U8 maxParts = 0;
    Mox::String8 prefix;
    Mox::String8 shortPrefix;
    const IntfIdDesc* owner = nullptr;  // the descriptor it was built from

    U32 partValue(U64 value, unsigned i) const noexcept {
      const unsigned shift = code[i] & 0x1F;
      const U64 word = code[i] & upperWord ? value >> 32 : value;
      return static_cast<U32>(word >> shift) & mask[i];
    }
    U64 placed(U32 partValue, unsigned i) const noexcept {
      return static_cast<U64>(partValue) << ((code[i] & 0x1F) + (code[i] & upperWord ? 32 : 0));
    }
  };

  static constexpr unsigned layoutIndex(IntfId id) noexcept {
    return ((id.lower() >> 25) & 0x7F) * 4 + (id.upper() >> 30);
  }

  // Replaces everything with the layouts of the initialised descriptors.
  void rebuild(const std::map<U8, Mox::Ptr<IntfIdDesc>>& descs);

  // The layout whose prefix the walk reaches, or nullptr. Only narrows the candidates: the
  // caller still compares the prefix.
  const Layout* lookup(std::string_view prefix) const noexcept;
  // The layout of an index, or nullptr when none is registered there.
  const Layout* layout(unsigned index) const noexcept {
    return index < layoutCount && layouts_[index].owner ? &layouts_[index] : nullptr;
  }
  U32 indexOf(const Layout* layout) const noexcept {
    return static_cast<U32>(layout - layouts_.data());
  }
  size_t nodeCount() const noexcept { return nodes_.size(); }

 private:
  struct Node {
    U32 position = 0;              // character position tested
    std::array<U32, 257> child{};  // per character, then the end of the prefix
  };
  struct Candidate {
    std::string_view prefix;
    U32 layout;
  };

  U32 build(std::vector<Candidate> candidates);
  U32 newNode(U32 position);

  std::vector<Layout> layouts_ = std::vector<Layout>(layoutCount);
  std::vector<Node> nodes_;  // node 0 is unused so that entry 0 means "no match"
  U32 root_ = 0;
};

// The process-wide registry of interface types.
class IntfIdMgr : public Mox::Entity {
 public:
  static constexpr U8 intfIdDescMaxTypeId() noexcept { return 126; }

  explicit IntfIdMgr(Mox::Name name);
  ~IntfIdMgr() override;

  // The process's manager, created on first use and kept until exit.
  static IntfIdMgr* singleton();
  // The process's manager, initialised (its plugins loaded) if it was not yet.
  static IntfIdMgr* ensureInitialized();

  Mox::Ptr<IntfIdDesc> intfIdDesc(U8 typeId) const;
  const std::map<U8, Mox::Ptr<IntfIdDesc>>& intfIdDescs() const noexcept { return descs_; }
  // Creates, registers and returns a descriptor; the caller completes it.
  Mox::Ptr<IntfIdDesc> newIntfIdDesc(U8 typeId, Mox::String8 firstPrefix, U8 minPart);
  void intfIdDescIs(const Mox::Ptr<IntfIdDesc>& desc);
  void intfIdDescDel(U8 typeId);

  bool testMode() const noexcept { return testMode_; }
  void testModeIs(bool testMode) noexcept { testMode_ = testMode; }

  bool initialized() const noexcept { return initialized_; }
  // Setting it loads the plugins; it happens once and is never undone.
  void initializedIs(bool initialized);

  // The identifier value of a long name; raises Mox::RangeException for names no
  // registered type accepts. Allocates nothing unless it fails.
  U64 stringToIntfId(std::string_view name) const;
  // The long (longForm) or short name of an identifier; the null id is "".
  Mox::String8 intfIdToString(IntfId id, bool longForm) const;

  const IntfIdTrie* trie() const noexcept { return trie_.get(); }
  // The layout of an identifier's type; raises Mox::RangeException when none is registered.
  const IntfIdTrie::Layout& layout(IntfId id) const;
  // Re-checks and rebuilds after a descriptor was added, changed or removed.
  void handleIntfIdDesc(U8 typeId);

 private:
  void handleInitialized();

  std::map<U8, Mox::Ptr<IntfIdDesc>> descs_;
  std::unique_ptr<IntfIdTrie> trie_;
  bool testMode_ = false;
  bool initialized_ = false;
};

// Field-level access to an identifier, through the layout of its type.
class GenericIntfId : public IntfId {
 public:
  using IntfId::IntfId;
  explicit GenericIntfId(IntfId id) : IntfId(id) {}

  static U8 typeId(IntfId id) noexcept { return (id.lower() >> 25) & 0x7F; }
  static U8 subType(IntfId id) noexcept { return static_cast<U8>(id.upper() >> 30); }
  // Parts present: zero-allowed parts always count; a zero in another part ends the count,
  // except a zero sub-interface part, which is skipped.
  static U8 parts(IntfId id);
  static U32 part(IntfId id, IntfIdPartKey i);
  // The identifier with part i replaced; raises Mox::RangeException when v does not fit.
  static IntfId partIs(IntfId id, IntfIdPartKey i, U32 v);
  // The identifier with type id t. The upper word is dropped on purpose (the type id is
  // widened as a signed quantity), so callers set the parts held there again.
  static IntfId typeIdIs(IntfId id, U8 t);
};

// Finds and runs the plugins of the category "IntfIdPlugin", handing each the manager.
class IntfIdDescPluginLoader {
 public:
  static constexpr const char* category = "IntfIdPlugin";

  // The process's loader, created on first use and destroyed at exit.
  static IntfIdDescPluginLoader* DefaultPluginLoader();

  // Runs the built-in plugins, then the shared objects on KORVA_PLUGIN_PATH. A plugin that
  // fails to load is skipped; the runtime's loader logs it and it is kept in failures().
  void loadPlugins(IntfIdMgr* mgr);
  const std::vector<std::string>& loaded() const noexcept { return loaded_; }
  const std::vector<std::string>& failures() const noexcept { return failures_; }

 private:
  std::vector<std::string> loaded_;
  std::vector<std::string> failures_;
};

}  // namespace Korva
