#include <Mox/Exception.h>

#include <cstring>

namespace Mox {

std::string ErrnoException::description() const {
  std::string text = message();
  if (!text.empty()) text += ": ";
  return text + std::strerror(errorNumber_);
}

}  // namespace Mox
