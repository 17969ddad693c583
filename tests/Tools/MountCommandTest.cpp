// korva mount: the tree of a real publisher (on a thread with its own event loop) in text
// and JSON, and clear failures.

#include "Tools/KorvaToolRun.h"

#include <Arp/ArpTypes.mox.h>
#include <Korva/Netns.mox.h>
#include <Mox/Activity.h>
#include <Mox/AttrLogPublisher.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

namespace KorvaTest {
namespace {

class MountCommand : public KorvaTool {
 protected:
  MountCommand() : KorvaTool("mount") {}

  void SetUp() override {
    KorvaTool::SetUp();
    publisher_ = std::thread([this] {
      auto netns = Korva::netnsFactory("agent");
      netns->nsIs(Korva::NamespaceName("blue"));
      auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint_, netns);
      ready_ = true;
      while (!stop_) Mox::runOnce(0.01);
    });
    while (!ready_) std::this_thread::yield();
  }
  void TearDown() override {
    stop_ = true;
    publisher_.join();
    KorvaTool::TearDown();
  }

  const std::string endpoint_ = "@korva-mount-test-" + std::to_string(getpid());

 private:
  std::thread publisher_;
  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
};

TEST_F(MountCommand, PrintsTheTreeInTextAndJson) {
  const ToolRun text = run(endpoint_);
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.output, "Korva::Netns agent\n/ns = 'blue'\n");
  const ToolRun json = run(endpoint_ + " --json");
  ASSERT_EQ(json.status, 0);
  const auto tree = nlohmann::json::parse(json.output);
  EXPECT_EQ(tree["type"], "Korva::Netns");
  EXPECT_EQ(tree["attributes"]["ns"], "'blue'");
}

// The publisher goes and comes back without one of its VRFs: the watch prints that VRF's
// deletion, then the resynchronised tree.
TEST_F(MountCommand, WatchPrintsWhatAResynchronisationDeletes) {
  const std::string endpoint = endpoint_ + "-arp";
  std::atomic<bool> stop{false};
  std::thread publisher([&] {
    auto config = Arp::arpInputConfigFactory("agent");
    config->newVrf("blue");
    auto first = Mox::make<Mox::AttrLogPublisher>(endpoint, config);
    Mox::runUntil([&] { return stop || (first->mountCount() == 1 && first->backlog() == 0); },
                  10.0);
    first = nullptr;
    config->vrfDel("blue");
    config->newVrf("red");
    auto second = Mox::make<Mox::AttrLogPublisher>(endpoint, config);
    while (!stop) Mox::runOnce(0.01);
  });
  const ToolRun watch = run(endpoint + " --watch --changes 1");
  stop = true;
  publisher.join();
  EXPECT_EQ(watch.status, 0);
  EXPECT_EQ(watch.output,
            "Arp::ArpInputConfig agent\n/source = dynamic\n/vrf['blue'] = (entity)\n"
            "/vrf['default'] = (entity)\n"
            "/vrf['blue'] deleted\n"
            "Arp::ArpInputConfig agent\n/source = dynamic\n/vrf['default'] = (entity)\n"
            "/vrf['red'] = (entity)\n");
}

// Usage errors exit with the command-line parser's codes (100 and up), failures with 1.
TEST_F(MountCommand, FailsClearly) {
  const struct {
    std::string arguments;
    bool usage;
  } cases[] = {
      {"", true},                                         // no endpoint
      {endpoint_ + " --timeout 0", true},                 // no time to wait
      {"@korva-mount-test-nobody --timeout 0.2", false},  // nobody publishes there
      {"'@" + std::string(120, 'x') + "'", false},        // too long for a socket name
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ToolRun result = run(c.arguments);
    if (c.usage) {
      EXPECT_GE(result.status, 100);
    } else {
      EXPECT_EQ(result.status, 1);
    }
    EXPECT_EQ(result.output, "");
  }
}

}  // namespace
}  // namespace KorvaTest
