#pragma once
// A Pam for tests, with no descriptor: each read yields a canned packet while its repeat
// count lasts, optionally after a delay, and sends are counted (per egress interface when
// one is set). Its attributes are generated (SimpleTestPamBase, from
// models/Korva/SimpleTestPam.mox).

#include <Korva/SimpleTestPam.mox.h>

#include <time.h>

namespace Korva {

class SimpleTestPam : public SimpleTestPamBase {
 public:
  // Stores the packet and counts it; nothing leaves the process.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;

 protected:
  SimpleTestPam() = default;
  // Waits rxPktDelay (blocking: this Pam stands in for a slow device), then yields
  // repeatRxPkt while repeatRxPktCnt lasts.
  void doGetRxPkt() override;

 private:
  friend Mox::Ptr<SimpleTestPam> simpleTestPamFactory();
};

// The wait of one read: whole seconds, and the fraction rounded up to nanoseconds and
// capped below one second.
timespec rxPktDelayTimespec(double seconds);

}  // namespace Korva
