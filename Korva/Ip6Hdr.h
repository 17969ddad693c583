#pragma once
// The IPv6 header (RFC 8200) laid over packet bytes, the hop-by-hop options header with
// its Pad1, PadN and router-alert options, and the view that ties the header to a packet.

#include <Korva/Checksum.h>
#include <Korva/IpHdr.h>  // the protocol numbers a next header holds
#include <Korva/Pkt.h>

namespace Korva {

using IpVersionTrafficClassAndFlowLabel = NetU32;

struct __attribute__((packed)) Ip6Hdr {
  static constexpr const char* typeName = "Ip6Hdr";

  IpVersionTrafficClassAndFlowLabel versionTrafficClassAndFlowLabel;
  NetU16 payloadLen;
  NetU8 nextHeader;
  NetU8 hopLimit;
  U8 src[16] = {};
  U8 dst[16] = {};

  Ip6Addr srcAddr() const noexcept { return addressAt(src); }
  void srcAddrIs(const Ip6Addr& address) noexcept { address.copyToBuffer(src); }
  Ip6Addr dstAddr() const noexcept { return addressAt(dst); }
  void dstAddrIs(const Ip6Addr& address) noexcept { address.copyToBuffer(dst); }

  U8 version() const noexcept { return U8(versionTrafficClassAndFlowLabel.field(28, 4)); }
  void versionIs(U8 v) noexcept { versionTrafficClassAndFlowLabel.fieldIs(28, 4, v); }
  U8 trafficClass() const noexcept { return U8(versionTrafficClassAndFlowLabel.field(20, 8)); }
  void trafficClassIs(U8 v) noexcept { versionTrafficClassAndFlowLabel.fieldIs(20, 8, v); }
  U32 flowLabel() const noexcept { return versionTrafficClassAndFlowLabel.field(0, 20); }
  void flowLabelIs(U32 v) noexcept { versionTrafficClassAndFlowLabel.fieldIs(0, 20, v); }

  // The fixed header and payloadLen bytes lie within the `available` bytes from the header on.
  bool lengthsFit(U32 available) const noexcept {
    return sizeof(Ip6Hdr) + payloadLen.value() <= available;
  }
  // payloadLen when the lengths fit, else nothing.
  std::optional<U32> checkedPayloadLen(U32 available) const noexcept {
    if (!lengthsFit(available)) return std::nullopt;
    return payloadLen.value();
  }
};
static_assert(sizeof(Ip6Hdr) == 40);

// The hop-by-hop and destination options headers: the next header, then the length in
// units of 8 bytes not counting the first 8; options follow.
struct __attribute__((packed)) Ip6OptionsHdr {
  static constexpr const char* typeName = "Ip6OptionsHdr";

  NetU8 nextHeader;
  NetU8 hdrExtLen;

  U32 headerBytes() const noexcept { return (hdrExtLen.value() + 1u) * 8; }
  bool lengthsFit(U32 available) const noexcept { return headerBytes() <= available; }
};
static_assert(sizeof(Ip6OptionsHdr) == 2);

// One byte of padding.
struct __attribute__((packed)) Ip6Pad1Option {
  NetU8 type{0};
};

// Padding of length + 2 bytes; `length` zero bytes follow.
struct __attribute__((packed)) Ip6PadNOption {
  NetU8 type{1};
  NetU8 length;
};

// Router alert (RFC 2711); value 0 is a Multicast Listener Discovery message.
struct __attribute__((packed)) Ip6RouterAlertOption {
  static constexpr U16 mld = 0;

  NetU8 type{5};
  NetU8 length{2};
  NetU16 value{mld};
};
static_assert(sizeof(Ip6RouterAlertOption) == 4);

using Ip6HdrWrapper = HdrWrapper<Ip6Hdr>;

Mox::Ptr<Ip6HdrWrapper> ip6HdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset);

}  // namespace Korva
