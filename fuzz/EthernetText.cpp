// MAC addresses and EUI-64 identifiers read from arbitrary text.
#include "FuzzCheck.h"

#include <Korva/EthAddr.h>

#include <string_view>

using namespace KorvaFuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const FailureTexts texts = {"Invalid EthAddr", "Invalid Eui64", "Expected "};
  checkTexts(text, Korva::EthAddr("00:11:22:33:44:55"), texts);
  checkTexts(text, Korva::Eui64("02:11:22:ff:fe:33:44:55"), texts);
  return 0;
}
