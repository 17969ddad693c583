#pragma once
// Ethernet link headers laid over packet bytes: Ethernet II, the 802.1Q tag, and the
// 802.2 LLC and SNAP headers of 802.3 frames, with their views and the search for the IP
// header behind them.

#include <Korva/Checksum.h>
#include <Korva/EthAddr.h>
#include <Korva/Ethernet.h>
#include <Korva/Pkt.h>

namespace Korva {

// Destination, source, and an EtherType (or, below 0x0600, an 802.3 length).
struct __attribute__((packed)) EthHdr {
  static constexpr const char* typeName = "EthHdr";
  static constexpr U16 maxLength = 1500;

  U8 dst[6] = {};
  U8 src[6] = {};
  NetU16 ethType;

  EthAddr dstAddr() const noexcept { return EthAddr::fromBuffer(dst); }
  void dstAddrIs(const EthAddr& address) noexcept { address.copyToBuffer(dst); }
  EthAddr srcAddr() const noexcept { return EthAddr::fromBuffer(src); }
  void srcAddrIs(const EthAddr& address) noexcept { address.copyToBuffer(src); }
  EthType etherType() const noexcept { return EthType(ethType.value()); }
  void etherTypeIs(EthType type) noexcept { ethType.valueIs(U16(type)); }

  // An 802.3 frame carrying LLC: the type field holds a length.
  bool isLlc() const noexcept { return ethType.value() <= maxLength; }
};
static_assert(sizeof(EthHdr) == 14);

// The four bytes of an 802.1Q tag after its TPID: priority, drop eligibility, VLAN id, and
// the EtherType of what follows.
struct __attribute__((packed)) Eth8021QHdr {
  static constexpr const char* typeName = "Eth8021QHdr";

  NetU16 tci;
  NetU16 ethType;

  EthType etherType() const noexcept { return EthType(ethType.value()); }
  void etherTypeIs(EthType type) noexcept { ethType.valueIs(U16(type)); }

  U8 priority() const noexcept { return U8(tci.field(13, 3)); }
  void priorityIs(U8 v) noexcept { tci.fieldIs(13, 3, v); }
  bool dropEligible() const noexcept { return tci.flag(12); }
  void dropEligibleIs(bool v) noexcept { tci.flagIs(12, v); }
  U16 vlanId() const noexcept { return tci.field(0, 12); }
  void vlanIdIs(U16 v) noexcept { tci.fieldIs(0, 12, v); }
};
static_assert(sizeof(Eth8021QHdr) == 4);

// IEEE 802.2 LLC, unnumbered format.
struct __attribute__((packed)) Eth8022LlcHdr {
  static constexpr const char* typeName = "Eth8022LlcHdr";

  NetU8 dsap;
  NetU8 ssap;
  NetU8 control;
};
static_assert(sizeof(Eth8022LlcHdr) == 3);

// LLC with SAPs 0xAA and control 3, then an OUI and a protocol id (an EtherType when the
// OUI is 0).
struct __attribute__((packed)) Eth8022SnapHdr {
  static constexpr const char* typeName = "Eth8022SnapHdr";
  static constexpr U8 snapSap = 0xAA;
  static constexpr U8 unnumberedInformation = 3;

  NetU8 dsap{snapSap};
  NetU8 ssap{snapSap};
  NetU8 control{unnumberedInformation};
  U8 oui[3] = {};
  NetU16 protocolId;

  U32 ouiValue() const noexcept { return U32(oui[0]) << 16 | U32(oui[1]) << 8 | oui[2]; }
  void ouiValueIs(U32 v) noexcept {
    oui[0] = U8(v >> 16);
    oui[1] = U8(v >> 8);
    oui[2] = U8(v);
  }
};
static_assert(sizeof(Eth8022SnapHdr) == 8);

// The offset of the IPv4 or IPv6 header behind a link header of `len` available bytes, or
// 0 when there is none. 802.1Q tags (TPID 0x8100) are followed to any depth; other tag
// types (0x88A8, 0x9100) deliberately are not.
U32 ipHdrOffset(const EthHdr& hdr, U32 len);
U32 ipHdrOffset(const Eth8021QHdr& hdr, U32 len);

class EthHdrWrapper : public HdrWrapper<EthHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  // Over the bytes from the header to the end of the first data entry.
  U32 ipHdrOffset() const;
};

class Eth8021QHdrWrapper : public HdrWrapper<Eth8021QHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 ipHdrOffset() const;
};

using Eth8022LlcHdrWrapper = HdrWrapper<Eth8022LlcHdr>;
using Eth8022SnapHdrWrapper = HdrWrapper<Eth8022SnapHdr>;

Mox::Ptr<EthHdrWrapper> ethHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);
Mox::Ptr<Eth8021QHdrWrapper> eth8021QHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);
Mox::Ptr<Eth8022LlcHdrWrapper> eth8022LlcHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);
Mox::Ptr<Eth8022SnapHdrWrapper> eth8022SnapHdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
