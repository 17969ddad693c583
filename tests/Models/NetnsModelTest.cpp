// The namespace entities published to other agents (models/Korva/Netns.mox).

#include <Korva/Netns.mox.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Korva {
namespace {

class NsWatcher : public Netns::Notifiee {
 public:
  explicit NsWatcher(Netns* netns) { notifierIs(netns); }
  void onNs() override { seen.push_back(notifier()->ns().value()); }
  std::vector<std::string> seen;
};

class FactoryWatcher : public NetnsFactory::Notifiee {
 public:
  explicit FactoryWatcher(NetnsFactory* factory) { notifierIs(factory); }
  void onNetns() override { seen.push_back(notifier()->netns().value()); }
  std::vector<std::string> seen;
};

TEST(NetnsModel, EachEntityNotifiesOnlyWhenItsNamespaceChanges) {
  Mox::Ptr<Netns> netns = netnsFactory("bgp");
  EXPECT_EQ(netns->ns(), NamespaceName());
  NsWatcher nsWatcher(netns.get());
  netns->nsIs(NamespaceName("blue"));
  netns->nsIs(NamespaceName("blue"));
  netns->nsIs(NamespaceName("red"));
  EXPECT_EQ(nsWatcher.seen, (std::vector<std::string>{"blue", "red"}));

  Mox::Ptr<NetnsFactory> factory = netnsFactoryFactory("factory");
  FactoryWatcher factoryWatcher(factory.get());
  factory->netnsIs(NamespaceName("mgmt"));
  factory->netnsIs(NamespaceName("mgmt"));
  factory->netnsDel();
  EXPECT_EQ(factoryWatcher.seen, (std::vector<std::string>{"mgmt", ""}));
}

}  // namespace
}  // namespace Korva
