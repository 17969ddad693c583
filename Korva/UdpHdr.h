#pragma once
// The UDP header (RFC 768) laid over packet bytes, its checksum over IPv4 and IPv6, and
// the views that tie it to a packet.

#include <Korva/Checksum.h>
#include <Korva/Pkt.h>

#include <optional>

namespace Korva {

struct __attribute__((packed)) UdpHdr {
  static constexpr const char* typeName = "UdpHdr";

  NetU16 srcPort;
  NetU16 dstPort;
  NetU16 len;  // header and payload
  IpChecksum checksum;

  // Over `len` bytes from the header, which must lie contiguous in memory, but at most
  // `available` (a length field that overstates the datagram reads no further and gives a
  // checksum that does not match). A sum of 0 is sent as 0xFFFF: a zero field means that
  // no checksum was computed.
  IpChecksum computedChecksum(const UdpPseudoHdr& pseudo, U32 available = ~0u) const;
  IpChecksum computedChecksum(const UdpPseudoHdrIpv6& pseudo, U32 available = ~0u) const;

  // Trusts the header: check lengthsFit() first for a header from the wire.
  U32 payloadLen() const noexcept { return len.value() - U32(sizeof(UdpHdr)); }
  // 8 <= len <= `available`, the bytes present from the header on.
  bool lengthsFit(U32 available) const noexcept {
    return len.value() >= sizeof(UdpHdr) && len.value() <= available;
  }
  // payloadLen() when the lengths fit, else nothing.
  std::optional<U32> checkedPayloadLen(U32 available) const noexcept {
    if (!lengthsFit(available)) return std::nullopt;
    return payloadLen();
  }

  // A datagram's length is its own `len` field.
  static U32 segmentBytes(const UdpHdr& hdr, U32) noexcept { return hdr.len.value(); }
};
static_assert(sizeof(UdpHdr) == 8);

template <class PseudoHdr, class Address>
class UdpHdrWrapperBase : public TransportHdrWrapper<UdpHdr, PseudoHdr, Address> {
 public:
  using TransportHdrWrapper<UdpHdr, PseudoHdr, Address>::TransportHdrWrapper;
  // What computedChecksum() gives for a datagram whose checksum field is right: its sum
  // is 0, sent as 0xFFFF.
  static constexpr U16 validChecksum() noexcept { return 0xFFFF; }
};

using UdpHdrWrapper = UdpHdrWrapperBase<UdpPseudoHdr, IpAddr>;
using UdpHdrWrapperIpv6 = UdpHdrWrapperBase<UdpPseudoHdrIpv6, Ip6Addr>;

Mox::Ptr<UdpHdrWrapper> udpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);
Mox::Ptr<UdpHdrWrapperIpv6> udpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
