// Successful address parses must not touch the heap: this binary counts every global
// allocation (its own binary, so the replaced operator new affects nothing else).

#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenAddr.h>
#include <Korva/IpGenPrefix.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {
thread_local long allocations = 0;
}  // namespace

// Out of line, so the compiler does not pair malloc() and free() with new and delete.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

using namespace Korva;

long allocationsDuring(auto&& action) {
  const long before = allocations;
  action();
  return allocations - before;
}

TEST(IpParseAllocation, CounterSeesHeapUse) {
  // 39 characters do not fit the short-string buffer, so this must allocate.
  const Ip6Addr a(0x1111, 0x2222, 0x3333, 0x4444, 0x5555, 0x6666, 0x7777, 0x8888);
  EXPECT_GE(allocationsDuring([&] { static_cast<void>(a.stringValue()); }), 1);
}

TEST(IpParseAllocation, SuccessfulParsesAllocateNothing) {
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
  const long count = allocationsDuring([&] {
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
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(v4, IpAddr(192, 168, 100, 200));
  EXPECT_EQ(genPrefix.len(), 48u);
}

TEST(IpParseAllocation, PrintingIntoABufferAllocatesNothing) {
  const IpAddr v4(255, 255, 255, 255);
  const Ip6Addr v6(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1);
  char text[Ip6Addr::maxTextSize];
  char* end = nullptr;
  EXPECT_EQ(allocationsDuring([&] { end = v6.toChars(text); }), 0);
  EXPECT_EQ(std::string_view(text, end - text), "2001:db8::1");
  EXPECT_EQ(allocationsDuring([&] { end = v4.toChars(text); }), 0);
  EXPECT_EQ(std::string_view(text, end - text), "255.255.255.255");
}

}  // namespace
