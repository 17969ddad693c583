#pragma once
// What several korva commands share: the capacity of an existing table, and stopping the
// event loop on SIGINT or SIGTERM.

#include <Cairn/Table.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <csignal>
#include <string>

namespace KorvaTool {

// The capacity `table` was made with, or `fallback` for a table still to be made.
inline Mox::U32 tableCapacity(const std::string& table, Mox::U32 fallback) {
  try {
    const Cairn::TableInfo info = Cairn::tableInfo(table);
    if (info.valid) return info.capacity;
  } catch (const Mox::ErrnoException&) {
  }
  return fallback;
}

// Makes SIGINT and SIGTERM stop this thread's event loop (run() then returns).
inline void stopLoopOnSignals() {
  auto stop = [](int) { Mox::ActivityManagerConfig::current()->stop(); };
  std::signal(SIGINT, stop);
  std::signal(SIGTERM, stop);
}

}  // namespace KorvaTool
