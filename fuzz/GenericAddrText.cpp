// Family-tagged addresses and prefixes read from arbitrary text, including the runtime's
// generic form "Value('Korva::IpGenPrefixBase', ** {...})".
#include "FuzzCheck.h"

#include <Korva/IpGenAddr.h>
#include <Korva/IpGenPrefix.h>

#include <string_view>

using namespace KorvaFuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const FailureTexts texts = {
      "Invalid", "Expected ", "premature end", "Host address too long", "Prefix::validAsPrefix",
      "Ip6"};
  checkTexts(text, Korva::IpGenAddr("2001:db8::1"), texts);
  checkTexts(text, Korva::IpGenPrefix("192.0.2.0/24"), texts);
  checkTexts(text, Korva::IpGenAddrWithMask("2001:db8::1/64"), texts);
  checkRuntimeText(text, Korva::IpGenPrefixBase(Korva::IpGenAddr("10.0.0.0"), 8), texts);
  return 0;
}
