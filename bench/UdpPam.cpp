// UDP echo over loopback: a client socket sends a datagram, the server side echoes it back
// to its sender, the client reads the echo. The server side is either a UdpPam (rxPkt(),
// then txPktIs() to the datagram's source) or a bare recvmsg / sendmsg loop on the very
// same socket, so both see the same socket options and control messages (packet
// information, TTL, TOS). BM_Ratio interleaves the two batch by batch and reports the
// CPU time per echo of each and pam_per_s / bare_per_s as `ratio`; the goal is >= 0.9.

#include <Korva/SocketUtils.h>
#include <Korva/UdpPam.h>
#include <Mox/Assert.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace {

constexpr size_t kPayloadBytes = 64;

// The server Pam, bound to a free loopback port, and a plain client socket aimed at it.
class EchoPair {
 public:
  EchoPair() : server_(Korva::udpPamFactory("echo")) {
    server_->rxIpAddrIs(Korva::IpAddr(127, 0, 0, 1));
    server_->modeIs(Korva::UdpPam::Mode::server);
    client_ = socket(AF_INET, SOCK_DGRAM, 0);
    MOX_ASSERT(client_ >= 0);
    MOX_ASSERT(Korva::socketConnect(client_, Korva::IpAddr(127, 0, 0, 1), server_->rxPortLocal()) ==
               0);
    std::memset(payload_, 'p', sizeof payload_);
  }
  ~EchoPair() { close(client_); }

  Korva::UdpPam& server() { return *server_; }
  int serverFd() const { return server_->fileDesc()->descriptor(); }
  // Loopback delivers inside the send call, so the other side can read at once.
  void clientSend() { MOX_ASSERT(send(client_, payload_, sizeof payload_, 0) == kPayloadBytes); }
  void clientReceive() {
    char echo[2048];
    MOX_ASSERT(recv(client_, echo, sizeof echo, 0) == kPayloadBytes);
  }

 private:
  Mox::Ptr<Korva::UdpPam> server_;
  int client_ = -1;
  char payload_[kPayloadBytes];
};

void pamEcho(EchoPair& pair) {
  Korva::UdpPam& server = pair.server();
  pair.clientSend();
  Mox::Ptr<Korva::Pkt> pkt = server.rxPkt();
  server.txDstIpAddrIs(server.rxSrcIpAddr());
  server.txPortIs(server.rxSrcPort());
  server.txPktIs(pkt);
  pair.clientReceive();
}

// What a user would write by hand: receive with the control messages, note the arrival
// interface, send the bytes back to where they came from.
void bareEcho(EchoPair& pair) {
  pair.clientSend();
  char data[1500];
  alignas(cmsghdr) char control[128];
  sockaddr_in from;
  iovec iov{data, sizeof data};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  const ssize_t received = recvmsg(pair.serverFd(), &msg, 0);
  MOX_ASSERT(received == kPayloadBytes);
  int ifIndex = 0;
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level == IPPROTO_IP && cmsg->cmsg_type == IP_PKTINFO) {
      ifIndex = reinterpret_cast<in_pktinfo*>(CMSG_DATA(cmsg))->ipi_ifindex;
    }
  }
  benchmark::DoNotOptimize(ifIndex);
  iov.iov_len = size_t(received);
  msghdr reply{};
  reply.msg_name = &from;
  reply.msg_namelen = sizeof from;
  reply.msg_iov = &iov;
  reply.msg_iovlen = 1;
  MOX_ASSERT(sendmsg(pair.serverFd(), &reply, 0) == kPayloadBytes);
  pair.clientReceive();
}

template <void (*Echo)(EchoPair&)>
void BM_Echo(benchmark::State& state) {
  EchoPair pair;
  for (auto _ : state) Echo(pair);
  state.SetItemsProcessed(state.iterations());
}

// This thread's CPU time (user and system): on a shared, busy machine it leaves out the
// time spent waiting for a core, which would otherwise swamp the ratio.
double nanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

double timeBatch(void (*echo)(EchoPair&), EchoPair& pair, int count) {
  const double start = nanoseconds();
  for (int i = 0; i < count; ++i) echo(pair);
  return nanoseconds() - start;
}

// Both servers in turn on one socket pair, batch by batch, so machine noise hits them alike.
void BM_Ratio(benchmark::State& state) {
  constexpr int kBatch = 500;
  EchoPair pair;
  double bareTime = 0, pamTime = 0;
  for (auto _ : state) {
    bareTime += timeBatch(bareEcho, pair, kBatch);
    pamTime += timeBatch(pamEcho, pair, kBatch);
  }
  const double echoes = double(state.iterations()) * kBatch;
  state.counters["bare_ns"] = bareTime / echoes;
  state.counters["pam_ns"] = pamTime / echoes;
  state.counters["ratio"] = bareTime / pamTime;
  MOX_ASSERT(pair.server().rxPkts() == pair.server().txPkts());
}

BENCHMARK(BM_Echo<bareEcho>)->Name("BM_BareRecvmsgSendmsgEcho");
BENCHMARK(BM_Echo<pamEcho>)->Name("BM_UdpPamEcho");
BENCHMARK(BM_Ratio);

}  // namespace
