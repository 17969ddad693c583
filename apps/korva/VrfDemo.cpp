// `korva demo` step: the VRF id map shared by real processes. A writer (`korva vrf add`)
// publishes two VRFs; a reader (`korva vrf watch`) started after it sees them, then prints
// each VRF as it appears and disappears while the writer runs again: the restarted writer
// keeps the ids it gave. Everything is removed at the end.

#include "Command.h"
#include "DemoProcess.h"

#include <Cairn/Segment.h>
#include <Cairn/Table.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using KorvaTool::KorvaProcess;

int runWriter(const std::string& label, const std::vector<std::string>& arguments) {
  std::printf("  writer %s: korva", label.c_str());
  for (size_t i = 0; i < arguments.size(); ++i) std::printf(" %s", arguments[i].c_str());
  std::printf("\n");
  KorvaProcess writer(arguments, false);
  return writer.finish();
}

int runVrfDemo() {
  const std::string table = "korva-demo-vrf-" + std::to_string(getpid());
  std::vector<std::string> vrf{"vrf", "--table", table};
  auto with = [&](std::vector<std::string> more) {
    std::vector<std::string> all = vrf;
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  bool ok = runWriter("1", with({"add", "blue", "red"})) == 0;
  KorvaProcess reader(with({"watch"}), true);
  if (!reader.started()) return 1;
  // The reader's first walk finds what the writer left, in no particular order.
  std::vector<std::string> seen = reader.readLines(3, "reader");
  std::sort(seen.begin(), seen.end());
  ok = ok && runWriter("2 (restarted)", with({"add", "blue", "green"})) == 0 &&
       runWriter("2 (restarted)", with({"del", "red"})) == 0;
  // Both changes may reach the reader in one wake-up, reported in table order.
  std::vector<std::string> changes = reader.readLines(2, "reader");
  std::sort(changes.begin(), changes.end());
  seen.insert(seen.end(), changes.begin(), changes.end());
  ok = reader.interrupt() == 0 && ok;
  const std::vector<std::string> expected{"+ 0 default", "+ 1 blue", "+ 2 red", "+ 3 green", "- 2"};
  ok = ok && seen == expected;
  Cairn::removeTable(table);
  Cairn::NamedSegment::remove(table);
  std::printf("  removed table and counter segment %s\n", table.c_str());
  std::printf("  %s\n", ok ? "the reader saw every change; blue kept id 1 across the restart"
                           : "unexpected reader output");
  return ok ? 0 : 1;
}

const bool registered = KorvaTool::registerDemoStep(
    {40, "VRF id map in shared memory: a writer and a reader process", runVrfDemo});

}  // namespace
