// MPLS labels and bounded label stacks read from arbitrary text.
#include "FuzzCheck.h"

#include <Korva/Mpls.h>

#include <string_view>

using namespace KorvaFuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const FailureTexts texts = {"Invalid MplsLabel", "Invalid BoundedMplsLabelStack",
                              "BoundedMplsLabelStack::stackSize > 6 not allowed",
                              "MplsLabel::value", "Expected "};
  checkTexts(text, Korva::MplsLabel(100), texts);
  Korva::BoundedMplsLabelStack stack;
  stack.append(Korva::MplsLabel(16));
  stack.append(Korva::MplsLabel(17));
  checkTexts(text, stack, texts);
  return 0;
}
