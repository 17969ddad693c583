#pragma once
// What several korva commands share: running a command with the library's failures as a
// message, the capacity of an existing table, and stopping the event loop on SIGINT or
// SIGTERM.

#include <Cairn/Table.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace KorvaTool {

// Runs `command(options)`; a Mox exception becomes "korva NAME: message" on standard error
// and exit status 1.
template <class Options>
int guarded(const char* name, int (*command)(const Options&), const Options& options) {
  try {
    return command(options);
  } catch (const Mox::ErrnoException& e) {
    std::fprintf(stderr, "korva %s: %s\n", name, e.description().c_str());
  } catch (const Mox::Exception& e) {
    std::fprintf(stderr, "korva %s: %s\n", name, e.what());
  }
  return 1;
}

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

// Runs this thread's event loop until SIGINT or SIGTERM.
inline void runUntilSignal() {
  stopLoopOnSignals();
  Mox::ActivityManagerConfig::current()->run();
}

}  // namespace KorvaTool
