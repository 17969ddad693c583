// The table within one process: the map against std::map, limits, refusals and damage.
#include <Cairn/Table.h>
#include <Cairn/Watcher.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include "Cairn/Damage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>

namespace {

using Mox::U32;
using Mox::U64;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

struct Value {
  U64 a;
  U64 b;
};

class CairnTable : public ::testing::Test {
 protected:
  void SetUp() override {
    Cairn::corruptionHandlerIs(
        [this](const Cairn::Corruption& c) { corruptions_.push_back(c.what); });
  }
  void TearDown() override {
    Cairn::corruptionHandlerIs(nullptr);
    Cairn::removeTable(name_);
  }
  std::string name_ = "test-table-" + std::to_string(getpid());
  std::vector<std::string> corruptions_;
};

TEST_F(CairnTable, MatchesStdMapThroughRandomChangesAndRebuilds) {
  constexpr U32 kCapacity = 1000;
  Cairn::Writer<U32, Value> writer(name_, kCapacity);
  Cairn::Reader<U32, Value> reader(name_, kCapacity);
  std::map<U32, Value> model;
  std::mt19937 random(1);
  for (int i = 0; i < 200000; ++i) {
    const U32 key = random() % 1500;
    if (random() % 3 == 0) {
      EXPECT_EQ(writer.del(key), model.erase(key) == 1);
    } else if (model.count(key) || model.size() < kCapacity) {
      const Value value{random(), U64(i)};
      writer.set(key, value);
      model[key] = value;
    }
  }
  EXPECT_EQ(writer.size(), model.size());
  EXPECT_EQ(reader.size(), model.size());
  for (U32 key = 0; key < 1500; ++key) {
    const auto found = reader.find(key);
    ASSERT_EQ(found.has_value(), model.count(key) == 1) << key;
    if (found) {
      EXPECT_EQ(std::memcmp(&*found, &model[key], sizeof(Value)), 0);
    }
  }
  std::map<U32, U64> walked;
  reader.forEach([&](const U32& key, const Value& value) { walked[key] = value.b; });
  EXPECT_EQ(walked.size(), model.size());
  EXPECT_TRUE(corruptions_.empty());
}

TEST_F(CairnTable, FullTableRefusesANewKeyAndChangesNothing) {
  Cairn::Writer<U32, Value> writer(name_, 3);
  for (U32 key = 0; key < 3; ++key) writer.set(key, {key, key});
  EXPECT_THAT(
      [&] {
        writer.set(9, {9, 9});
      },
      ThrowsMessage<Mox::MemoryLimitExceededException>(StrEq("table full")));
  EXPECT_EQ(writer.size(), 3u);
  EXPECT_FALSE(writer.find(9));
  writer.set(2, {7, 7});  // replacing still works when full
  EXPECT_EQ(writer.find(2)->a, 7u);
}

TEST_F(CairnTable, LookUpsProbeFewSlotsAtThreeQuartersFill) {
  constexpr U32 kCapacity = 40000;
  Cairn::Writer<U32, Value> writer(name_, kCapacity);
  for (U32 key = 0; key < kCapacity * 3 / 4; ++key) writer.set(key * 7919, {key, key});
  Cairn::Reader<U32, Value> reader(name_, kCapacity);
  for (U32 key = 0; key < kCapacity * 3 / 4; ++key) ASSERT_TRUE(reader.find(key * 7919));
  EXPECT_LE(double(reader.core().probes()) / (kCapacity * 3 / 4), 2.0);
}

TEST_F(CairnTable, SecondWriterIsRefused) {
  using Writer = Cairn::Writer<U32, Value>;
  Writer writer(name_, 8);
  EXPECT_THAT(
      [&] { Writer(name_, 8); },
      ThrowsMessage<Mox::Exception>(StrEq("table " + name_ + " already has a writer (process " +
                                          std::to_string(getpid()) + ")")));
}

TEST_F(CairnTable, ReadersMappingFaultsOnWrite) {
  Cairn::Writer<U32, Value> writer(name_, 8);
  Cairn::Reader<U32, Value> reader(name_, 8);
  volatile char* segment =
      static_cast<volatile char*>(const_cast<void*>(reader.core().segmentAddress()));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // A sanitizer reports the fault itself and ends the process its own way.
  EXPECT_DEATH(segment[0] = 1, "SEGV");
#else
  EXPECT_EXIT(segment[0] = 1, ::testing::KilledBySignal(SIGSEGV), "");
#endif
}

TEST_F(CairnTable, MismatchedHeaderReachesTheHandlerAndReadsAsAbsent) {
  std::optional<Cairn::Writer<U32, Value>> writer(std::in_place, name_, 8);
  writer->set(1, {1, 1});
  struct Other {
    U64 a;
  };
  const struct {
    const char* what;
    std::function<bool()> read;
  } cases[] = {
      {"key or value size mismatch",
       [&] { return Cairn::Reader<U32, Other>(name_, 8).find(1).has_value(); }},
      {"capacity mismatch",
       [&] { return Cairn::Reader<U32, Value>(name_, 16).find(1).has_value(); }},
  };
  for (const auto& c : cases) {
    corruptions_.clear();
    EXPECT_FALSE(c.read()) << c.what;
    EXPECT_EQ(corruptions_, std::vector<std::string>{c.what});
  }
  writer.reset();
  EXPECT_THROW((Cairn::Writer<U32, Other>(name_, 8)), Mox::Exception);  // nor is it rewritten
  EXPECT_TRUE((Cairn::Reader<U32, Value>(name_, 8).find(1)));
}

TEST_F(CairnTable, DamagedEntryReachesTheHandlerAndReadsAsAbsent) {
  Cairn::Writer<U32, Value> writer(name_, 8);
  const Value value{0x1122334455667788ull, 0x99aabbccddeeff00ull};
  writer.set(5, value);
  Cairn::Reader<U32, Value> reader(name_, 8);
  ASSERT_TRUE(reader.find(5));
  // Flip one bit of the stored value, found by its bytes, through a mapping of our own.
  ASSERT_TRUE(CairnTest::damage(
      name_, std::string(reinterpret_cast<const char*>(&value), sizeof value), 3, 0x10));
  EXPECT_FALSE(reader.find(5));
  ASSERT_EQ(corruptions_.size(), 1u);
  EXPECT_NE(corruptions_[0].find("fails its check"), std::string::npos);
  int walked = 0;
  reader.forEach([&](const U32&, const Value&) { ++walked; });
  EXPECT_EQ(walked, 0);
  EXPECT_EQ(corruptions_.size(), 2u);
}

TEST_F(CairnTable, NamesAreValidated) {
  for (const char* bad : {"", "../etc", "a/b", ".hidden", "sp ace", "a.b",
                          "12345678901234567890123456789012345678901"}) {
    EXPECT_THROW((Cairn::Writer<U32, Value>(bad, 8)), Mox::RangeException) << bad;
  }
  EXPECT_THAT([] { Cairn::validateName("a/b"); },
              ThrowsMessage<Mox::RangeException>(StrEq("Invalid shared-memory name <a/b>")));
}

TEST_F(CairnTable, NamedSegmentKeepsItsBytesUntilRemoved) {
  const std::string name = "test-segment-" + std::to_string(getpid());
  {
    Cairn::NamedSegment segment(name, Cairn::Access{}, true);
    *static_cast<U32*>(segment.attach(4)) = 0xfeedbeef;
    segment.detach();
    EXPECT_EQ(segment.address(), nullptr);
  }
  Cairn::NamedSegment again(name, Cairn::Access{}, false);
  EXPECT_EQ(*static_cast<U32*>(again.attach(4)), 0xfeedbeefu);
  struct stat status {};
  ASSERT_EQ(fstat(shm_open(("/cairn-segment." + name).c_str(), O_RDONLY, 0), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_TRUE(Cairn::NamedSegment::remove(name));
  EXPECT_THROW(Cairn::NamedSegment(name, Cairn::Access{}, false), Mox::ErrnoException);
}

TEST_F(CairnTable, WatcherReportsEachDifferenceOnce) {
  Cairn::Writer<U32, Value> writer(name_, 64);
  writer.set(1, {1, 1});
  auto watcher = Mox::make<Cairn::Watcher<U32, Value>>(name_, 64);
  struct Log : Cairn::Watcher<U32, Value>::Notifiee {
    void onEntry(const U32& key, const Value* value) override {
      seen.push_back({key, value ? value->a : ~U64(0)});
    }
    std::vector<std::pair<U32, U64>> seen;
  } log;
  log.notifierIs(watcher);
  ASSERT_TRUE(Mox::runUntil([&] { return log.seen.size() == 1; }, 5.0));
  writer.set(2, {5, 5});
  writer.set(2, {6, 6});  // two changes of one key: one report, the latest value
  writer.del(1);
  writer.set(3, {3, 3});
  writer.del(3);  // back to how it was seen: nothing to report
  ASSERT_TRUE(Mox::runUntil([&] { return log.seen.size() >= 3; }, 5.0));
  writer.notify(2);  // announced unchanged: reported again
  writer.notify(3);  // absent and never seen: nothing
  ASSERT_TRUE(Mox::runUntil([&] { return log.seen.size() >= 4; }, 5.0));
  Mox::runOnce();
  const std::vector<std::pair<U32, U64>> expected{{1, 1}, {2, 6}, {1, ~U64(0)}, {2, 6}};
  EXPECT_EQ(log.seen, expected);
  EXPECT_EQ(watcher->seenValue(2)->a, 6u);
}

}  // namespace
