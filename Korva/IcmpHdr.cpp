#include <Korva/IcmpHdr.h>

namespace Korva {

Mox::Ptr<IcmpHdrWrapper> icmpHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<IcmpHdrWrapper>(std::move(pkt), offset);
}

}  // namespace Korva
