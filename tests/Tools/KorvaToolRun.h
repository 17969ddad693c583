#pragma once
// Runs a command of the built korva tool as a user would, through the shell.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace KorvaTest {

struct ToolRun {
  std::string output;
  int status = -1;
};

// A run's arguments and standard input, and the output and exit status it must give.
struct ExpectedRun {
  const char* arguments;
  const char* input;
  const char* output;
  int status;
};

// A fixture for `korva <command>`; the input file is private to the process.
class KorvaTool : public ::testing::Test {
 protected:
  explicit KorvaTool(std::string command) : command_(std::move(command)) {}

  void SetUp() override {
    if (access(korva_.c_str(), X_OK) != 0) GTEST_FAIL() << "korva tool not built: " << korva_;
  }
  void TearDown() override { std::remove(inputPath_.c_str()); }

  // `korva <command> <arguments>` with `input` on standard input; standard output only.
  ToolRun run(const std::string& arguments, const std::string& input = "") {
    std::ofstream(inputPath_, std::ios::binary) << input;
    // Bounded, so that a command that never ends fails the test instead of hanging it.
    const std::string shell = "timeout 30 " + korva_ + " " + command_ + " " + arguments + " < " +
                              inputPath_ + " 2>/dev/null";
    ToolRun result;
    FILE* pipe = popen(shell.c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
  }
  void expectRuns(std::initializer_list<ExpectedRun> runs) {
    for (const ExpectedRun& expected : runs) {
      SCOPED_TRACE(expected.arguments);
      const ToolRun result = run(expected.arguments, expected.input);
      EXPECT_EQ(result.output, expected.output);
      EXPECT_EQ(result.status, expected.status);
    }
  }

 private:
  std::string command_;
  std::string korva_ = std::string(KORVA_BINARY_DIR) + "/korva";
  std::string inputPath_ =
      ::testing::TempDir() + "korva-" + command_ + "-input-" + std::to_string(getpid()) + ".txt";
};

}  // namespace KorvaTest
