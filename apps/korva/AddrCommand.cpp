// korva addr: reads address texts and prints each one's canonical form, or why it is not
// one. Built for bulk use: standard input is read line by line into one reused buffer and
// output goes through one large stdio buffer, so a million lines take a second or two.

#include "Command.h"

#include <Korva/EthAddr.h>
#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenAddr.h>
#include <Korva/IpGenPrefix.h>
#include <Korva/Mpls.h>
#include <Mox/Exception.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KorvaTool {

namespace {

// What one input turned out to be; reused from line to line to spare allocations.
struct Outcome {
  const char* type = nullptr;
  const char* family = nullptr;
  std::string text;
  Mox::U32 hash = 0;
  std::array<const char*, 16> predicates{};
  size_t predicateCount = 0;
  std::string error;

  void predicate(const char* name, bool holds) {
    if (holds && predicateCount < predicates.size()) predicates[predicateCount++] = name;
  }
};

void describe(const Korva::IpAddr& value, Outcome& out) {
  out.type = "ipaddr";
  out.family = "ipv4";
  out.predicate("isMulticast", value.isMulticast());
  out.predicate("isUnicast", value.isUnicast());
  out.predicate("isReservedMulticast", value.isReservedMulticast());
  out.predicate("isLoopback", value.isLoopback());
  out.predicate("isLoopbackBase", value.isLoopbackBase());
  out.predicate("isReserved", value.isReserved());
  out.predicate("isPrivate", value.isPrivate());
  out.predicate("isLinkLocal", value.isLinkLocal());
  out.predicate("isPimRouters", value.isPimRouters());
  out.predicate("isThisNetwork", value.isThisNetwork());
}

void describe(const Korva::Prefix& value, Outcome& out) {
  out.type = "prefix";
  out.family = "ipv4";
  out.predicate("isHost", value.isHost());
  out.predicate("isUnicast", value.isUnicast());
}

void describe(const Korva::IpAddrWithMask&, Outcome& out) {
  out.type = "ipaddrwithmask";
  out.family = "ipv4";
}

void describe(const Korva::Ip6Addr& value, Outcome& out) {
  out.type = "ip6addr";
  out.family = "ipv6";
  out.predicate("isMulticast", value.isMulticast());
  out.predicate("isUnicast", value.isUnicast());
  out.predicate("isUnspecified", value.isUnspecified());
  out.predicate("isLoopback", value.isLoopback());
  out.predicate("isLinkLocalUnicast", value.isLinkLocalUnicast());
  out.predicate("isLinkLocal", value.isLinkLocal());
  out.predicate("isGlobalUnicast", value.isGlobalUnicast());
  out.predicate("isSiteLocal", value.isSiteLocal());
  out.predicate("isUniqueLocal", value.isUniqueLocal());
  out.predicate("isPimRouters", value.isPimRouters());
}

void describe(const Korva::Ip6Prefix& value, Outcome& out) {
  out.type = "ip6prefix";
  out.family = "ipv6";
  out.predicate("isDefaultRoutePrefix", value.isDefaultRoutePrefix());
  out.predicate("isHostRoutePrefix", value.isHostRoutePrefix());
}

void describe(const Korva::Ip6AddrWithMask&, Outcome& out) {
  out.type = "ip6addrwithmask";
  out.family = "ipv6";
}

const char* familyName(Korva::AddressFamily af) {
  switch (af) {
    case Korva::AddressFamily::ipv4:
      return "ipv4";
    case Korva::AddressFamily::ipv6:
      return "ipv6";
    case Korva::AddressFamily::ipunknown:
      break;
  }
  return "ipunknown";
}

void describe(const Korva::IpGenAddr& value, Outcome& out) {
  out.type = "ipgenaddr";
  out.family = familyName(value.af());
  out.predicate("isMulticast", value.isMulticast());
  out.predicate("isUnicast", value.isUnicast());
  out.predicate("isUnspecified", value.isUnspecified());
  out.predicate("isLoopback", value.isLoopback());
  out.predicate("isLoopbackBase", value.isLoopbackBase());
  out.predicate("isLinkLocal", value.isLinkLocal());
  out.predicate("isLinkLocalUnicast", value.isLinkLocalUnicast());
  out.predicate("isPimRouters", value.isPimRouters());
  out.predicate("isReserved", value.isReserved());
}

void describe(const Korva::IpGenPrefix& value, Outcome& out) {
  out.type = "ipgenprefix";
  out.family = familyName(value.af());
  out.predicate("isHost", value.isHost());
  out.predicate("isDefaultRoutePrefix", value.isDefaultRoutePrefix());
  out.predicate("isMulticast", value.isMulticast());
  out.predicate("isLoopback", value.isLoopback());
  out.predicate("isLinkLocal", value.isLinkLocal());
  out.predicate("isUnspecified", value.isUnspecified());
  out.predicate("isReserved", value.isReserved());
}

void describe(const Korva::EthAddr& value, Outcome& out) {
  out.type = "ethaddr";
  out.family = "ethernet";
  out.predicate("isBroadcast", value.isBroadcast());
  out.predicate("isUnicast", value.isUnicast());
  out.predicate("isMulticast", value.isMulticast());
  out.predicate("isIp6Multicast", value.isIp6Multicast());
}

void describe(const Korva::Eui64&, Outcome& out) {
  out.type = "eui64";
  out.family = "eui64";
}

void describe(const Korva::MplsLabel& value, Outcome& out) {
  out.type = "mplslabel";
  out.family = "mpls";
  out.predicate("isExplicitNull", value.isExplicitNull());
  out.predicate("isImplicitNull", value.isImplicitNull());
  out.predicate("isRouterAlert", value.isRouterAlert());
}

// Parses `input` as a T; on failure keeps the exception's text in `out.error`.
template <class T>
bool parseAs(std::string_view input, Outcome& out) {
  T value;
  try {
    value.stringValueIs(input);
  } catch (const Mox::Exception& e) {
    out.error = e.what();
    return false;
  }
  out.text = value.stringValue();
  out.hash = value.hash();
  out.predicateCount = 0;
  describe(value, out);
  return true;
}

struct AddrType {
  std::string_view name;
  bool (*parse)(std::string_view input, Outcome& out);
};

constexpr AddrType kIpAddr{"ipaddr", parseAs<Korva::IpAddr>};
constexpr AddrType kPrefix{"prefix", parseAs<Korva::Prefix>};
constexpr AddrType kIpAddrWithMask{"ipaddrwithmask", parseAs<Korva::IpAddrWithMask>};
constexpr AddrType kIp6Addr{"ip6addr", parseAs<Korva::Ip6Addr>};
constexpr AddrType kIp6Prefix{"ip6prefix", parseAs<Korva::Ip6Prefix>};
constexpr AddrType kIp6AddrWithMask{"ip6addrwithmask", parseAs<Korva::Ip6AddrWithMask>};
constexpr AddrType kIpGenAddr{"ipgenaddr", parseAs<Korva::IpGenAddr>};
constexpr AddrType kIpGenPrefix{"ipgenprefix", parseAs<Korva::IpGenPrefix>};
constexpr AddrType kEthAddr{"ethaddr", parseAs<Korva::EthAddr>};
constexpr AddrType kEui64{"eui64", parseAs<Korva::Eui64>};
constexpr AddrType kMplsLabel{"mplslabel", parseAs<Korva::MplsLabel>};

constexpr std::array kForcibleTypes{kIpAddr,      kIp6Addr, kPrefix, kIp6Prefix, kIpGenAddr,
                                    kIpGenPrefix, kEthAddr, kEui64,  kMplsLabel};

// The types to try for a text, most likely first judging by its shape: no text is accepted
// by two of them, so the order only decides whose complaint is reported when none accepts.
std::span<const AddrType* const> candidatesFor(std::string_view text) {
  static constexpr const AddrType* ip6Prefixes[] = {&kIp6Prefix, &kIp6AddrWithMask};
  static constexpr const AddrType* ip4Prefixes[] = {&kPrefix, &kIpAddrWithMask};
  static constexpr const AddrType* ip6Addrs[] = {&kIp6Addr, &kEthAddr};
  static constexpr const AddrType* macs[] = {&kEthAddr, &kIp6Addr, &kIpAddr};
  static constexpr const AddrType* ip4Addrs[] = {&kIpAddr, &kEthAddr};
  const auto count = [text](char c) { return std::count(text.begin(), text.end(), c); };
  const bool colons = count(':') > 0;
  if (count('/')) return colons ? ip6Prefixes : ip4Prefixes;
  // A MAC address has five colons (never "::") or dashes, or three dot-separated groups;
  // an IPv6 address has other colon counts, an IPv4 address three dots.
  const bool macColons = count(':') == 5 && text.find("::") == std::string_view::npos;
  if (colons && !macColons) return ip6Addrs;
  if (colons || count('-') || count('.') == 2) return macs;
  return ip4Addrs;
}

class AddrPrinter {
  using Json = nlohmann::ordered_json;

 public:
  AddrPrinter(const AddrType* forced, bool json) : forced_(forced), json_(json) {
    std::setvbuf(stdout, nullptr, _IOFBF, 1 << 20);
  }

  // Prints one line for `input`; false when it did not parse.
  bool print(std::string_view input) {
    bool parsed = forced_ ? forced_->parse(input, outcome_) : parseAny(input);
    json_ ? printJson(input, parsed) : printText(parsed);
    return parsed;
  }

 private:
  bool parseAny(std::string_view input) {
    std::string firstError;
    for (const AddrType* type : candidatesFor(input)) {
      if (type->parse(input, outcome_)) return true;
      if (firstError.empty()) firstError = outcome_.error;
    }
    outcome_.error = firstError;
    return false;
  }

  void printText(bool parsed) {
    if (!parsed) std::fputs("error: ", stdout);
    const std::string& line = parsed ? outcome_.text : outcome_.error;
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::putchar('\n');
  }

  // The two object shapes are built once; each line only refills their values, so the
  // strings keep their capacity from line to line.
  void printJson(std::string_view input, bool parsed) {
    Json& object = parsed ? parsedJson_ : failedJson_;
    object["input"].get_ref<std::string&>().assign(input);
    if (parsed) {
      object["type"].get_ref<std::string&>() = outcome_.type;
      object["text"].get_ref<std::string&>() = outcome_.text;
      object["family"].get_ref<std::string&>() = outcome_.family;
      object["hash"] = outcome_.hash;
      Json& predicates = object["predicates"];
      predicates.clear();
      for (size_t i = 0; i < outcome_.predicateCount; ++i) {
        predicates.push_back(outcome_.predicates[i]);
      }
    } else {
      object["error"].get_ref<std::string&>() = outcome_.error;
    }
    line_.clear();
    serializer_.dump(object, false, false, 0);
    line_ += '\n';
    std::fwrite(line_.data(), 1, line_.size(), stdout);
  }

  const AddrType* forced_;
  bool json_;
  Outcome outcome_;
  Json parsedJson_ = {{"input", ""},  {"type", ""}, {"text", ""},
                      {"family", ""}, {"hash", 0},  {"predicates", Json::array()}};
  Json failedJson_ = {{"input", ""}, {"error", ""}};
  std::string line_;
  // Writes into line_; replaces bytes that are not UTF-8 rather than throwing, so every
  // input gets its line.
  nlohmann::detail::serializer<Json> serializer_{nlohmann::detail::output_adapter<char>(line_), ' ',
                                                 Json::error_handler_t::replace};
};

int runAddr(const std::vector<std::string>& texts, const std::string& typeName, bool json) {
  const AddrType* forced = nullptr;
  if (!typeName.empty()) {
    forced = &*std::find_if(kForcibleTypes.begin(), kForcibleTypes.end(),
                            [&](const AddrType& type) { return type.name == typeName; });
  }
  AddrPrinter printer(forced, json);
  bool allParsed = true;
  if (!texts.empty()) {
    for (const std::string& text : texts) allParsed &= printer.print(text);
  } else {
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = getline(&line, &capacity, stdin)) >= 0) {
      std::string_view text(line, size_t(length));
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
      allParsed &= printer.print(text);
    }
    std::free(line);
  }
  std::fflush(stdout);
  return allParsed ? 0 : 1;
}

void setupAddr(CLI::App& app, int& exitStatus) {
  auto* addr = app.add_subcommand(
      "addr", "Print the canonical text of addresses given as arguments or one per input line");
  static std::vector<std::string> texts;
  static std::string typeName;
  static bool json = false;
  std::vector<std::string> typeNames;
  for (const AddrType& type : kForcibleTypes) typeNames.emplace_back(type.name);
  addr->add_option("texts", texts, "texts to read (standard input when none)");
  addr->add_option("--type", typeName, "read every text as this type")
      ->check(CLI::IsMember(typeNames));
  addr->add_flag("--json", json, "one JSON object per input: type, text, family, hash, predicates");
  addr->callback([&exitStatus] { exitStatus = runAddr(texts, typeName, json); });
}

const bool registered = registerCommand(setupAddr);

}  // namespace

}  // namespace KorvaTool
