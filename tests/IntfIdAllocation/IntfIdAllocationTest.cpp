// Parsing an interface name must not touch the heap once the manager is initialised: this
// binary counts every global allocation.

#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

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

namespace {

long allocationsDuring(auto&& action) {
  long before = allocations;
  action();
  return allocations - before;
}

TEST(IntfIdAllocation, CounterSeesHeapUse) {
  Korva::IntfIdMgr::ensureInitialized();
  EXPECT_GE(allocationsDuring([] { (void)Korva::IntfId("Ethernet1/2/3.4000").stringValue(); }), 1);
}

TEST(IntfIdAllocation, SuccessfulParsesAllocateNothing) {
  Korva::IntfIdMgr::ensureInitialized();
  // Long enough that any copy into a std::string would allocate.
  const std::vector<std::string> names = {"Ethernet1023/1023/1023.65535",
                                          "Port-Channel1000.100",
                                          "Management1/1",
                                          "Loopback0",
                                          "Vlan4094",
                                          "Tunnel0",
                                          ""};
  Korva::U64 sum = 0;
  const long count = allocationsDuring([&] {
    for (const std::string& name : names) sum += Korva::IntfId(name).value();
  });
  EXPECT_EQ(count, 0);
  EXPECT_NE(sum, 0u);
}

}  // namespace
