#pragma once
// Packets built by the kernel, for checking our checksums against its own. The work runs
// on a thread inside a fresh network namespace with one veth link whose transmit checksum
// offload is off, so every packet sent on it carries the checksum the kernel computed in
// software. (Loopback cannot be switched: its packets leave with unfinished checksums.)
// The link's peer addresses have static neighbour entries, so packets to them leave at
// once without anyone answering.

#include <Korva/Pkt.h>

#include <functional>
#include <string>
#include <vector>

namespace KorvaTest {

// Our end of the link and the peer addresses packets are sent to.
inline constexpr const char* linkName = "kcsum0";
inline constexpr const char* peerIpv4 = "10.199.0.2";
inline constexpr const char* peerIpv6 = "fd00:199::2";

// Runs `body` inside the namespace. Returns "" when it ran, or why the namespace could not
// be set up (missing capabilities or tools), for the caller to skip with.
std::string inPrivateLink(const std::function<void()>& body);

// Captures the network-layer packets (IPv4 and IPv6) that leave on the link.
class LinkCapture {
 public:
  LinkCapture();
  ~LinkCapture();
  LinkCapture(const LinkCapture&) = delete;
  LinkCapture& operator=(const LinkCapture&) = delete;
  // The packets of IP protocol `protocol` seen so far, waiting at most a second for at
  // least `count` of them.
  std::vector<Mox::Ptr<Korva::Pkt>> packets(size_t count, Korva::U8 protocol);

 private:
  int fd_;
  std::vector<Mox::Ptr<Korva::Pkt>> seen_;
};

}  // namespace KorvaTest
