#pragma once
// ICMPv6 (RFC 4443) laid over packet bytes: the common header, echo and packet-too-big,
// the neighbour-discovery messages and options of RFC 4861, the DNS options of RFC 8106,
// and their views.

#include <Korva/Checksum.h>
#include <Korva/EthAddr.h>
#include <Korva/Pkt.h>

#include <algorithm>

namespace Korva {

enum Icmp6Type : U8 {
  icmp6DestUnreachable = 1,
  icmp6PacketTooBig = 2,
  icmp6TimeExceeded = 3,
  icmp6ParameterProblem = 4,
  icmp6EchoRequest = 128,
  icmp6EchoReply = 129,
  icmp6RouterSolicit = 133,
  icmp6RouterAdvert = 134,
  icmp6NeighborSolicit = 135,
  icmp6NeighborAdvert = 136,
  icmp6Redirect = 137,
};

enum Icmp6OptionType : U8 {
  icmp6OptionSrcLinkAddr = 1,
  icmp6OptionTargetLinkAddr = 2,
  icmp6OptionPrefixInfo = 3,
  icmp6OptionRedirectedHdr = 4,
  icmp6OptionMtu = 5,
  icmp6OptionDnsServer = 25,
  icmp6OptionDnsSuffix = 31,
};

struct __attribute__((packed)) Icmp6Hdr {
  static constexpr const char* typeName = "Icmp6Hdr";

  NetU8 type;
  NetU8 code;
  IpChecksum checksum;

  // Over the upper-layer length the pseudo-header gives, from the header on, but at most
  // `available` bytes.
  IpChecksum computedChecksum(const Icmp6PseudoHdr& pseudo, U32 available = ~0u) const {
    return pseudoHdrChecksum(pseudo, this, std::min(pseudo.udpLen.value(), available));
  }
  // A message runs to the end of the data available.
  static U32 segmentBytes(const Icmp6Hdr&, U32 available) noexcept { return available; }
};
static_assert(sizeof(Icmp6Hdr) == 4);

struct __attribute__((packed)) Icmp6EchoHdr {
  static constexpr const char* typeName = "Icmp6EchoHdr";
  Icmp6Hdr icmp6;
  NetU16 id;
  NetU16 sequence;
};

struct __attribute__((packed)) Icmp6PacketTooBigHdr {
  static constexpr const char* typeName = "Icmp6PacketTooBigHdr";
  Icmp6Hdr icmp6;
  NetU32 mtu;
};

struct __attribute__((packed)) Icmp6RouterSolicitHdr {
  static constexpr const char* typeName = "Icmp6RouterSolicitHdr";
  Icmp6Hdr icmp6;
  NetU32 reserved;
};

struct __attribute__((packed)) Icmp6RouterAdvertHdr {
  static constexpr const char* typeName = "Icmp6RouterAdvertHdr";
  Icmp6Hdr icmp6;
  NetU8 curHopLimit;
  NetU8 flags;  // managed, other, then the router preference of RFC 4191
  NetU16 routerLifetime;
  NetU32 reachableTime;
  NetU32 retransTimer;

  bool managed() const noexcept { return flags.flag(7); }
  void managedIs(bool v) noexcept { flags.flagIs(7, v); }
  bool other() const noexcept { return flags.flag(6); }
  void otherIs(bool v) noexcept { flags.flagIs(6, v); }
  U8 preference() const noexcept { return flags.field(3, 2); }
  void preferenceIs(U8 v) noexcept { flags.fieldIs(3, 2, v); }
};
static_assert(sizeof(Icmp6RouterAdvertHdr) == 16);

struct __attribute__((packed)) Icmp6NeighborSolicitHdr {
  static constexpr const char* typeName = "Icmp6NeighborSolicitHdr";
  Icmp6Hdr icmp6;
  NetU32 reserved;
  U8 target[16] = {};

  Ip6Addr targetAddr() const noexcept { return addressAt(target); }
  void targetAddrIs(const Ip6Addr& address) noexcept { address.copyToBuffer(target); }
};
static_assert(sizeof(Icmp6NeighborSolicitHdr) == 24);

struct __attribute__((packed)) Icmp6NeighborAdvertHdr {
  static constexpr const char* typeName = "Icmp6NeighborAdvertHdr";
  Icmp6Hdr icmp6;
  NetU32 flagsAndReserved;
  U8 target[16] = {};

  Ip6Addr targetAddr() const noexcept { return addressAt(target); }
  void targetAddrIs(const Ip6Addr& address) noexcept { address.copyToBuffer(target); }

  bool router() const noexcept { return flagsAndReserved.flag(31); }
  void routerIs(bool v) noexcept { flagsAndReserved.flagIs(31, v); }
  bool solicited() const noexcept { return flagsAndReserved.flag(30); }
  void solicitedIs(bool v) noexcept { flagsAndReserved.flagIs(30, v); }
  bool override() const noexcept { return flagsAndReserved.flag(29); }
  void overrideIs(bool v) noexcept { flagsAndReserved.flagIs(29, v); }
};
static_assert(sizeof(Icmp6NeighborAdvertHdr) == 24);

// --- neighbour-discovery options: type, then the length in units of 8 bytes ---

struct __attribute__((packed)) Icmp6OptionHdr {
  static constexpr const char* typeName = "Icmp6OptionHdr";
  NetU8 type;
  NetU8 length;

  U32 optionBytes() const noexcept { return length.value() * 8u; }
  // A length of 0 would stall a walk over the options.
  bool lengthsFit(U32 available) const noexcept {
    return length.value() != 0 && optionBytes() <= available;
  }
};

// Source or target link-layer address, for Ethernet.
template <U8 Type>
struct __attribute__((packed)) Icmp6LinkAddrOption {
  static constexpr const char* typeName =
      Type == icmp6OptionSrcLinkAddr ? "Icmp6SrcLinkAddrOption" : "Icmp6TargetLinkAddrOption";
  NetU8 type{Type};
  NetU8 length{1};
  U8 linkAddr[6] = {};

  EthAddr ethAddr() const noexcept { return EthAddr::fromBuffer(linkAddr); }
  void ethAddrIs(const EthAddr& address) noexcept { address.copyToBuffer(linkAddr); }
};
using Icmp6SrcLinkAddrOption = Icmp6LinkAddrOption<icmp6OptionSrcLinkAddr>;
using Icmp6TargetLinkAddrOption = Icmp6LinkAddrOption<icmp6OptionTargetLinkAddr>;
static_assert(sizeof(Icmp6SrcLinkAddrOption) == 8);

struct __attribute__((packed)) Icmp6PrefixInfoOption {
  static constexpr const char* typeName = "Icmp6PrefixInfoOption";
  NetU8 type{icmp6OptionPrefixInfo};
  NetU8 length{4};
  NetU8 prefixLen;
  NetU8 flags;  // on-link, autonomous
  NetU32 validLifetime;
  NetU32 preferredLifetime;
  NetU32 reserved2;
  U8 prefix[16] = {};

  Ip6Addr prefixAddr() const noexcept { return addressAt(prefix); }
  void prefixAddrIs(const Ip6Addr& address) noexcept { address.copyToBuffer(prefix); }

  bool onLink() const noexcept { return flags.flag(7); }
  void onLinkIs(bool v) noexcept { flags.flagIs(7, v); }
  bool autonomous() const noexcept { return flags.flag(6); }
  void autonomousIs(bool v) noexcept { flags.flagIs(6, v); }
};
static_assert(sizeof(Icmp6PrefixInfoOption) == 32);

struct __attribute__((packed)) Icmp6MtuOption {
  static constexpr const char* typeName = "Icmp6MtuOption";
  NetU8 type{icmp6OptionMtu};
  NetU8 length{1};
  NetU16 reserved;
  NetU32 mtu;
};
static_assert(sizeof(Icmp6MtuOption) == 8);

// Recursive DNS servers (RFC 8106): the fixed part; length is 1 + 2 per address, and the
// 16-byte addresses follow it.
struct __attribute__((packed)) Icmp6DnsServerOption {
  static constexpr const char* typeName = "Icmp6DnsServerOption";
  NetU8 type{icmp6OptionDnsServer};
  NetU8 length{1};
  NetU16 reserved;
  NetU32 lifetime;

  U32 addressCount() const noexcept { return length.value() > 1 ? (length.value() - 1u) / 2 : 0; }
  // Address i of addressCount(), from the bytes that follow the option in the packet.
  Ip6Addr address(U32 i) const noexcept {
    return addressAt(reinterpret_cast<const U8*>(this + 1) + 16 * i);
  }
};
static_assert(sizeof(Icmp6DnsServerOption) == 8);

// DNS search list (RFC 8106): the fixed part; encoded domain names, padded with zeros to
// a multiple of 8 bytes, follow it.
struct __attribute__((packed)) Icmp6DnsSuffixOption {
  static constexpr const char* typeName = "Icmp6DnsSuffixOption";
  NetU8 type{icmp6OptionDnsSuffix};
  NetU8 length{1};
  NetU16 reserved;
  NetU32 lifetime;

  U32 suffixBytes() const noexcept { return length.value() ? length.value() * 8u - 8 : 0; }
  const U8* suffixes() const noexcept { return reinterpret_cast<const U8*>(this + 1); }
};
static_assert(sizeof(Icmp6DnsSuffixOption) == 8);

using Icmp6HdrWrapper = TransportHdrWrapper<Icmp6Hdr, Icmp6PseudoHdr, Ip6Addr>;
using Icmp6EchoHdrWrapper = HdrWrapper<Icmp6EchoHdr>;
using Icmp6PacketTooBigHdrWrapper = HdrWrapper<Icmp6PacketTooBigHdr>;
using Icmp6RouterSolicitHdrWrapper = HdrWrapper<Icmp6RouterSolicitHdr>;
using Icmp6RouterAdvertHdrWrapper = HdrWrapper<Icmp6RouterAdvertHdr>;
using Icmp6NeighborSolicitHdrWrapper = HdrWrapper<Icmp6NeighborSolicitHdr>;
using Icmp6NeighborAdvertHdrWrapper = HdrWrapper<Icmp6NeighborAdvertHdr>;
using Icmp6OptionHdrWrapper = HdrWrapper<Icmp6OptionHdr>;
using Icmp6SrcLinkAddrOptionWrapper = HdrWrapper<Icmp6SrcLinkAddrOption>;
using Icmp6TargetLinkAddrOptionWrapper = HdrWrapper<Icmp6TargetLinkAddrOption>;
using Icmp6PrefixInfoOptionWrapper = HdrWrapper<Icmp6PrefixInfoOption>;
using Icmp6MtuOptionWrapper = HdrWrapper<Icmp6MtuOption>;
using Icmp6DnsServerOptionWrapper = HdrWrapper<Icmp6DnsServerOption>;
using Icmp6DnsSuffixOptionWrapper = HdrWrapper<Icmp6DnsSuffixOption>;

Mox::Ptr<Icmp6HdrWrapper> icmp6HdrWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6EchoHdrWrapper> icmp6EchoHdrWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6PacketTooBigHdrWrapper> icmp6PacketTooBigHdrWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6RouterSolicitHdrWrapper> icmp6RouterSolicitHdrWrapperFactory(Mox::Ptr<Pkt>,
                                                                           U32 offset);
Mox::Ptr<Icmp6RouterAdvertHdrWrapper> icmp6RouterAdvertHdrWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6NeighborSolicitHdrWrapper> icmp6NeighborSolicitHdrWrapperFactory(Mox::Ptr<Pkt>,
                                                                               U32 offset);
Mox::Ptr<Icmp6NeighborAdvertHdrWrapper> icmp6NeighborAdvertHdrWrapperFactory(Mox::Ptr<Pkt>,
                                                                             U32 offset);
Mox::Ptr<Icmp6OptionHdrWrapper> icmp6OptionHdrWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6SrcLinkAddrOptionWrapper> icmp6SrcLinkAddrOptionWrapperFactory(Mox::Ptr<Pkt>,
                                                                             U32 offset);
Mox::Ptr<Icmp6TargetLinkAddrOptionWrapper> icmp6TargetLinkAddrOptionWrapperFactory(Mox::Ptr<Pkt>,
                                                                                   U32 offset);
Mox::Ptr<Icmp6PrefixInfoOptionWrapper> icmp6PrefixInfoOptionWrapperFactory(Mox::Ptr<Pkt>,
                                                                           U32 offset);
Mox::Ptr<Icmp6MtuOptionWrapper> icmp6MtuOptionWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6DnsServerOptionWrapper> icmp6DnsServerOptionWrapperFactory(Mox::Ptr<Pkt>, U32 offset);
Mox::Ptr<Icmp6DnsSuffixOptionWrapper> icmp6DnsSuffixOptionWrapperFactory(Mox::Ptr<Pkt>, U32 offset);

}  // namespace Korva
