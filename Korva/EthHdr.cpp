#include <Korva/EthHdr.h>

namespace Korva {

namespace {

// What follows a header whose EtherType is `type`, `headerBytes` long, of `len` bytes.
U32 offsetBehind(EthType type, U32 headerBytes, const U8* header, U32 len) {
  if (type == EthType::ethTypeIp || type == EthType::ethTypeIp6) return headerBytes;
  if (type != EthType::ethTypeDot1Q) return 0;
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
  return offsetBehind(hdr.etherType(), sizeof(EthHdr), reinterpret_cast<const U8*>(&hdr), len);
}

U32 ipHdrOffset(const Eth8021QHdr& hdr, U32 len) {
  if (len < sizeof(Eth8021QHdr)) return 0;
  return offsetBehind(hdr.etherType(), sizeof(Eth8021QHdr), reinterpret_cast<const U8*>(&hdr), len);
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
