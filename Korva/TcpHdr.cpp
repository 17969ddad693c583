#include <Korva/TcpHdr.h>

namespace Korva {

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdr& pseudo) const {
  return pseudoHdrChecksum(pseudo, this, pseudo.len.value());
}

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdrIpv6& pseudo) const {
  return pseudoHdrChecksum(pseudo, this, pseudo.udpLen.value());
}

Mox::Ptr<TcpHdrWrapper> tcpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<TcpHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<TcpHdrWrapperIpv6> tcpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<TcpHdrWrapperIpv6>(std::move(pkt), offset);
}

}  // namespace Korva
