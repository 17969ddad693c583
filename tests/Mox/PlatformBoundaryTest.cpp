// The platform (Mox, Pylon, Cairn) is built and shipped below the library (Korva, Vrf,
// Arp): a platform file that includes a library header would tie them back together.

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

namespace {

namespace fs = std::filesystem;

const std::regex kLibraryInclude(R"(^\s*#\s*include\s*[<"](Korva|Vrf|Arp)/)");

// Every "file:line: text" of a platform source or model that includes a library header.
std::string libraryIncludes(const fs::path& root) {
  std::string found;
  for (const char* folder : {"Mox", "Pylon", "Cairn", "models/Mox"}) {
    if (!fs::is_directory(root / folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path());
      std::string line;
      for (int number = 1; std::getline(in, line); ++number) {
        if (std::regex_search(line, kLibraryInclude)) {
          found += fs::relative(entry.path(), root).string() + ":" + std::to_string(number) + ": " +
                   line + "\n";
        }
      }
    }
  }
  return found;
}

TEST(PlatformBoundaryTest, NoPlatformFileIncludesALibraryHeader) {
  ASSERT_TRUE(fs::is_directory(fs::path(KORVA_SOURCE_DIR) / "Mox"));
  EXPECT_EQ(libraryIncludes(KORVA_SOURCE_DIR), "");
}

TEST(PlatformBoundaryTest, SeesAnIncludeInEitherSpelling) {
  const fs::path root = fs::temp_directory_path() / ("boundary-" + std::to_string(getpid()));
  fs::create_directories(root / "Pylon");
  std::ofstream(root / "Pylon/Wheel.h")
      << "#pragma once\n#include <Mox/Types.h>\n"
      << "  #  include \"Vrf/VrfMap.h\"\n#include <Korva/Pkt.h>\n";
  const std::string found = libraryIncludes(root);
  fs::remove_all(root);
  EXPECT_EQ(
      found,
      "Pylon/Wheel.h:3:   #  include \"Vrf/VrfMap.h\"\nPylon/Wheel.h:4: #include <Korva/Pkt.h>\n");
}

}  // namespace
