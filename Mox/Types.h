#pragma once
// Integer widths and string types of the runtime and of everything built on it.

#include <cstdint>
#include <string>

namespace Mox {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

// Text values. The runtime keeps one string type; the three names say what a text is for.
using String = std::string;
using String8 = std::string;
using Name = std::string;

// Text readers advance a plain character pointer over the input.
using TextIter = const char*;

}  // namespace Mox
