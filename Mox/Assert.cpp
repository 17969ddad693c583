#include <Mox/Assert.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace Mox {

namespace {

// The folders whose files are source units: the platform's own, the test, benchmark and
// fuzz trees that mirror them, and whatever the libraries above name when they load.
// Constant-initialized, so it is ready before any library's initializers run.
constexpr size_t kMaxSourceFolders = 16;
const char* sourceFolders[kMaxSourceFolders] = {"/Mox/",   "/Pylon/", "/Cairn/",
                                                "/tests/", "/bench/", "/fuzz/"};
size_t sourceFolderCount = 6;

// The source unit as the project names it: the path from the source folder on
// ("Korva/UdpPam.cpp", "tests/Mox/AssertTest.cpp"), whatever the build's absolute path is.
const char* sourceUnit(const char* file) {
  const char* best = nullptr;
  for (size_t i = 0; i < sourceFolderCount; ++i) {
    const char* root = sourceFolders[i];
    for (const char* hit = std::strstr(file, root); hit; hit = std::strstr(hit + 1, root)) {
      if (!best || hit > best) best = hit;
    }
  }
  if (!best) return file;
  // tests/, bench/ and fuzz/ mirror the source folders: tests/Mox/X.cpp is its own unit.
  for (const char* container : {"/tests", "/bench", "/fuzz"}) {
    const size_t length = std::strlen(container);
    if (static_cast<size_t>(best - file) >= length &&
        std::strncmp(best - length, container, length) == 0) {
      return best - length + 1;
    }
  }
  return best + 1;
}

}  // namespace

void sourceFolderAdd(const char* folder) noexcept {
  if (sourceFolderCount < kMaxSourceFolders) sourceFolders[sourceFolderCount++] = folder;
}

void assertionFailed(const char* condition, const char* file, const char* function) {
  std::fprintf(stderr, "Assertion \"%s\" failed in %s, %s\n", condition, sourceUnit(file),
               function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Mox
