#include <Mox/Trace.h>

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace Mox {

namespace {

constexpr U16 kAllLevels = 0x3ff;

// The registry lives in a function-local static so that handles constructed by other
// units' static initialisers find it ready.
struct Registry {
  std::mutex mutex;
  std::vector<TraceHandle*> handles;
  std::string config;
  TraceCapture* capture = nullptr;
  FILE* out = nullptr;

  Registry() {
    if (const char* env = std::getenv("KORVA_TRACE")) config = env;
    if (const char* file = std::getenv("KORVA_TRACE_FILE")) out = std::fopen(file, "a");
    if (!out) out = stderr;
  }
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles outlive static teardown
  return *r;
}

bool parseLevel(std::string_view text, unsigned* level) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *level);
  return error == std::errc() && end == text.data() + text.size() && *level <= 9;
}

// "3" or "0-9"; anything else selects nothing.
U16 levelMask(std::string_view levels) {
  auto dash = levels.find('-');
  unsigned low = 0, high = 0;
  if (dash == std::string_view::npos) {
    if (!parseLevel(levels, &low)) return 0;
    high = low;
  } else if (!parseLevel(levels.substr(0, dash), &low) ||
             !parseLevel(levels.substr(dash + 1), &high) || low > high) {
    return 0;
  }
  return static_cast<U16>(((1u << (high + 1)) - 1) & ~((1u << low) - 1));
}

}  // namespace

U16 traceLevelsFor(std::string_view config, std::string_view unit) {
  U16 mask = 0;
  const std::string unitText(unit);
  while (!config.empty()) {
    auto comma = config.find(',');
    std::string_view entry = config.substr(0, comma);
    config = comma == std::string_view::npos ? std::string_view() : config.substr(comma + 1);
    auto slash = entry.find('/');
    const std::string pattern(entry.substr(0, slash));
    if (pattern.empty() || fnmatch(pattern.c_str(), unitText.c_str(), 0) != 0) continue;
    mask |= slash == std::string_view::npos ? kAllLevels : levelMask(entry.substr(slash + 1));
  }
  return mask;
}

void traceConfigIs(std::string_view config) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.config = config;
  for (TraceHandle* handle : r.handles) handle->levelsIs(traceLevelsFor(config, handle->unit()));
}

TraceHandle::TraceHandle(const char* unit) : unit_(unit) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.handles.push_back(this);
  levels_ = traceLevelsFor(r.config, unit_);
}

TraceHandle::~TraceHandle() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::erase(r.handles, this);
}

void TraceHandle::write(unsigned level, std::string_view text) const {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (r.capture) {
    r.capture->lines_.push_back({unit_, level, std::string(text)});
    return;
  }
  using namespace std::chrono;
  auto micros = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  std::fprintf(r.out, "%lld.%06lld %d %s/%u %.*s\n", static_cast<long long>(micros / 1000000),
               static_cast<long long>(micros % 1000000), static_cast<int>(getpid()), unit_,
               level, static_cast<int>(text.size()), text.data());
  std::fflush(r.out);
}

TraceCapture::TraceCapture() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.capture = this;
}

TraceCapture::~TraceCapture() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (r.capture == this) r.capture = nullptr;
}

std::vector<TraceLine> TraceCapture::lines() const {
  std::lock_guard lock(registry().mutex);
  return lines_;
}

bool TraceCapture::contains(std::string_view fragment) const {
  std::lock_guard lock(registry().mutex);
  return std::any_of(lines_.begin(), lines_.end(), [&](const TraceLine& line) {
    return line.text.find(fragment) != std::string::npos;
  });
}

void TraceCapture::clear() {
  std::lock_guard lock(registry().mutex);
  lines_.clear();
}

}  // namespace Mox
