// korva addr: reads address texts and prints each one's canonical form, or why it is not
// one. Built for bulk use: standard input is read line by line into one reused buffer and
// output goes through one large stdio buffer, so a million lines take a second or two.

#include "Command.h"

#include <Korva/EthAddr.h>
#include <Korva/IpAddr.h>
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
constexpr AddrType kEthAddr{"ethaddr", parseAs<Korva::EthAddr>};
constexpr AddrType kEui64{"eui64", parseAs<Korva::Eui64>};
constexpr AddrType kMplsLabel{"mplslabel", parseAs<Korva::MplsLabel>};

constexpr std::array kForcibleTypes{kIpAddr, kPrefix, kEthAddr, kEui64, kMplsLabel};

// The types to try for a text, most likely first judging by its shape: no text is accepted
// by two of them, so the order only decides whose complaint is reported when none accepts.
std::span<const AddrType* const> candidatesFor(std::string_view text) {
  static constexpr const AddrType* ip4Prefixes[] = {&kPrefix, &kIpAddrWithMask};
  static constexpr const AddrType* macs[] = {&kEthAddr, &kIpAddr};
  static constexpr const AddrType* ip4Addrs[] = {&kIpAddr, &kEthAddr};
  const auto count = [text](char c) { return std::count(text.begin(), text.end(), c); };
  if (count('/')) return ip4Prefixes;
  // A MAC address has five colons or dashes, or three dot-separated groups; an IPv4
  // address has three dots.
  if (count(':') || count('-') || count('.') == 2) return macs;
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
