#pragma once
// The UDP header (RFC 768) laid over packet bytes, its checksum over IPv4 and IPv6, and
// the views that tie it to a packet.

#include <Korva/Checksum.h>
#include <Korva/Pkt.h>

namespace Korva {

struct __attribute__((packed)) UdpHdr {
  static constexpr const char* typeName = "UdpHdr";

  NetU16 srcPort;
  NetU16 dstPort;
  NetU16 len;  // header and payload
  IpChecksum checksum;

  // Over `len` bytes from the header, which must lie contiguous in memory. A sum of 0 is
  // sent as 0xFFFF: a zero field means that no checksum was computed.
  IpChecksum computedChecksum(const UdpPseudoHdr& pseudo) const;
  IpChecksum computedChecksum(const UdpPseudoHdrIpv6& pseudo) const;
};
static_assert(sizeof(UdpHdr) == 8);

}  // namespace Korva
