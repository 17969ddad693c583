#pragma once
// The IPv4 header (RFC 791) laid over packet bytes, its router-alert option, the IP
// protocol numbers, and the view that ties the header to a packet.

#include <Korva/Checksum.h>
#include <Korva/Pkt.h>

#include <iosfwd>
#include <optional>
#include <string>

namespace Korva {

enum IpProtocolNumber : U8 {
  ipProtoIpv6HopByHop = 0,
  ipProtoIcmp = 1,
  ipProtoIgmp = 2,
  ipProtoTcp = 6,
  ipProtoUdp = 17,
  ipProtoIpv6Route = 43,
  ipProtoIpv6Frag = 44,
  ipProtoRsvp = 46,
  ipProtoGre = 47,
  ipProtoAh = 51,
  ipProtoIcmpv6 = 58,
  ipProtoIpv6NoNxt = 59,
  ipProtoIpv6Opts = 60,
  ipProtoOspf = 89,
  ipProtoIpip = 94,
  ipProtoPim = 103,
  ipProtoVrrp = 112,
  ipProtoL2tp = 115,
  ipProtoIsis = 124,
  ipProtoSctp = 132,
  ipProtoExperimental1 = 253,
  ipProtoExperimental2 = 254,
  ipProtoUnknown = 255,
};

// The enumerator's name; "ipProtoUnknown" for a number that is not an enumerator.
const char* ipProtocolNumberName(IpProtocolNumber number) noexcept;
std::string valueToStrep(IpProtocolNumber number);
std::ostream& operator<<(std::ostream& os, IpProtocolNumber number);

using IpVersionAndHeaderLen = NetU8;
using IpTos = NetU8;
using IpTotalLen = NetU16;
using IpId = NetU16;
using IpFragmentOffsetAndFlags = NetU16;
using IpTtl = NetU8;
using IpProto = NetU8;

struct __attribute__((packed)) IpHdr {
  static constexpr const char* typeName = "IpHdr";
  static constexpr U32 minHeaderBytes = 20;

  IpVersionAndHeaderLen versionAndHeaderLen;
  IpTos tos;
  IpTotalLen totalLen;
  IpId id;
  IpFragmentOffsetAndFlags fragmentOffsetAndFlags;
  IpTtl ttl;
  IpProto proto;
  IpChecksum checksum;
  NetU32 src;  // the address word as IpAddr stores it
  NetU32 dst;

  IpAddr srcAddr() const noexcept { return IpAddr(src.nbo()); }
  void srcAddrIs(IpAddr address) noexcept { src.nboIs(address.valueNbo()); }
  IpAddr dstAddr() const noexcept { return IpAddr(dst.nbo()); }
  void dstAddrIs(IpAddr address) noexcept { dst.nboIs(address.valueNbo()); }

  U8 version() const noexcept { return versionAndHeaderLen.field(4, 4); }
  void versionIs(U8 v) noexcept { versionAndHeaderLen.fieldIs(4, 4, v); }
  // In 32-bit words.
  U8 headerLen() const noexcept { return versionAndHeaderLen.field(0, 4); }
  void headerLenIs(U8 words) noexcept { versionAndHeaderLen.fieldIs(0, 4, words); }
  U32 headerBytes() const noexcept { return headerLen() * 4u; }
  void headerBytesIs(U32 b);
  bool hasOptions() const noexcept { return headerBytes() > minHeaderBytes; }
  // The options follow the fixed header in the packet's bytes.
  U8* options() noexcept { return reinterpret_cast<U8*>(this + 1); }

  U8 dscp() const noexcept { return tos.field(2, 6); }
  void dscpIs(U8 v) noexcept { tos.fieldIs(2, 6, v); }
  U8 ecn() const noexcept { return tos.field(0, 2); }
  void ecnIs(U8 v) noexcept { tos.fieldIs(0, 2, v); }

  // Trusts the header: check lengthsFit() first, or use checkedPayloadLen(), for a header
  // from the wire.
  U32 payloadLen() const noexcept { return totalLen.value() - headerBytes(); }
  // 20 <= headerBytes() <= totalLen <= `available`, the bytes present from the header on.
  bool lengthsFit(U32 available) const noexcept {
    return headerBytes() >= minHeaderBytes && headerBytes() <= totalLen.value() &&
           totalLen.value() <= available;
  }
  // payloadLen() when the lengths fit, else nothing.
  std::optional<U32> checkedPayloadLen(U32 available) const noexcept {
    if (!lengthsFit(available)) return std::nullopt;
    return payloadLen();
  }

  // Flags from the top bit down: reserved, don't fragment, more fragments; then the offset
  // in units of 8 bytes.
  U16 fragmentOffset() const noexcept { return fragmentOffsetAndFlags.field(0, 13); }
  void fragmentOffsetIs(U16 v) noexcept { fragmentOffsetAndFlags.fieldIs(0, 13, v); }
  bool moreFrag() const noexcept { return fragmentOffsetAndFlags.flag(13); }
  void moreFragIs(bool v) noexcept { fragmentOffsetAndFlags.flagIs(13, v); }
  bool dontFrag() const noexcept { return fragmentOffsetAndFlags.flag(14); }
  void dontFragIs(bool v) noexcept { fragmentOffsetAndFlags.flagIs(14, v); }
  bool reservedFragFlag() const noexcept { return fragmentOffsetAndFlags.flag(15); }
  void reservedFragFlagIs(bool v) noexcept { fragmentOffsetAndFlags.flagIs(15, v); }

  // The protocol as an enumerator, for the numbers an IPv4 header may carry; every other
  // value, the IPv6 extension-header numbers included, is ipProtoUnknown.
  IpProtocolNumber protocolNum() const noexcept;
  void protocolNumIs(IpProtocolNumber number) noexcept { proto.valueIs(number); }

  // Over headerBytes() bytes of the header as laid in the packet, but at most `available`;
  // 0 for a header whose checksum field is right.
  IpChecksum computedChecksum(U32 available = ~0u) const;
};
static_assert(sizeof(IpHdr) == 20);

// Router alert (RFC 2113): copied flag set, class 0, number 20; length 4; value 0.
struct __attribute__((packed)) IpRouterAlertOption {
  static constexpr const char* typeName = "IpRouterAlertOption";

  NetU8 type{0x94};
  NetU8 length{4};
  NetU16 value;

  bool copied() const noexcept { return type.flag(7); }
  U8 optionClass() const noexcept { return type.field(5, 2); }
  U8 number() const noexcept { return type.field(0, 5); }
};
static_assert(sizeof(IpRouterAlertOption) == 4);

class IpHdrWrapper : public HdrWrapper<IpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  // A header length that overstates the bytes present gives a checksum that does not match.
  IpChecksum computedChecksum() const {
    return header()->computedChecksum(pkt()->frontBytes() - offset());
  }
};

Mox::Ptr<IpHdrWrapper> ipHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
