#include <Korva/SimpleTcpPduPam.h>
#include <Mox/Assert.h>

namespace Korva {

Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(const Mox::Ptr<TcpFd>& fd) {
  return Mox::Ptr<SimpleTcpPduPam>(new SimpleTcpPduPam("SimpleTcpPduPam", fd));
}

U16 SimpleTcpPduPam::getPduSize() {
  const Mox::Ptr<Pkt>& pkt = rxPktHolderShadow();
  MOX_ASSERT(pkt);
  // Received PDUs sit in one piece: the front is all of it.
  if (pkt->frontBytes() < kHeaderBytes) return kHeaderBytes;
  const U8* header = pkt->frontData();
  return U16(header[2] << 8 | header[3]);
}

}  // namespace Korva
