// Raw IPv4 over loopback, protocol 253, in the benchmark's own namespace.
//
// Receive: a batch of packets is queued on the Pam's socket (untimed), then read either
// through IpSocketPam::rxPkt() or by a bare recvmsg loop on the very same socket, so both
// see the same socket options and control messages (packet information, TTL, TOS).
// Send: packets with an imposed source and interface (IP_PKTINFO) through
// IpSocketPam::txPktIs() or a bare sendmsg with the same control message, on one socket.
// BM_RxRatio and BM_TxRatio interleave the two batch by batch and report the CPU time per
// packet of each and bare / pam as `ratio`; the goal is >= 0.9 for both.

#include <Korva/IpSocketPam.h>
#include <Mox/Assert.h>

#include <benchmark/benchmark.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

using Korva::IpSocketOptions;

constexpr Korva::IpProtocolNumber kProtocol = Korva::IpProtocolNumber(253);
constexpr size_t kPayloadBytes = 64;
constexpr int kBatch = 256;

class RawPair {
 public:
  RawPair()
      : pam_(Korva::ipSocketPamFactory("bench", kProtocol, Korva::NamespaceName(""))),
        payload_(kPayloadBytes, 'p') {
    pam_->optionsIs(
        Korva::ipSocketOptions({IpSocketOptions::ipPktInfo, IpSocketOptions::ipRecvTTL,
                                IpSocketOptions::ipRecvTOS, IpSocketOptions::ipRcvBuf}));
    pam_->rxBufIs(4 << 20);  // room for a whole batch
    pam_->enabledIs(true);
    pam_->txDstIpAddrIs(Korva::IpGenAddr(Korva::IpAddr(127, 0, 0, 1)));
    pam_->txSrcIpAddrIs(Korva::IpGenAddr(Korva::IpAddr(127, 0, 0, 1)));
    pam_->txIfIndexIs(if_nametoindex("lo"));
    sender_ = socket(AF_INET, SOCK_RAW, kProtocol);
    MOX_ASSERT(sender_ >= 0);
    to_.sin_family = AF_INET;
    to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    pkt_ = Korva::globalPktManager()->newPkt();
    pkt_->stringValueIs(payload_);
  }
  ~RawPair() { close(sender_); }

  Korva::IpSocketPam& pam() { return *pam_; }
  int fd() const { return pam_->fileDesc()->descriptor(); }
  const Mox::Ptr<Korva::Pkt>& pkt() const { return pkt_; }
  const std::string& payload() const { return payload_; }
  // Loopback delivers inside the send call, so the packets wait on the Pam's socket.
  void queue(int count) {
    for (int i = 0; i < count; ++i) {
      MOX_ASSERT(sendto(sender_, payload_.data(), payload_.size(), 0,
                        reinterpret_cast<const sockaddr*>(&to_), sizeof to_) == kPayloadBytes);
    }
  }

 private:
  Mox::Ptr<Korva::IpSocketPam> pam_;
  std::string payload_;
  Mox::Ptr<Korva::Pkt> pkt_;
  int sender_ = -1;
  sockaddr_in to_{};
};

void pamReceive(RawPair& pair) {
  Mox::Ptr<Korva::Pkt> pkt = pair.pam().rxPkt();
  MOX_ASSERT(pkt && pkt->bytes() == 20 + kPayloadBytes);
}

// What a user would write by hand: receive with the control messages and note what they
// carried.
void bareReceive(RawPair& pair) {
  char data[1500];
  alignas(cmsghdr) char control[256];
  sockaddr_in from;
  iovec iov{data, sizeof data};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  MOX_ASSERT(recvmsg(pair.fd(), &msg, 0) == 20 + kPayloadBytes);
  int ifIndex = 0, ttl = 0, tos = 0;
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level != IPPROTO_IP) continue;
    if (cmsg->cmsg_type == IP_PKTINFO) {
      ifIndex = reinterpret_cast<in_pktinfo*>(CMSG_DATA(cmsg))->ipi_ifindex;
    } else if (cmsg->cmsg_type == IP_TTL) {
      std::memcpy(&ttl, CMSG_DATA(cmsg), sizeof ttl);
    } else if (cmsg->cmsg_type == IP_TOS) {
      tos = *CMSG_DATA(cmsg);
    }
  }
  benchmark::DoNotOptimize(ifIndex + ttl + tos + from.sin_addr.s_addr);
}

void pamSend(RawPair& pair) {
  pair.pam().txPktIs(pair.pkt());
}

// The same packet information a user would attach by hand.
void bareSend(RawPair& pair) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  iovec iov{const_cast<char*>(pair.payload().data()), pair.payload().size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  msghdr msg{};
  msg.msg_name = &to;
  msg.msg_namelen = sizeof to;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
  cmsg->cmsg_level = IPPROTO_IP;
  cmsg->cmsg_type = IP_PKTINFO;
  cmsg->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
  in_pktinfo info{};
  info.ipi_ifindex = 1;
  info.ipi_spec_dst.s_addr = htonl(INADDR_LOOPBACK);
  std::memcpy(CMSG_DATA(cmsg), &info, sizeof info);
  MOX_ASSERT(sendmsg(pair.fd(), &msg, 0) == kPayloadBytes);
}

// This thread's CPU time (user and system): on a shared, busy machine it leaves out the
// time spent waiting for a core, which would otherwise swamp the ratio.
double nanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

// Times a batch of `op`; with `queued`, a batch of packets is queued first, untimed.
double timeBatch(void (*op)(RawPair&), RawPair& pair, bool queued) {
  if (queued) pair.queue(kBatch);
  const double start = nanoseconds();
  for (int i = 0; i < kBatch; ++i) op(pair);
  return nanoseconds() - start;
}

// Both sides in turn on one socket, batch by batch, so machine noise hits them alike.
template <void (*Pam)(RawPair&), void (*Bare)(RawPair&), bool Queued>
void BM_Ratio(benchmark::State& state) {
  RawPair pair;
  double bareTime = 0, pamTime = 0;
  for (auto _ : state) {
    bareTime += timeBatch(Bare, pair, Queued);
    pamTime += timeBatch(Pam, pair, Queued);
    // Sends loop back to the Pam's own socket: empty it between batches, untimed.
    while (!Queued && recv(pair.fd(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
  }
  const double packets = double(state.iterations()) * kBatch;
  state.counters["bare_ns"] = bareTime / packets;
  state.counters["pam_ns"] = pamTime / packets;
  state.counters["ratio"] = bareTime / pamTime;
  MOX_ASSERT(pair.pam().txErrors() == 0);
}

BENCHMARK(BM_Ratio<pamReceive, bareReceive, true>)->Name("BM_RxRatio");
BENCHMARK(BM_Ratio<pamSend, bareSend, false>)->Name("BM_TxRatio");

}  // namespace
