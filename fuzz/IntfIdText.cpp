// Interface names in every form read from arbitrary text, with the manager initialised.
// A name read prints as a long name, and as a short name, that read back to the same id.
#include "FuzzCheck.h"

#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>

#include <string_view>

using namespace KorvaFuzz;

namespace {

const FailureTexts texts = {"Invalid IntfId", "IntfId part ", "Error deserializing IntfId",
                            "Unable to convert "};

// The converters are string functions: they either convert or raise their own text.
void checkConverters(std::string_view text) {
  for (auto convert :
       {Korva::vexIntfToKernelIntf, Korva::kernelIntfToVexIntf, Korva::shortIntfToVexIntf}) {
    try {
      convert(text);
    } catch (const Mox::RangeException& e) {
      requireFailureText(e, {"Unable to convert "}, text);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool initialised = Korva::IntfIdMgr::ensureInitialized() != nullptr;
  require(initialised, "the interface-id manager initialises", "");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Korva::IntfId before("Ethernet3/1");
  checkTexts(text, before, texts);
  checkConverters(text);
  try {
    const Korva::IntfId id = Korva::stringToVexIntf(text);
    require(Korva::stringToVexIntf(id.shortName()) == id, "short name does not read back", text);
    require(Korva::IntfId(id.stringValue()) == id, "long name does not read back", text);
  } catch (const Mox::RangeException& e) {
    requireFailureText(e, texts, text);
  }
  return 0;
}
