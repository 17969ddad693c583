// Successful parses and buffer prints of the value types must not touch the heap.

#include <Korva/EthAddr.h>
#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenAddr.h>
#include <Korva/IpGenPrefix.h>
#include <Korva/Mpls.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AllocationCounter.h"

namespace Korva {
namespace {

using AllocationCounter::during;

TEST(Allocation, CounterSeesHeapUse) {
  // 39 characters do not fit the short-string buffer, so this must allocate.
  const Ip6Addr a(0x1111, 0x2222, 0x3333, 0x4444, 0x5555, 0x6666, 0x7777, 0x8888);
  EXPECT_GE(during([&] { static_cast<void>(a.stringValue()); }), 1);
}

TEST(Allocation, EthernetParsesAndPrintsAllocateNothing) {
  const std::string_view texts[] = {"00:11:22:33:44:55", "aa-bb-cc-dd-ee-ff", "0011.2233.4455",
                                    "0:1:2:3:4:5"};
  EthAddr addr;
  Eui64 id;
  char text[EthAddr::maxTextSize];
  const char* end = text;
  EXPECT_EQ(during([&] {
              for (std::string_view t : texts) addr.stringValueIs(t);
              id.stringValueIs("00:11:22:33:44:55:66:77");
              Mox::TextIter it = texts[1].data();
              sequenceToValue(it, it + texts[1].size(), &addr);
              end = addr.toChars(text);
            }),
            0);
  EXPECT_EQ(std::string_view(text, end), "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(id, Eui64("00:11:22:33:44:55:66:77"));
}

TEST(Allocation, IpParsesAndPrintsAllocateNothing) {
  IpAddr v4;
  Ip6Addr v6;
  Prefix prefix;
  IpAddrWithMask withMask;
  Ip6AddrWithMask v6WithMask;
  Ip6Prefix v6Prefix;
  Ip6AddrWithFullMask v6FullMask;
  IpGenAddr gen;
  IpGenPrefix genPrefix;
  IpGenAddrWithMask genWithMask;
  char text4[IpAddr::maxTextSize], text6[Ip6Addr::maxTextSize];
  char *end4 = nullptr, *end6 = nullptr;
  const long count = during([&] {
    v4.stringValueIs(std::string_view("192.168.100.200"));
    v6.stringValueIs(std::string_view("2001:db8:1234:5678:9abc:def0:1234:5678"));
    v6.stringValueIs(std::string_view("::ffff:10.1.2.3"));
    prefix.stringValueIs(std::string_view("10.1.0.0/16"));
    withMask.stringValueIs(std::string_view("10.1.2.3/16"));
    v6WithMask.stringValueIs(std::string_view("2001:db8::1/64"));
    v6Prefix.stringValueIs(std::string_view("2001:db8::/32"));
    v6FullMask.stringValueIs(std::string_view("2001:db8::1/ffff:0:ffff::"));
    gen.stringValueIs(std::string_view("fe80::1"));
    gen.stringValueIs(std::string_view("10.0.0.1"));
    genPrefix.stringValueIs(std::string_view("10.1.0.0/16"));
    genPrefix.stringValueIs(std::string_view("2001:db8:abcd::/48"));
    genWithMask.stringValueIs(std::string_view("2001:db8:abcd::1/48"));
    end4 = v4.toChars(text4);
    end6 = v6WithMask.address().toChars(text6);
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(std::string_view(text4, end4 - text4), "192.168.100.200");
  EXPECT_EQ(std::string_view(text6, end6 - text6), "2001:db8::1");
  EXPECT_EQ(genPrefix.len(), 48u);
}

TEST(Allocation, MplsParsesAndStackRulesAllocateNothing) {
  MplsLabel label;
  BoundedMplsLabelStack stack;
  MplsLabelOperation operation;
  BoundedMplsLabelStackResult result;
  EXPECT_EQ(during([&] {
              label.stringValueIs("1048575");
              stack.stringValueIs("[16, 17, 3]");
              operation.stringValueIs("push [100, 200] entropyLabel");
              result = stack.extend(BoundedMplsLabelStack(stack));
              operation.smush(MplsLabelOperation(MplsOperation::push, stack));
            }),
            0);
  EXPECT_EQ(label.value(), 1048575u);
  EXPECT_EQ(result.stackError(), BoundedMplsLabelStackError::LABEL_IGNORED);
  EXPECT_EQ(operation.stackSize(), 2);
}

TEST(Allocation, InterfaceNameParsesAllocateNothing) {
  IntfIdMgr::ensureInitialized();
  // Long enough that any copy into a std::string would allocate.
  const std::vector<std::string> names = {"Ethernet1023/1023/1023.65535",
                                          "Port-Channel1000.100",
                                          "Management1/1",
                                          "Loopback0",
                                          "Vlan4094",
                                          "Tunnel0",
                                          ""};
  U64 sum = 0;
  EXPECT_EQ(during([&] {
              for (const std::string& name : names) sum += IntfId(name).value();
            }),
            0);
  EXPECT_NE(sum, 0u);
}

}  // namespace
}  // namespace Korva
