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

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace KorvaTest {

// The link, where packets to the addresses behind it come out.
class LinkCapture {
 public:
  explicit LinkCapture(int fd) : fd_(fd) {}
  // Sends each message to port `port` of the address behind the link from a fresh
  // socket(family, type, protocol), and returns the packets of IP protocol `protocol` that
  // came out, waiting at most a second for one per message.
  std::vector<Mox::Ptr<Korva::Pkt>> send(int family, int type, Korva::U8 protocol, Korva::U16 port,
                                         const std::vector<std::string>& messages, int flags = 0);

 private:
  int fd_;
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
    auto ipView = Korva::ipHdrWrapperFactory(pkt, 0);
    EXPECT_EQ(ipView->computedChecksum().value(), 0);  // the kernel's IPv4 header
    const auto* ip = ipView->header();
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
