// Runs the built korva tool's vrf and table commands as a user would, through the shell.

#include <Cairn/Segment.h>
#include <Cairn/Table.h>
#include <nlohmann/json.hpp>

#include "KorvaToolRun.h"

namespace {

using KorvaTest::ToolRun;

class VrfCommand : public KorvaTest::KorvaTool {
 protected:
  VrfCommand() : KorvaTool("") {}
  void TearDown() override {
    Cairn::removeTable(table_);
    Cairn::NamedSegment::remove(table_);
    KorvaTool::TearDown();
  }
  ToolRun vrf(const std::string& arguments) {
    return run("vrf --table " + table_ + " " + arguments);
  }
  std::string table_ = "test-vrf-tool-" + std::to_string(getpid());
};

TEST_F(VrfCommand, EachWriterKeepsTheIdsOfTheOneBefore) {
  EXPECT_EQ(vrf("add default blue red").output, "0 default\n1 blue\n2 red\n");
  EXPECT_EQ(vrf("add red green").output, "2 red\n3 green\n");
  EXPECT_EQ(vrf("del blue green default").status, 0);  // the default VRF stays
  EXPECT_EQ(vrf("add yellow").output, "4 yellow\n");   // the last id is not given again
  EXPECT_EQ(vrf("list").output, "0 default\n2 red\n4 yellow\n");
  const auto listed = nlohmann::json::parse(vrf("list --json").output);
  EXPECT_EQ(listed[1], (nlohmann::json{{"id", 2}, {"name", "red"}}));
  EXPECT_EQ(vrf("reset").status, 0);
  EXPECT_EQ(vrf("add green").output, "1 green\n");
  EXPECT_EQ(vrf("list").output, "0 default\n1 green\n");
}

TEST_F(VrfCommand, TableListShowsFillAndRmRemovesEverything) {
  ASSERT_EQ(vrf("add blue").status, 0);
  auto find = [&]() {
    for (const auto& row : nlohmann::json::parse(run("table list --json").output)) {
      if (row["name"] == table_ && row["kind"] == "table") return row;
    }
    return nlohmann::json();
  };
  const auto row = find();
  EXPECT_EQ(row["size"], 2);
  EXPECT_EQ(row["capacity"], 1024);
  EXPECT_EQ(row["writerPid"], 0);  // the writer has ended
  EXPECT_EQ(run("table rm " + table_).status, 0);
  EXPECT_TRUE(find().is_null());
  EXPECT_EQ(run("table rm " + table_).status, 1);
  EXPECT_EQ(run("vrf --table ../x list").status, 1);
}

}  // namespace
