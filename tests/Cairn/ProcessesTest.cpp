// The table shared by real processes: one writer, several readers, killed writers.
#include "Cairn/Peer.h"
#include "Cairn/PeerProtocol.h"

#include <Cairn/Table.h>

#include <map>
#include <random>
#include <set>
#include <sstream>

namespace CairnTest {
namespace {

constexpr U32 kCapacity = 4096;
constexpr U32 kKeySpace = 3000;

struct WatcherView {
  std::map<U32, U64> entries;
  std::set<U32> notified;
  U64 torn = ~U64(0);
  U64 resyncs = 0;
};

WatcherView parse(const std::string& output) {
  WatcherView view;
  std::istringstream lines(output);
  std::string kind;
  while (lines >> kind) {
    U64 a = 0, b = 0;
    if (kind == "v" && lines >> a >> b) view.entries[U32(a)] = b;
    if (kind == "n" && lines >> a) view.notified.insert(U32(a));
    if (kind == "torn" && lines >> a) view.torn = a;
    if (kind == "resyncs" && lines >> a) view.resyncs = a;
  }
  return view;
}

class CairnProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    Cairn::Writer<U32, Payload>(name_, kCapacity);  // the table exists before any reader
  }
  void TearDown() override { Cairn::removeTable(name_); }
  std::string name_ = "test-procs-" + std::to_string(getpid());
  std::string capacity_ = std::to_string(kCapacity);
};

TEST_F(CairnProcesses, ReadersFollowAWriterOfManyRandomChanges) {
  constexpr U32 kOps = 100000;
  constexpr U64 kSeed = 20261123;
  Peer first({"watch", name_, capacity_});
  Peer second({"watch", name_, capacity_});
  Peer third({"watch", name_, capacity_});
  Peer slow({"watch", name_, capacity_, "hold"});
  Peer writer({"write", name_, capacity_, std::to_string(kOps), std::to_string(kSeed),
               std::to_string(kKeySpace)});
  ASSERT_EQ(writer.waitFor(60.0), 0);
  slow.send("go\n");
  Peer late({"watch", name_, capacity_});

  const std::map<U32, U64> expected = replay(kSeed, kKeySpace, kOps);
  for (Peer* reader : {&first, &second, &third, &slow, &late}) {
    const WatcherView view = parse(reader->readAll(60.0));
    ASSERT_EQ(reader->waitFor(10.0), 0);
    EXPECT_EQ(view.torn, 0u);
    EXPECT_EQ(view.entries, expected);
    // Every key present at the end differs from its absent start: each was notified.
    for (const auto& [key, value] : expected) EXPECT_TRUE(view.notified.count(key)) << key;
    if (reader == &slow) {
      EXPECT_GT(view.resyncs, 0u);
    }
  }
}

TEST_F(CairnProcesses, WriterKilledAtRandomInstantsLeavesNoTornEntry) {
  Peer scanner({"scan", name_, capacity_, std::to_string(kKeySpace)});
  std::mt19937 random(7);
  for (int round = 0; round < 25; ++round) {
    Peer writer({"churn", name_, capacity_, std::to_string(round), std::to_string(kKeySpace)});
    // A restarted writer attaches, finds every entry intact and carries on.
    ASSERT_EQ(writer.read(3, 10.0), "ok\n") << "round " << round;
    const size_t progress = std::uniform_int_distribution<size_t>(1, 400)(random);
    ASSERT_EQ(writer.read(progress, 10.0).size(), progress);
    writer.kill9();
    ASSERT_EQ(writer.waitFor(10.0), 128 + SIGKILL);
  }
  scanner.closeInput();
  std::istringstream result(scanner.readAll(30.0));
  std::string torn, scans;
  U64 tornCount = ~U64(0), scanCount = 0;
  result >> torn >> tornCount >> scans >> scanCount;
  EXPECT_EQ(scanner.waitFor(10.0), 0);
  EXPECT_EQ(tornCount, 0u);
  EXPECT_GT(scanCount, 0u);
}

}  // namespace
}  // namespace CairnTest
