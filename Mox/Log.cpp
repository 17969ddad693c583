#include <Mox/Log.h>

#include <syslog.h>

#include <charconv>
#include <cstdio>
#include <mutex>

namespace Mox {

namespace {

struct LogRegistry {
  std::mutex mutex;
  LogCapture* capture = nullptr;
  bool syslogOpen = false;
};

LogRegistry& logRegistry() {
  static LogRegistry* r = new LogRegistry;  // never destroyed: logging may outlive statics
  return *r;
}

template <class T>
void appendNumber(std::string* out, T value, int base) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, base);
  out->append(buffer, result.ptr);
}

void appendArg(std::string* out, char conversion, const LogArg& arg) {
  switch (arg.kind) {
    case LogArg::Kind::signedInt:
      appendNumber(out, arg.signedValue, 10);
      break;
    case LogArg::Kind::unsignedInt:
      appendNumber(out, arg.unsignedValue, conversion == 'x' ? 16 : 10);
      break;
    case LogArg::Kind::text:
      *out += arg.text;
      break;
  }
}

}  // namespace

std::string logFormat(std::string_view format, const LogArg* args, size_t count) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    ++i;
    while (i + 1 < format.size() && (format[i] == 'l' || format[i] == 'z' || format[i] == 'h')) {
      ++i;
    }
    if (format[i] == '%') {
      out += '%';
    } else if (next < count) {
      appendArg(&out, format[i], args[next++]);
    }
  }
  return out;
}

void logWrite(std::string_view name, LogSeverity severity, const std::string& text) {
  LogRegistry& r = logRegistry();
  std::lock_guard lock(r.mutex);
  if (r.capture) {
    r.capture->messages_.push_back({std::string(name), severity, text});
    return;
  }
  if (!r.syslogOpen) {
    openlog(nullptr, LOG_PID, LOG_USER);  // nullptr: the program's own name
    r.syslogOpen = true;
  }
  const int priority = static_cast<int>(severity);
  syslog(priority, "%%%.*s-%d: %s", static_cast<int>(name.size()), name.data(), priority,
         text.c_str());
  std::fprintf(stderr, "%%%.*s-%d: %s\n", static_cast<int>(name.size()), name.data(), priority,
               text.c_str());
  std::fflush(stderr);
}

LogCapture::LogCapture() {
  LogRegistry& r = logRegistry();
  std::lock_guard lock(r.mutex);
  r.capture = this;
}

LogCapture::~LogCapture() {
  LogRegistry& r = logRegistry();
  std::lock_guard lock(r.mutex);
  if (r.capture == this) r.capture = nullptr;
}

std::vector<LoggedMessage> LogCapture::messages() const {
  std::lock_guard lock(logRegistry().mutex);
  return messages_;
}

size_t LogCapture::count(std::string_view name) const {
  std::lock_guard lock(logRegistry().mutex);
  size_t n = 0;
  for (const LoggedMessage& message : messages_) n += message.name == name;
  return n;
}

void LogCapture::clear() {
  std::lock_guard lock(logRegistry().mutex);
  messages_.clear();
}

}  // namespace Mox
