#pragma once
// What the raw IP Pam tests share: a reader that records each packet with what it carried,
// socket-option read-back, and packets from text.

#include <Korva/IpPam.h>
#include <Mox/Activity.h>

#include <sys/socket.h>

#include <functional>
#include <string>
#include <vector>

namespace IpPamTest {

struct Arrival {
  std::string bytes;
  Korva::IpGenAddr src;
  Korva::IpGenAddr dst;
  Mox::U32 ifIndex;
  Mox::U8 ttl;
  Mox::U8 tos;
};

// Reads every packet a Pam reports, as an agent's reactor does.
struct Receiver : Korva::IpPam::Notifiee {
  explicit Receiver(Korva::IpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    Korva::IpPam& pam = *notifier();
    while (Mox::Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      arrivals.push_back({pkt->stringValue(), pam.rxSrcIpAddr(), pam.rxDstIpAddr(), pam.rxIfIndex(),
                          pam.rxTTL(), pam.rxTOS()});
    }
  }
  // Runs the loop until a packet that `wanted` accepts has come, at most 5 s; its index or -1.
  int waitFor(const std::function<bool(const Arrival&)>& wanted) {
    size_t seen = 0;
    int found = -1;
    Mox::runUntil(
        [&] {
          for (; found < 0 && seen < arrivals.size(); ++seen) {
            if (wanted(arrivals[seen])) found = int(seen);
          }
          return found >= 0;
        },
        5.0);
    return found;
  }
  std::vector<Arrival> arrivals;
};

inline int socketOption(const Korva::IpPam& pam, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(pam.fileDesc()->descriptor(), level, option, &value, &length);
  return value;
}

inline Mox::Ptr<Korva::Pkt> packetOf(const std::string& bytes) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

}  // namespace IpPamTest
