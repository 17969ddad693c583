#include <Korva/EthHdr.h>

namespace Korva {

namespace {

constexpr U16 ethTypeIp = 0x0800;
constexpr U16 ethTypeIp6 = 0x86DD;
constexpr U16 ethTypeDot1Q = 0x8100;

// What follows a header whose EtherType is `type`, `headerBytes` long, of `len` bytes.
U32 offsetBehind(U16 type, U32 headerBytes, const U8* header, U32 len) {
  if (type == ethTypeIp || type == ethTypeIp6) return headerBytes;
  if (type != ethTypeDot1Q) return 0;
  const auto& tag = *reinterpret_cast<const Eth8021QHdr*>(header + headerBytes);
  U32 inner = ipHdrOffset(tag, len - headerBytes);
  return inner ? headerBytes + inner : 0;
}

U32 bytesFrom(const Pkt& pkt, U32 offset) {
  return pkt.frontBytes() - offset;
}

}  // namespace

U32 ipHdrOffset(const EthHdr& hdr, U32 len) {
  if (len < sizeof(EthHdr) || hdr.isLlc()) return 0;
  return offsetBehind(hdr.ethType.value(), sizeof(EthHdr), reinterpret_cast<const U8*>(&hdr), len);
}

U32 ipHdrOffset(const Eth8021QHdr& hdr, U32 len) {
  if (len < sizeof(Eth8021QHdr)) return 0;
  return offsetBehind(hdr.ethType.value(), sizeof(Eth8021QHdr), reinterpret_cast<const U8*>(&hdr),
                      len);
}

U32 EthHdrWrapper::ipHdrOffset() const {
  return Korva::ipHdrOffset(*header(), bytesFrom(*pkt(), offset()));
}

U32 Eth8021QHdrWrapper::ipHdrOffset() const {
  return Korva::ipHdrOffset(*header(), bytesFrom(*pkt(), offset()));
}

Mox::Ptr<EthHdrWrapper> ethHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<EthHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<Eth8021QHdrWrapper> eth8021QHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<Eth8021QHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<Eth8022LlcHdrWrapper> eth8022LlcHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<Eth8022LlcHdrWrapper>(std::move(pkt), offset);
}

Mox::Ptr<Eth8022SnapHdrWrapper> eth8022SnapHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  return hdrWrapperFactory<Eth8022SnapHdrWrapper>(std::move(pkt), offset);
}

}  // namespace Korva
