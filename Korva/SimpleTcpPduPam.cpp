#include <Korva/SimpleTcpPduPam.h>
#include <Mox/Assert.h>

namespace Korva {

Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(const Mox::Ptr<TcpFd>& fd) {
  return Mox::Ptr<SimpleTcpPduPam>(new SimpleTcpPduPam("SimpleTcpPduPam", fd));
}

U16 SimpleTcpPduPam::getPduSize() {
  const Mox::Ptr<Pkt>& pkt = rxPktHolderShadow();
  MOX_ASSERT(pkt);
  // Received PDUs sit in one piece of the shared buffer: its data is all of it.
  const Pkt::SharedBuffer& buffer = *pkt->sharedBuffer();
  if (buffer.dataBytes() < headerBytes) return headerBytes;
  const U8* header = buffer.data();
  return U16(header[2] << 8 | header[3]);
}

}  // namespace Korva
