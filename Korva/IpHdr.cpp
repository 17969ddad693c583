#include <Korva/IpHdr.h>

#include <Mox/Assert.h>

#include <algorithm>
#include <ostream>

namespace Korva {

const char* ipProtocolNumberName(IpProtocolNumber number) noexcept {
  switch (number) {
    case ipProtoIpv6HopByHop:
      return "ipProtoIpv6HopByHop";
    case ipProtoIcmp:
      return "ipProtoIcmp";
    case ipProtoIgmp:
      return "ipProtoIgmp";
    case ipProtoTcp:
      return "ipProtoTcp";
    case ipProtoUdp:
      return "ipProtoUdp";
    case ipProtoIpv6Route:
      return "ipProtoIpv6Route";
    case ipProtoIpv6Frag:
      return "ipProtoIpv6Frag";
    case ipProtoRsvp:
      return "ipProtoRsvp";
    case ipProtoGre:
      return "ipProtoGre";
    case ipProtoAh:
      return "ipProtoAh";
    case ipProtoIcmpv6:
      return "ipProtoIcmpv6";
    case ipProtoIpv6NoNxt:
      return "ipProtoIpv6NoNxt";
    case ipProtoIpv6Opts:
      return "ipProtoIpv6Opts";
    case ipProtoOspf:
      return "ipProtoOspf";
    case ipProtoIpip:
      return "ipProtoIpip";
    case ipProtoPim:
      return "ipProtoPim";
    case ipProtoVrrp:
      return "ipProtoVrrp";
    case ipProtoL2tp:
      return "ipProtoL2tp";
    case ipProtoIsis:
      return "ipProtoIsis";
    case ipProtoSctp:
      return "ipProtoSctp";
    case ipProtoExperimental1:
      return "ipProtoExperimental1";
    case ipProtoExperimental2:
      return "ipProtoExperimental2";
    case ipProtoUnknown:
      break;
  }
  return "ipProtoUnknown";
}

std::string valueToStrep(IpProtocolNumber number) {
  return ipProtocolNumberName(number);
}

std::ostream& operator<<(std::ostream& os, IpProtocolNumber number) {
  return os << ipProtocolNumberName(number);
}

void IpHdr::headerBytesIs(U32 b) {
  MOX_ASSERT((b % 4) == 0);
  headerLenIs(U8(b / 4));
}

IpProtocolNumber IpHdr::protocolNum() const noexcept {
  switch (U8 p = proto.value()) {
    case ipProtoIcmp:
    case ipProtoIgmp:
    case ipProtoTcp:
    case ipProtoUdp:
    case ipProtoRsvp:
    case ipProtoGre:
    case ipProtoAh:
    case ipProtoOspf:
    case ipProtoIpip:
    case ipProtoPim:
    case ipProtoVrrp:
    case ipProtoL2tp:
    case ipProtoIsis:
    case ipProtoSctp:
    case ipProtoExperimental1:
    case ipProtoExperimental2:
      return IpProtocolNumber(p);
    default:
      return ipProtoUnknown;
  }
}

IpChecksum IpHdr::computedChecksum(U32 available) const {
  MOX_ASSERT((headerBytes() % 2) == 0);
  return ipChecksumCalc(this, std::min(headerBytes(), available), 0);
}

Mox::Ptr<IpHdrWrapper> ipHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<IpHdrWrapper>(std::move(pkt), offset);
}

}  // namespace Korva
