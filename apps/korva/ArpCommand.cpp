// korva arp: the shared ARP table. `publish NETNS` fills it from a namespace's kernel
// neighbour table until interrupted; `show` and `watch` read it through an ARP shim in
// their own process, as an agent would.

#include "ArpTree.h"
#include "Command.h"
#include "ToolSupport.h"

#include <Arp/KernelNeighbors.h>
#include <Korva/IntfIdDesc.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace KorvaTool {

namespace {

struct ArpOptions {
  std::string table = Arp::Table::defaultTableName;
  std::string vrfTable = Vrf::VrfIdMap::defaultTableName;
  std::string netNs;
  std::string vrf;
  bool json = false;
};

Mox::Ptr<Arp::Table::Status> openTable(const ArpOptions& options) {
  const Mox::U32 capacity = tableCapacity(options.table + "-v4", Arp::Table::defaultCapacity);
  return Arp::Table::statusFactory(options.table, capacity);
}

Mox::Ptr<Vrf::VrfIdMap::Status> openVrfTable(const ArpOptions& options) {
  return Vrf::VrfIdMap::statusFactory(
      options.vrfTable, tableCapacity(options.vrfTable, Vrf::VrfIdMap::defaultCapacity));
}

int publish(const ArpOptions& options) {
  // The VRF id map's writer: kernel VRF devices get their ids here.
  auto vrfs = Vrf::VrfIdMap::writerFactory(openVrfTable(options), options.vrfTable);
  Arp::KernelNeighbors publisher(openTable(options), vrfs, Korva::NamespaceName(options.netNs));
  stopLoopOnSignals();  // also while the first dump comes
  if (!Mox::runUntil([&] { return publisher.synced(); }, 10.0)) {
    std::fprintf(stderr, "korva arp: no neighbour dump from the kernel\n");
    return 1;
  }
  std::printf("publishing %zu neighbours of %s\n", publisher.size(),
              options.netNs.empty() ? "this namespace" : options.netNs.c_str());
  std::fflush(stdout);
  runUntilSignal();
  return 0;
}

// A shim of the table in this process, with the tree it fills.
struct Mirror {
  explicit Mirror(const ArpOptions& options)
      : dir(Arp::arpVrfStatusDirFactory("korva")),
        shim(Arp::arpShimSmFactory(
            openTable(options), openVrfTable(options), options.vrf, true, true,
            Arp::neighborDirFactory(options.vrf.empty() ? "default" : options.vrf), dir)) {}
  Mox::Ptr<Arp::ArpVrfStatusDir> dir;
  Mox::Ptr<Arp::ArpShimSm> shim;
};

int show(const ArpOptions& options) {
  Mirror mirror(options);  // the shim's first walk is complete when it is made
  if (!options.json) {
    std::fputs(arpTreeText(*mirror.dir).c_str(), stdout);
    return 0;
  }
  // Every VRF and interface, as in the text, also those without entries.
  nlohmann::ordered_json tree = nlohmann::ordered_json::object();
  for (const auto& [vrf, vrfStatus] : mirror.dir->vrfStatusColl()) {
    tree[vrf] = nlohmann::ordered_json::object();
    for (const auto& [intf, status] : vrfStatus->arpIntfStatusColl()) {
      nlohmann::ordered_json& entries = tree[vrf][intf] = nlohmann::ordered_json::array();
      for (const ArpRow& row : arpRows(vrf, *status)) {
        entries.push_back({{"address", row.address},
                           {"ethAddr", row.ethAddr},
                           {"static", row.isStatic},
                           {"source", row.source}});
      }
    }
  }
  std::printf("%s\n", tree.dump(2).c_str());
  return 0;
}

int watch(const ArpOptions& options) {
  Mirror mirror(options);
  ArpTreeWatcher printer(mirror.dir.get(), [](const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  });
  runUntilSignal();
  return 0;
}

void setupArp(CLI::App& app, int& exitStatus) {
  static ArpOptions options;
  auto* arp = app.add_subcommand("arp", "The shared ARP and neighbour table");
  arp->add_option("--table", options.table, "ARP table name")->capture_default_str();
  arp->add_option("--vrf-table", options.vrfTable, "VRF id map table name")->capture_default_str();
  arp->require_subcommand(1);
  auto command = [&](const char* name, const char* help, int (*run)(const ArpOptions&)) {
    auto* sub = arp->add_subcommand(name, help);
    sub->callback([&exitStatus, run] {
      Korva::IntfIdMgr::ensureInitialized();  // entries name their interfaces
      exitStatus = guarded("arp", run, options);
    });
    return sub;
  };
  command("publish", "Publish a namespace's kernel neighbours until interrupted", publish)
      ->add_option("netns", options.netNs, "network namespace (\"\": this one)")
      ->required();
  auto* show = command("show", "Print the table per VRF and interface, as a shim mirrors it",
                       KorvaTool::show);
  show->add_option("--vrf", options.vrf, "only this VRF");
  show->add_flag("--json", options.json, "JSON output");
  command("watch", "Print each change of the mirrored table, until interrupted", KorvaTool::watch);
}

const bool registered = registerCommand(setupArp);

}  // namespace

}  // namespace KorvaTool
