#pragma once
// Packets built by the kernel, for checking our checksums against its own. The work runs
// on a thread inside a fresh network namespace whose one link is a TUN device: it offers
// no checksum offload unless asked to, so every IPv4 and IPv6 packet routed to it, and read
// back from its descriptor, carries the checksum the kernel computed in software.
// (Loopback cannot be switched: its packets leave with unfinished checksums.)

#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/Pkt.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace KorvaTest {

struct PeerAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};
// An address behind the link in `family` (AF_INET or AF_INET6), at `port`.
PeerAddress peerAddress(int family, Korva::U16 port = 0);

// The packets that leave on the link.
class LinkCapture {
 public:
  explicit LinkCapture(int fd) : fd_(fd) {}
  // The packets of IP protocol `protocol` seen so far, waiting at most a second for at
  // least `count` of them.
  std::vector<Mox::Ptr<Korva::Pkt>> packets(size_t count, Korva::U8 protocol);

 private:
  int fd_;
  std::vector<Mox::Ptr<Korva::Pkt>> seen_;
};

// Runs `body` inside the namespace. Returns "" when it ran, or why the namespace could not
// be set up (missing capabilities or tools), for the caller to skip with.
std::string inPrivateLink(const std::function<void(LinkCapture&)>& body);

// The transport view `factory` makes of a captured packet behind its IP header (IPv4 or
// IPv6 after the view's address type; no IPv6 extension headers), given the IP header's
// addresses for its pseudo-header.
template <class View>
Mox::Ptr<View> transportView(const Mox::Ptr<Korva::Pkt>& pkt,
                             Mox::Ptr<View> (*factory)(Mox::Ptr<Korva::Pkt>, Korva::U32)) {
  Mox::Ptr<View> view;
  if constexpr (std::is_same_v<std::decay_t<decltype(view->ipSrc())>, Korva::IpAddr>) {
    const auto* ip = Korva::ipHdrWrapperFactory(pkt, 0)->header();
    view = factory(pkt, ip->headerBytes());
    view->ipSrcIs(ip->srcAddr());
    view->ipDstIs(ip->dstAddr());
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
void expectKernelChecksum(View& view, Korva::U16 valid) {
  EXPECT_EQ(view.computedChecksum().value(), valid);
  const Korva::IpChecksum kernel = view.header()->checksum;
  view.header()->checksum.valueIs(0);
  EXPECT_EQ(view.computedChecksum(), kernel);
}

}  // namespace KorvaTest
