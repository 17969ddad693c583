#include <Korva/SimpleTestPam.h>

#include <cerrno>
#include <cmath>

namespace Korva {

timespec rxPktDelayTimespec(double seconds) {
  const double whole = std::floor(seconds);
  const double nanos = std::ceil((seconds - whole) * 1e9);
  timespec delay;
  delay.tv_sec = static_cast<time_t>(whole);
  delay.tv_nsec = static_cast<long>(std::min(nanos, 999999999.0));
  return delay;
}

void SimpleTestPam::doGetRxPkt() {
  if (rxPktDelay() != 0) {
    // A deliberate blocking wait: this Pam stands in for a slow device in agents' tests.
    timespec delay = rxPktDelayTimespec(rxPktDelay());
    while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
    }
  }
  if (repeatRxPktCnt() == 0) return;
  rxPktHolderIs(repeatRxPkt());
  repeatRxPktCntIs(repeatRxPktCnt() - 1);
}

void SimpleTestPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  Pam::txPktIs(pkt);
  if (!pkt) return;
  txPktCountInc(1);
  if (txIfIndex() != 0) txPktCounterCollIs(txIfIndex(), txPktCounterColl(txIfIndex()) + 1);
}

}  // namespace Korva
