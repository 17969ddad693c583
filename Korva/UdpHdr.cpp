#include <Korva/UdpHdr.h>

namespace Korva {

namespace {

IpChecksum zeroSentAsOnes(IpChecksum sum) {
  return sum.value() ? sum : IpChecksum(0xFFFF);
}

}  // namespace

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdr& pseudo) const {
  return zeroSentAsOnes(pseudoHdrChecksum(pseudo, this, len.value()));
}

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdrIpv6& pseudo) const {
  return zeroSentAsOnes(pseudoHdrChecksum(pseudo, this, len.value()));
}

Mox::Ptr<UdpHdrWrapper> udpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<UdpHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<UdpHdrWrapperIpv6> udpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<UdpHdrWrapperIpv6>(std::move(pkt), offset);
}

}  // namespace Korva
