// korva intf: interface names in all their forms, and in natural order.
//
//   korva intf Et3/1 po10 Vlan100
//   Ethernet3/1 Et3/1 et3_1 0x0000000002000003 ...

#include "Command.h"

#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>

#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace KorvaTool {

namespace {

struct IntfOptions {
  std::vector<std::string> names;
  bool sort = false;
  bool json = false;
};

std::vector<std::string> inputNames(const IntfOptions& options) {
  if (!options.names.empty()) return options.names;
  std::vector<std::string> names;
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) names.push_back(line);
  }
  return names;
}

std::string hexValue(Korva::IntfId id) {
  char text[19];
  std::snprintf(text, sizeof(text), "0x%016" PRIx64, id.value());
  return text;
}

// One name's forms, or the reason it is not a name.
struct IntfForms {
  std::string input;
  Korva::IntfId id;
  std::string error;
};

IntfForms readName(const std::string& name) {
  IntfForms forms{name, {}, {}};
  try {
    forms.id = Korva::stringToVexIntf(name);
  } catch (const std::exception& e) {
    forms.error = e.what();
  }
  return forms;
}

int printForms(const std::vector<IntfForms>& all, bool json) {
  int status = 0;
  nlohmann::json out = nlohmann::json::array();
  for (const IntfForms& forms : all) {
    if (!forms.error.empty()) {
      status = 1;
      if (json) {
        out.push_back({{"input", forms.input}, {"error", forms.error}});
      } else {
        std::printf("error: %s\n", forms.error.c_str());
      }
      continue;
    }
    const std::string longName = forms.id.stringValue();
    const std::string shortName = forms.id.shortName();
    const std::string kernelName = Korva::vexIntfToKernelIntf(longName);
    if (json) {
      out.push_back({{"input", forms.input},
                     {"long", longName},
                     {"short", shortName},
                     {"kernel", kernelName},
                     {"value", hexValue(forms.id)}});
    } else {
      std::printf("%s %s %s %s\n", longName.c_str(), shortName.c_str(), kernelName.c_str(),
                  hexValue(forms.id).c_str());
    }
  }
  if (json) std::printf("%s\n", out.dump(2).c_str());
  return status;
}

int printSorted(const std::vector<IntfForms>& all, bool json) {
  int status = 0;
  std::vector<Korva::IntfId> ids;
  for (const IntfForms& forms : all) {
    if (forms.error.empty()) {
      ids.push_back(forms.id);
    } else {
      std::fprintf(stderr, "error: %s\n", forms.error.c_str());
      status = 1;
    }
  }
  Korva::sortByIntfName(ids);
  nlohmann::json out = nlohmann::json::array();
  for (Korva::IntfId id : ids) {
    if (json) {
      out.push_back(id.stringValue());
    } else {
      std::printf("%s\n", id.stringValue().c_str());
    }
  }
  if (json) std::printf("%s\n", out.dump(2).c_str());
  return status;
}

int runIntf(const IntfOptions& options) {
  Korva::IntfIdMgr::ensureInitialized();
  std::vector<IntfForms> all;
  for (const std::string& name : inputNames(options)) all.push_back(readName(name));
  return options.sort ? printSorted(all, options.json) : printForms(all, options.json);
}

void setupIntf(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<IntfOptions>();
  auto* intf = app.add_subcommand(
      "intf", "Show interface names in long, short and kernel form with their identifier");
  intf->add_option("names", options->names,
                   "Interface names in any form (default: one per line on standard input)");
  intf->add_flag("--sort", options->sort, "Print the long names in natural order");
  intf->add_flag("--json", options->json, "Machine-readable output");
  intf->callback([options, &exitStatus] { exitStatus = runIntf(*options); });
}

const bool registered = registerCommand(&setupIntf);

}  // namespace

}  // namespace KorvaTool
