// `korva demo` step: the shared ARP table fed by a real kernel. Two throwaway namespaces
// joined by the veth pair et1/et2; pings over IPv4 and IPv6 make the first namespace's
// kernel learn its neighbour; a publisher process (`korva arp publish`) fills the shared
// table from that kernel; a shim in another process (`korva arp show`) prints the VRF /
// interface / address tree it mirrored; a watching shim (`korva arp watch`) sees a static
// neighbour added with `ip neigh` appear and, once deleted, disappear. The processes, the
// tables and the namespaces are removed whatever happens.

#include "Command.h"
#include "DemoNs.h"
#include "DemoProcess.h"

#include <Arp/ArpTable.h>
#include <Cairn/Segment.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using KorvaTool::KorvaProcess;
using KorvaTool::ThrowawayNs;
using Lines = std::vector<std::string>;

// The shared tables of the step, removed when it ends.
struct DemoTables {
  const std::string arp = "korva-demo-arp-" + std::to_string(getpid());
  const std::string vrf = "korva-demo-arpvrf-" + std::to_string(getpid());
  ~DemoTables() {
    Arp::Table::Status::remove(arp);
    Cairn::removeTable(vrf);
    Cairn::NamedSegment::remove(vrf);
    std::printf("  removed tables %s-v4, %s-v6 and %s\n", arp.c_str(), arp.c_str(), vrf.c_str());
  }
  std::vector<std::string> command(std::vector<std::string> more) const {
    std::vector<std::string> all{"arp", "--table", arp, "--vrf-table", vrf};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
};

bool ping(const ThrowawayNs& from, const std::string& address) {
  const std::string line = "ip netns exec " + from.name() + " ping -c 1 -W 2 " + address;
  std::printf("  %s\n", line.c_str());
  return std::system((line + " >/dev/null 2>&1").c_str()) == 0;
}

bool anyContains(const Lines& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

// `korva arp show` in its own process: the tree its shim mirrored.
bool showTree(const DemoTables& tables) {
  KorvaProcess show(tables.command({"show"}), true);
  const Lines tree = show.readUntil("show", [](const Lines&) { return false; });
  return show.finish() == 0 && anyContains(tree, "10.99.0.2 ") && anyContains(tree, "fd99::2 ");
}

// A static neighbour comes and goes while `korva arp watch` looks on.
bool watchStaticNeighbor(const DemoTables& tables, const ThrowawayNs& ns) {
  KorvaProcess watch(tables.command({"watch"}), true);
  const std::string added = "+ default Ethernet1 10.99.0.77 02:00:00:00:00:77 static cli";
  const std::string removed = "- default Ethernet1 10.99.0.77";
  auto saw = [](const std::string& text) {
    return [text](const Lines& lines) { return anyContains(lines, text); };
  };
  watch.readUntil("watch", saw("fd99::2 "));  // its first walk
  bool ok = ns.ip("neigh add 10.99.0.77 lladdr 02:00:00:00:00:77 dev et1 nud permanent");
  std::printf("  ip -n %s neigh add 10.99.0.77 lladdr 02:00:00:00:00:77 dev et1 nud permanent\n",
              ns.name().c_str());
  ok = ok && anyContains(watch.readUntil("watch", saw(added)), added);
  ok = ok && ns.ip("neigh del 10.99.0.77 dev et1");
  std::printf("  ip -n %s neigh del 10.99.0.77 dev et1\n", ns.name().c_str());
  ok = ok && anyContains(watch.readUntil("watch", saw(removed)), removed);
  return watch.interrupt() == 0 && ok;
}

int runArpDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const ThrowawayNs first("arp-a");
  const ThrowawayNs second("arp-b");
  if (!KorvaTool::joinByVeth(first, second, "et1", "et2")) return 1;
  std::printf("  namespaces %s (et1: 10.99.0.1, fd99::1) and %s (et2: 10.99.0.2, fd99::2)\n",
              first.name().c_str(), second.name().c_str());
  if (!ping(first, "10.99.0.2") || !ping(first, "fd99::2")) {
    std::printf("  no answer to ping\n");
    return 1;
  }
  const DemoTables tables;
  KorvaProcess publisher(tables.command({"publish", first.name()}), true);
  const Lines started = publisher.readLines(1, "publisher");
  bool ok = anyContains(started, "publishing");
  ok = ok && showTree(tables) && watchStaticNeighbor(tables, first);
  ok = publisher.interrupt() == 0 && ok;
  std::printf("  %s\n", ok ? "the shims mirrored the kernel's neighbours, IPv4 and IPv6"
                           : "unexpected output");
  std::printf("  removing %s and %s\n", first.name().c_str(), second.name().c_str());
  return ok ? 0 : 1;
}

const bool registered = KorvaTool::registerDemoStep(
    {50, "ARP table: kernel neighbours published, mirrored by shims in other processes",
     runArpDemo});

}  // namespace
