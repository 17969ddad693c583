// `korva demo` step: the VRF id map shared by real processes. A writer (`korva vrf add`)
// publishes two VRFs; a reader (`korva vrf watch`) started after it sees them, then prints
// each VRF as it appears and disappears while the writer runs again: the restarted writer
// keeps the ids it gave. Everything is removed at the end.

#include "Command.h"

#include <Cairn/Segment.h>
#include <Cairn/Table.h>
#include <Mox/Time.h>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr double kPatience = 10.0;  // seconds any one step may take

// `korva ARGUMENTS` as a child process, its standard output on a pipe when `capture`.
struct Child {
  pid_t pid = -1;
  int output = -1;
};

Child spawnKorva(const std::vector<std::string>& arguments, bool capture) {
  Child child;
  int pipeFds[2] = {-1, -1};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (capture && pipe(pipeFds) == 0) {
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  }
  std::vector<char*> argv{const_cast<char*>("korva")};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::fflush(stdout);
  if (posix_spawn(&child.pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ) != 0) {
    child.pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  if (pipeFds[1] >= 0) close(pipeFds[1]);
  child.output = pipeFds[0];
  return child;
}

// Waits (bounded) for the child to end; its exit status, or -1.
int finish(pid_t pid) {
  const double deadline = Mox::monotonicNow() + kPatience;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Mox::monotonicNow() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    poll(nullptr, 0, 5);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int runWriter(const std::string& label, const std::vector<std::string>& arguments) {
  std::printf("  writer %s: korva", label.c_str());
  for (size_t i = 0; i < arguments.size(); ++i) std::printf(" %s", arguments[i].c_str());
  std::printf("\n");
  const Child writer = spawnKorva(arguments, false);
  return writer.pid > 0 ? finish(writer.pid) : -1;
}

// Echoes the reader's lines until `count` have come (or patience runs out).
std::vector<std::string> readLines(int fd, size_t count) {
  std::vector<std::string> lines;
  std::string partial;
  const double deadline = Mox::monotonicNow() + kPatience;
  while (lines.size() < count && Mox::monotonicNow() < deadline) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char buffer[512];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    partial.append(buffer, n);
    for (size_t end; (end = partial.find('\n')) != std::string::npos; partial.erase(0, end + 1)) {
      lines.push_back(partial.substr(0, end));
      std::printf("  reader: %s\n", lines.back().c_str());
    }
  }
  return lines;
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
  const Child reader = spawnKorva(with({"watch"}), true);
  if (reader.pid < 0) return 1;
  // The reader's first walk finds what the writer left, in no particular order.
  std::vector<std::string> seen = readLines(reader.output, 3);
  std::sort(seen.begin(), seen.end());
  ok = ok && runWriter("2 (restarted)", with({"add", "blue", "green"})) == 0 &&
       runWriter("2 (restarted)", with({"del", "red"})) == 0;
  // Both changes may reach the reader in one wake-up, reported in table order.
  std::vector<std::string> changes = readLines(reader.output, 2);
  std::sort(changes.begin(), changes.end());
  seen.insert(seen.end(), changes.begin(), changes.end());
  kill(reader.pid, SIGINT);
  ok = finish(reader.pid) == 0 && ok;
  close(reader.output);
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
