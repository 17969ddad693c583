// `korva demo` step: the event loop for real. A timer wheel sends three pings, 20 ms
// apart, from one end of a socket pair; the loop reports the other end readable and a
// reactor reads each ping; writable notification is switched on for one report.

#include "Command.h"

#include <Mox/Activity.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Time.h>
#include <Pylon/TimerWheel.h>

#include <sys/socket.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kPings = 3;
constexpr double kInterval = 0.020;

class Sender : public Pylon::TimerWheel::Timer {
 public:
  Sender(const Mox::Ptr<Pylon::TimerWheel>& wheel, Mox::Ptr<Mox::FileDescriptor> fd, double start)
      : fd_(std::move(fd)), start_(start) {
    notifierIs(wheel);
  }
  void onExpiry() override {
    const std::string ping = "ping " + std::to_string(++sent_);
    const bool ok = send(fd_->descriptor(), ping.data(), ping.size(), 0) == ssize_t(ping.size());
    std::printf("  %3.0f ms  timer expired: sent \"%s\"%s\n", (Mox::now() - start_) * 1e3,
                ping.c_str(), ok ? "" : " (send failed)");
    // The timer is stopped when it expires; arm the next one from this one's due time.
    if (sent_ < kPings) expiryIs(start_ + (sent_ + 1) * kInterval);
  }
  void start() { expiryIs(start_ + kInterval); }

 private:
  Mox::Ptr<Mox::FileDescriptor> fd_;
  double start_;
  int sent_ = 0;
};

class Receiver : public Mox::FileDescriptor::Notifiee {
 public:
  Receiver(const Mox::Ptr<Mox::FileDescriptor>& fd, double start) : start_(start) {
    notifierIs(fd);
  }
  void onReadableCount() override {
    char buffer[64];
    const ssize_t size = recv(notifier()->descriptor(), buffer, sizeof(buffer), 0);
    if (size <= 0) return;
    ++received_;
    std::printf("  %3.0f ms  readable #%u: received \"%.*s\"\n", (Mox::now() - start_) * 1e3,
                notifier()->readableCount(), int(size), buffer);
  }
  void onWritableCount() override {
    std::printf("  %3.0f ms  writable #%u: switching writable notification off\n",
                (Mox::now() - start_) * 1e3, notifier()->writableCount());
    notifier()->notifyOnWritableIs(false);
  }
  int received() const { return received_; }

 private:
  double start_;
  int received_ = 0;
};

int runLoopDemo() {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) < 0) {
    std::perror("socketpair");
    return 1;
  }
  auto left = Mox::make<Mox::FileDescriptor>("left", pair[0]);
  auto right = Mox::make<Mox::FileDescriptor>("right", pair[1]);
  auto wheel = Mox::make<Pylon::TimerWheel>("demo");
  const double start = Mox::now();
  std::printf("  socket pair: fds %d and %d, non-blocking: %s\n", left->descriptor(),
              right->descriptor(), left->nonBlocking() && right->nonBlocking() ? "yes" : "no");

  Receiver receiver(right, start);
  right->notifyOnWritableIs(true);
  Sender sender(wheel, left, start);
  sender.start();

  auto& loop = *Mox::ActivityManagerConfig::current();
  const Mox::U64 turns = loop.turns();
  if (!Mox::runUntil([&] { return receiver.received() == kPings; }, 2.0)) {
    std::printf("  only %d of %d pings arrived within 2 s\n", receiver.received(), kPings);
    return 1;
  }
  std::printf("  %d pings in %llu loop turns; readable %u, writable %u\n", kPings,
              static_cast<unsigned long long>(loop.turns() - turns), right->readableCount(),
              right->writableCount());
  return 0;
}

const bool registered = KorvaTool::registerDemoStep({10, "event loop", runLoopDemo});

}  // namespace
