#include <Mox/Trace.h>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>

extern char** environ;

namespace {

using Mox::traceLevelsFor;

// Started again as a child by TraceFile below: write a few lines, then leave before any
// test runs.
[[maybe_unused]] const bool childWrote = [] {
  if (!std::getenv("MOX_TRACE_TEST_CHILD")) return false;
  Mox::TraceHandle trace("TraceChild");
  for (unsigned level = 1; level <= 4; ++level) MOX_TRACE(trace, level, "line " << level);
  _exit(0);
}();

constexpr Mox::U16 kAll = 0x3ff;

TEST(TraceConfig, NamesGlobsAndRanges) {
  const char* config = "UdpPam/0-9,Ip*/1";
  EXPECT_EQ(traceLevelsFor(config, "UdpPam"), kAll);
  EXPECT_EQ(traceLevelsFor(config, "Ip6Addr"), 1 << 1);
  EXPECT_EQ(traceLevelsFor(config, "Ip"), 1 << 1);
  EXPECT_EQ(traceLevelsFor(config, "UdpPamDtls"), 0);
  EXPECT_EQ(traceLevelsFor("UdpPam", "UdpPam"), kAll);  // a name alone: every level
  EXPECT_EQ(traceLevelsFor("*", "Anything"), kAll);
  EXPECT_EQ(traceLevelsFor("?dpPam/9", "UdpPam"), 1 << 9);
  EXPECT_EQ(traceLevelsFor("[TU]*/2-4", "TcpFd"), 0b11100);
  EXPECT_EQ(traceLevelsFor("Udp*/1,UdpPam/3,Tcp*/5", "UdpPam"), 0b1010);  // entries add up
}

TEST(TraceConfig, BadEntriesSelectNothingAndSpoilNothing) {
  for (const char* entry : {"UdpPam/x", "UdpPam/10", "UdpPam/5-3", "UdpPam/-", "UdpPam/1-",
                            "UdpPam/-1", "UdpPam/", "UdpPam/1-2-3", "/3", "", ",,"}) {
    EXPECT_EQ(traceLevelsFor(entry, "UdpPam"), 0) << entry;
    EXPECT_EQ(traceLevelsFor(std::string(entry) + ",UdpPam/2", "UdpPam"), 1 << 2) << entry;
  }
}

class Trace : public ::testing::Test {
 protected:
  void TearDown() override { Mox::traceConfigIs(""); }
};

TEST_F(Trace, ConfigurationReachesExistingAndLaterHandles) {
  Mox::TraceHandle early("TraceTestEarly");
  EXPECT_EQ(early.levels(), 0);
  Mox::traceConfigIs("TraceTest*/3");
  EXPECT_TRUE(early.enabled(3));
  EXPECT_FALSE(early.enabled(2));
  Mox::TraceHandle late("TraceTestLate");
  EXPECT_TRUE(late.enabled(3));
  Mox::traceConfigIs("TraceTestLate/4");
  EXPECT_EQ(early.levels(), 0);
}

TEST_F(Trace, CaptureCollectsEnabledLinesOnly) {
  Mox::TraceHandle trace("TraceTestCapture");
  Mox::traceConfigIs("TraceTestCapture/2-3");
  Mox::TraceCapture capture;
  int evaluated = 0;
  for (unsigned level = 0; level <= 9; ++level) {
    MOX_TRACE(trace, level, "level " << level << " #" << ++evaluated);
  }
  EXPECT_EQ(evaluated, 2);  // a disabled line's text is never built
  const std::vector<Mox::TraceLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].unit, "TraceTestCapture");
  EXPECT_EQ(lines[0].level, 2u);
  EXPECT_EQ(lines[1].text, "level 3 #2");
  EXPECT_TRUE(capture.contains("3 #"));
  EXPECT_FALSE(capture.contains("level 4"));
}

// The environment is read once per process, so the file output is checked in a fresh one.
TEST(TraceFile, ChildWritesConfiguredLevelsToTheFile) {
  char path[] = "/tmp/moxTraceTest.XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  std::ofstream(path) << "earlier line\n";

  std::vector<std::string> env{"MOX_TRACE_TEST_CHILD=1", "KORVA_TRACE=TraceChild/2-3",
                               std::string("KORVA_TRACE_FILE=") + path};
  for (char** e = environ; *e; ++e) {
    if (!std::string_view(*e).starts_with("KORVA_TRACE")) env.push_back(*e);
  }
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  char self[] = "/proc/self/exe";
  char* argv[] = {self, nullptr};
  pid_t child;
  ASSERT_EQ(posix_spawn(&child, self, nullptr, nullptr, argv, envp.data()), 0);
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  unlink(path);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "earlier line");  // appended, not truncated
  for (unsigned level : {2u, 3u}) {
    // "<seconds>.<microseconds> <pid> <unit>/<level> <text>"
    const std::regex expected("[0-9]+\\.[0-9]{6} " + std::to_string(child) + " TraceChild/" +
                              std::to_string(level) + " line " + std::to_string(level));
    EXPECT_TRUE(std::regex_match(lines[level - 1], expected)) << lines[level - 1];
  }
}

}  // namespace
