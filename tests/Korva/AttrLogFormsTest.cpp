// The attribute-log forms of the library's values: random round trips of every value type,
// known bytes that pin the byte order and widths, and reads that must fail cleanly.

#include <Arp/ProxyArp.mox.h>
#include <Korva/EthAddr.h>
#include <Korva/Ethernet.h>
#include <Korva/IntfId.h>
#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenPrefix.h>
#include <Korva/Mpls.h>
#include <Korva/Netns.mox.h>
#include <Mox/AttrLogClass.h>
#include <Vrf/VrfIdMapTypes.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

namespace Korva {
namespace {

using Rng = std::mt19937_64;
using Vrf::VrfIdMap::VrfEntry;
using Vrf::VrfIdMap::VrfId;

// Round trips of random values; every strict prefix of a form is a truncated read that
// raises AttrLogError and leaves the value as it was.
template <class T>
std::function<void(Rng&)> roundTrips(T (*make)(Rng&)) {
  return [make](Rng& rng) {
    for (int i = 0; i < 300; ++i) {
      const T value = make(rng);
      const std::string bytes = Mox::attrLogBytes(value);
      Mox::AttrLogReader in(bytes);
      T read{};
      attrLogRead(in, &read);
      EXPECT_NO_THROW(in.finish());
      ASSERT_EQ(read, value) << ::testing::PrintToString(bytes);
      Mox::AttrLogReader truncated(bytes.data(), rng() % bytes.size());
      EXPECT_THROW(attrLogRead(truncated, &read), Mox::AttrLogError);
      EXPECT_EQ(read, value);
    }
  };
}

IpAddr randomIpAddr(Rng& rng) {
  return IpAddr::fromHostOrder(U32(rng()));
}
Ip6Addr randomIp6Addr(Rng& rng) {
  return Ip6Addr::fromWords(U32(rng()), U32(rng()), U32(rng()), U32(rng()));
}
IpGenAddr randomIpGenAddr(Rng& rng) {
  switch (rng() % 3) {
    case 0:
      return IpGenAddr(randomIpAddr(rng));
    case 1:
      return IpGenAddr(randomIp6Addr(rng));
  }
  return IpGenAddr();
}
MplsLabel randomLabel(Rng& rng) {
  return MplsLabel(U32(rng() % (MplsLabel::luWithdraw + 1)));
}
BoundedMplsLabelStack randomStack(Rng& rng) {
  BoundedMplsLabelStack stack;
  stack.stackSizeIs(U8(rng() % (BoundedMplsLabelStack::maxSize + 1)));
  for (unsigned i = 0; i < stack.stackSize(); ++i) stack.labelIs(i, randomLabel(rng));
  return stack;
}
std::string randomText(Rng& rng, size_t maxSize) {
  std::string text(rng() % (maxSize + 1), ' ');
  for (char& c : text) c = static_cast<char>('a' + rng() % 26);
  return text;
}

struct FormCase {
  const char* type;
  std::function<void(Rng&)> run;
};

const FormCase kForms[] = {
    {"IpAddr", roundTrips<IpAddr>(randomIpAddr)},
    {"IpAddrWithMask", roundTrips<IpAddrWithMask>(
                           [](Rng& r) { return IpAddrWithMask(randomIpAddr(r), U32(r() % 33)); })},
    {"Prefix", roundTrips<Prefix>([](Rng& r) {
       const U32 len = U32(r() % 33);
       const U32 mask = len ? ~0u << (32 - len) : 0;
       return Prefix(IpAddr::fromHostOrder(U32(r()) & mask), len);
     })},
    {"IpAddrWithFullMask", roundTrips<IpAddrWithFullMask>([](Rng& r) {
       return IpAddrWithFullMask(randomIpAddr(r), U32(r()));
     })},
    {"Ip6Addr", roundTrips<Ip6Addr>(randomIp6Addr)},
    {"Ip6AddrWithMask", roundTrips<Ip6AddrWithMask>([](Rng& r) {
       return Ip6AddrWithMask(randomIp6Addr(r), U32(r() % 129));
     })},
    {"Ip6PrefixLen", roundTrips<Ip6PrefixLen>([](Rng& r) { return Ip6PrefixLen(r() % 130); })},
    {"Ip6AddrU8Key", roundTrips<Ip6AddrU8Key>([](Rng& r) { return Ip6AddrU8Key(U8(r())); })},
    {"Ip6AddrWithFullMask", roundTrips<Ip6AddrWithFullMask>([](Rng& r) {
       return Ip6AddrWithFullMask(randomIp6Addr(r), randomIp6Addr(r));
     })},
    {"IpGenAddr", roundTrips<IpGenAddr>(randomIpGenAddr)},
    {"IpGenPrefix", roundTrips<IpGenPrefix>([](Rng& r) {
       const IpGenAddr address = randomIpGenAddr(r);
       return address.af() == AddressFamily::ipunknown ? IpGenPrefix() : IpGenPrefix(address);
     })},
    {"IpGenAddrWithMask", roundTrips<IpGenAddrWithMask>([](Rng& r) {
       const IpGenAddr address = randomIpGenAddr(r);
       return IpGenAddrWithMask(address, U32(r() % (address.isV4() ? 33 : 129)));
     })},
    {"EthAddr", roundTrips<EthAddr>([](Rng& r) { return EthAddr(U16(r()), U16(r()), U16(r())); })},
    {"Eui64", roundTrips<Eui64>([](Rng& r) {
       Eui64 value;
       for (Eui64U8Key i = 0; i < Eui64::byteCount; ++i) value.byteIs(i, U8(r()));
       return value;
     })},
    {"EthType", roundTrips<EthType>([](Rng& r) { return static_cast<EthType>(U16(r())); })},
    {"IntfId", roundTrips<IntfId>([](Rng& r) { return IntfId(U64(r())); })},
    {"MplsLabel", roundTrips<MplsLabel>(randomLabel)},
    {"BoundedMplsLabelStack", roundTrips<BoundedMplsLabelStack>(randomStack)},
    {"MplsLabelOperation", roundTrips<MplsLabelOperation>([](Rng& r) {
       return MplsLabelOperation(static_cast<MplsOperation>(r() % 3), randomStack(r), r() & 1,
                                 r() & 2);
     })},
    {"VrfId", roundTrips<VrfId>([](Rng& r) { return VrfId(U32(r())); })},
    {"VrfEntry", roundTrips<VrfEntry>([](Rng& r) {
       return VrfEntry(VrfId(U32(r())), randomText(r, VrfEntry::maxNameLength));
     })},
    {"NamespaceName",
     roundTrips<NamespaceName>([](Rng& r) { return NamespaceName(randomText(r, 40)); })},
    {"ProxyArp::VirtualMac", roundTrips<ProxyArp::VirtualMac>([](Rng& r) {
       return ProxyArp::VirtualMac(IntfId(U64(r())), EthAddr(U16(r()), U16(r()), U16(r())),
                                   r() & 1);
     })},
};

TEST(AttrLogForms, RandomValuesRoundTripAndTruncatedReadsFail) {
  Rng rng(18);
  for (const FormCase& form : kForms) {
    SCOPED_TRACE(form.type);
    form.run(rng);
  }
}

// Network order and the named widths, byte for byte.
TEST(AttrLogForms, KnownBytes) {
  using namespace std::string_literals;
  EXPECT_EQ(Mox::attrLogBytes(IntfId(0x0102030405060708ull)), "\1\2\3\4\5\6\7\x08"s);
  EXPECT_EQ(Mox::attrLogBytes(VrfId(0x0a0b0c0d)), "\x0a\x0b\x0c\x0d"s);
  EXPECT_EQ(Mox::attrLogBytes(IpAddr("10.1.2.3")), "\x0a\1\2\3"s);
  EXPECT_EQ(Mox::attrLogBytes(Prefix("10.0.0.0/8")), "\x0a\0\0\0\0\0\0\x08"s);
  EXPECT_EQ(Mox::attrLogBytes(EthAddr("00:11:22:33:44:55")), "\0\x11\x22\x33\x44\x55"s);
  EXPECT_EQ(Mox::attrLogBytes(IpGenAddr(IpAddr("1.2.3.4"))), "\1\1\2\3\4"s);
  EXPECT_EQ(Mox::attrLogBytes(Ip6Addr("2001:db8::1")).substr(0, 4), "\x20\x01\x0d\xb8"s);
  EXPECT_EQ(Mox::attrLogBytes(NamespaceName("ns")), "\0\0\0\2ns"s);
}

// A reader of a `T` into a copy of `before`, which a failed read must leave as it was.
template <class T>
std::function<void(Mox::AttrLogReader&)> readsInto(const T& before) {
  return [before](Mox::AttrLogReader& in) {
    T value = before;
    try {
      attrLogRead(in, &value);
    } catch (const Mox::Exception&) {
      EXPECT_EQ(value, before);
      throw;
    }
  };
}

// Bytes that are no value: the reader names the fault and the value stays.
TEST(AttrLogForms, BadBytesRaiseAndKeepTheValue) {
  using namespace std::string_literals;
  const struct {
    std::string bytes;
    std::function<void(Mox::AttrLogReader&)> read;
    std::string message;
  } cases[] = {
      {"\x00\x80\x00\x01"s, readsInto(MplsLabel(16)),
       "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed"},
      {"\x0a\0\0\0\0\0\0\x21"s, readsInto(Prefix("10.0.0.0/8")),
       "Prefix::validAsPrefix != true not allowed"},
      {"\x07\1\2\3\4"s, readsInto(IpGenAddr(IpAddr(1, 2, 3, 4))), "Invalid AddressFamily 7"},
      {"\x02"s, [](Mox::AttrLogReader& in) { Mox::attrLogGet<bool>(in); },
       "bool byte 2 is neither 0 nor 1"},
      {"\0\0\0\x09"
       "abc"s,
       readsInto(NamespaceName("ns")), "truncated: 9 bytes wanted, 3 left"},
  };
  for (const auto& bad : cases) {
    Mox::AttrLogReader in(bad.bytes);
    try {
      bad.read(in);
      ADD_FAILURE() << "no exception for " << bad.message;
    } catch (const Mox::Exception& e) {
      EXPECT_EQ(std::string(e.what()), bad.message);
    }
  }
}

}  // namespace
}  // namespace Korva
