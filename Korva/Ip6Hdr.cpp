#include <Korva/Ip6Hdr.h>

namespace Korva {

Mox::Ptr<Ip6HdrWrapper> ip6HdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<Ip6HdrWrapper>(std::move(pkt), offset);
}

}  // namespace Korva
