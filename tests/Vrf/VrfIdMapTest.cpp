// The VRF id map: long names, wrap-around, overflow, reader maps. The ids of the default
// VRF and of names given again, and their persistence across writer restarts, are checked
// through the korva tool (tests/Tools), whose every run is a new writer.
#include <Vrf/VrfIdMap.h>

#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/Log.h>
#include <Mox/Trace.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace Vrf::VrfIdMap {
namespace {

using Mox::U32;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

class VrfIdMapTest : public ::testing::Test {
 protected:
  void TearDown() override {
    writer_ = nullptr;
    Cairn::removeTable(table_);
    Cairn::NamedSegment::remove(writerName_);
  }
  Mox::Ptr<Writer> startWriter(U32 capacity = 64) {
    writer_ = nullptr;
    status_ = statusFactory(table_, capacity);
    writer_ = writerFactory(status_, writerName_);
    return writer_;
  }
  std::string table_ = "test-vrf-" + std::to_string(getpid());
  std::string writerName_ = "test-vrf-writer-" + std::to_string(getpid());
  Mox::Ptr<Status> status_;
  Mox::Ptr<Writer> writer_;
};

TEST_F(VrfIdMapTest, LongNameKeepsItsFirstHundredCharacters) {
  auto writer = startWriter();
  const std::string name(120, 'n');
  const VrfId id = writer->vrfIs(name);
  const VrfEntry entry = *status_->vrfIdToName().find(id);
  EXPECT_EQ(entry.vrfName(), name.substr(0, 100));
  EXPECT_EQ(entry.stringValue(), "Value('Vrf::VrfIdMap::VrfEntry', ** {'key': 1, 'name': '" +
                                     name.substr(0, 100) + "'})");
  EXPECT_THAT([&] { entry.name(VrfNameIndex(101)); },
              ThrowsMessage<Mox::RangeException>(StrEq(
                  "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed")));
}

TEST_F(VrfIdMapTest, WrapAroundGivesOneOrTheNextFreeId) {
  auto writer = startWriter();
  writer->prepareVrfIdWrapAround();
  EXPECT_EQ(writer->vrfIs("a"), VrfId(1));
  writer->prepareVrfIdWrapAround();
  EXPECT_EQ(writer->vrfIs("b"), VrfId(2));  // 1 is still in use
  EXPECT_EQ(*writer->lastVrfIdPtr(), 2u);
}

TEST_F(VrfIdMapTest, FullTableGivesTheNullIdAndLogsEachTime) {
  auto writer = startWriter(3);
  writer->vrfIs("a");
  writer->vrfIs("b");
  Mox::LogCapture log;
  EXPECT_EQ(writer->vrfIs("c"), VrfId::null());
  EXPECT_EQ(writer->vrfIs("c"), VrfId::null());
  ASSERT_EQ(log.count("VRF_MAP_OVERFLOW"), 2u);
  EXPECT_EQ(log.messages()[0].text,
            "A VRF table used internally to map VRF names to VRF identifiers has overflowed at 3 "
            "values.");
  EXPECT_EQ(log.messages()[0].severity, Mox::LogSeverity::error);
  EXPECT_NE(std::string(VRF_MAP_OVERFLOW.recommendedAction()).find("VRFs that than"),
            std::string::npos);
}

TEST_F(VrfIdMapTest, WriterFactoryWithoutStatusRefuses) {
  EXPECT_THAT([&] { writerFactory(nullptr, writerName_); },
              ThrowsMessage<Mox::RangeException>(StrEq("null ValidPtr")));
}

// Exposes the per-id step so that an out-of-order deletion can be played.
class TestMapper : public ReverseMapper {
 public:
  TestMapper(const Mox::Ptr<Status>& status, const Mox::Ptr<NameToIdMap>& map)
      : ReverseMapper(status, map) {}
  using ReverseMapper::handleVrfIdToName;
};

TEST_F(VrfIdMapTest, ReaderMapsFollowAddsAndDeletes) {
  auto writer = startWriter();
  auto wrapper = nameToIdMapWrapperFactory("reader");
  auto mapper = reverseMapperFactory(status_, wrapper->nameToIdMap());
  const VrfId blue = writer->vrfIs("blue");
  ASSERT_TRUE(Mox::runUntil([&] { return wrapper->vrfIdExists("blue"); }, 5.0));
  EXPECT_TRUE(wrapper->vrfIdExists("default"));
  EXPECT_EQ(mapper->vrfIdToNameCache(blue), "blue");
  writer->vrfDel("blue");
  ASSERT_TRUE(Mox::runUntil([&] { return !wrapper->vrfIdExists("blue"); }, 5.0));
  EXPECT_EQ(mapper->vrfIdToNameCacheSize(), 1u);

  Mox::traceConfigIs("VrfIdMap/3");
  Mox::TraceCapture trace;
  auto map = nameToIdMapFactory("direct");
  TestMapper direct(status_, map);
  const VrfEntry old(VrfId(7), "red"), moved(VrfId(8), "red");
  direct.handleVrfIdToName(VrfId(7), &old);
  direct.handleVrfIdToName(VrfId(8), &moved);  // "red" moved on before 7's deletion came
  direct.handleVrfIdToName(VrfId(7), nullptr);
  EXPECT_EQ(map->vrfNameToId("red"), VrfId(8));
  EXPECT_TRUE(
      trace.contains("ReverseMapper::handleVrfIdToName vrfId mismatch between "
                     "nameToIdMap vrfId 8 and vrfId getting deleted 7. Skipping "
                     "deletion from nameToIdMap"));
  direct.handleVrfIdToName(VrfId(9), nullptr);
  EXPECT_TRUE(trace.contains(" add vrfId: 7 vrfName: red"));
  EXPECT_TRUE(trace.contains(" delete vrfId: 9 could not find vrfName"));
  writer->vrfIs("green");
  EXPECT_TRUE(trace.contains(" allocated vrfId 2"));
  Mox::traceConfigIs("");

  // A name whose other id has no cached name means the two maps disagree: fatal.
  direct.handleVrfIdToName(VrfId(7), &old);
  map->vrfNameToIdIs("red", VrfId(10));
  EXPECT_DEATH(direct.handleVrfIdToName(VrfId(7), nullptr),
               "Failed\\(vrfId2 == VrfId\\(\\) \\|\\| vrfIdToNameCache\\( vrfId2 \\) == "
               "vrfName\\)  vrfIdToNameCache\\( 10 \\) is  vrfName red vrfId 7");
}

}  // namespace
}  // namespace Vrf::VrfIdMap
