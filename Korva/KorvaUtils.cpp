#include <Korva/KorvaUtils.h>

#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace Korva {

namespace {

Mox::TraceHandle trace("KorvaUtils");

// How a converter row builds its result from the given name.
enum class Tail {
  dropMatch,     // output word + the name less `drop` leading characters
  wholeLowered,  // the whole lower-cased name
  afterDash,     // output word + the name after its first "-"
};

struct ConversionRow {
  const char* match;  // lower-case word the name must begin with
  const char* output;
  size_t drop;
  Tail tail;
};

constexpr ConversionRow longToKernel[] = {
    {"ethernet", "et", 8, Tail::dropMatch},       {"vlan", "", 0, Tail::wholeLowered},
    {"vxlan", "", 0, Tail::wholeLowered},         {"loopback", "lo", 8, Tail::dropMatch},
    {"internal", "internal", 8, Tail::dropMatch}, {"fabric", "fabric", 6, Tail::dropMatch},
    {"management", "ma", 10, Tail::dropMatch},    {"port-channel", "po", 12, Tail::dropMatch},
    {"test", "tap-", 4, Tail::dropMatch},         {"tunnel", "tun", 6, Tail::dropMatch},
};

constexpr ConversionRow kernelToLong[] = {
    {"et", "Ethernet", 2, Tail::dropMatch},       {"vlan", "Vlan", 4, Tail::dropMatch},
    {"vxlan", "Vxlan", 5, Tail::dropMatch},       {"lo", "Loopback", 2, Tail::dropMatch},
    {"internal", "Internal", 8, Tail::dropMatch}, {"fabric", "Fabric", 6, Tail::dropMatch},
    {"ma", "Management", 2, Tail::dropMatch},     {"po", "Port-Channel", 2, Tail::dropMatch},
    {"tap", "Test", 0, Tail::afterDash},          {"tun", "Tunnel", 3, Tail::dropMatch},
};

constexpr ConversionRow shortToLong[] = {
    {"et", "Ethernet", 2, Tail::dropMatch},       {"vl", "Vlan", 2, Tail::dropMatch},
    {"vx", "Vxlan", 2, Tail::dropMatch},          {"lo", "Loopback", 2, Tail::dropMatch},
    {"internal", "Internal", 8, Tail::dropMatch}, {"fabric", "Fabric", 6, Tail::dropMatch},
    {"ma", "Management", 2, Tail::dropMatch},     {"po", "Port-Channel", 2, Tail::dropMatch},
    {"tap", "Test", 0, Tail::afterDash},          {"tun", "Tunnel", 3, Tail::dropMatch},
};

std::string lowered(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// The first row whose word begins the lower-cased name decides; only the type word is
// matched without regard to case, the tail keeps the name's own letters.
template <size_t N>
std::string convert(std::string_view name, const ConversionRow (&table)[N], const char* failure) {
  const std::string lower = lowered(name);
  for (const ConversionRow& row : table) {
    if (!std::string_view(lower).starts_with(row.match)) continue;
    switch (row.tail) {
      case Tail::dropMatch:
        return row.output + std::string(name.substr(row.drop));
      case Tail::wholeLowered:
        return lower;
      case Tail::afterDash: {
        // Without a "-" the whole name follows the word: the search's not-found position
        // plus one wraps round to the start.
        const size_t dash = name.find('-');
        return row.output + std::string(name.substr(dash == std::string_view::npos ? 0 : dash + 1));
      }
    }
  }
  throw Mox::RangeException(failure);
}

std::string replaced(std::string text, char from, char to) {
  std::replace(text.begin(), text.end(), from, to);
  return text;
}

// The order pattern, compiled once per process (with JIT where the platform has it) and
// kept for the life of the process.
struct NamePattern {
  pcre2_code* code = nullptr;
};

constexpr const char* namePatternText =
    "([^0-9\\/]+)(?:(\\d+)\\/?)?(?:(\\d+)\\/?)?(?:(\\d+))?(?:\\.(\\d+))?$";
constexpr int capturePairs = 10;

// The order's invariants name the function as its callers know it, whatever the compiler
// spells for the aliases in its signature.
void orderAssert(bool condition, const char* text) {
  if (!condition) {
    Mox::assertionFailed(text, __FILE__,
                         "S32 Korva::compareIntfName(Korva::IntfId, Korva::IntfId)");
  }
}

NamePattern compileNamePattern() {
  NamePattern pattern;
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  pattern.code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(namePatternText), PCRE2_ZERO_TERMINATED,
                               PCRE2_EXTENDED, &errorCode, &errorOffset, nullptr);
  if (!pattern.code) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(errorCode, message, sizeof(message));
    MOX_TRACE(trace, 1,
              "pcre_compile failed ( offset: " << errorOffset << " ), "
                                               << reinterpret_cast<char*>(message));
    orderAssert(false, "false");
  }
  pcre2_jit_compile(pattern.code, PCRE2_JIT_COMPLETE);  // falls back to the interpreter
  return pattern;
}

const NamePattern& namePattern() {
  static const NamePattern pattern = compileNamePattern();
  return pattern;
}

// One match-data block for each side of a comparison, per thread: the pattern is the only
// state threads share, so comparisons on several threads do not overwrite each other.
struct MatchData {
  pcre2_match_data* a = pcre2_match_data_create(capturePairs, nullptr);
  pcre2_match_data* b = pcre2_match_data_create(capturePairs, nullptr);
  ~MatchData() {
    pcre2_match_data_free(a);
    pcre2_match_data_free(b);
  }
};

MatchData& matchData() {
  thread_local MatchData data;
  return data;
}

// Group `i` of the last match, as the caller's own copy; a group that took no part in the
// match is empty.
class Group {
 public:
  Group(pcre2_match_data* matchData, int i) {
    if (pcre2_substring_get_bynumber(matchData, i, &text_, &length_) != 0) text_ = nullptr;
  }
  ~Group() {
    if (text_) pcre2_substring_free(text_);
  }
  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;

  const char* c_str() const { return text_ ? reinterpret_cast<const char*>(text_) : ""; }
  long number() const { return std::strtol(c_str(), nullptr, 10); }

 private:
  PCRE2_UCHAR* text_ = nullptr;
  PCRE2_SIZE length_ = 0;
};

int sign(long difference) {
  return (difference > 0) - (difference < 0);
}

}  // namespace

Mox::String8 vexIntfToKernelIntf(std::string_view name) {
  return replaced(convert(name, longToKernel, "Unable to convert VEX if name to kernel if name"),
                  '/', '_');
}

Mox::String8 kernelIntfToVexIntf(std::string_view name) {
  return replaced(convert(name, kernelToLong, "Unable to convert kernel if name to VEX if name"),
                  '_', '/');
}

Mox::String8 shortIntfToVexIntf(std::string_view name) {
  return convert(name, shortToLong, "Unable to convert short if name to VEX if name");
}

IntfId stringToVexIntf(std::string_view name) {
  try {
    return IntfId(name);
  } catch (const Mox::RangeException&) {
  }
  try {
    return IntfId(kernelIntfToVexIntf(name));
  } catch (const Mox::RangeException&) {
  }
  return IntfId(shortIntfToVexIntf(name));
}

int intfNameKey(IntfId id, const pcre2_code* pattern, pcre2_match_data* matchData) {
  const Mox::String8 name = id.stringValue();
  return pcre2_match(pattern, reinterpret_cast<PCRE2_SPTR>(name.data()), name.size(), 0,
                     PCRE2_COPY_MATCHED_SUBJECT, matchData, nullptr);
}

S32 compareIntfName(IntfId a, IntfId b) {
  const NamePattern& pattern = namePattern();
  MatchData& match = matchData();
  const int aret = intfNameKey(a, pattern.code, match.a);
  orderAssert(aret > 1, "aret > 1");
  const int bret = intfNameKey(b, pattern.code, match.b);
  orderAssert(bret > 1, "bret > 1");
  const int n = std::min(aret, bret);
  for (int i = 1; i < n; ++i) {
    const Group aPart(match.a, i);
    const Group bPart(match.b, i);
    MOX_TRACE(trace, 1, "a substr=" << aPart.c_str() << ", b substr=" << bPart.c_str());
    int cmp;
    if (i == 1) {
      cmp = std::strcmp(aPart.c_str(), bPart.c_str());
    } else {
      const long aNum = aPart.number();
      const long bNum = bPart.number();
      MOX_TRACE(trace, 1, "   apart=" << aNum << ", bpart=" << bNum);
      cmp = sign(aNum - bNum);
    }
    if (cmp != 0) {
      MOX_TRACE(trace, 1, "   cmp=" << cmp);
      return cmp;
    }
  }
  return aret > bret ? 1 : aret < bret ? -1 : 0;
}

IntfNameSortKey::IntfNameSortKey(IntfId id) : id_(id) {
  pcre2_match_data* match = matchData().a;
  groups_ = intfNameKey(id, namePattern().code, match);
  orderAssert(groups_ > 1, "aret > 1");
  word_ = Group(match, 1).c_str();
  for (int i = 2; i < groups_; ++i) numbers_[i - 2] = Group(match, i).number();
}

int IntfNameSortKey::compare(const IntfNameSortKey& other) const noexcept {
  if (const int cmp = word_.compare(other.word_)) return cmp;
  const int n = std::min(groups_, other.groups_);
  for (int i = 2; i < n; ++i) {
    if (const int cmp = sign(numbers_[i - 2] - other.numbers_[i - 2])) return cmp;
  }
  return sign(groups_ - other.groups_);
}

void sortByIntfName(std::vector<IntfId>& ids) {
  std::vector<IntfNameSortKey> keys;
  keys.reserve(ids.size());
  for (IntfId id : ids) keys.emplace_back(id);
  std::sort(keys.begin(), keys.end());
  for (size_t i = 0; i < keys.size(); ++i) ids[i] = keys[i].intfId();
}

}  // namespace Korva
