#include <Korva/Netns.h>
#include <Korva/NetnsUtils.h>

namespace Korva {

NamespaceName NamespaceName::defaultNamespace() { return NamespaceName(DEFAULT_NS); }

}  // namespace Korva
