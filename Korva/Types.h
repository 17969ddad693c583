#pragma once
// The runtime's integer widths under the library's namespace, so library code and agents
// written in it say U32 rather than Mox::U32.

#include <Mox/Types.h>

namespace Korva {
using Mox::S32;
using Mox::U16;
using Mox::U32;
using Mox::U64;
using Mox::U8;
}  // namespace Korva
