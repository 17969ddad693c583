#include "DemoProcess.h"

#include <Mox/Time.h>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace KorvaTool {

KorvaProcess::KorvaProcess(const std::vector<std::string>& arguments, bool capture) {
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
  if (posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  if (pipeFds[1] >= 0) close(pipeFds[1]);
  output_ = pipeFds[0];
}

KorvaProcess::~KorvaProcess() {
  if (started() && status_ == -1) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (output_ >= 0) close(output_);
}

std::vector<std::string> KorvaProcess::readUntil(
    const std::string& label, const std::function<bool(const std::vector<std::string>&)>& done) {
  std::vector<std::string> lines;
  const double deadline = Mox::monotonicNow() + patience;
  while (output_ >= 0 && !done(lines) && Mox::monotonicNow() < deadline) {
    for (size_t end; (end = partial_.find('\n')) != std::string::npos && !done(lines);
         partial_.erase(0, end + 1)) {
      lines.push_back(partial_.substr(0, end));
      std::printf("  %s: %s\n", label.c_str(), lines.back().c_str());
    }
    if (done(lines)) break;
    pollfd ready{output_, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char buffer[512];
    const ssize_t n = read(output_, buffer, sizeof buffer);
    if (n <= 0) break;
    partial_.append(buffer, n);
  }
  return lines;
}

std::vector<std::string> KorvaProcess::readLines(size_t count, const std::string& label) {
  return readUntil(
      label, [count](const std::vector<std::string>& lines) { return lines.size() >= count; });
}

int KorvaProcess::finish() {
  if (!started() || status_ != -1) return status_;
  const double deadline = Mox::monotonicNow() + patience;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (Mox::monotonicNow() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      status_ = -2;  // ended, but not by itself
      return -1;
    }
    poll(nullptr, 0, 5);
  }
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
  return status_ < 0 ? -1 : status_;
}

int KorvaProcess::interrupt() {
  if (started() && status_ == -1) kill(pid_, SIGINT);
  return finish();
}

}  // namespace KorvaTool
