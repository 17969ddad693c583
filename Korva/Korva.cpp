#include <Korva/Korva.h>

namespace Korva {

const char* version() noexcept { return KORVA_LIBRARY_VERSION; }

}  // namespace Korva
