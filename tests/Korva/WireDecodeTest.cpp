// Decoding bytes from the wire without aborting: the header look-ups return null when a
// header does not fit, and the length checks refuse headers whose lengths lie.
#include <Korva/EthHdr.h>
#include <Korva/Icmp6Hdr.h>
#include <Korva/IcmpHdr.h>
#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/TcpHdr.h>
#include <Korva/UdpHdr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <vector>

namespace {

using Korva::U32;
using Korva::U64;
using Korva::U8;

template <class Header>
void expectLookUpFitsExactly() {
  SCOPED_TRACE(Header::typeName);
  U8 bytes[64] = {};
  for (U32 len = 0; len <= sizeof(Header) + 2; ++len) {
    for (U32 offset : {0u, 1u, 3u, 0xfffffff0u, 0xffffffffu}) {
      const Header* hdr = Korva::hdrAt<Header>(static_cast<const U8*>(bytes), len, offset);
      const bool fits = U64(offset) + sizeof(Header) <= len;
      EXPECT_EQ(hdr != nullptr, fits) << "len " << len << " offset " << offset;
      if (fits) {
        EXPECT_EQ(static_cast<const void*>(hdr), bytes + offset);
      }
    }
  }
}

TEST(HdrLookUp, NullExactlyWhenTheHeaderDoesNotFit) {
  expectLookUpFitsExactly<Korva::EthHdr>();
  expectLookUpFitsExactly<Korva::Eth8021QHdr>();
  expectLookUpFitsExactly<Korva::IpHdr>();
  expectLookUpFitsExactly<Korva::Ip6Hdr>();
  expectLookUpFitsExactly<Korva::UdpHdr>();
  expectLookUpFitsExactly<Korva::TcpHdr>();
  expectLookUpFitsExactly<Korva::IcmpHdr>();
  expectLookUpFitsExactly<Korva::Icmp6Hdr>();
  expectLookUpFitsExactly<Korva::Icmp6OptionHdr>();
}

TEST(HdrLookUp, PacketViewsAreNullWhereTheAssertingFactoryWouldAbort) {
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(nullptr, 0));
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  EXPECT_EQ(Korva::hdrAt<Korva::IpHdr>(*pkt, 0), nullptr);  // no data at all
  pkt->newSharedHeadData(28);
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(pkt, 21));
  EXPECT_FALSE(Korva::hdrWrapperIfFits<Korva::IpHdrWrapper>(pkt, 9));
  Mox::Ptr<Korva::UdpHdrWrapper> udp = Korva::hdrWrapperIfFits<Korva::UdpHdrWrapper>(pkt, 20);
  ASSERT_TRUE(udp);
  EXPECT_EQ(udp->header(), Korva::udpHdrWrapperFactory(pkt, 20)->header());
}

// One header's bytes (the rest of the fixed header zero), the bytes present from its
// start, and the payload length its checks accept, if any.
struct LengthCase {
  const char* what;
  std::vector<U8> bytes;
  U32 available;
  std::optional<U32> payload;
};

template <class Header>
void expectCheckedPayloadLens(const std::vector<LengthCase>& cases) {
  for (const LengthCase& c : cases) {
    Header hdr{};
    std::memcpy(static_cast<void*>(&hdr), c.bytes.data(), c.bytes.size());
    EXPECT_EQ(hdr.checkedPayloadLen(c.available), c.payload) << Header::typeName << ": " << c.what;
    EXPECT_EQ(hdr.lengthsFit(c.available), c.payload.has_value()) << c.what;
  }
}

TEST(HdrLengths, ShortAndLyingHeadersAreRefused) {
  expectCheckedPayloadLens<Korva::IpHdr>({
      {"consistent", {0x45, 0, 0, 28}, 28, 8},
      {"link padding after the datagram", {0x45, 0, 0, 28}, 60, 8},
      {"header and nothing else", {0x45, 0, 0, 20}, 20, 0},
      {"options counted", {0x46, 0, 0, 28}, 28, 4},
      {"header length below 20", {0x44, 0, 0, 28}, 28, std::nullopt},
      {"header length 0", {0x40, 0, 0, 28}, 28, std::nullopt},
      {"header longer than the total", {0x46, 0, 0, 20}, 40, std::nullopt},  // would wrap
      {"total longer than the bytes", {0x45, 0, 0, 29}, 28, std::nullopt},
      {"total 65535", {0x45, 0, 0xff, 0xff}, 1500, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::UdpHdr>({
      {"consistent", {0, 0, 0, 0, 0, 12}, 12, 4},
      {"empty datagram", {0, 0, 0, 0, 0, 8}, 8, 0},
      {"len below the header", {0, 0, 0, 0, 0, 7}, 64, std::nullopt},
      {"len 0", {}, 64, std::nullopt},
      {"len past the bytes", {0, 0, 0, 0, 0, 13}, 12, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::TcpHdr>({
      {"no options", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x50}, 30, 10},
      {"options to the end", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0}, 60, 0},
      {"data offset below 5", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40}, 60, std::nullopt},
      {"options past the bytes", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0}, 59, std::nullopt},
  });
  expectCheckedPayloadLens<Korva::Ip6Hdr>({
      {"consistent", {0x60, 0, 0, 0, 0, 10}, 50, 10},
      {"payload past the bytes", {0x60, 0, 0, 0, 0, 11}, 50, std::nullopt},
      {"jumbo length", {0x60, 0, 0, 0, 0xff, 0xff}, 1500, std::nullopt},
  });
}

TEST(HdrLengths, ExtensionAndOptionLengthsMustFitAndAdvance) {
  Korva::Ip6OptionsHdr options{};
  options.hdrExtLen.valueIs(1);  // 16 bytes
  EXPECT_TRUE(options.lengthsFit(16));
  EXPECT_FALSE(options.lengthsFit(15));
  Korva::Icmp6OptionHdr option{};
  EXPECT_FALSE(option.lengthsFit(64));  // length 0 never advances a walk
  option.length.valueIs(2);
  EXPECT_TRUE(option.lengthsFit(16));
  EXPECT_FALSE(option.lengthsFit(15));
}

// Over random header bytes and byte counts, what the checks accept never reaches past the
// bytes present.
template <class Header, class Claimed>
void expectAcceptedLengthsStayInside(Claimed claimedBytes) {
  std::mt19937 rng(sizeof(Header));
  int accepted = 0;
  for (int i = 0; i < 20000; ++i) {
    U8 bytes[sizeof(Header)];
    for (U8& b : bytes) b = U8(rng());
    Header hdr;
    std::memcpy(static_cast<void*>(&hdr), bytes, sizeof hdr);
    const U32 available = rng() % 70000;
    const std::optional<U32> payload = hdr.checkedPayloadLen(available);
    if (!payload) continue;
    ++accepted;
    ASSERT_LE(U64(claimedBytes(hdr)) + *payload, available) << Header::typeName;
  }
  EXPECT_GT(accepted, 0) << Header::typeName;
}

TEST(HdrLengths, AcceptedLengthsNeverReachPastTheBytes) {
  expectAcceptedLengthsStayInside<Korva::IpHdr>([](const Korva::IpHdr& h) {
    EXPECT_GE(h.headerBytes(), 20u);
    return h.headerBytes();
  });
  expectAcceptedLengthsStayInside<Korva::UdpHdr>([](const Korva::UdpHdr&) { return 8u; });
  expectAcceptedLengthsStayInside<Korva::TcpHdr>([](const Korva::TcpHdr& h) {
    EXPECT_GE(h.headerBytes(), 20u);
    return h.headerBytes();
  });
  expectAcceptedLengthsStayInside<Korva::Ip6Hdr>([](const Korva::Ip6Hdr&) { return 40u; });
}

}  // namespace
