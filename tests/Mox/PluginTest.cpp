#include <Mox/Log.h>
#include <Mox/Plugin.h>
#include <Mox/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Calls = std::vector<std::string>;

void record(void* context, const char* name) {
  static_cast<Calls*>(context)->push_back(name);
}

const bool firstRegistered =
    Mox::pluginIs("MoxTest", "first", [](void* context) { record(context, "first"); });
const bool throwerRegistered = Mox::pluginIs(
    "MoxTest", "thrower", [](void*) { throw std::runtime_error("no room for thrower"); });
const bool secondRegistered =
    Mox::pluginIs("MoxTest", "second", [](void* context) { record(context, "second"); });

const std::string pluginDir = KORVA_TEST_PLUGIN_DIR;

class Plugin : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/moxPluginTest.XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    tempDir_ = pattern;
    // Not an ELF object: the loader must report it and carry on.
    std::ofstream(tempDir_ + "/bad.so") << std::string(512, '#') << "\n";
    Mox::traceConfigIs("Plugin");
  }
  void TearDown() override {
    Mox::traceConfigIs("");
    unsetenv("KORVA_PLUGIN_PATH");
    std::filesystem::remove_all(tempDir_);
  }
  void pluginPathIs(const std::string& path) { setenv("KORVA_PLUGIN_PATH", path.c_str(), 1); }

  std::string tempDir_;
  Mox::LogCapture log_;
  Mox::TraceCapture trace_;
};

TEST_F(Plugin, BuiltInsInOrderThenSharedObjectsByName) {
  ASSERT_TRUE(firstRegistered && throwerRegistered && secondRegistered);
  pluginPathIs(tempDir_ + ":" + pluginDir);
  Calls calls;
  Mox::PluginLoadReport report = Mox::loadPlugins("MoxTest", &calls);

  EXPECT_THAT(calls, ElementsAre("first", "second", "alpha", "beta"));
  EXPECT_THAT(report.loaded,
              ElementsAre("first", "second", pluginDir + "/alpha.so", pluginDir + "/beta.so"));
  // The broken ones are reported with their path and the loader's reason; the rest loaded.
  ASSERT_EQ(report.failures.size(), 3u);
  EXPECT_EQ(report.failures[0], "thrower: entry threw: no room for thrower");
  EXPECT_THAT(report.failures[1], HasSubstr(tempDir_ + "/bad.so: "));
  EXPECT_THAT(report.failures[1], HasSubstr("invalid ELF header"));
  EXPECT_THAT(report.failures[2], HasSubstr(pluginDir + "/unresolved.so: "));
  EXPECT_THAT(report.failures[2], HasSubstr("korvaTestSymbolNobodyDefines"));

  ASSERT_EQ(log_.count("PLUGIN_LOAD_FAILED"), 3u);
  const Mox::LoggedMessage bad = log_.messages()[1];
  EXPECT_EQ(bad.severity, Mox::LogSeverity::error);
  EXPECT_THAT(bad.text, HasSubstr("Plugin " + tempDir_ + "/bad.so of category MoxTest failed"));
  EXPECT_TRUE(trace_.contains("Failed to load " + report.failures[2]));
}

// The category chooses the entry symbol, a name registers once per category, and empty or
// missing directories are no failure.
TEST_F(Plugin, CategoryChoosesTheEntrySymbolAndTheBuiltIns) {
  Mox::PluginEntry ignore = [](void*) {};
  EXPECT_FALSE(Mox::pluginIs("MoxTest", "first", ignore));
  EXPECT_TRUE(Mox::pluginIs("MoxOther", "first", ignore));
  pluginPathIs("::/nonexistent/moxPlugins:" + pluginDir);
  Calls calls;
  Mox::PluginLoadReport report = Mox::loadPlugins("MoxOther", &calls);
  EXPECT_THAT(calls, ElementsAre("other"));
  EXPECT_THAT(report.loaded, ElementsAre("first", pluginDir + "/other.so"));
  ASSERT_EQ(report.failures.size(), 1u);
  EXPECT_THAT(report.failures[0], HasSubstr("unresolved.so"));
}

}  // namespace
