// Header views and checksums over arbitrary bytes at arbitrary offsets. The first two
// bytes choose the offset; the rest, copied to a buffer of exactly their size, are the
// packet, so a read past its end is caught.
#include "FuzzCheck.h"

#include <Korva/Checksum.h>
#include <Korva/EthHdr.h>
#include <Korva/Icmp6Hdr.h>
#include <Korva/IcmpHdr.h>
#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/Pkt.h>
#include <Korva/TcpHdr.h>
#include <Korva/UdpHdr.h>

#include <memory>
#include <string_view>

using namespace KorvaFuzz;
using Korva::U16;
using Korva::U32;
using Korva::U64;
using Korva::U8;

namespace {

std::string_view input;

// RFC 1071 written out plainly: the independent reading of the checksum.
U16 referenceChecksum(const U8* bytes, U32 len) {
  U64 sum = 0;
  for (U32 i = 0; i < len; i += 2) sum += U32(bytes[i]) << 8 | (i + 1 < len ? bytes[i + 1] : 0);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return U16(~sum);
}

void checkChecksums(const U8* bytes, U32 len, U32 split) {
  const U16 whole = Korva::ipChecksumCalc(bytes, len, 0).value();
  require(whole == referenceChecksum(bytes, len), "checksum differs from RFC 1071", input);
  split &= ~1u;  // chained chunks are even
  if (split <= len) {
    const U32 partial = Korva::ipChecksumChunk(bytes, split, 0);
    require(Korva::ipChecksumCalc(bytes + split, len - split, partial).value() == whole,
            "chained checksum differs", input);
  }
}

// Every look-up agrees with the arithmetic of what fits.
template <class Header>
Header* lookUp(U8* bytes, U32 len, U32 offset) {
  Header* header = Korva::hdrAt<Header>(bytes, len, offset);
  require((header != nullptr) == (U64(offset) + sizeof(Header) <= len), "hdrAt disagrees", input);
  return header;
}

void checkIpv4(U8* bytes, U32 len, U32 offset) {
  Korva::IpHdr* ip = lookUp<Korva::IpHdr>(bytes, len, offset);
  if (!ip) return;
  const U32 available = len - offset;
  const auto payload = ip->checkedPayloadLen(available);
  require(payload.has_value() == ip->lengthsFit(available), "checkedPayloadLen disagrees", input);
  if (!payload) return;
  require(ip->headerBytes() + *payload <= available, "payload past the bytes", input);
  ip->checksum = Korva::IpChecksum(0);
  ip->checksum = ip->computedChecksum(available);
  require(ip->computedChecksum(available).value() == 0, "written IPv4 checksum fails", input);
}

void checkUdp(U8* bytes, U32 len, U32 offset) {
  Korva::UdpHdr* udp = lookUp<Korva::UdpHdr>(bytes, len, offset);
  if (!udp) return;
  const U32 available = len - offset;
  const auto payload = udp->checkedPayloadLen(available);
  require(payload.has_value() == udp->lengthsFit(available), "checkedPayloadLen disagrees", input);
  if (!payload) return;
  Korva::UdpPseudoHdr pseudo;
  pseudo.addressesIs(Korva::IpAddr(0xC0000201), Korva::IpAddr(0xC6336402));
  pseudo.lenIs(udp->len.value());
  udp->checksum = Korva::IpChecksum(0);
  udp->checksum = udp->computedChecksum(pseudo, available);
  require(udp->computedChecksum(pseudo, available).value() == 0xFFFF, "written UDP checksum fails",
          input);
}

void checkTcp(U8* bytes, U32 len, U32 offset) {
  Korva::TcpHdr* tcp = lookUp<Korva::TcpHdr>(bytes, len, offset);
  if (!tcp) return;
  const U32 available = len - offset;
  const auto payload = tcp->checkedPayloadLen(available);
  require(payload.has_value() == tcp->lengthsFit(available), "checkedPayloadLen disagrees", input);
  if (!payload) return;
  Korva::TcpPseudoHdrIpv6 pseudo;
  pseudo.addressesIs(Korva::Ip6Addr("2001:db8::1"), Korva::Ip6Addr("2001:db8::2"));
  pseudo.lenIs(available);
  tcp->checksum = Korva::IpChecksum(0);
  tcp->checksum = tcp->computedChecksum(pseudo, available);
  require(tcp->computedChecksum(pseudo, available).value() == 0, "written TCP checksum fails",
          input);
}

void checkIcmp(U8* bytes, U32 len, U32 offset) {
  Korva::IcmpHdr* icmp = lookUp<Korva::IcmpHdr>(bytes, len, offset);
  if (!icmp) return;
  const U32 available = len - offset;
  icmp->checksum = Korva::IpChecksum(0);
  icmp->checksum = icmp->computedChecksum(available);
  require(icmp->computedChecksum(available).value() == 0, "written ICMP checksum fails", input);
}

void checkIpv6(U8* bytes, U32 len, U32 offset) {
  Korva::Ip6Hdr* ip = lookUp<Korva::Ip6Hdr>(bytes, len, offset);
  if (ip) {
    const U32 available = len - offset;
    const auto payload = ip->checkedPayloadLen(available);
    require(payload.has_value() == ip->lengthsFit(available), "checkedPayloadLen disagrees", input);
    require(!payload || sizeof(Korva::Ip6Hdr) + *payload <= available, "payload past the bytes",
            input);
  }
  Korva::Icmp6Hdr* icmp = lookUp<Korva::Icmp6Hdr>(bytes, len, offset);
  if (!icmp) return;
  Korva::Icmp6PseudoHdr pseudo;
  pseudo.addressesIs(Korva::Ip6Addr("fe80::1"), Korva::Ip6Addr("ff02::1"));
  pseudo.lenIs(len - offset);
  icmp->checksum = Korva::IpChecksum(0);
  icmp->checksum = icmp->computedChecksum(pseudo, len - offset);
  require(icmp->computedChecksum(pseudo, len - offset).value() == 0,
          "written ICMPv6 checksum fails", input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 0xFFFF) return 0;
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  const U32 offset = data[0];
  const U32 split = data[1];
  const U32 len = U32(size - 2);
  std::unique_ptr<U8[]> bytes(new U8[len]);
  std::copy(data + 2, data + size, bytes.get());

  for (U32 at = 0; at < 4 && at <= len; ++at) checkChecksums(bytes.get() + at, len - at, split);
  lookUp<Korva::EthHdr>(bytes.get(), len, offset);
  // Each check writes a checksum field, so each sees the bytes as they came.
  using Check = void (*)(U8*, U32, U32);
  for (Check check : {checkIpv4, checkUdp, checkTcp, checkIcmp, checkIpv6}) {
    std::copy(data + 2, data + size, bytes.get());
    check(bytes.get(), len, offset);
  }
  return 0;
}
