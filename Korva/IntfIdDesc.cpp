#include <Korva/IntfIdDesc.h>

#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Plugin.h>
#include <Mox/Trace.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>

namespace Korva {

namespace {

Mox::TraceHandle trace("IntfIdDesc");

// Free bits of an identifier for parts: the lower word below the type id, and the upper
// word below the sub-type.
constexpr unsigned lowerPartBits = 25;
constexpr unsigned upperPartBits = 30;

// Nodes are added a page at a time so that rebuilding reallocates rarely.
constexpr size_t nodesPerPage = 16;

[[noreturn]] void invalid(const char* format, std::string_view name) {
  const std::string text(name);
  char message[512];
  std::snprintf(message, sizeof(message), format, text.c_str());
  throw Mox::RangeException(message);
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

// --- values ---

Mox::String8 valueToStrep(const IntfIdPart& part) {
  return Mox::ValueText("Korva::IntfIdPart")
      .attr("size", part.size())
      .attr("zeroBased", part.zeroBased())
      .attr("separator", part.separator())
      .str();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IntfIdPart* part) {
  Mox::TextIter cursor = it;
  U8 size = 0;
  bool zeroBased = false;
  char separator = 0;
  Mox::ValueParser parser(cursor, end, "Korva::IntfIdPart");
  parser.attr("size", &size).attr("zeroBased", &zeroBased).attr("separator", &separator);
  parser.finish();
  *part = IntfIdPart(size, zeroBased, separator);
  it = cursor;
}

IntfIdPartKey::IntfIdPartKey(U8 value) : value_(value) {
  if (value > max) {
    throw Mox::RangeException(
        "IntfIdPartKey::value < IntfIdPartKey::min or > IntfIdPartKey::max not allowed");
  }
}

SubIntfIdKey::SubIntfIdKey(U8 value) : value_(value) {
  if (value > max) {
    throw Mox::RangeException(
        "SubIntfIdKey::value < SubIntfIdKey::min or > SubIntfIdKey::max not allowed");
  }
}

ShortPrefix::ShortPrefix(std::string_view text) : text_(text) {
  if (text.size() > maxBytes) throw Mox::RangeException("ShortPrefix::bytes > 5 not allowed");
}

Mox::String8 valueToStrep(const ShortPrefix& prefix) {
  return Mox::valueToStrep(prefix.stringValue());
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ShortPrefix* prefix) {
  Mox::TextIter cursor = it;
  std::string text;
  Mox::sequenceToValue(cursor, end, &text);
  *prefix = ShortPrefix(text);
  it = cursor;
}

// --- descriptor ---

IntfIdDesc::IntfIdDesc(U8 typeId, Mox::String8 firstPrefix, U8 minPart)
    : Mox::Entity(firstPrefix), typeId_(typeId), firstPrefix_(firstPrefix), minPart_(minPart) {
  if (typeId > IntfIdMgr::intfIdDescMaxTypeId()) {
    throw Mox::RangeException("IntfIdDesc::typeId > Expr @IntfIdDesc.mox:66 not allowed");
  }
  prefix_[0] = std::move(firstPrefix);
}

const Mox::String8& IntfIdDesc::prefix(SubIntfIdKey subType) const {
  return prefix_[subType];
}

void IntfIdDesc::prefixIs(SubIntfIdKey subType, std::string_view text) {
  if (prefix_[subType] == text) return;
  prefix_[subType] = text;
  handleShortPrefixSubType(subType);  // the short prefix must still fit
}

void IntfIdDesc::prefixDel(SubIntfIdKey subType) {
  prefixIs(subType, {});
}

void IntfIdDesc::shortPrefixIs(const ShortPrefix& prefix) {
  if (shortPrefix_ == prefix) return;
  shortPrefix_ = prefix;
  handleShortPrefix();
}

ShortPrefix IntfIdDesc::shortPrefixSubType(SubIntfIdKey subType) const {
  return shortPrefixSubType_[subType];
}

void IntfIdDesc::shortPrefixSubTypeIs(SubIntfIdKey subType, const ShortPrefix& prefix) {
  if (shortPrefixSubType_[subType] == prefix) return;
  shortPrefixSubType_[subType] = prefix;
  handleShortPrefixSubType(subType);
}

void IntfIdDesc::partIs(IntfIdPartKey key, const IntfIdPart& part) {
  parts_[key] = part;
  partCount_ = std::max<U8>(partCount_, key + 1);
  changed();
}

void IntfIdDesc::initializedIs(bool initialized) {
  if (initialized_ == initialized) return;
  initialized_ = initialized;
  handleInitialized();
}

void IntfIdDesc::handleInitialized() {
  // Sub-type 0 prints with the type's own short prefix.
  shortPrefixSubType_[0] = shortPrefix_;
  for (U8 subintfId = SubIntfIdKey::min; subintfId <= SubIntfIdKey::max; ++subintfId) {
    checkShortPrefixFits(subintfId);
  }
  changed();
}

void IntfIdDesc::handleShortPrefix() {
  shortPrefixSubTypeIs(0, shortPrefix_);
}

void IntfIdDesc::handleShortPrefixSubType(SubIntfIdKey subintfId) {
  checkShortPrefixFits(subintfId);
  changed();
}

void IntfIdDesc::checkShortPrefixFits(SubIntfIdKey subintfId) const {
  MOX_ASSERT_TEXT(shortPrefixSubType(subintfId).bytes() <= prefix(subintfId).size(),
                  "shortPrefixSubType( subintfId ).bytes() <= prefix( subintfId ).bytes()");
}

void IntfIdDesc::changed() {
  if (mgr_) mgr_->handleIntfIdDesc(typeId_);
}

// --- trie ---

U32 IntfIdTrie::newNode(U32 position) {
  if (nodes_.size() == nodes_.capacity()) {
    const size_t bytes = (nodes_.capacity() + nodesPerPage) * sizeof(Node);
    MOX_TRACE(trace, 4, "Allocating " << bytes << " bytes ");
    nodes_.reserve(nodes_.capacity() + nodesPerPage);
  }
  nodes_.emplace_back().position = position;
  return static_cast<U32>(nodes_.size() - 1);
}

// Splits the candidates at the character position where they differ most, so that the
// walk stays shallow. Positions past the shortest prefix cannot be tested (its walk must
// end there), so the shortest prefix bounds the choice; its end is a symbol of its own.
U32 IntfIdTrie::build(std::vector<Candidate> candidates) {
  if (candidates.empty()) return 0;
  if (candidates.size() == 1) return leaf | candidates.front().layout;
  size_t shortest = candidates.front().prefix.size();
  for (const Candidate& c : candidates) shortest = std::min(shortest, c.prefix.size());

  auto symbol = [](const Candidate& c, size_t position) -> unsigned {
    return position == c.prefix.size() ? 256 : static_cast<U8>(c.prefix[position]);
  };
  size_t bestPosition = 0;
  unsigned bestCount = 0;
  for (size_t position = 0; position <= shortest; ++position) {
    std::array<bool, 257> seen{};
    unsigned count = 0;
    for (const Candidate& c : candidates) {
      bool& s = seen[symbol(c, position)];
      count += !s;
      s = true;
    }
    if (count > bestCount) {
      bestCount = count;
      bestPosition = position;
    }
  }
  MOX_TRACE(trace, 4,
            "Most unique character position " << bestPosition << " unique count " << bestCount);
  // Identical prefixes cannot be told apart: the lowest layout index keeps the name.
  if (bestCount == 1) return leaf | candidates.front().layout;

  const U32 node = newNode(static_cast<U32>(bestPosition));
  std::array<std::vector<Candidate>, 257> groups;
  for (const Candidate& c : candidates) groups[symbol(c, bestPosition)].push_back(c);
  for (unsigned s = 0; s < groups.size(); ++s) {
    if (groups[s].empty()) continue;
    const U32 child = build(std::move(groups[s]));
    nodes_[node].child[s] = child;  // build() may have moved the node array
  }
  return node;
}

void IntfIdTrie::rebuild(const std::map<U8, Mox::Ptr<IntfIdDesc>>& descs) {
  layouts_.assign(layoutCount, Layout());
  nodes_.clear();
  nodes_.emplace_back();  // entry 0 means "no match", so no node may have index 0
  std::vector<Candidate> candidates;
  for (const auto& [typeId, desc] : descs) {
    if (!desc->initialized()) continue;
    // Parts are placed in index order, each in the first word with room for it, so the
    // placement depends on the descriptor alone.
    Layout base;
    unsigned lowerUsed = 0;
    unsigned upperUsed = 0;
    for (unsigned i = 0; i < desc->parts(); ++i) {
      const IntfIdPart& part = desc->part(i);
      MOX_ASSERT(part.size() >= 1 && part.size() <= upperPartBits);
      base.mask[i] = static_cast<U32>((U64(1) << part.size()) - 1);
      if (lowerUsed + part.size() <= lowerPartBits) {
        base.code[i] = static_cast<U8>(lowerUsed);
        lowerUsed += part.size();
      } else {
        MOX_ASSERT(upperUsed + part.size() <= upperPartBits);
        base.code[i] = static_cast<U8>(upperWord | upperUsed);
        upperUsed += part.size();
      }
      base.zeroAllowed[i] = part.zeroBased();
      base.separator[i] = part.separator();
    }
    base.hasDotPart = desc->parts() > 0 && desc->part(0).separator() == '.';
    base.minParts = desc->minPart();
    base.maxParts = desc->parts();
    base.owner = desc.get();
    for (U8 subType = SubIntfIdKey::min; subType <= SubIntfIdKey::max; ++subType) {
      if (desc->prefix(subType).empty()) continue;
      const U32 index = typeId * 4u + subType;
      Layout& layout = layouts_[index];
      layout = base;
      layout.prefix = desc->prefix(subType);
      layout.shortPrefix = desc->shortPrefixSubType(subType).stringValue();
      layout.hasShortPrefix = !layout.shortPrefix.empty();
      candidates.push_back({layout.prefix, index});
    }
  }
  root_ = build(std::move(candidates));
}

const IntfIdTrie::Layout* IntfIdTrie::lookup(std::string_view prefix) const noexcept {
  U32 entry = root_;
  while (entry != 0 && entry < leaf) {
    const Node& node = nodes_[entry];
    if (node.position > prefix.size()) return nullptr;
    entry =
        node.child[node.position == prefix.size() ? 256 : static_cast<U8>(prefix[node.position])];
  }
  return entry ? &layouts_[entry & ~leaf] : nullptr;
}

// --- manager ---

IntfIdMgr::IntfIdMgr(Mox::Name name) : Mox::Entity(std::move(name)) {}

IntfIdMgr::~IntfIdMgr() {
  for (auto& [typeId, desc] : descs_) desc->mgr_ = nullptr;
}

IntfIdMgr* IntfIdMgr::singleton() {
  // Never destroyed: identifiers may be printed by other objects' static destructors.
  static IntfIdMgr* const mgr = [] {
    auto* m = new IntfIdMgr("intfIdMgr");
    m->ref();
    return m;
  }();
  return mgr;
}

IntfIdMgr* IntfIdMgr::ensureInitialized() {
  IntfIdMgr* mgr = singleton();
  mgr->initializedIs(true);
  return mgr;
}

Mox::Ptr<IntfIdDesc> IntfIdMgr::intfIdDesc(U8 typeId) const {
  auto it = descs_.find(typeId);
  return it == descs_.end() ? nullptr : it->second;
}

Mox::Ptr<IntfIdDesc> IntfIdMgr::newIntfIdDesc(U8 typeId, Mox::String8 firstPrefix, U8 minPart) {
  auto desc = Mox::make<IntfIdDesc>(typeId, std::move(firstPrefix), minPart);
  intfIdDescIs(desc);
  return desc;
}

void IntfIdMgr::intfIdDescIs(const Mox::Ptr<IntfIdDesc>& desc) {
  Mox::Ptr<IntfIdDesc>& slot = descs_[desc->typeId()];
  if (slot && slot != desc) slot->mgr_ = nullptr;
  slot = desc;
  desc->mgr_ = this;
  handleIntfIdDesc(desc->typeId());
}

void IntfIdMgr::intfIdDescDel(U8 typeId) {
  auto it = descs_.find(typeId);
  if (it != descs_.end()) {
    it->second->mgr_ = nullptr;
    descs_.erase(it);
  }
  handleIntfIdDesc(typeId);
}

void IntfIdMgr::initializedIs(bool initialized) {
  if (!initialized || initialized_) return;
  handleInitialized();
  initialized_ = true;
}

void IntfIdMgr::handleInitialized() {
  MOX_ASSERT(!initialized());
  MOX_ASSERT_TEXT(!trie_, "!trie");
  trie_ = std::make_unique<IntfIdTrie>();
  trie_->rebuild(descs_);
  IntfIdDescPluginLoader::DefaultPluginLoader()->loadPlugins(this);
}

void IntfIdMgr::handleIntfIdDesc(U8 typeId) {
  MOX_ASSERT(!initialized() || testMode());
  const Mox::Ptr<IntfIdDesc> desc = intfIdDesc(typeId);
  const IntfIdTrie::Layout* registered = nullptr;
  for (unsigned subType = 0; trie_ && subType < 4 && !registered; ++subType) {
    registered = trie_->layout(typeId * 4u + subType);
  }
  if (desc) {
    if (registered && registered->owner != desc.get()) {
      std::cerr << "typeId " << unsigned(typeId) << " prefix " << desc->prefix(0)
                << " already in use with prefix " << registered->prefix << std::endl;
      MOX_ASSERT_TEXT(false, "0");
    }
    MOX_TRACE(trace, 2, "Registering " << desc->prefix(0) << " with typeId " << unsigned(typeId));
  } else {
    MOX_TRACE(trace, 2,
              "Removing " << (registered ? registered->prefix : "") << " with typeId "
                          << unsigned(typeId));
  }
  MOX_ASSERT(typeId <= intfIdDescMaxTypeId());
  if (trie_) trie_->rebuild(descs_);
}

U64 IntfIdMgr::stringToIntfId(std::string_view name) const {
  // The empty name is the null identifier, however few layouts the trie has to tell apart.
  if (name.empty()) return IntfId::nullValue;
  // Numbers from the end of the name: parts[0] is the last one. One more slot than a
  // layout has parts, for the sub-interface 0 that a name without ".n" gets.
  std::array<U64, IntfIdDesc::maxParts + 1> parts;
  unsigned count = 0;
  bool dot = false;
  bool separated = false;
  U64 number = 0;
  U64 scale = 1;
  bool digits = false;
  size_t i = name.size();
  for (; i > 0; --i) {
    const char c = name[i - 1];
    if (isDigit(c)) {
      // Past 15 digits only leading zeros keep the number small enough to be a part.
      if (scale <= 1'000'000'000'000'000ull) {
        number += U64(c - '0') * scale;
        scale *= 10;
      } else if (c != '0') {
        number = ~U64(0);
      }
      digits = true;
      continue;
    }
    if (c != '/' && c != '.') break;
    if (i == name.size() || i < 2 || !isDigit(name[i - 2])) invalid("Invalid IntfId <%s>", name);
    if (c == '.') {
      if (separated) invalid("Invalid IntfId <%s>", name);
      dot = true;
    }
    separated = true;
    if (count == 3) invalid("Invalid IntfId, too many parts <%s>", name);
    parts[count++] = number;
    number = 0;
    scale = 1;
    digits = false;
  }
  if (digits) parts[count++] = number;
  const std::string_view prefix = name.substr(0, i);

  const IntfIdTrie::Layout* layout = trie_ ? trie_->lookup(prefix) : nullptr;
  if (!layout) {
    if (name.empty()) return IntfId::nullValue;
    MOX_TRACE(trace, 3, "No Match " << name);
    invalid("Invalid IntfId <%s>", name);
  }
  if (dot && !layout->hasDotPart) invalid("Invalid IntfId <%s> - . not expected", name);
  if (dot && count == 1) invalid("Invalid IntfId, only 'dot' part not valid <%s>", name);
  if (!dot && layout->hasDotPart) {
    if (layout->minParts != 0 && count == 0) {
      invalid("Invalid IntfId, zero parts not valid <%s>", name);
    }
    std::copy_backward(parts.begin(), parts.begin() + count, parts.begin() + count + 1);
    parts[0] = 0;
    ++count;
  }
  if (prefix != layout->prefix) {
    MOX_TRACE(trace, 3, "No Match " << name);
    invalid("Invalid IntfId <%s>", name);
  }
  if (count < layout->minParts || count > layout->maxParts) {
    MOX_TRACE(trace, 3,
              "Matched " << prefix << " but too few/many parts. min:" << unsigned(layout->minParts)
                         << " max:" << unsigned(layout->maxParts));
    invalid("Invalid IntfId too few/many parts <%s>", name);
  }
  const U64 index = trie_->indexOf(layout);
  U64 value = (index / 4) << 25 | (index % 4) << 62;
  for (unsigned p = 0; p < count; ++p) {
    if (parts[p] > layout->mask[p]) invalid("Invalid IntfId, part too large <%s>", name);
    value |= layout->placed(static_cast<U32>(parts[p]), p);
    if (parts[p] == 0 && !layout->zeroAllowed[p] && !(p == 0 && layout->hasDotPart)) {
      invalid("Invalid IntfId, zero not valid <%s>", name);
    }
  }
  return value;
}

const IntfIdTrie::Layout& IntfIdMgr::layout(IntfId id) const {
  const IntfIdTrie::Layout* layout = trie_ ? trie_->layout(IntfIdTrie::layoutIndex(id)) : nullptr;
  if (!layout) {
    char message[64];
    std::snprintf(message, sizeof(message), "Invalid IntfId value 0x%016llx",
                  static_cast<unsigned long long>(id.value()));
    throw Mox::RangeException(message);
  }
  return *layout;
}

Mox::String8 IntfIdMgr::intfIdToString(IntfId id, bool longForm) const {
  if (!id) return {};
  const IntfIdTrie::Layout& layout = this->layout(id);
  const Mox::String8& prefix =
      longForm || !layout.hasShortPrefix ? layout.prefix : layout.shortPrefix;
  // Each part takes at most a separator and ten digits.
  constexpr size_t partsRoom = IntfIdDesc::maxParts * 11;
  char stackBuffer[64 + partsRoom];
  std::unique_ptr<char[]> heapBuffer;
  char* buffer = stackBuffer;
  if (prefix.size() > 64) {
    heapBuffer = std::make_unique<char[]>(prefix.size() + partsRoom);
    buffer = heapBuffer.get();
  }
  char* out = std::copy(prefix.begin(), prefix.end(), buffer);
  bool first = true;
  for (unsigned p = layout.maxParts; p-- > 0;) {
    const U32 value = layout.partValue(id.value(), p);
    if (value == 0 && !layout.zeroAllowed[p]) continue;
    if (!first) *out++ = layout.separator[p];
    first = false;
    out = std::to_chars(out, out + 10, value).ptr;
  }
  return Mox::String8(buffer, out);
}

// --- field access ---

namespace {

const IntfIdTrie::Layout& layoutFor(IntfId id) {
  return IntfIdMgr::singleton()->layout(id);
}

// For traces of identifiers that may have no layout.
std::string nameForTrace(IntfId id) {
  try {
    return id.stringValue();
  } catch (const Mox::RangeException& e) {
    return e.what();
  }
}

}  // namespace

U8 GenericIntfId::parts(IntfId id) {
  const IntfIdTrie::Layout& layout = layoutFor(id);
  U8 count = 0;
  for (unsigned p = 0; p < layout.maxParts; ++p) {
    if (!layout.zeroAllowed[p] && layout.partValue(id.value(), p) == 0) {
      if (layout.separator[p] == '.') continue;
      break;
    }
    ++count;
  }
  return count;
}

U32 GenericIntfId::part(IntfId id, IntfIdPartKey i) {
  return layoutFor(id).partValue(id.value(), i);
}

IntfId GenericIntfId::partIs(IntfId id, IntfIdPartKey i, U32 v) {
  const IntfIdTrie::Layout& layout = layoutFor(id);
  if (v > layout.mask[i]) {
    throw Mox::RangeException("IntfId part " + std::to_string(i) + " value " + std::to_string(v) +
                              " does not fit its width");
  }
  return IntfId((id.value() & ~layout.placed(layout.mask[i], i)) | layout.placed(v, i));
}

IntfId GenericIntfId::typeIdIs(IntfId id, U8 t) {
  MOX_TRACE(trace, 5, "Converting " << nameForTrace(id));
  const U32 lower = (id.lower() & 0x1FFFFFFu) | U32(t) << 25;
  const U32 upper = t & 0x40 ? 0xFFFFFFFFu : 0;
  const IntfId converted(U64(upper) << 32 | lower);
  MOX_TRACE(trace, 5, "Converted " << nameForTrace(converted));
  return converted;
}

// --- plugins ---

IntfIdDescPluginLoader* IntfIdDescPluginLoader::DefaultPluginLoader() {
  static IntfIdDescPluginLoader loader;
  return &loader;
}

void IntfIdDescPluginLoader::loadPlugins(IntfIdMgr* mgr) {
  // The runtime's loader logs and traces each failure itself; the names stay here for
  // callers that want to show what the manager was built from.
  Mox::PluginLoadReport report = Mox::loadPlugins(category, mgr);
  loaded_.insert(loaded_.end(), report.loaded.begin(), report.loaded.end());
  failures_.insert(failures_.end(), report.failures.begin(), report.failures.end());
}

}  // namespace Korva
