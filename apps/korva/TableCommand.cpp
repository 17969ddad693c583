// korva table: what the shared-memory tables and segments leave in /dev/shm (list, rm).

#include "Command.h"

#include <Cairn/Segment.h>
#include <Cairn/Table.h>
#include <Mox/Exception.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace KorvaTool {

namespace {

struct Present {
  std::vector<std::string> tables;
  std::vector<std::string> segments;
};

Present present() {
  Present found;
  DIR* dir = opendir("/dev/shm");
  if (!dir) return found;
  const std::string tablePrefix = "cairn.", segmentPrefix = "cairn-segment.";
  while (dirent* entry = readdir(dir)) {
    const std::string file = entry->d_name;
    if (file.rfind(segmentPrefix, 0) == 0) {
      found.segments.push_back(file.substr(segmentPrefix.size()));
    } else if (file.rfind(tablePrefix, 0) == 0 &&
               file.find('.', tablePrefix.size()) == std::string::npos) {
      found.tables.push_back(file.substr(tablePrefix.size()));
    }
  }
  closedir(dir);
  std::sort(found.tables.begin(), found.tables.end());
  std::sort(found.segments.begin(), found.segments.end());
  return found;
}

int list(bool json) {
  const Present found = present();
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const std::string& name : found.tables) {
    Cairn::TableInfo info;
    try {
      info = Cairn::tableInfo(name);
    } catch (const Mox::Exception&) {
      continue;  // removed meanwhile
    }
    rows.push_back({{"name", name},
                    {"kind", info.valid ? "table" : "damaged table"},
                    {"capacity", info.capacity},
                    {"size", info.size},
                    {"writerPid", info.writerPid},
                    {"bytes", info.bytes}});
  }
  for (const std::string& name : found.segments) {
    rows.push_back({{"name", name}, {"kind", "segment"}});
  }
  if (json) {
    std::printf("%s\n", rows.dump(2).c_str());
    return 0;
  }
  std::printf("%-40s %-8s %10s %10s %8s\n", "NAME", "KIND", "CAPACITY", "FILL", "WRITER");
  for (const auto& row : rows) {
    if (row["kind"] == "segment") {
      std::printf("%-40s segment\n", row["name"].get<std::string>().c_str());
      continue;
    }
    const unsigned pid = row["writerPid"].get<unsigned>();
    std::printf("%-40s %-8s %10u %10u %8s\n", row["name"].get<std::string>().c_str(), "table",
                row["capacity"].get<unsigned>(), row["size"].get<unsigned>(),
                pid ? std::to_string(pid).c_str() : "-");
  }
  return 0;
}

int remove(const std::string& name) {
  try {
    const bool table = Cairn::removeTable(name);
    const bool segment = Cairn::NamedSegment::remove(name);
    if (table || segment) return 0;
    std::fprintf(stderr, "korva table rm: no table or segment named %s\n", name.c_str());
  } catch (const Mox::Exception& e) {
    std::fprintf(stderr, "korva table rm: %s\n", e.what());
  }
  return 1;
}

void setupTable(CLI::App& app, int& exitStatus) {
  static bool json = false;
  static std::string name;
  auto* table = app.add_subcommand("table", "Shared-memory tables and segments in /dev/shm");
  table->require_subcommand(1);
  auto* listCommand =
      table->add_subcommand("list", "Tables and segments with their fill and writer");
  listCommand->add_flag("--json", json, "JSON output");
  listCommand->callback([&exitStatus] { exitStatus = list(json); });
  auto* rm = table->add_subcommand("rm", "Remove a table (with its reader files) or a segment");
  rm->add_option("name", name, "table or segment name")->required();
  rm->callback([&exitStatus] { exitStatus = remove(name); });
}

const bool registered = registerCommand(setupTable);

}  // namespace

}  // namespace KorvaTool
