#pragma once
// A peer process started by fork and exec of one of the test binary's programs (cairnPeer
// unless named), with pipes to its standard input and output. Every wait is bounded; the
// destructor kills what still runs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Mox/Time.h>

#include <string>
#include <vector>

namespace CairnTest {

class Peer {
 public:
  explicit Peer(const std::vector<std::string>& arguments,
                const std::string& programName = "cairnPeer") {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    const std::string program = std::string(KORVA_TEST_PROGRAM_DIR) + "/" + programName;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      std::vector<char*> argv{const_cast<char*>(program.c_str())};
      for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  }
  ~Peer() {
    if (pid_ > 0 && status_ == -1) {
      kill(pid_, SIGKILL);
      waitFor(10.0);
    }
    closeInput();
    if (output_ >= 0) close(output_);
    if (pidfd_ >= 0) close(pidfd_);
  }

  void send(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), ssize_t(text.size()));
  }
  void closeInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }
  // Reads until `count` bytes came, end of output, or `seconds` passed.
  std::string read(size_t count, double seconds) {
    std::string text;
    const double deadline = Mox::monotonicNow() + seconds;
    while (text.size() < count) {
      const int wait = static_cast<int>((deadline - Mox::monotonicNow()) * 1000);
      pollfd ready{output_, POLLIN, 0};
      if (wait <= 0 || poll(&ready, 1, wait) <= 0) break;
      char buffer[4096];
      const ssize_t n = ::read(output_, buffer, std::min(sizeof buffer, count - text.size()));
      if (n <= 0) break;
      text.append(buffer, n);
    }
    return text;
  }
  std::string readAll(double seconds) { return read(~size_t(0) >> 1, seconds); }
  // The exit status once the process has ended within `seconds`, else -1.
  int waitFor(double seconds) {
    pollfd done{pidfd_, POLLIN, 0};
    if (status_ == -1 && poll(&done, 1, static_cast<int>(seconds * 1000)) == 1) {
      int status = 0;
      waitpid(pid_, &status, 0);
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
  }
  void kill9() { kill(pid_, SIGKILL); }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  int input_ = -1;
  int output_ = -1;
  int status_ = -1;
};

}  // namespace CairnTest
