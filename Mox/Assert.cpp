#include <Mox/Assert.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Mox {

namespace {

// The source unit as the project names it: the path from the source folder on
// ("Korva/UdpPam.cpp"), whatever the build's absolute path is.
const char* sourceUnit(const char* file) {
  static const char* const roots[] = {"/Mox/", "/Pylon/", "/Cairn/", "/Korva/", "/Vrf/",
                                      "/Arp/", "/apps/",  "/tests/", "/bench/"};
  const char* best = nullptr;
  for (const char* root : roots) {
    for (const char* hit = std::strstr(file, root); hit; hit = std::strstr(hit + 1, root)) {
      if (!best || hit > best) best = hit;
    }
  }
  return best ? best + 1 : file;
}

}  // namespace

void assertionFailed(const char* condition, const char* file, const char* function) {
  std::fprintf(stderr, "Assertion \"%s\" failed in %s, %s\n", condition, sourceUnit(file),
               function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Mox
