// The attribute log between processes: a publishing program (programs/publisher.cpp) makes
// random changes to a tree with nested collections; this process mounts it and checks the
// mirror and the hooks that fired on it against a replay of the same changes.

#include "AttrLog/RandomTree.h"

#include <Mox/Activity.h>
#include <Mox/AttrLogMount.h>
#include <Mox/AttrLogPublisher.h>
#include <Mox/Log.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

namespace AttrLogTest {
namespace {

using namespace std::string_literals;

std::string uniqueEndpoint(const char* what) {
  static int count = 0;
  return "@korva-attrlog-test-" + std::to_string(getpid()) + "-" + what + std::to_string(++count);
}

// The publishing program, killed when the test ends.
class Publisher {
 public:
  Publisher(const std::string& endpoint, int seed, int setup, int changes) {
    const std::string program = std::string(KORVA_TEST_PROGRAM_DIR) + "/publisher";
    std::vector<std::string> args{program, endpoint, std::to_string(seed), std::to_string(setup),
                                  std::to_string(changes)};
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv.data(), environ), 0);
  }
  ~Publisher() { kill(); }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

// Records every hook of a tree, attaching itself to children as they come.
class Hooks {
 public:
  explicit Hooks(Root* root) { watch(root, ""); }
  std::vector<std::string> events;

 private:
  struct RootWatch : Root::Notifiee {
    RootWatch(Hooks* hooks, Root* root) : hooks(hooks) { notifierIs(root); }
    void onCount() override { hooks->events.push_back("count"); }
    void onLimit() override { hooks->events.push_back("limit"); }
    void onFlag(Mox::U32 key) override { hooks->events.push_back("flag " + std::to_string(key)); }
    void onBranch(const Mox::Name& key) override {
      hooks->events.push_back("branch " + key);
      if (auto branch = notifier()->branch(key)) hooks->watch(branch.get(), key);
    }
    Hooks* hooks;
  };
  struct BranchWatch : Branch::Notifiee {
    BranchWatch(Hooks* hooks, Branch* branch, std::string path)
        : hooks(hooks), path(std::move(path)) {
      notifierIs(branch);
    }
    void onLabel() override { hooks->events.push_back(path + " label"); }
    void onPair(const Korva::IpAddr& key) override {
      hooks->events.push_back(path + " pair " + key.stringValue());
    }
    void onLeaf(const Mox::Name& key) override {
      hooks->events.push_back(path + " leaf " + key);
      if (auto leaf = notifier()->leaf(key)) hooks->watch(leaf.get(), path + "/" + key);
    }
    Hooks* hooks;
    std::string path;
  };
  struct LeafWatch : Leaf::Notifiee {
    LeafWatch(Hooks* hooks, Leaf* leaf, std::string path) : hooks(hooks), path(std::move(path)) {
      notifierIs(leaf);
    }
    void onColor() override { hooks->events.push_back(path + " color"); }
    void onWeight() override { hooks->events.push_back(path + " weight"); }
    void onSlot(Mox::U8 key) override {
      hooks->events.push_back(path + " slot " + std::to_string(key));
    }
    void onPending(Mox::U32 key) override {
      hooks->events.push_back(path + " pending " + std::to_string(key));
    }
    Hooks* hooks;
    std::string path;
  };

  void watch(Root* root, const std::string&) {
    watches_.push_back(std::make_unique<RootWatch>(this, root));
  }
  void watch(Branch* branch, const std::string& path) {
    watches_.push_back(std::make_unique<BranchWatch>(this, branch, path));
  }
  void watch(Leaf* leaf, const std::string& path) {
    watches_.push_back(std::make_unique<LeafWatch>(this, leaf, path));
  }
  std::vector<std::unique_ptr<Mox::Entity::NotifieeBase>> watches_;
};

// Starts recording the mirror's hooks once its snapshot is in.
class Recorder : public Mox::AttrLogMount::Observer {
 public:
  explicit Recorder(Mox::AttrLogMount* mount) : mount_(mount) { mount->observerIs(this); }
  void onSynced() override {
    if (!hooks) hooks = std::make_unique<Hooks>(static_cast<Root*>(mount_->root().get()));
  }
  std::unique_ptr<Hooks> hooks;

 private:
  Mox::AttrLogMount* mount_;
};

// What the publisher's tree holds after `setup` and then `changes` random changes of `seed`,
// with the hooks that the changes (not the set-up) fired.
struct Replay {
  Replay(int seed, int setup, int changes) : root(rootFactory("root")) {
    RandomTree random(static_cast<unsigned>(seed));
    for (int i = 0; i < setup; ++i) random.change(*root);
    hooks = std::make_unique<Hooks>(root.get());
    for (int i = 0; i < changes; ++i) random.change(*root);
  }
  Mox::Ptr<Root> root;
  std::unique_ptr<Hooks> hooks;
};

TEST(AttrLog, MirrorFollowsTenThousandChangesWithTheSameHooks) {
  const std::string endpoint = uniqueEndpoint("changes");
  Publisher publisher(endpoint, 7, 300, 10000);
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, rootFactory("root"), 0.01);
  Recorder recorder(mount.get());
  // The program exits once everything is sent: the mount then sees the end of the stream.
  ASSERT_TRUE(Mox::runUntil([&] { return mount->syncs() == 1 && mount->drops() == 1; }, 20.0));
  EXPECT_EQ(mount->lastError(), "");
  const Replay replay(7, 300, 10000);
  EXPECT_EQ(dump(*mount->root()), dump(*replay.root));
  ASSERT_TRUE(recorder.hooks);
  EXPECT_EQ(recorder.hooks->events, replay.hooks->events);
  EXPECT_GT(replay.hooks->events.size(), 5000u);
  // The nolog children stay in the publisher.
  EXPECT_GT(replay.root->quietSize(), 0u);
  EXPECT_EQ(static_cast<Root*>(mount->root().get())->quietSize(), 0u);
}

TEST(AttrLog, RestartedPublisherWithAnotherTreeResynchronises) {
  const std::string endpoint = uniqueEndpoint("restart");
  auto publisher = std::make_unique<Publisher>(endpoint, 1, 400, -1);
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, nullptr, 0.01);
  ASSERT_TRUE(Mox::runUntil([&] { return mount->connected(); }, 10.0));
  EXPECT_EQ(dump(*mount->root()), dump(*Replay(1, 400, 0).root));
  publisher->kill();
  ASSERT_TRUE(Mox::runUntil([&] { return !mount->connected(); }, 10.0));
  const auto kept = dump(*mount->root());
  EXPECT_EQ(kept, dump(*Replay(1, 400, 0).root));
  Hooks hooks(static_cast<Root*>(mount->root().get()));
  publisher = std::make_unique<Publisher>(endpoint, 2, 400, -1);
  ASSERT_TRUE(Mox::runUntil([&] { return mount->syncs() == 2; }, 10.0));
  const auto converged = dump(*mount->root());
  EXPECT_EQ(converged, dump(*Replay(2, 400, 0).root));
  EXPECT_NE(converged, kept);
  // What the first tree had and the second has not went with its hooks.
  Replay first(1, 400, 0), second(2, 400, 0);
  for (const auto& [key, value] : first.root->flagColl()) {
    if (!second.root->flagColl().count(key)) {
      EXPECT_NE(std::find(hooks.events.begin(), hooks.events.end(), "flag " + std::to_string(key)),
                hooks.events.end());
    }
  }
}

// A server that speaks the wire format by hand, good records then a damaged one.
class FakePublisher {
 public:
  explicit FakePublisher(const std::string& endpoint) {
    sockaddr_un address;
    const socklen_t length = Mox::attrLogAddress(endpoint, &address);
    listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listen_, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(listen(listen_, 1), 0);
  }
  ~FakePublisher() {
    if (conn_ >= 0) close(conn_);
    close(listen_);
  }
  void sendTo(const std::string& bytes) {
    if (conn_ < 0) conn_ = accept(listen_, nullptr, nullptr);
    ASSERT_EQ(write(conn_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }

 private:
  int listen_ = -1;
  int conn_ = -1;
};

std::string goodStart(Mox::U16 version = Mox::kAttrLogVersion,
                      Mox::U64 schema = Mox::attrLogSchema(Root::attrLog())) {
  std::string bytes;
  Mox::AttrLogRecordWriter record(&bytes);
  Mox::AttrLogWriter& out = record.begin(Mox::AttrLogOp::hello);
  out.integer(Mox::kAttrLogMagic);
  out.integer(version);
  attrLogWrite(out, "AttrLogTest::Root"s);
  attrLogWrite(out, "root"s);
  out.integer(schema);
  record.end();
  record.begin(Mox::AttrLogOp::set, 1, 0);
  record.endKey();
  out.integer(Mox::U32(5));
  record.end();
  record.flush();
  return bytes;
}

std::string setRecord(Mox::U16 attr, const std::string& key, const std::string& value) {
  std::string bytes;
  Mox::AttrLogRecordWriter record(&bytes);
  Mox::AttrLogWriter& out = record.begin(Mox::AttrLogOp::set, 1, attr);
  out.bytes(key.data(), key.size());
  record.endKey();
  out.bytes(value.data(), value.size());
  record.end();
  record.flush();
  return bytes;
}

std::string childRecord(Mox::U16 attr, const std::string& key, Mox::U32 handle,
                        const std::string& type) {
  std::string bytes;
  Mox::AttrLogRecordWriter record(&bytes);
  Mox::AttrLogWriter& out = record.begin(Mox::AttrLogOp::child, 1, attr);
  attrLogWrite(out, key);
  record.endKey();
  out.integer(handle);
  attrLogWrite(out, type);
  record.end();
  record.flush();
  return bytes;
}

TEST(AttrLog, DamagedBytesDropTheConnectionAndKeepTheState) {
  struct Damage {
    const char* what;
    std::string bytes;
    std::string fault;
    Mox::U32 keptCount = 5;  // the good record before the damage stays applied
  };
  const Damage cases[] = {
      {"wrong version", goodStart(9), "wrong version 9, this mount reads 2", 0},
      {"another schema", goodStart(Mox::kAttrLogVersion, 0x0123456789abcdef),
       "published schema 0x0123456789abcdef of AttrLogTest::Root is not the mirror's 0x", 0},
      {"garbage", goodStart() + "\0\0\0\2\x77\x77"s, "unknown record type 119"},
      {"truncated value", goodStart() + setRecord(0, "", "\0\7"s),
       "AttrLogTest::Root attribute count: truncated: 4 bytes wanted, 2 left"},
      {"record cut short", goodStart() + "\0\0\0\x05\x03\0\0\0\1"s,
       "truncated: 2 bytes wanted, 0 left"},
      {"unknown attribute", goodStart() + setRecord(42, "", "\0\0\0\1"s),
       "unknown AttrLogTest::Root attribute 42"},
      {"out of bounds", goodStart() + setRecord(1, "", "\x03\xe9"s),
       "AttrLogTest::Root attribute limit: Weight::value > 1000 not allowed"},
      {"unknown handle", goodStart() + setRecord(0, "", "\0\0\0\1"s).replace(5, 4, "\0\0\0\7"s),
       "unknown entity handle 7"},
      {"too long", goodStart() + "\x7f\0\0\0"s, "a record of 2130706432 bytes"},
      // Whole records or nothing: neither the value read nor the child made stays.
      {"bytes after the value", goodStart() + setRecord(0, "", "\0\0\0\1\0"s),
       "AttrLogTest::Root attribute count: 1 bytes left over"},
      {"child of another type", goodStart() + childRecord(3, "b1", 9, "AttrLogTest::Leaf"),
       "AttrLogTest::Root attribute branch: child type AttrLogTest::Leaf is not the mirror's"},
  };
  for (const Damage& damage : cases) {
    SCOPED_TRACE(damage.what);
    const std::string endpoint = uniqueEndpoint("damage");
    FakePublisher fake(endpoint);
    Mox::LogCapture log;
    auto mount = Mox::make<Mox::AttrLogMount>(endpoint, rootFactory("root"), 60.0);
    fake.sendTo(damage.bytes);
    ASSERT_TRUE(Mox::runUntil([&] { return mount->drops() == 1; }, 5.0));
    EXPECT_FALSE(mount->connected());
    EXPECT_EQ(mount->lastError().substr(0, damage.fault.size()), damage.fault);
    ASSERT_EQ(log.count("ATTRLOG_MOUNT_DROPPED"), 1u);
    EXPECT_NE(log.messages()[0].text.find(damage.fault), std::string::npos);
    const auto* root = static_cast<Root*>(mount->root().get());
    EXPECT_EQ(root->count(), damage.keptCount);
    EXPECT_EQ(root->limit(), Weight());
    EXPECT_EQ(root->branchSize(), 0u);
  }
}

// A mount that makes its root by the published type name refuses another schema before
// making it.
TEST(AttrLog, AnotherSchemaMakesNoRoot) {
  const std::string endpoint = uniqueEndpoint("schema");
  FakePublisher fake(endpoint);
  Mox::LogCapture log;
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, nullptr, 60.0);
  fake.sendTo(goodStart(Mox::kAttrLogVersion, Mox::attrLogSchema(Root::attrLog()) + 1));
  ASSERT_TRUE(Mox::runUntil([&] { return mount->drops() == 1; }, 5.0));
  EXPECT_EQ(mount->lastError().substr(0, 17), "published schema ");
  EXPECT_EQ(mount->root(), nullptr);
}

// A table with no entities behind it, for its fingerprint alone.
class Table : public Mox::AttrLogClass {
 public:
  Table(const char* type, std::vector<Attr> attrs, const AttrLogClass* base = nullptr)
      : AttrLogClass(type, base, std::move(attrs)) {}

 protected:
  void snapshotOwn(const Mox::Entity&, Mox::U32, Mox::U16, Mox::AttrLogSink&) const override {}
  void emitOwn(const Mox::Entity&, Mox::U32, Mox::U16, Mox::U16, Mox::AttrLogReader&,
               Mox::AttrLogSink&) const override {}
  void applyOwn(Mox::Entity&, Mox::U16, Mox::AttrLogOp, Mox::AttrLogReader&, Mox::AttrLogReader&,
                Mox::AttrLogMirror&) const override {}
  void forEachEntryOwn(const Mox::Entity&, Mox::U16, const EntryFn&) const override {}
  std::unique_ptr<Mox::Entity::NotifieeBase> watchOwn(Mox::Entity&, Mox::U32, Mox::U16,
                                                      Mox::AttrLogSink&) const override {
    return nullptr;
  }
};

// Any change a model can make to a table changes its fingerprint; the same table built
// again has the same one.
TEST(AttrLog, FingerprintFollowsTheTable) {
  using Attr = Mox::AttrLogClass::Attr;
  using Kind = Mox::AttrLogKind;
  const Attr mac{"mac", Kind::map, true, "ProxyArp::VirtualMac", "Korva::IntfId"};
  const Attr count{"count", Kind::scalar, true, "Mox::U32", ""};
  const Table table("T::Status", {mac, count});
  EXPECT_EQ(Table("T::Status", {mac, count}).fingerprint(), table.fingerprint());
  const Table base("T::Base", {});
  const Table changed[] = {
      {"T::Other", {mac, count}},
      {"T::Status", {count, mac}},
      {"T::Status", {mac}},
      {"T::Status", {mac, count, count}},
      {"T::Status", {{"macs", Kind::map, true, "ProxyArp::VirtualMac", "Korva::IntfId"}, count}},
      {"T::Status", {{"mac", Kind::queue, true, "ProxyArp::VirtualMac", "Korva::IntfId"}, count}},
      {"T::Status", {{"mac", Kind::map, false, "ProxyArp::VirtualMac", "Korva::IntfId"}, count}},
      {"T::Status", {{"mac", Kind::map, true, "Korva::EthAddr", "Korva::IntfId"}, count}},
      {"T::Status", {{"mac", Kind::map, true, "ProxyArp::VirtualMac", "Mox::U64"}, count}},
      // Texts are delimited: the same characters split differently are another table.
      {"T::Status", {{"mac", Kind::map, true, "ProxyArp::VirtualMacK", "orva::IntfId"}, count}},
      {"T::Status", {mac, count}, &base},
  };
  for (const Table& other : changed) EXPECT_NE(other.fingerprint(), table.fingerprint());
}

const Mox::AttrLogClass& leafV1() {
  static const Table leaf("T::Leaf", {{"n", Mox::AttrLogKind::scalar, true, "Mox::U32", ""}});
  return leaf;
}
const Mox::AttrLogClass& leafV2() {
  static const Table leaf("T::Leaf", {{"n", Mox::AttrLogKind::scalar, true, "Mox::U64", ""}});
  return leaf;
}
const Mox::AttrLogClass& tree() {  // contains itself
  static const Table node(
      "T::Tree", {{"sub", Mox::AttrLogKind::children, true, "T::Tree", "Mox::Name", &tree},
                  {"leaf", Mox::AttrLogKind::children, true, "T::Leaf", "Mox::Name", &leafV1}});
  return node;
}

// The schema covers the classes a tree reaches through children, each once; a child whose
// own table changed changes the schema though the parent's table names only its type.
TEST(AttrLog, SchemaCoversTheChildClasses) {
  const Table treeV2("T::Tree",
                     {{"sub", Mox::AttrLogKind::children, true, "T::Tree", "Mox::Name", &tree},
                      {"leaf", Mox::AttrLogKind::children, true, "T::Leaf", "Mox::Name", &leafV2}});
  EXPECT_EQ(treeV2.fingerprint(), tree().fingerprint());
  EXPECT_NE(Mox::attrLogSchema(tree()), Mox::attrLogSchema(treeV2));
  EXPECT_NE(Mox::attrLogSchema(tree()), Mox::attrLogSchema(leafV1()));
  // Separately built processes agree: FNV-1a 64 of the documented bytes, computed apart.
  EXPECT_EQ(leafV1().fingerprint(), 0xd4053c7cb2147906u);
  EXPECT_EQ(Mox::attrLogSchema(leafV1()), 0x4942245e5520575bu);
}

// A mount that reads nothing is cut off once its queue passes the bound; the publisher
// and its other mount go on.
TEST(AttrLog, StalledMountIsCutOff) {
  const std::string endpoint = uniqueEndpoint("stalled");
  auto root = rootFactory("root");
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint, root, 256u << 10);
  sockaddr_un address;
  const socklen_t length = Mox::attrLogAddress(endpoint, &address);
  const int stalled = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(stalled, reinterpret_cast<sockaddr*>(&address), length), 0);
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, rootFactory("root"));
  ASSERT_TRUE(Mox::runUntil([&] { return mount->connected(); }, 5.0));
  Mox::LogCapture log;
  for (Mox::U32 i = 0; i < 200000 && publisher->cutOffs() == 0; ++i) {
    root->flagIs(i % 1000, (i / 1000) % 2);
    if (i % 1000 == 0) Mox::runOnce();
  }
  EXPECT_EQ(publisher->cutOffs(), 1u);
  EXPECT_EQ(log.count("ATTRLOG_MOUNT_CUT_OFF"), 1u);
  root->countInc(7);
  ASSERT_TRUE(
      Mox::runUntil([&] { return static_cast<Root*>(mount->root().get())->count() == 7; }, 5.0));
  EXPECT_EQ(dump(*mount->root()), dump(*root));
  EXPECT_EQ(publisher->mountCount(), 1u);
  close(stalled);
}

// Hooks that run before the publisher's and change the same collection again (delete the
// key just set, set the next one): the stream carries each key's state when the publisher
// hears of it, never a value that was replaced or deleted meanwhile.
TEST(AttrLog, HooksThatChangeTheCollectionAgainStreamWhatItHolds) {
  struct Meddler : Root::Notifiee {
    explicit Meddler(Root* root) { notifierIs(root); }
    void onFlag(Mox::U32 key) override {
      Root& root = *notifier();
      if (key % 2 == 0 && root.flag(key)) root.flagDel(key);
      if (key % 3 == 0) root.flagIs(key + 1, !root.flag(key + 1));
    }
  };
  const std::string endpoint = uniqueEndpoint("meddled");
  auto root = rootFactory("root");
  Meddler meddler(root.get());
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint, root);
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, rootFactory("root"));
  ASSERT_TRUE(Mox::runUntil([&] { return mount->connected(); }, 5.0));
  for (Mox::U32 i = 0; i < 3000; ++i) root->flagIs(i * 7 % 60, i % 5 != 0);
  ASSERT_TRUE(Mox::runUntil([&] { return publisher->backlog() == 0; }, 5.0));
  ASSERT_TRUE(Mox::runUntil([&] { return dump(*mount->root()) == dump(*root); }, 5.0));
  EXPECT_EQ(mount->lastError(), "");
}

}  // namespace
}  // namespace AttrLogTest
