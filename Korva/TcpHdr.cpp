#include <Korva/TcpHdr.h>

namespace Korva {

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdr& pseudo) const {
  return pseudoHdrChecksum(pseudo, this, pseudo.len.value());
}

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdrIpv6& pseudo) const {
  return pseudoHdrChecksum(pseudo, this, pseudo.udpLen.value());
}

}  // namespace Korva
