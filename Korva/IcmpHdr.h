#pragma once
// The ICMP header (RFC 792) laid over packet bytes, and its view.

#include <Korva/Checksum.h>
#include <Korva/Pkt.h>

namespace Korva {

enum IcmpType : U8 {
  icmpEchoReply = 0,
  icmpDestUnreachable = 3,
  icmpRedirect = 5,
  icmpEchoRequest = 8,
  icmpTimeExceeded = 11,
  icmpParameterProblem = 12,
};

// Type, code, checksum, and the four bytes whose meaning depends on the type: identifier
// and sequence number (echo), gateway (redirect), next-hop MTU (fragmentation needed),
// pointer (parameter problem).
struct __attribute__((packed)) IcmpHdr {
  static constexpr const char* typeName = "IcmpHdr";

  NetU8 type;
  NetU8 code;
  IpChecksum checksum;
  NetU32 restOfHeader;

  U16 id() const noexcept { return U16(restOfHeader.field(16, 16)); }
  void idIs(U16 v) noexcept { restOfHeader.fieldIs(16, 16, v); }
  U16 sequence() const noexcept { return U16(restOfHeader.field(0, 16)); }
  void sequenceIs(U16 v) noexcept { restOfHeader.fieldIs(0, 16, v); }
  U16 nextHopMtu() const noexcept { return U16(restOfHeader.field(0, 16)); }
  void nextHopMtuIs(U16 v) noexcept { restOfHeader.fieldIs(0, 16, v); }
  U8 pointer() const noexcept { return U8(restOfHeader.field(24, 8)); }
  void pointerIs(U8 v) noexcept { restOfHeader.fieldIs(24, 8, v); }

  // Over `len` bytes of the message from the header on, which must lie contiguous.
  IpChecksum computedChecksum(U32 len) const { return ipChecksumCalc(this, len, 0); }
};
static_assert(sizeof(IcmpHdr) == 8);

class IcmpHdrWrapper : public HdrWrapper<IcmpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  // Over the message from the header to the end of the packet's first data entry.
  IpChecksum computedChecksum() const {
    return header()->computedChecksum(pkt()->frontBytes() - offset());
  }
};

Mox::Ptr<IcmpHdrWrapper> icmpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
