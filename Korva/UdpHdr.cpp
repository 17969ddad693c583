#include <Korva/UdpHdr.h>

#include <algorithm>

namespace Korva {

namespace {

template <class PseudoHdr>
IpChecksum datagramChecksum(const UdpHdr& hdr, const PseudoHdr& pseudo, U32 available) {
  IpChecksum sum = pseudoHdrChecksum(pseudo, &hdr, std::min<U32>(hdr.len.value(), available));
  return sum.value() ? sum : IpChecksum(0xFFFF);
}

}  // namespace

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdr& pseudo, U32 available) const {
  return datagramChecksum(*this, pseudo, available);
}

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdrIpv6& pseudo, U32 available) const {
  return datagramChecksum(*this, pseudo, available);
}

Mox::Ptr<UdpHdrWrapper> udpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<UdpHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<UdpHdrWrapperIpv6> udpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<UdpHdrWrapperIpv6>(std::move(pkt), offset);
}

}  // namespace Korva
