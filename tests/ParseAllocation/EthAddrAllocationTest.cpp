#include "AllocationCounter.h"

#include <Korva/EthAddr.h>

#include <gtest/gtest.h>

namespace Korva {
namespace {

using AllocationCounter::during;

TEST(EthAddrAllocation, CounterSeesHeapUse) {
  // 17 characters do not fit the short-string buffer, so this one must allocate.
  EXPECT_GE(during([] { (void)EthAddr(1, 2, 3).stringValue(); }), 1);
}

TEST(EthAddrAllocation, SuccessfulParsesAllocateNothing) {
  const std::string_view texts[] = {"00:11:22:33:44:55", "aa-bb-cc-dd-ee-ff", "0011.2233.4455",
                                    "0:1:2:3:4:5"};
  EthAddr addr;
  Eui64 id;
  long count = during([&] {
    for (std::string_view text : texts) addr.stringValueIs(text);
    id.stringValueIs("00:11:22:33:44:55:66:77");
    Mox::TextIter it = texts[1].data();
    sequenceToValue(it, it + texts[1].size(), &addr);
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(addr, EthAddr(0xaabb, 0xccdd, 0xeeff));
  EXPECT_EQ(id, Eui64("00:11:22:33:44:55:66:77"));
}

TEST(EthAddrAllocation, PrintingIntoABufferAllocatesNothing) {
  EthAddr addr(0x0011, 0x2233, 0x4455);
  char text[17];
  size_t length = 0;
  EXPECT_EQ(during([&] { length = addr.toChars(text); }), 0);
  EXPECT_EQ(std::string_view(text, length), "00:11:22:33:44:55");
}

}  // namespace
}  // namespace Korva
