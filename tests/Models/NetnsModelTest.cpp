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

TEST(NetnsModel, NetnsPublishesItsNamespace) {
  Mox::Ptr<Netns> netns = netnsFactory("bgp");
  EXPECT_EQ(netns->name(), "bgp");
  EXPECT_EQ(netns->ns(), NamespaceName());
  NsWatcher watcher(netns.get());
  netns->nsIs(NamespaceName("blue"));
  netns->nsIs(NamespaceName("blue"));
  netns->nsIs(NamespaceName("red"));
  EXPECT_EQ(watcher.seen, (std::vector<std::string>{"blue", "red"}));
  EXPECT_EQ(netns->ns().stringValue(), "red");
}

TEST(NetnsModel, NetnsFactoryPublishesItsNamespace) {
  Mox::Ptr<NetnsFactory> factory = netnsFactoryFactory("factory");
  EXPECT_EQ(factory->name(), "factory");
  FactoryWatcher watcher(factory.get());
  factory->netnsIs(NamespaceName("mgmt"));
  factory->netnsIs(NamespaceName("mgmt"));
  factory->netnsDel();
  EXPECT_EQ(watcher.seen, (std::vector<std::string>{"mgmt", ""}));
}

TEST(NetnsModel, NamespaceNameTextIsAStringAttribute) {
  NamespaceName name("ns 'one'");
  EXPECT_EQ(valueToStrep(name), "'ns \\'one\\''");
  EXPECT_EQ(Mox::valueFromText<NamespaceName>(valueToStrep(name), "bad"), name);
  name.stringValueIs("two");
  EXPECT_EQ(name.value(), "two");
  EXPECT_LT(NamespaceName("a"), NamespaceName("b"));
  EXPECT_EQ(NamespaceName("a").hash(), NamespaceName(std::string("a")).hash());
}

}  // namespace
}  // namespace Korva
