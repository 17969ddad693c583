// IPv6 addresses, masks and prefixes read from arbitrary text; glibc's inet_pton is the
// independent reading of an address.
#include "FuzzCheck.h"

#include <Korva/Ip6Addr.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

using namespace KorvaFuzz;

namespace {

// Where this reader knowingly differs from glibc: seven groups beside a "::" at either end
// make eight colons, which it refuses ("Ip6Addr: too many colons"); and a dotted tail with
// a number written with leading zeros, which it reads.
bool edgeGapWithEightColons(std::string_view text) {
  return std::count(text.begin(), text.end(), ':') == 8 &&
         (text.starts_with("::") || text.ends_with("::"));
}

bool leadingZeroInDottedTail(std::string_view text) {
  const size_t colon = text.rfind(':');
  const std::string_view tail = text.substr(colon == std::string_view::npos ? 0 : colon + 1);
  if (std::count(tail.begin(), tail.end(), '.') != 3) return false;
  for (size_t i = 0; i + 1 < tail.size(); ++i) {
    if ((i == 0 || tail[i - 1] == '.') && tail[i] == '0' && std::isdigit(tail[i + 1])) return true;
  }
  return false;
}

// A full mask reads only as "address/mask" but prints a contiguous mask as
// "address/length", by design: that form reads back as an Ip6AddrWithMask of the same
// address and the mask's length; any other mask reads back whole.
void checkFullMask(std::string_view text, FailureTexts texts) {
  const Korva::Ip6AddrWithFullMask before(Korva::Ip6Addr("2001:db8::1"),
                                          Korva::Ip6Addr("ffff:0:ffff::"));
  Korva::Ip6AddrWithFullMask value = before;
  try {
    value.stringValueIs(text);
  } catch (const Mox::RangeException& e) {
    requireFailureText(e, texts, text);
    require(value == before, "failed read changed the value", text);
    return;
  }
  const std::string printed = value.stringValue();
  if (value.hasPrefixRepr()) {
    const Korva::Ip6AddrWithMask read(printed);
    require(read.address() == value.address() && read.len() == value.prefixLen().value(),
            "printed length form reads back another value: " + printed, text);
  } else {
    require(Korva::Ip6AddrWithFullMask(printed) == value,
            "printed text reads back another value: " + printed, text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const FailureTexts texts = {"Ip6Addr: ",
                              "Ip6AddrWithMask: ",
                              "Ip6AddrWithFullMask: ",
                              "Ip6PrefixLen::",
                              "Invalid IPv6 Prefix Length",
                              "Invalid prefix",
                              "Invalid Prefix",
                              "Expected "};
  checkTexts(text, Korva::Ip6Addr("2001:db8::1"), texts);
  checkTexts(text, Korva::Ip6AddrWithMask("2001:db8::1/64"), texts);
  checkTexts(text, Korva::Ip6Prefix("2001:db8::/32"), texts);
  checkFullMask(text, texts);

  in6_addr expected;
  const bool glibcReads =
      text.find('\0') == std::string::npos && inet_pton(AF_INET6, text.c_str(), &expected) == 1;
  const auto read = Korva::tryParse<Korva::Ip6Addr>(text);
  if (glibcReads && !read) {
    require(edgeGapWithEightColons(text), "glibc reads what this reader refuses", text);
  } else if (read && !glibcReads) {
    require(leadingZeroInDottedTail(text), "this reader reads what glibc refuses", text);
  }
  if (read && glibcReads) {
    unsigned char bytes[16];
    read->copyToBuffer(bytes);
    require(std::memcmp(bytes, &expected, 16) == 0, "inet_pton reads another address", text);
  }
  return 0;
}
