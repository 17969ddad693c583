#include <Korva/Icmp6Hdr.h>

namespace Korva {

#define KORVA_ICMP6_FACTORY(Wrapper, factory)                  \
  Mox::Ptr<Wrapper> factory(Mox::Ptr<Pkt> pkt, U32 offset) {   \
    return hdrWrapperFactory<Wrapper>(std::move(pkt), offset); \
  }

KORVA_ICMP6_FACTORY(Icmp6HdrWrapper, icmp6HdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6EchoHdrWrapper, icmp6EchoHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6PacketTooBigHdrWrapper, icmp6PacketTooBigHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6RouterSolicitHdrWrapper, icmp6RouterSolicitHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6RouterAdvertHdrWrapper, icmp6RouterAdvertHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6NeighborSolicitHdrWrapper, icmp6NeighborSolicitHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6NeighborAdvertHdrWrapper, icmp6NeighborAdvertHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6OptionHdrWrapper, icmp6OptionHdrWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6SrcLinkAddrOptionWrapper, icmp6SrcLinkAddrOptionWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6TargetLinkAddrOptionWrapper, icmp6TargetLinkAddrOptionWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6PrefixInfoOptionWrapper, icmp6PrefixInfoOptionWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6MtuOptionWrapper, icmp6MtuOptionWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6DnsServerOptionWrapper, icmp6DnsServerOptionWrapperFactory)
KORVA_ICMP6_FACTORY(Icmp6DnsSuffixOptionWrapper, icmp6DnsSuffixOptionWrapperFactory)

#undef KORVA_ICMP6_FACTORY

}  // namespace Korva
