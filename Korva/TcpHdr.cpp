#include <Korva/TcpHdr.h>

#include <algorithm>

namespace Korva {

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdr& pseudo, U32 available) const {
  return pseudoHdrChecksum(pseudo, this, std::min<U32>(pseudo.len.value(), available));
}

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdrIpv6& pseudo, U32 available) const {
  return pseudoHdrChecksum(pseudo, this, std::min(pseudo.udpLen.value(), available));
}

Mox::Ptr<TcpHdrWrapper> tcpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<TcpHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<TcpHdrWrapperIpv6> tcpHdrWrapperIpv6Factory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<TcpHdrWrapperIpv6>(std::move(pkt), offset);
}

}  // namespace Korva
