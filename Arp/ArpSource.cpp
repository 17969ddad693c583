#include <Arp/ArpSource.mox.h>

namespace Arp {

ArpSource::ArpSourceId ArpSource::ArpSourceIdInstance(std::string_view name) {
  return Mox::valueFromText<ArpSourceId>(name, "Invalid ArpSourceId");
}

}  // namespace Arp
