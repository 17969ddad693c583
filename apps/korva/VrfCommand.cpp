// korva vrf: the VRF id map in shared memory (add, del, list, watch, reset). A command that
// writes is the table's only writer for as long as it runs.

#include "Command.h"
#include "ToolSupport.h"

#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Vrf/VrfIdMap.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace KorvaTool {

namespace {

using namespace Vrf::VrfIdMap;

struct VrfOptions {
  std::string table = defaultTableName;
  std::vector<std::string> names;
  bool json = false;
};

Mox::U32 capacityOf(const std::string& table) {
  return tableCapacity(table, defaultCapacity);
}

Mox::Ptr<Writer> openWriter(const std::string& table) {
  // The counter segment shares the table's name (segments and tables are named apart).
  return writerFactory(statusFactory(table, capacityOf(table)), table);
}

int add(const VrfOptions& options) {
  auto writer = openWriter(options.table);
  for (const std::string& name : options.names) {
    const VrfId id = writer->vrfIs(name);
    std::printf("%s %s\n", id.stringValue().c_str(), name.c_str());
    if (id == VrfId::null()) return 1;
  }
  return 0;
}

int del(const VrfOptions& options) {
  auto writer = openWriter(options.table);
  for (const std::string& name : options.names) writer->vrfDel(name);
  return 0;
}

int reset(const VrfOptions& options) {
  openWriter(options.table)->reset();
  return 0;
}

int list(const VrfOptions& options) {
  Cairn::Reader<VrfId, VrfEntry> reader(options.table, capacityOf(options.table));
  std::map<VrfId, std::string> entries;
  reader.forEach([&](const VrfId& id, const VrfEntry& entry) { entries[id] = entry.vrfName(); });
  if (options.json) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [id, name] : entries) list.push_back({{"id", id.value()}, {"name", name}});
    std::printf("%s\n", list.dump(2).c_str());
    return 0;
  }
  for (const auto& [id, name] : entries) std::printf("%u %s\n", id.value(), name.c_str());
  return 0;
}

class Printer : public Status::Watcher::Notifiee {
 public:
  void onEntry(const VrfId& id, const VrfEntry* entry) override {
    if (entry) {
      std::printf("+ %u %s\n", id.value(), entry->vrfName().c_str());
    } else {
      std::printf("- %u\n", id.value());
    }
    std::fflush(stdout);
  }
};

int watch(const VrfOptions& options) {
  auto status = statusFactory(options.table, capacityOf(options.table));
  Printer printer;
  printer.notifierIs(status->vrfIdToNameWatcher());
  runUntilSignal();
  return 0;
}

void setupVrf(CLI::App& app, int& exitStatus) {
  static VrfOptions options;
  auto* vrf = app.add_subcommand("vrf", "The VRF id map in shared memory");
  vrf->add_option("--table", options.table, "table name")->capture_default_str();
  vrf->require_subcommand(1);
  auto command = [&](const char* name, const char* help, int (*run)(const VrfOptions&)) {
    auto* sub = vrf->add_subcommand(name, help);
    sub->callback([&exitStatus, run] { exitStatus = guarded("vrf", run, options); });
    return sub;
  };
  command("add", "Give each VRF an id (printed) and publish it", add)
      ->add_option("vrf", options.names, "VRF names")
      ->required();
  command("del", "Remove VRFs", del)->add_option("vrf", options.names, "VRF names")->required();
  command("list", "List ids and names", list)->add_flag("--json", options.json, "JSON output");
  command("watch", "Print each change as it is notified, until interrupted", watch);
  command("reset", "Forget every VRF and start a new id counter", reset);
}

const bool registered = registerCommand(setupVrf);

}  // namespace

}  // namespace KorvaTool
