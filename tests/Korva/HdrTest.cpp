// Wire headers: checksums against the ones the kernel computes, the bit fields split out of
// shared words, the bytes of messages and options, the assertions of the packet views, and
// the look-ups and length checks that decode bytes from the wire without aborting.
#include <Korva/EthHdr.h>
#include <Korva/Icmp6Hdr.h>
#include <Korva/IcmpHdr.h>
#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/SocketUtils.h>
#include <Korva/TcpHdr.h>
#include <Korva/UdpHdr.h>

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ValueTestUtil.h"

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U64;
using Korva::U8;
using PktPtr = Mox::Ptr<Korva::Pkt>;

// --- packets built by the kernel ---

// A thread in a network namespace of its own whose one link is a TUN device: it offers no
// checksum offload unless asked to, so every packet routed to it, read back from its
// descriptor, carries the checksum the kernel computed in software. (Loopback cannot be
// switched: its packets leave with unfinished checksums.)
class LinkCapture {
 public:
  // Runs `body` there; "" when it ran, or why the namespace could not be set up.
  static std::string run(const std::function<void(LinkCapture&)>& body) {
    std::string reason;
    // unshare() moves only the calling thread, so the test's own thread stays where it was.
    std::thread worker([&] {
      LinkCapture link(reason);
      if (link.fd_ >= 0) body(link);
    });
    worker.join();
    return reason;
  }
  ~LinkCapture() {
    if (fd_ >= 0) close(fd_);
  }

  // Sends each message to `port` of the address behind the link from a fresh
  // socket(family, type, protocol); the packets of IP protocol `protocol` that came out,
  // waiting at most a second for one per message.
  std::vector<PktPtr> send(int family, int type, U8 protocol, U16 port,
                           const std::vector<std::string>& messages, int flags = 0) {
    Korva::SockAddr peer;
    const socklen_t peerLength = Korva::constructSockAddr(
        &peer.base, Korva::IpGenAddr(family == AF_INET ? "10.199.0.2" : "fd00:199::2"), port);
    for (const std::string& message : messages) {
      const int fd = socket(family, type | SOCK_NONBLOCK, protocol);
      // A connection attempt sends its SYN inside the call; nobody answers it.
      EXPECT_TRUE(sendto(fd, message.data(), message.size(), flags, &peer.base, peerLength) >= 0 ||
                  errno == EINPROGRESS)
          << std::strerror(errno);
      close(fd);
    }
    std::vector<PktPtr> packets;
    pollfd readable{fd_, POLLIN, 0};
    while (packets.size() < messages.size() && poll(&readable, 1, 1000) == 1) {
      PktPtr pkt = Korva::globalPktManager()->newPkt();
      const U32 size = pkt->maxSharedData();
      const ssize_t got = read(fd_, pkt->newSharedHeadData(size), size);
      if (got < 0) break;
      pkt->delSharedTailData(size - U32(got));
      const U8 version = pkt->bytes() >= 20 ? pkt->rawByte(0) >> 4 : 0;
      if ((version == 4 && pkt->rawByte(9) == protocol) ||
          (version == 6 && pkt->bytes() >= 40 && pkt->rawByte(6) == protocol)) {
        packets.push_back(pkt);
      }
    }
    return packets;
  }

 private:
  explicit LinkCapture(std::string& reason) {
    if (unshare(CLONE_NEWNET) != 0) {
      reason = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
      return;
    }
    // Router solicitations would mix with the ICMPv6 messages of a test.
    std::ofstream("/proc/sys/net/ipv6/conf/default/router_solicitations") << 0;
    fd_ = open("/dev/net/tun", O_RDWR);
    ifreq ifr{};
    std::strcpy(ifr.ifr_name, "kcsum0");
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (fd_ < 0 || ioctl(fd_, TUNSETIFF, &ifr) != 0) {
      reason = std::string("TUN device: ") + std::strerror(errno);
    } else if (std::system("ip link set lo up && ip link set kcsum0 up"  // in this namespace
                           " && ip addr add 10.199.0.1/24 dev kcsum0"
                           " && ip -6 addr add fd00:199::1/64 dev kcsum0 nodad") != 0) {
      reason = "ip link/addr commands failed";
    } else {
      return;
    }
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int fd_ = -1;
};

// The transport view `factory` makes of a captured packet behind its IP header (IPv4 or
// IPv6 after the view's address type), given the header's addresses for its pseudo-header.
template <class View>
Mox::Ptr<View> transportView(const PktPtr& pkt, Mox::Ptr<View> (*factory)(PktPtr, U32)) {
  Mox::Ptr<View> view;
  if constexpr (std::is_same_v<std::decay_t<decltype(view->ipSrc())>, Korva::IpAddr>) {
    auto ipView = Korva::ipHdrWrapperFactory(pkt, 0);
    EXPECT_EQ(ipView->computedChecksum().value(), 0);  // the kernel's IPv4 header
    view = factory(pkt, ipView->header()->headerBytes());
    view->ipSrcIs(ipView->header()->srcAddr());
    view->ipDstIs(ipView->header()->dstAddr());
  } else {
    const auto* ip = Korva::ip6HdrWrapperFactory(pkt, 0)->header();
    view = factory(pkt, sizeof(Korva::Ip6Hdr));
    view->ipSrcIs(ip->srcAddr());
    view->ipDstIs(ip->dstAddr());
  }
  return view;
}

// A message the kernel checksummed computes to `valid` as it stands, and to what the
// kernel wrote once its checksum field is cleared.
template <class View>
void expectKernelChecksum(View& view, U16 valid) {
  EXPECT_EQ(view.computedChecksum().value(), valid);
  const Korva::IpChecksum kernel = view.header()->checksum;
  view.header()->checksum.valueIs(0);
  EXPECT_EQ(view.computedChecksum(), kernel);
}

// `check` on the transport view of each packet, as the family's factory makes it.
template <class V4, class V6, class Check>
void forEachView(int family, const std::vector<PktPtr>& packets, Mox::Ptr<V4> (*v4)(PktPtr, U32),
                 Mox::Ptr<V6> (*v6)(PktPtr, U32), const Check& check) {
  for (size_t i = 0; i < packets.size(); ++i) {
    if (family == AF_INET) {
      check(*transportView(packets[i], v4), i);
    } else {
      check(*transportView(packets[i], v6), i);
    }
  }
}

// UDP datagrams of odd and even lengths and TCP SYNs (one carrying data of odd length, by
// Fast Open without a cookie) in both families; ICMP echo requests from a ping socket and
// ICMPv6 ones from a raw socket, whose checksums the kernel fills in.
TEST(HdrChecksum, MatchesTheKernels) {
  std::mt19937 rng(768);
  std::vector<std::string> payloads;
  for (U32 size : {0, 1, 2, 3, 64, 999, 1400}) {
    payloads.emplace_back(size, '\0');
    for (char& c : payloads.back()) c = char(rng());
  }
  const std::vector<std::string> synData = {"", "data carried on the SYN, odd length"};
  std::vector<std::string> echoes, echoes6;
  for (U16 seq = 1; seq <= 3; ++seq) {
    Korva::IcmpHdr echo;
    echo.type.valueIs(Korva::icmpEchoRequest);
    echo.sequenceIs(seq);
    echoes.emplace_back(reinterpret_cast<const char*>(&echo), sizeof echo);
    echoes.back() += std::string(seq * 11, char('a' + seq));
    Korva::Icmp6EchoHdr echo6;
    echo6.icmp6.type.valueIs(Korva::icmp6EchoRequest);
    echo6.id.valueIs(0x4b56);
    echo6.sequence.valueIs(seq);
    echoes6.emplace_back(reinterpret_cast<const char*>(&echo6), sizeof echo6);
    echoes6.back() += std::string(seq * 7, char(0xF0 + seq));
  }
  const std::string skipped = LinkCapture::run([&](LinkCapture& link) {
    std::ofstream("/proc/sys/net/ipv4/tcp_fastopen") << 5;          // this namespace only
    std::ofstream("/proc/sys/net/ipv4/ping_group_range") << "0 0";  // likewise
    for (int family : {AF_INET, AF_INET6}) {
      SCOPED_TRACE(family == AF_INET ? "IPv4" : "IPv6");
      auto datagrams = link.send(family, SOCK_DGRAM, IPPROTO_UDP, 4000, payloads);
      ASSERT_EQ(datagrams.size(), payloads.size());
      forEachView(family, datagrams, Korva::udpHdrWrapperFactory, Korva::udpHdrWrapperIpv6Factory,
                  [&](auto& udp, size_t i) {
                    EXPECT_EQ(udp.header()->len.value(), payloads[i].size() + 8);
                    expectKernelChecksum(udp, udp.validChecksum());
                  });
      auto syns = link.send(family, SOCK_STREAM, IPPROTO_TCP, 179, synData, MSG_FASTOPEN);
      ASSERT_EQ(syns.size(), 2u);
      forEachView(family, syns, Korva::tcpHdrWrapperFactory, Korva::tcpHdrWrapperIpv6Factory,
                  [&](auto& tcp, size_t i) {
                    const Korva::TcpHdr& hdr = *tcp.header();
                    EXPECT_TRUE(hdr.syn());
                    EXPECT_EQ(hdr.dstPort.value(), 179);
                    EXPECT_GT(hdr.headerBytes(), 20u);  // MSS and other options
                    EXPECT_EQ(syns[i]->frontBytes() - tcp.offset() - hdr.headerBytes(),
                              synData[i].size());
                    expectKernelChecksum(tcp, 0);
                  });
    }
    auto pings = link.send(AF_INET, SOCK_DGRAM, IPPROTO_ICMP, 0, echoes);
    ASSERT_EQ(pings.size(), 3u);
    for (size_t i = 0; i < pings.size(); ++i) {
      auto icmp = Korva::icmpHdrWrapperFactory(
          pings[i], Korva::ipHdrWrapperFactory(pings[i], 0)->header()->headerBytes());
      EXPECT_EQ(icmp->header()->sequence(), i + 1);
      expectKernelChecksum(*icmp, 0);
    }
    auto pings6 = link.send(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6, 0, echoes6);
    ASSERT_EQ(pings6.size(), 3u);
    for (const PktPtr& pkt : pings6) {
      expectKernelChecksum(*transportView(pkt, Korva::icmp6HdrWrapperFactory), 0);
      EXPECT_EQ(Korva::icmp6EchoHdrWrapperFactory(pkt, 40)->header()->id.value(), 0x4b56);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

// --- checksums of our own ---

// The kernel comparison checks plain IPv4 headers; this one carries an option.
TEST(IpHdr, ChecksumOfAHeaderWithOptions) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(10);  // payload
  new (pkt->newSharedHeadData(4)) Korva::IpRouterAlertOption;
  auto* hdr = new (pkt->newSharedHeadData(20)) Korva::IpHdr;
  hdr->versionIs(4);
  hdr->headerBytesIs(24);
  hdr->totalLen.valueIs(34);
  auto wrapper = Korva::ipHdrWrapperFactory(pkt, 0);
  EXPECT_EQ(wrapper->header(), hdr);
  EXPECT_EQ(hdr->payloadLen(), 10u);
  const U8 routerAlert[] = {0x94, 0x04, 0x00, 0x00};
  EXPECT_EQ(std::memcmp(hdr->options(), routerAlert, 4), 0);
  U16 oneCall = Korva::ipChksum(hdr, 24);
  hdr->checksum = wrapper->computedChecksum();
  EXPECT_EQ(wrapper->computedChecksum().value(), 0);
  EXPECT_EQ(hdr->checksum.nbo(), oneCall);
  hdr->headerBytesIs(60);  // more than the packet holds: no match, no read past it
  pkt->delSharedTailData(10);
  wrapper->handleHeader();
  EXPECT_NE(wrapper->computedChecksum().value(), 0);
}

// A datagram carrying `payload` behind a UDP header, from 10.0.0.1 to 10.0.0.2.
Mox::Ptr<Korva::UdpHdrWrapper> datagram(const std::string& payload) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(sizeof(Korva::UdpHdr), '\0') + payload);
  auto udp = Korva::udpHdrWrapperFactory(pkt, 0);
  udp->header()->srcPort.valueIs(5000);
  udp->header()->len.valueIs(U16(payload.size() + 8));
  udp->ipSrcIs(Korva::IpAddr(10, 0, 0, 1));
  udp->ipDstIs(Korva::IpAddr(10, 0, 0, 2));
  return udp;
}

TEST(UdpHdr, ZeroSumIsSentAsAllOnes) {
  auto udp = datagram(std::string(6, '\0'));
  U16 plain = udp->computedChecksumU16();
  ASSERT_NE(plain, 0xFFFF);
  // A payload word equal to the checksum makes the one's-complement sum all ones, whose
  // complement is 0: UDP must send that as 0xFFFF.
  U8* payload = udp->pkt()->frontData() + 8;
  payload[0] = U8(plain >> 8);
  payload[1] = U8(plain);
  EXPECT_EQ(udp->computedChecksumU16(), 0xFFFF);
  udp->header()->checksum = udp->computedChecksum();
  EXPECT_EQ(udp->computedChecksumU16(), Korva::UdpHdrWrapper::validChecksum());
}

TEST(UdpHdr, ChecksumCoversTheLengthFieldAndNoFurtherThanThePacket) {
  auto udp = datagram("abcdefgh");
  U16 whole = udp->computedChecksumU16();
  udp->pkt()->newSharedTailData(4);  // bytes beyond the datagram do not count
  std::memset(udp->pkt()->frontData() + 16, 0x5A, 4);
  udp->handleHeader();
  EXPECT_EQ(udp->computedChecksumU16(), whole);
  udp->ipDstIs(Korva::IpAddr(10, 0, 0, 3));
  EXPECT_NE(udp->computedChecksumU16(), whole);
  udp->header()->checksum = udp->computedChecksum();
  udp->header()->len.valueIs(60000);
  EXPECT_NE(udp->computedChecksumU16(), Korva::UdpHdrWrapper::validChecksum());
}

// --- bit fields ---

template <class Hdr>
struct HdrField {
  const char* name;
  void (*set)(Hdr&, U32);
  U32 (*get)(const Hdr&);
  U32 byte;   // where the field's word starts in the header
  U32 bytes;  // the word's width
  U32 shift;  // the field's lowest bit in the word, counted from its least significant
  U32 width;
};

// A row for the accessor pair `field()` / `fieldIs()` of `Hdr`.
// clang-format off
#define KORVA_HDR_FIELD(Hdr, field, byte, bytes, shift, width)              \
  HdrField<Hdr>{#field, [](Hdr& h, U32 v) { h.field##Is(v); },            \
                [](const Hdr& h) { return U32(h.field()); }, byte, bytes, shift, width}
// clang-format on

// Written into a header of random bytes, each field reads back what was written, and the
// header's bytes change in exactly that field's bits of its big-endian word.
template <class Hdr>
void expectFieldsRoundTrip(std::initializer_list<HdrField<Hdr>> fields) {
  std::mt19937 rng(sizeof(Hdr));
  for (const HdrField<Hdr>& field : fields) {
    const U64 mask = (U64(1) << field.width) - 1;
    for (int round = 0; round < 100; ++round) {
      U8 expected[sizeof(Hdr)];
      for (U8& b : expected) b = U8(rng());
      Hdr hdr;
      std::memcpy(static_cast<void*>(&hdr), expected, sizeof hdr);
      const U32 value = U32(rng() & mask);
      field.set(hdr, value);
      ASSERT_EQ(field.get(hdr), value) << field.name;
      U64 word = 0;
      for (U32 i = 0; i < field.bytes; ++i) word = word << 8 | expected[field.byte + i];
      word = (word & ~(mask << field.shift)) | U64(value) << field.shift;
      for (U32 i = field.bytes; i-- > 0; word >>= 8) expected[field.byte + i] = U8(word);
      ASSERT_EQ(std::memcmp(&hdr, expected, sizeof hdr), 0) << field.name << " = " << value;
    }
  }
}

TEST(HdrFields, RoundTrip) {
  using namespace Korva;
  expectFieldsRoundTrip<Eth8021QHdr>({
      KORVA_HDR_FIELD(Eth8021QHdr, priority, 0, 2, 13, 3),
      KORVA_HDR_FIELD(Eth8021QHdr, dropEligible, 0, 2, 12, 1),
      KORVA_HDR_FIELD(Eth8021QHdr, vlanId, 0, 2, 0, 12),
  });
  expectFieldsRoundTrip<Eth8022SnapHdr>({KORVA_HDR_FIELD(Eth8022SnapHdr, ouiValue, 3, 3, 0, 24)});
  expectFieldsRoundTrip<IpHdr>({
      KORVA_HDR_FIELD(IpHdr, version, 0, 1, 4, 4),
      KORVA_HDR_FIELD(IpHdr, headerLen, 0, 1, 0, 4),
      KORVA_HDR_FIELD(IpHdr, dscp, 1, 1, 2, 6),
      KORVA_HDR_FIELD(IpHdr, ecn, 1, 1, 0, 2),
      KORVA_HDR_FIELD(IpHdr, reservedFragFlag, 6, 2, 15, 1),
      KORVA_HDR_FIELD(IpHdr, dontFrag, 6, 2, 14, 1),
      KORVA_HDR_FIELD(IpHdr, moreFrag, 6, 2, 13, 1),
      KORVA_HDR_FIELD(IpHdr, fragmentOffset, 6, 2, 0, 13),
  });
  expectFieldsRoundTrip<Ip6Hdr>({
      KORVA_HDR_FIELD(Ip6Hdr, version, 0, 4, 28, 4),
      KORVA_HDR_FIELD(Ip6Hdr, trafficClass, 0, 4, 20, 8),
      KORVA_HDR_FIELD(Ip6Hdr, flowLabel, 0, 4, 0, 20),
  });
  expectFieldsRoundTrip<TcpHdr>({
      KORVA_HDR_FIELD(TcpHdr, dataOffset, 12, 2, 12, 4),
      KORVA_HDR_FIELD(TcpHdr, reserved, 12, 2, 8, 4),
      KORVA_HDR_FIELD(TcpHdr, flags, 12, 2, 0, 8),
      KORVA_HDR_FIELD(TcpHdr, cwr, 12, 2, 7, 1),
      KORVA_HDR_FIELD(TcpHdr, ece, 12, 2, 6, 1),
      KORVA_HDR_FIELD(TcpHdr, urg, 12, 2, 5, 1),
      KORVA_HDR_FIELD(TcpHdr, ack, 12, 2, 4, 1),
      KORVA_HDR_FIELD(TcpHdr, psh, 12, 2, 3, 1),
      KORVA_HDR_FIELD(TcpHdr, rst, 12, 2, 2, 1),
      KORVA_HDR_FIELD(TcpHdr, syn, 12, 2, 1, 1),
      KORVA_HDR_FIELD(TcpHdr, fin, 12, 2, 0, 1),
  });
  expectFieldsRoundTrip<IcmpHdr>({
      KORVA_HDR_FIELD(IcmpHdr, id, 4, 4, 16, 16),
      KORVA_HDR_FIELD(IcmpHdr, sequence, 4, 4, 0, 16),
      KORVA_HDR_FIELD(IcmpHdr, nextHopMtu, 4, 4, 0, 16),
      KORVA_HDR_FIELD(IcmpHdr, pointer, 4, 4, 24, 8),
  });
  expectFieldsRoundTrip<Icmp6RouterAdvertHdr>({
      KORVA_HDR_FIELD(Icmp6RouterAdvertHdr, managed, 5, 1, 7, 1),
      KORVA_HDR_FIELD(Icmp6RouterAdvertHdr, other, 5, 1, 6, 1),
      KORVA_HDR_FIELD(Icmp6RouterAdvertHdr, preference, 5, 1, 3, 2),
  });
  expectFieldsRoundTrip<Icmp6NeighborAdvertHdr>({
      KORVA_HDR_FIELD(Icmp6NeighborAdvertHdr, router, 4, 4, 31, 1),
      KORVA_HDR_FIELD(Icmp6NeighborAdvertHdr, solicited, 4, 4, 30, 1),
      KORVA_HDR_FIELD(Icmp6NeighborAdvertHdr, override, 4, 4, 29, 1),
  });
  expectFieldsRoundTrip<Icmp6PrefixInfoOption>({
      KORVA_HDR_FIELD(Icmp6PrefixInfoOption, onLink, 3, 1, 7, 1),
      KORVA_HDR_FIELD(Icmp6PrefixInfoOption, autonomous, 3, 1, 6, 1),
  });
  // Lengths counted in words.
  IpHdr ip;
  ip.versionIs(4);
  ip.headerBytesIs(24);
  EXPECT_EQ(ip.versionAndHeaderLen.value(), 0x46);
  EXPECT_TRUE(ip.hasOptions());
  TcpHdr tcp;
  tcp.dataOffsetIs(15);
  EXPECT_EQ(tcp.headerBytes(), 60u);
}

TEST(IpHdr, ProtocolNumIsRestrictedToIpv4Protocols) {
  const std::set<int> ipv4 = {1, 2, 6, 17, 46, 47, 51, 89, 94, 103, 112, 115, 124, 132, 253, 254};
  Korva::IpHdr hdr;
  for (int p = 0; p < 256; ++p) {
    hdr.proto.valueIs(U8(p));
    ASSERT_EQ(int(hdr.protocolNum()), ipv4.count(p) ? p : 255) << p;
  }
  hdr.protocolNumIs(Korva::ipProtoOspf);
  EXPECT_EQ(hdr.proto.value(), 89);
  EXPECT_EQ(Korva::valueToStrep(Korva::ipProtoIpv6Frag), "ipProtoIpv6Frag");
  EXPECT_STREQ(Korva::ipProtocolNumberName(Korva::IpProtocolNumber(7)), "ipProtoUnknown");
}

// --- bytes of messages and options ---

template <class T>
std::string hex(const T& value) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < sizeof value; ++i) {
    std::snprintf(two, sizeof two, "%02x", reinterpret_cast<const U8*>(&value)[i]);
    out += two;
  }
  return out;
}

// Field order, and the defaults a fresh structure starts with (type, length, zeros).
TEST(HdrLayouts, WireBytes) {
  Korva::IpHdr ip;
  EXPECT_EQ(hex(ip), std::string(40, '0'));
  Korva::Ip6Hdr ip6;
  ip6.srcAddrIs(Korva::Ip6Addr("fe80::1"));
  ip6.dstAddrIs(Korva::Ip6Addr("ff02::16"));
  EXPECT_EQ(ip6.srcAddr(), Korva::Ip6Addr("fe80::1"));
  EXPECT_EQ(hex(ip6).substr(16),
            "fe800000000000000000000000000001ff020000000000000000000000000016");
  struct __attribute__((packed)) {
    Korva::Ip6OptionsHdr hbh;
    Korva::Ip6RouterAlertOption alert;
    Korva::Ip6PadNOption pad;
    Korva::Ip6Pad1Option pad1;
  } mldHopByHop;
  mldHopByHop.hbh.nextHeader.valueIs(Korva::ipProtoIcmpv6);
  EXPECT_EQ(hex(mldHopByHop), "3a0005020000010000");
  EXPECT_EQ(mldHopByHop.hbh.headerBytes(), 8u);
  EXPECT_EQ(hex(Korva::Eth8022SnapHdr()), "aaaa030000000000");

  Korva::Icmp6RouterAdvertHdr ra;
  ra.icmp6.type.valueIs(Korva::icmp6RouterAdvert);
  ra.curHopLimit.valueIs(64);
  ra.flags.valueIs(0x98);
  ra.routerLifetime.valueIs(1800);
  ra.reachableTime.valueIs(30000);
  ra.retransTimer.valueIs(1000);
  EXPECT_EQ(hex(ra), "860000004098070800007530000003e8");
  Korva::Icmp6TargetLinkAddrOption tlla;
  tlla.ethAddrIs(Korva::EthAddr(0x0200, 0x5e00, 0x5301));
  EXPECT_EQ(hex(tlla), "020102005e005301");
  EXPECT_EQ(tlla.ethAddr(), Korva::EthAddr(0x0200, 0x5e00, 0x5301));
  Korva::Icmp6PrefixInfoOption prefix;
  prefix.prefixLen.valueIs(64);
  prefix.validLifetime.valueIs(0xFFFFFFFF);
  prefix.prefixAddrIs(Korva::Ip6Addr("2001:db8::"));
  EXPECT_EQ(hex(prefix), "03044000ffffffff000000000000000020010db8000000000000000000000000");
  Korva::Icmp6MtuOption mtu;
  mtu.mtu.valueIs(1500);
  EXPECT_EQ(hex(mtu), "05010000000005dc");
}

TEST(Icmp6Hdr, DnsOptionsOverPacketBytes) {
  // RDNSS with servers ::1 and ::2, then DNSSL with "example.com", as a router sends them.
  const std::string lifetime("\x00\x00\x00\x00\x0e\x10", 6);
  std::string options = "\x19\x05" + lifetime + std::string(15, '\0') + "\x01" +
                        std::string(15, '\0') + "\x02\x1f\x03" + lifetime +
                        std::string("\7example\3com\0\0\0\0", 16);
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(options);
  auto rdnss = Korva::icmp6DnsServerOptionWrapperFactory(pkt, 0);
  EXPECT_EQ(rdnss->header()->lifetime.value(), 3600u);
  ASSERT_EQ(rdnss->header()->addressCount(), 2u);
  EXPECT_EQ(rdnss->header()->address(1), Korva::Ip6Addr("::2"));
  U32 next = Korva::icmp6OptionHdrWrapperFactory(pkt, 0)->header()->optionBytes();
  EXPECT_EQ(next, 40u);
  auto dnssl = Korva::icmp6DnsSuffixOptionWrapperFactory(pkt, next);
  EXPECT_EQ(dnssl->header()->suffixBytes(), 16u);
  EXPECT_EQ(std::memcmp(dnssl->header()->suffixes(), "\7example", 8), 0);
}

// --- Ethernet: where the IP header starts ---

// A frame from the EtherType fields (outer first), a TCI in front of every inner one, with
// room for an IP header behind.
std::string frameWithTypes(const std::vector<U16>& types) {
  std::string frame(12, '\x11');
  for (U16 type : types) {
    if (frame.size() > 12) frame.append("\x20\x05", 2);
    frame += {char(type >> 8), char(type)};
  }
  return frame + std::string(20, '\0');
}

TEST(EthHdr, IpHdrOffsetFollowsDot1QTagsOnly) {
  const struct {
    std::vector<U16> types;
    U32 len, offset;
  } cases[] = {
      {{0x0800}, 34, 14},
      {{0x86DD}, 34, 14},
      {{0x8100, 0x0800}, 38, 18},
      {{0x8100, 0x8100, 0x8100, 0x86DD}, 46, 26},
      {{0x0806}, 34, 0},          // ARP
      {{0x88A8, 0x0800}, 38, 0},  // 802.1ad not followed
      {{0x8100, 0x9100, 0x0800}, 42, 0},
      {{0x8100, 0x0806}, 38, 0},
      {{0x05DC}, 34, 0},          // 802.3 length: LLC
      {{0x0800}, 13, 0},          // too short for the header
      {{0x8100, 0x0800}, 17, 0},  // tag cut off
      {{0x8100, 0x0800}, 18, 18},
  };
  for (const auto& c : cases) {
    const std::string frame = frameWithTypes(c.types);
    EXPECT_EQ(Korva::ipHdrOffset(*reinterpret_cast<const Korva::EthHdr*>(frame.data()), c.len),
              c.offset)
        << ::testing::PrintToString(c.types) << " in " << c.len;
  }
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs("pad" + frameWithTypes({0x8100, 0x86DD}));
  auto eth = Korva::ethHdrWrapperFactory(pkt, 3);
  EXPECT_EQ(eth->ipHdrOffset(), 18u);
  EXPECT_EQ(eth->header()->ethType.value(), 0x8100);
  auto tag = Korva::eth8021QHdrWrapperFactory(pkt, 3 + 14);
  EXPECT_EQ(tag->ipHdrOffset(), 4u);
  EXPECT_EQ(tag->header()->vlanId(), 5);
}

// --- assertions ---

// Each view fits its header exactly at the end of the first entry and aborts one byte on.
TEST(HdrDeathTest, ViewsMustFitTheFirstEntry) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(40, '\0'));
  const auto fullText = [](const std::string& hdr) {
    return "Assertion \"\\( offset_ \\+ sizeof\\( " + hdr + " \\) \\) <= pkt_->frontBytes\\(\\)\"";
  };
  const struct {
    std::string assertion;
    size_t size;
    void (*make)(const PktPtr&, U32);
  } cases[] = {
      {fullText("EthHdr"), sizeof(Korva::EthHdr),
       [](const PktPtr& p, U32 at) { Korva::ethHdrWrapperFactory(p, at); }},
      {"sizeof\\( Eth8022SnapHdr \\)", sizeof(Korva::Eth8022SnapHdr),
       [](const PktPtr& p, U32 at) { Korva::eth8022SnapHdrWrapperFactory(p, at); }},
      {fullText("IpHdr"), sizeof(Korva::IpHdr),
       [](const PktPtr& p, U32 at) { Korva::ipHdrWrapperFactory(p, at); }},
      {"sizeof\\( Ip6Hdr \\)", sizeof(Korva::Ip6Hdr),
       [](const PktPtr& p, U32 at) { Korva::ip6HdrWrapperFactory(p, at); }},
      {fullText("UdpHdr"), sizeof(Korva::UdpHdr),
       [](const PktPtr& p, U32 at) { Korva::udpHdrWrapperFactory(p, at); }},
      {"sizeof\\( UdpHdr \\)", sizeof(Korva::UdpHdr),
       [](const PktPtr& p, U32 at) { Korva::udpHdrWrapperIpv6Factory(p, at); }},
      {fullText("TcpHdr"), sizeof(Korva::TcpHdr),
       [](const PktPtr& p, U32 at) { Korva::tcpHdrWrapperFactory(p, at); }},
      {"sizeof\\( IcmpHdr \\)", sizeof(Korva::IcmpHdr),
       [](const PktPtr& p, U32 at) { Korva::icmpHdrWrapperFactory(p, at); }},
      {"sizeof\\( Icmp6NeighborSolicitHdr \\)", sizeof(Korva::Icmp6NeighborSolicitHdr),
       [](const PktPtr& p, U32 at) { Korva::icmp6NeighborSolicitHdrWrapperFactory(p, at); }},
      {"sizeof\\( Icmp6PrefixInfoOption \\)", sizeof(Korva::Icmp6PrefixInfoOption),
       [](const PktPtr& p, U32 at) { Korva::icmp6PrefixInfoOptionWrapperFactory(p, at); }},
  };
  for (const auto& c : cases) {
    c.make(pkt, U32(40 - c.size));
    EXPECT_DEATH(c.make(pkt, U32(41 - c.size)), c.assertion);
  }
  EXPECT_DEATH(Korva::IpHdr().headerBytesIs(22),
               "Assertion \"\\(b % 4\\) == 0\" failed in Korva/IpHdr.cpp");
  EXPECT_EQ(KorvaTest::failureText([] { Korva::udpHdrWrapperFactory(nullptr, 0); }),
            "null ValidPtr");
}

// --- decoding bytes from the wire without aborting ---

template <class Header>
void expectLookUpFitsExactly() {
  SCOPED_TRACE(Header::typeName);
  U8 bytes[64] = {};
  for (U32 len = 0; len <= sizeof(Header) + 2; ++len) {
    for (U32 offset : {0u, 1u, 3u, 0xfffffff0u, 0xffffffffu}) {
      const Header* hdr = Korva::hdrAt<Header>(static_cast<const U8*>(bytes), len, offset);
      const bool fits = U64(offset) + sizeof(Header) <= len;
      EXPECT_EQ(hdr != nullptr, fits) << "len " << len << " offset " << offset;
      if (fits) {
        EXPECT_EQ(static_cast<const void*>(hdr), bytes + offset);
      }
    }
  }
}

TEST(HdrLookUp, NullExactlyWhenTheHeaderDoesNotFit) {
  expectLookUpFitsExactly<Korva::EthHdr>();
  expectLookUpFitsExactly<Korva::Eth8021QHdr>();
  expectLookUpFitsExactly<Korva::IpHdr>();
  expectLookUpFitsExactly<Korva::Ip6Hdr>();
  expectLookUpFitsExactly<Korva::UdpHdr>();
  expectLookUpFitsExactly<Korva::TcpHdr>();
  expectLookUpFitsExactly<Korva::IcmpHdr>();
  expectLookUpFitsExactly<Korva::Icmp6Hdr>();
  expectLookUpFitsExactly<Korva::Icmp6OptionHdr>();
}

TEST(HdrLookUp, PacketViewsAreNullWhereTheAssertingFactoryWouldAbort) {
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(nullptr, 0));
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  EXPECT_EQ(Korva::hdrAt<Korva::IpHdr>(*pkt, 0), nullptr);  // no data at all
  pkt->newSharedHeadData(28);
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(pkt, 21));
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::IpHdrWrapper>(pkt, 9));
  Mox::Ptr<Korva::UdpHdrWrapper> udp = Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(pkt, 20);
  ASSERT_TRUE(udp);
  EXPECT_EQ(udp->header(), Korva::udpHdrWrapperFactory(pkt, 20)->header());
}

// One header's bytes (the rest of the fixed header zero), the bytes present from its
// start, and the payload length its checks accept, if any.
struct LengthCase {
  const char* what;
  std::vector<U8> bytes;
  U32 available;
  std::optional<U32> payload;
};

template <class Header>
void expectCheckedPayloadLens(const std::vector<LengthCase>& cases) {
  for (const LengthCase& c : cases) {
    Header hdr{};
    std::copy(c.bytes.begin(), c.bytes.end(), reinterpret_cast<U8*>(&hdr));
    EXPECT_EQ(hdr.checkedPayloadLen(c.available), c.payload) << Header::typeName << ": " << c.what;
    EXPECT_EQ(hdr.lengthsFit(c.available), c.payload.has_value()) << c.what;
  }
}

TEST(HdrLengths, ShortAndLyingHeadersAreRefused) {
  expectCheckedPayloadLens<Korva::IpHdr>({
      {"consistent", {0x45, 0, 0, 28}, 28, 8},
      {"link padding after the datagram", {0x45, 0, 0, 28}, 60, 8},
      {"header and nothing else", {0x45, 0, 0, 20}, 20, 0},
      {"options counted", {0x46, 0, 0, 28}, 28, 4},
      {"header length below 20", {0x44, 0, 0, 28}, 28, std::nullopt},
      {"header length 0", {0x40, 0, 0, 28}, 28, std::nullopt},
      {"header longer than the total", {0x46, 0, 0, 20}, 40, std::nullopt},  // would wrap
      {"total longer than the bytes", {0x45, 0, 0, 29}, 28, std::nullopt},
      {"total 65535", {0x45, 0, 0xff, 0xff}, 1500, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::UdpHdr>({
      {"consistent", {0, 0, 0, 0, 0, 12}, 12, 4},
      {"empty datagram", {0, 0, 0, 0, 0, 8}, 8, 0},
      {"len below the header", {0, 0, 0, 0, 0, 7}, 64, std::nullopt},
      {"len 0", {}, 64, std::nullopt},
      {"len past the bytes", {0, 0, 0, 0, 0, 13}, 12, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::TcpHdr>({
      {"no options", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x50}, 30, 10},
      {"options to the end", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0}, 60, 0},
      {"data offset below 5", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40}, 60, std::nullopt},
      {"options past the bytes", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0}, 59, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::Ip6Hdr>({
      {"consistent", {0x60, 0, 0, 0, 0, 10}, 50, 10},
      {"payload past the bytes", {0x60, 0, 0, 0, 0, 11}, 50, std::nullopt},
      {"jumbo length", {0x60, 0, 0, 0, 0xff, 0xff}, 1500, std::nullopt},
  });
}

TEST(HdrLengths, ExtensionAndOptionLengthsMustFitAndAdvance) {
  Korva::Ip6OptionsHdr options{};
  options.hdrExtLen.valueIs(1);  // 16 bytes
  EXPECT_TRUE(options.lengthsFit(16));
  EXPECT_FALSE(options.lengthsFit(15));
  Korva::Icmp6OptionHdr option{};
  EXPECT_FALSE(option.lengthsFit(64));  // length 0 never advances a walk
  option.length.valueIs(2);
  EXPECT_TRUE(option.lengthsFit(16));
  EXPECT_FALSE(option.lengthsFit(15));
}

// Over random header bytes and byte counts, what the checks accept never reaches past the
// bytes present.
template <class Header, class Claimed>
void expectAcceptedLengthsStayInside(Claimed claimedBytes) {
  std::mt19937 rng(sizeof(Header));
  int accepted = 0;
  for (int i = 0; i < 20000; ++i) {
    U8 bytes[sizeof(Header)];
    for (U8& b : bytes) b = U8(rng());
    Header hdr;
    std::memcpy(static_cast<void*>(&hdr), bytes, sizeof hdr);
    const U32 available = rng() % 70000;
    const std::optional<U32> payload = hdr.checkedPayloadLen(available);
    if (!payload) continue;
    ++accepted;
    ASSERT_LE(U64(claimedBytes(hdr)) + *payload, available) << Header::typeName;
  }
  EXPECT_GT(accepted, 0) << Header::typeName;
}

TEST(HdrLengths, AcceptedLengthsNeverReachPastTheBytes) {
  expectAcceptedLengthsStayInside<Korva::IpHdr>([](const Korva::IpHdr& h) {
    EXPECT_GE(h.headerBytes(), 20u);
    return h.headerBytes();
  });
  expectAcceptedLengthsStayInside<Korva::UdpHdr>([](const Korva::UdpHdr&) { return 8u; });
  expectAcceptedLengthsStayInside<Korva::TcpHdr>([](const Korva::TcpHdr& h) {
    EXPECT_GE(h.headerBytes(), 20u);
    return h.headerBytes();
  });
  expectAcceptedLengthsStayInside<Korva::Ip6Hdr>([](const Korva::Ip6Hdr&) { return 40u; });
}

}  // namespace
