#pragma once
// Library-wide identity: the version an agent was built against and the one it loaded.

namespace Korva {

// The version of the loaded libKorva, "major.minor.patch".
const char* version() noexcept;

}  // namespace Korva
