// korva addr: reads address texts and prints each one's canonical form, or why it is not
// one. Built for bulk use: standard input is read line by line into one reused buffer and
// output goes through one large stdio buffer, so a million lines take a second or two.

#include "Command.h"

#include <Korva/EthAddr.h>
#include <Korva/Mpls.h>
#include <Mox/Exception.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
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

constexpr AddrType kEthAddr{"ethaddr", parseAs<Korva::EthAddr>};
constexpr AddrType kEui64{"eui64", parseAs<Korva::Eui64>};
constexpr AddrType kMplsLabel{"mplslabel", parseAs<Korva::MplsLabel>};

constexpr std::array kForcibleTypes{kEthAddr, kEui64, kMplsLabel};

// The types to try for a text, most likely first judging by its shape; when none accepts
// the text, the first one's complaint is the one reported.
std::vector<const AddrType*> candidatesFor(std::string_view) {
  return {&kEthAddr};
}

class AddrPrinter {
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

  void printJson(std::string_view input, bool parsed) {
    nlohmann::ordered_json object;
    object["input"] = input;
    if (parsed) {
      object["type"] = outcome_.type;
      object["text"] = outcome_.text;
      object["family"] = outcome_.family;
      object["hash"] = outcome_.hash;
      auto& predicates = object["predicates"] = nlohmann::ordered_json::array();
      for (size_t i = 0; i < outcome_.predicateCount; ++i) {
        predicates.push_back(outcome_.predicates[i]);
      }
    } else {
      object["error"] = outcome_.error;
    }
    // Replace rather than throw on bytes that are not UTF-8: every input gets its line.
    const std::string line = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::putchar('\n');
  }

  const AddrType* forced_;
  bool json_;
  Outcome outcome_;
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
