#pragma once
// Names and messages of the VRF id map.

#include <Mox/Log.h>
#include <Mox/Types.h>

namespace Vrf::VrfIdMap {

// The table agents share unless told otherwise, and its capacity.
inline constexpr const char* defaultTableName = "vrf-id-map";
inline constexpr Mox::U32 defaultCapacity = 1024;

inline constexpr Mox::LogHandle<Mox::U32> VRF_MAP_OVERFLOW{
    "VRF_MAP_OVERFLOW", Mox::LogSeverity::error,
    "A VRF table used internally to map VRF names to VRF identifiers has overflowed at %u "
    "values.",
    "When this happens, the device may not be able to forward traffic in some VRFs. This is "
    "likely caused by configuring more VRFs that than the device can support, so a possible "
    "solution would be to unconfigure some VRFs."};

}  // namespace Vrf::VrfIdMap
