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

}  // namespace Korva
