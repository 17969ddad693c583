#pragma once
// Diagnostic tracing: one handle per source unit, levels 0 to 9, all off by default.
// KORVA_TRACE switches units and levels on ("UdpPam/0-9,Ip*/1": a unit name or glob, then
// optionally a level or a range; a name alone means every level). Lines go to standard
// error, or to the file KORVA_TRACE_FILE names. A disabled MOX_TRACE costs one load and
// one branch, and its text is never built.
//
//   static Mox::TraceHandle trace("UdpPam");
//   MOX_TRACE(trace, 3, "bind failed: " << strerror(errno));

#include <Mox/Types.h>

#include <atomic>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

class TraceHandle {
 public:
  explicit TraceHandle(const char* unit);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const char* unit() const noexcept { return unit_; }
  bool enabled(unsigned level) const noexcept {
    return (levels_.load(std::memory_order_relaxed) >> level) & 1u;
  }
  // Writes one line, whether or not the level is enabled; MOX_TRACE checks first.
  void write(unsigned level, std::string_view text) const;

  U16 levels() const noexcept { return levels_.load(std::memory_order_relaxed); }
  void levelsIs(U16 mask) noexcept { levels_.store(mask, std::memory_order_relaxed); }

 private:
  const char* unit_;
  std::atomic<U16> levels_{0};
};

// Replaces the configuration of every handle, present and future, as KORVA_TRACE would.
void traceConfigIs(std::string_view config);
// The level mask a configuration gives a unit (bit n for level n).
U16 traceLevelsFor(std::string_view config, std::string_view unit);

struct TraceLine {
  std::string unit;
  unsigned level;
  std::string text;
};

// While one exists, trace lines are collected here instead of being written out; for tests.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<TraceLine> lines() const;
  // True when some captured line's text contains the fragment.
  bool contains(std::string_view fragment) const;
  void clear();

 private:
  friend class TraceHandle;
  std::vector<TraceLine> lines_;
};

}  // namespace Mox

// The text is built out of line, so a disabled trace leaves the caller's code as it was.
#define MOX_TRACE(handle, level, streamExpr)                        \
  do {                                                              \
    if ((handle).enabled(level)) {                                  \
      auto moxTraceWrite_ = [&]() __attribute__((noinline, cold)) { \
        std::ostringstream moxTraceText_;                           \
        moxTraceText_ << streamExpr;                                \
        (handle).write(level, moxTraceText_.str());                 \
      };                                                            \
      moxTraceWrite_();                                             \
    }                                                               \
  } while (0)
