#pragma once
// Helpers for DTLS tests: a throwaway CA with server and client certificates made by the
// openssl command, and peer programs (openssl s_client and s_server, the korva tool) whose
// output the event loop watches.

#include <Mox/Activity.h>
#include <Mox/FileDescriptor.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "SocketTestUtil.h"

namespace DtlsTest {

// ca.pem, server.pem and client.pem (certificate and key in one file, signed by the CA),
// mismatched.pem (the server's certificate with the client's key) and othertype.pem (the
// server's RSA certificate with an EC key), in a fresh folder removed when the object goes.
class Certificates {
 public:
  Certificates() : dir_(::testing::TempDir() + "korva-dtls-" + std::to_string(getpid())) {
    const std::string script =
        "set -e; rm -rf " + dir_ + "; mkdir -p " + dir_ + "; cd " + dir_ +
        "; openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem"
        " -subj /CN=korva-test-ca -days 2"
        "; for n in server client; do"
        " openssl req -newkey rsa:2048 -nodes -keyout $n.key -out $n.csr -subj /CN=$n"
        "; openssl x509 -req -in $n.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out $n.crt -days 2; cat $n.crt $n.key > $n.pem; done"
        "; openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key"
        "; cat server.crt client.key > mismatched.pem; cat server.crt ec.key > othertype.pem";
    made_ = std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0;
  }
  ~Certificates() { std::system(("rm -rf " + dir_).c_str()); }
  bool made() const { return made_; }
  std::string path(const std::string& file) const { return dir_ + "/" + file; }

 private:
  std::string dir_;
  bool made_ = false;
};

// A program run as a peer (`command` is its argument vector, found on PATH), standard
// output and error collected through a pipe the event loop watches.
class Peer {
 public:
  explicit Peer(std::vector<std::string> command) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(out[1], 2);
      std::vector<char*> argv;
      for (std::string& word : command) argv.push_back(word.data());
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    // Watched by the loop, so a test running it wakes when the peer prints.
    output_ = Mox::make<Mox::FileDescriptor>("peer", out[0]);
  }
  ~Peer() {
    if (input_ >= 0) close(input_);
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  void send(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), ssize_t(text.size()));
  }
  void closeInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }
  // Runs the loop until the peer printed `text`, or 5 s pass.
  bool prints(const std::string& text) {
    return Mox::runUntil([&] { return drained().find(text) != std::string::npos; }, 5.0);
  }
  const std::string& drained() {
    char buffer[4096];
    ssize_t n;
    while (output_ && (n = read(output_->descriptor(), buffer, sizeof buffer)) > 0) {
      printed_.append(buffer, size_t(n));
    }
    return printed_;
  }
  // Asks the peer to stop (SIGINT, as Ctrl-C would); its exit status as exitStatus() gives it.
  int interrupt() {
    kill(pid_, SIGINT);
    return exitStatus();
  }
  // The exit status once the peer ended within 5 s; -1 otherwise.
  int exitStatus() {
    Mox::runUntil(
        [&] {
          drained();
          int status = 0;
          if (status_ < 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
          }
          return status_ >= 0;
        },
        5.0);
    return status_;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int status_ = -1;
  Mox::Ptr<Mox::FileDescriptor> output_;
  std::string printed_;
};

// `ip netns exec <ns> openssl <arguments>`.
inline std::vector<std::string> openssl(const std::string& ns,
                                        const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"ip", "netns", "exec", ns, "openssl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

// A test with the certificates (made once per suite) in a namespace of its own whose
// loopback is up.
class Fixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { certificates_ = new Certificates(); }
  static void TearDownTestSuite() {
    delete certificates_;
    certificates_ = nullptr;
  }
  void SetUp() override {
    if (!certificates_->made()) GTEST_SKIP() << "the openssl command could not make certificates";
    ns_ = std::make_unique<SocketTest::ScopedNs>("dtls");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    ASSERT_TRUE(ns_->ip("link set lo up"));
    Mox::ActivityManagerConfig::current();
  }
  static std::string file(const std::string& name) { return certificates_->path(name); }
  const std::string& ns() const { return ns_->name(); }

 private:
  static inline Certificates* certificates_ = nullptr;
  std::unique_ptr<SocketTest::ScopedNs> ns_;
};

}  // namespace DtlsTest
