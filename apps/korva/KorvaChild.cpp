#include "KorvaChild.h"

#include <Mox/Time.h>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace KorvaTool {

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

std::vector<std::string> readLines(int fd, size_t count, const char* who) {
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
      std::printf("  %s: %s\n", who, lines.back().c_str());
    }
  }
  return lines;
}

}  // namespace KorvaTool
