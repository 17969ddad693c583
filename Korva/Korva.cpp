#include <Korva/Korva.h>

#include <Mox/Assert.h>

#include <initializer_list>

namespace Korva {

namespace {

// Assertion texts name the library's units by their path in the project.
const bool sourceFoldersNamed = [] {
  for (const char* folder : {"/Korva/", "/Vrf/", "/Arp/", "/apps/"}) Mox::sourceFolderAdd(folder);
  return true;
}();

}  // namespace

const char* version() noexcept {
  return KORVA_LIBRARY_VERSION;
}

}  // namespace Korva
