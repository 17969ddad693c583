// IPv4 addresses, masks and prefixes read from arbitrary text.
#include "FuzzCheck.h"

#include <Korva/IpAddr.h>

#include <string_view>

using namespace KorvaFuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const FailureTexts texts = {"Invalid IpAddr",
                              "Invalid prefix",
                              "Invalid Prefix",
                              "Invalid IPv4 Prefix Length",
                              "Prefix::validAsPrefix",
                              "premature end of Prefix type",
                              "Expected ",
                              "Invalid U32",
                              "U32 out of range"};
  checkTexts(text, Korva::IpAddr("192.0.2.1"), texts);
  checkTexts(text, Korva::IpAddrWithMask("192.0.2.1/24"), texts);
  checkTexts(text, Korva::Prefix("192.0.2.0/24"), texts);
  // Its text in is the runtime's generic form, its stringValue another: only the runtime's
  // text reads back.
  checkRuntimeText(text, Korva::IpAddrWithFullMask(Korva::IpAddr("192.0.2.1"), 0xFFFFFF00), texts);
  return 0;
}
