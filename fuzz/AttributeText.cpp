// The runtime's attribute readers (booleans, integers, doubles, quoted strings) and its
// generic composite form "Value('Ns::Type', ** {'a': ..., 'b': ...})" (hand-written and
// generated value types), read from arbitrary text.
#include "FuzzCheck.h"

#include <Korva/IpAddr.h>
#include <Korva/IpGenAddr.h>
#include <Korva/IpGenPrefix.h>
#include <Korva/UdpPamDtls.mox.h>
#include <Mox/Text.h>
#include <Vrf/VrfIdMapTypes.h>

#include <cmath>
#include <string>
#include <string_view>

using namespace KorvaFuzz;

namespace {

const FailureTexts texts = {"Invalid",
                            "Expected ",
                            "premature end",
                            "Host address too long",
                            "Prefix::validAsPrefix",
                            "Ip6Addr: ",
                            "U8 out of range",
                            "U16 out of range",
                            "U32 out of range",
                            "U64 out of range",
                            "S32 out of range",
                            "S64 out of range"};

// Doubles: NaN never equals itself, so it only has to read back as NaN.
void checkDouble(std::string_view text) {
  Mox::TextIter it = text.data();
  double value = 1.5;
  try {
    Mox::sequenceToValue(it, text.data() + text.size(), &value);
  } catch (const Mox::RangeException& e) {
    requireFailureText(e, texts, text);
    require(it == text.data() && value == 1.5, "failed read moved the iterator or value", text);
    return;
  }
  const std::string printed = Mox::valueToStrep(value);
  Mox::TextIter at = printed.data();
  double again = 0;
  Mox::sequenceToValue(at, printed.data() + printed.size(), &again);
  require(again == value || (std::isnan(again) && std::isnan(value)),
          "double reads back another value: " + printed, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkRuntimeText(text, true, texts);
  checkRuntimeText(text, std::string("before"), texts);
  checkRuntimeText(text, 'x', texts);
  checkRuntimeText(text, Mox::U8(7), texts);
  checkRuntimeText(text, Mox::U16(7), texts);
  checkRuntimeText(text, Mox::U32(7), texts);
  checkRuntimeText(text, Mox::U64(7), texts);
  checkRuntimeText(text, Mox::S32(-7), texts);
  checkRuntimeText(text, Mox::S64(-7), texts);
  checkDouble(text);
  checkRuntimeText(text, Korva::IpAddrWithFullMask(Korva::IpAddr("192.0.2.1"), 0xFFFFFF00), texts);
  checkRuntimeText(text, Korva::IpGenPrefixBase(Korva::IpGenAddr("10.0.0.0"), 8), texts);
  checkTexts(text, Korva::SessionPeer(Korva::IpAddr("192.0.2.9"), Korva::Port(4433)), texts);
  checkTexts(text, Vrf::VrfIdMap::VrfId(5), texts);
  return 0;
}
