#pragma once
// Constants the test models name in their bounds.

#include <Korva/Types.h>

namespace ModelTest {

// An expression bound: its message points at the model line, not at a number.
constexpr Mox::U8 maxTypeId = 126;

}  // namespace ModelTest
