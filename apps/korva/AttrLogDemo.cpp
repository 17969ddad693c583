// `korva demo` step: model state streamed between processes. This process publishes a
// Korva::Netns on the attribute log; a second process (`korva mount --watch`) mounts it,
// prints the tree, then each change the publisher makes.

#include "Command.h"
#include "DemoProcess.h"

#include <Korva/Netns.mox.h>
#include <Mox/Activity.h>
#include <Mox/AttrLogPublisher.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

int runAttrLogDemo() {
  const std::string endpoint = "@korva-demo-netns-" + std::to_string(getpid());
  auto netns = Korva::netnsFactory("agent");
  netns->nsIs(Korva::NamespaceName("default"));
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint, netns);
  std::printf("  publisher: Korva::Netns 'agent' at %s\n", endpoint.c_str());
  KorvaTool::KorvaProcess mount({"mount", endpoint, "--watch", "--changes", "3"}, true);
  if (!mount.started()) return 1;
  const double patience = KorvaTool::KorvaProcess::patience;
  bool ok = Mox::runUntil([&] { return publisher->mountCount() == 1; }, patience);
  const std::vector<std::string> names{"blue", "red"};
  for (const std::string& name : names) {
    std::printf("  publisher: nsIs('%s')\n", name.c_str());
    netns->nsIs(Korva::NamespaceName(name));
  }
  std::printf("  publisher: nsDel()\n");
  netns->nsDel();
  ok = ok && Mox::runUntil([&] { return publisher->backlog() == 0; }, patience);
  const std::vector<std::string> lines = mount.readLines(5, "mount");
  ok = mount.finish() == 0 && ok;
  const std::vector<std::string> expected{"Korva::Netns agent", "/ns = 'default'", "/ns = 'blue'",
                                          "/ns = 'red'", "/ns = ''"};
  ok = ok && lines == expected;
  std::printf("  %s\n",
              ok ? "the mount saw the tree and every change, in order" : "unexpected mount output");
  return ok ? 0 : 1;
}

const bool registered = KorvaTool::registerDemoStep(
    {45, "attribute log: a Netns published by one process, mounted by another", runAttrLogDemo});

}  // namespace
