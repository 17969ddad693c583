#pragma once
// The TCP header (RFC 9293) laid over packet bytes, its checksum over IPv4 and IPv6, and
// the views that tie it to a packet.

#include <Korva/Checksum.h>
#include <Korva/Pkt.h>

#include <optional>

namespace Korva {

using TcpSequenceNumber = NetU32;
using TcpAcknowledgementNumber = NetU32;
using TcpDataOffsetAndFlags = NetU16;
using TcpWindow = NetU16;
using TcpUrgentPointer = NetU16;

struct __attribute__((packed)) TcpHdr {
  static constexpr const char* typeName = "TcpHdr";
  static constexpr U32 minHeaderBytes = 20;

  NetU16 srcPort;
  NetU16 dstPort;
  TcpSequenceNumber seqNum;
  TcpAcknowledgementNumber ackNum;
  TcpDataOffsetAndFlags dataOffsetAndFlags;
  TcpWindow window;
  IpChecksum checksum;
  TcpUrgentPointer urgentPointer;

  // In 32-bit words.
  U8 dataOffset() const noexcept { return U8(dataOffsetAndFlags.field(12, 4)); }
  void dataOffsetIs(U8 words) noexcept { dataOffsetAndFlags.fieldIs(12, 4, words); }
  U32 headerBytes() const noexcept { return dataOffset() * 4u; }
  U8 reserved() const noexcept { return U8(dataOffsetAndFlags.field(8, 4)); }
  void reservedIs(U8 v) noexcept { dataOffsetAndFlags.fieldIs(8, 4, v); }
  // The eight control bits, CWR (0x80) down to FIN (0x01).
  U8 flags() const noexcept { return U8(dataOffsetAndFlags.field(0, 8)); }
  void flagsIs(U8 v) noexcept { dataOffsetAndFlags.fieldIs(0, 8, v); }
  bool cwr() const noexcept { return dataOffsetAndFlags.flag(7); }
  void cwrIs(bool v) noexcept { dataOffsetAndFlags.flagIs(7, v); }
  bool ece() const noexcept { return dataOffsetAndFlags.flag(6); }
  void eceIs(bool v) noexcept { dataOffsetAndFlags.flagIs(6, v); }
  bool urg() const noexcept { return dataOffsetAndFlags.flag(5); }
  void urgIs(bool v) noexcept { dataOffsetAndFlags.flagIs(5, v); }
  bool ack() const noexcept { return dataOffsetAndFlags.flag(4); }
  void ackIs(bool v) noexcept { dataOffsetAndFlags.flagIs(4, v); }
  bool psh() const noexcept { return dataOffsetAndFlags.flag(3); }
  void pshIs(bool v) noexcept { dataOffsetAndFlags.flagIs(3, v); }
  bool rst() const noexcept { return dataOffsetAndFlags.flag(2); }
  void rstIs(bool v) noexcept { dataOffsetAndFlags.flagIs(2, v); }
  bool syn() const noexcept { return dataOffsetAndFlags.flag(1); }
  void synIs(bool v) noexcept { dataOffsetAndFlags.flagIs(1, v); }
  bool fin() const noexcept { return dataOffsetAndFlags.flag(0); }
  void finIs(bool v) noexcept { dataOffsetAndFlags.flagIs(0, v); }

  // Over the segment length the pseudo-header gives, from the header on, but at most
  // `available` bytes.
  IpChecksum computedChecksum(const TcpPseudoHdr& pseudo, U32 available = ~0u) const;
  IpChecksum computedChecksum(const TcpPseudoHdrIpv6& pseudo, U32 available = ~0u) const;

  // 20 <= headerBytes() <= `available`, the bytes present from the header on.
  bool lengthsFit(U32 available) const noexcept {
    return headerBytes() >= minHeaderBytes && headerBytes() <= available;
  }
  // The bytes after the header and its options when the lengths fit, else nothing.
  std::optional<U32> checkedPayloadLen(U32 available) const noexcept {
    if (!lengthsFit(available)) return std::nullopt;
    return available - headerBytes();
  }

  // A segment carries no length of its own: it runs to the end of the data available
  // (trim link-layer padding off a short frame first).
  static U32 segmentBytes(const TcpHdr&, U32 available) noexcept { return available; }
};
static_assert(sizeof(TcpHdr) == 20);

using TcpHdrWrapper = TransportHdrWrapper<TcpHdr, TcpPseudoHdr, IpAddr>;
using TcpHdrWrapperIpv6 = TransportHdrWrapper<TcpHdr, TcpPseudoHdrIpv6, Ip6Addr>;

Mox::Ptr<TcpHdrWrapper> tcpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);
Mox::Ptr<TcpHdrWrapperIpv6> tcpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
