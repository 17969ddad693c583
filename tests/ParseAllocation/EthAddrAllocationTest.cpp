// Successful parses must not touch the heap: this binary counts every global allocation.

#include <Korva/EthAddr.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {
thread_local long allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace Korva {
namespace {

long allocationsDuring(auto&& action) {
  long before = allocations;
  action();
  return allocations - before;
}

TEST(EthAddrAllocation, CounterSeesHeapUse) {
  // 17 characters do not fit the short-string buffer, so this one must allocate.
  EXPECT_GE(allocationsDuring([] { (void)EthAddr(1, 2, 3).stringValue(); }), 1);
}

TEST(EthAddrAllocation, SuccessfulParsesAllocateNothing) {
  const std::string_view texts[] = {"00:11:22:33:44:55", "aa-bb-cc-dd-ee-ff", "0011.2233.4455"};
  EthAddr addr;
  Eui64 id;
  long count = allocationsDuring([&] {
    for (std::string_view text : texts) addr.stringValueIs(text);
    id.stringValueIs("00:11:22:33:44:55:66:77");
    Mox::TextIter it = texts[1].data();
    sequenceToValue(it, it + texts[1].size(), &addr);
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(addr, EthAddr(0xaabb, 0xccdd, 0xeeff));
}

TEST(EthAddrAllocation, PrintingIntoABufferAllocatesNothing) {
  EthAddr addr(0x0011, 0x2233, 0x4455);
  char text[17];
  size_t length = 0;
  EXPECT_EQ(allocationsDuring([&] { length = addr.toChars(text); }), 0);
  EXPECT_EQ(std::string_view(text, length), "00:11:22:33:44:55");
}

}  // namespace
}  // namespace Korva
