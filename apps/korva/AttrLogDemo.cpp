// `korva demo` step: model state streamed between processes. This process publishes an
// Arp::ArpInputConfig (static ARP entries by VRF, each VRF a child entity) on the attribute
// log; a second process (`korva mount --watch`) mounts it, prints the tree, then each change
// the publisher makes: a VRF appearing, its entry set and changed, the VRF disappearing.

#include "Command.h"
#include "DemoProcess.h"

#include <Arp/ArpTypes.mox.h>
#include <Korva/EthAddr.h>
#include <Korva/IpAddr.h>
#include <Mox/Activity.h>
#include <Mox/AttrLogPublisher.h>

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

Arp::ArpEntryInput staticEntry(const char* ethAddr) {
  return Arp::ArpEntryInput(Korva::IpAddr("10.0.0.1"), Korva::EthAddr(ethAddr), false,
                            Arp::ArpSource(Arp::ArpSource::ArpSourceId::cli));
}

int runAttrLogDemo() {
  const std::string endpoint = "@korva-demo-arp-input-" + std::to_string(getpid());
  auto config = Arp::arpInputConfigFactory("agent");
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint, config);
  std::printf("  publisher: Arp::ArpInputConfig 'agent' at %s\n", endpoint.c_str());
  KorvaTool::KorvaProcess mount({"mount", endpoint, "--watch", "--changes", "4"}, true);
  if (!mount.started()) return 1;
  const double patience = KorvaTool::KorvaProcess::patience;
  bool ok = Mox::runUntil([&] { return publisher->mountCount() == 1; }, patience);
  const std::vector<std::pair<const char*, std::function<void()>>> changes{
      {"newVrf('blue')", [&] { config->newVrf("blue"); }},
      {"vrf('blue')->ipv4Is(10.0.0.1 at 02:00:00:00:00:01)",
       [&] { config->vrf("blue")->ipv4Is(staticEntry("02:00:00:00:00:01")); }},
      {"vrf('blue')->ipv4Is(10.0.0.1 at 02:00:00:00:00:02)",
       [&] { config->vrf("blue")->ipv4Is(staticEntry("02:00:00:00:00:02")); }},
      {"vrfDel('blue')", [&] { config->vrfDel("blue"); }},
  };
  for (const auto& [what, change] : changes) {
    std::printf("  publisher: %s\n", what);
    change();
  }
  ok = ok && Mox::runUntil([&] { return publisher->backlog() == 0; }, patience);
  const std::vector<std::string> lines = mount.readLines(7, "mount");
  ok = mount.finish() == 0 && ok;
  const std::string entry =
      "/vrf['blue']/ipv4[10.0.0.1] = Value('Arp::ArpEntryInput', ** "
      "{'ipAddr': 10.0.0.1, 'ethAddr': 02:00:00:00:00:0";
  const std::string rest = ", 'isHostRoute': False, 'source': cli})";
  const std::vector<std::string> expected{"Arp::ArpInputConfig agent",  "/source = dynamic",
                                          "/vrf['default'] = (entity)", "/vrf['blue'] = (entity)",
                                          entry + "1" + rest,           entry + "2" + rest,
                                          "/vrf['blue'] deleted"};
  ok = ok && lines == expected;
  std::printf("  %s\n",
              ok ? "the mount saw the tree and every change, in order" : "unexpected mount output");
  return ok ? 0 : 1;
}

const bool registered = KorvaTool::registerDemoStep(
    {45, "attribute log: ARP input published by one process, mounted by another", runAttrLogDemo});

}  // namespace
