#pragma once
// Internal invariants. A failed one prints the quoted condition, the source unit and the
// function, then aborts: the process is in a state nobody planned for, so it must not go on.
//
//   MOX_ASSERT(initialized());
//   -> Assertion "initialized()" failed in Korva/UdpPam.cpp, void Korva::UdpPam::handleMode()

namespace Mox {

[[noreturn]] void assertionFailed(const char* condition, const char* file, const char* function);

// Names a top-level source folder ("/Korva/") so that assertions from its files name the
// unit from that folder on ("Korva/Pkt.cpp") wherever the tree was built or installed. The
// platform names its own folders; a library names its folders when it loads. The string
// must live as long as the process.
void sourceFolderAdd(const char* folder) noexcept;

}  // namespace Mox

#define MOX_ASSERT(condition)         \
  ((condition) ? static_cast<void>(0) \
               : ::Mox::assertionFailed(#condition, __FILE__, __PRETTY_FUNCTION__))

// For invariants whose quoted text is fixed independently of how the code spells the test.
#define MOX_ASSERT_TEXT(condition, text) \
  ((condition) ? static_cast<void>(0) : ::Mox::assertionFailed(text, __FILE__, __PRETTY_FUNCTION__))
