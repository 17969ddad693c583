#pragma once
// Operational log messages: events an operator must see. Each message is declared once as a
// handle with its name, severity, format and recommended action, and logged with arguments.
// A line goes to syslog and to standard error as "%NAME-severity: text".
//
//   constexpr Mox::LogHandle<Mox::U32> VRF_MAP_OVERFLOW{"VRF_MAP_OVERFLOW",
//       Mox::LogSeverity::error, "... has overflowed at %u values.", "When this happens ..."};
//   VRF_MAP_OVERFLOW.log(size);
//
// The format is checked against the argument types when the program is compiled: %d and %i
// take signed integers, %u and %x unsigned ones, %s text or anything with operator<<, and
// %% is a percent sign. A mismatch is a compile error, never a garbled or crashing log line.

#include <Mox/Types.h>

#include <array>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Mox {

// Numbered as syslog priorities: LogSeverity::error is LOG_ERR (3).
enum class LogSeverity : U8 { emergency, alert, critical, error, warning, notice, info, debug };

// One formatted argument: an integer kept as a number (for %d, %u, %x) or text (for %s).
struct LogArg {
  enum class Kind : U8 { signedInt, unsignedInt, text };
  Kind kind;
  S64 signedValue = 0;
  U64 unsignedValue = 0;
  std::string text;
};

template <class T>
constexpr LogArg::Kind logArgKind() {
  if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>) {
    return std::is_signed_v<T> ? LogArg::Kind::signedInt : LogArg::Kind::unsignedInt;
  } else {
    return LogArg::Kind::text;
  }
}

template <class T>
LogArg logArg(const T& value) {
  constexpr LogArg::Kind kind = logArgKind<T>();
  if constexpr (kind == LogArg::Kind::signedInt) {
    return {kind, static_cast<S64>(value), 0, {}};
  } else if constexpr (kind == LogArg::Kind::unsignedInt) {
    return {kind, 0, static_cast<U64>(value), {}};
  } else if constexpr (std::is_same_v<T, bool>) {
    return {kind, 0, 0, value ? "true" : "false"};
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    return {kind, 0, 0, std::string(std::string_view(value))};
  } else {
    std::ostringstream text;
    text << value;
    return {kind, 0, 0, text.str()};
  }
}

// True when every conversion of `format` matches the next argument kind and the counts agree.
// Length modifiers (l, ll, z, h) are accepted and ignored: the argument type decides the width.
template <class... Args>
constexpr bool logFormatMatches(std::string_view format) {
  constexpr std::array<LogArg::Kind, sizeof...(Args)> kinds{logArgKind<Args>()...};
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') continue;
    if (++i == format.size()) return false;
    while (i < format.size() && (format[i] == 'l' || format[i] == 'z' || format[i] == 'h')) ++i;
    if (i == format.size()) return false;
    const char conversion = format[i];
    if (conversion == '%') continue;
    if (next == kinds.size()) return false;
    const LogArg::Kind kind = kinds[next++];
    const bool ok = (conversion == 'd' || conversion == 'i')   ? kind == LogArg::Kind::signedInt
                    : (conversion == 'u' || conversion == 'x') ? kind == LogArg::Kind::unsignedInt
                    : conversion == 's'                        ? kind == LogArg::Kind::text
                                                               : false;
    if (!ok) return false;
  }
  return next == kinds.size();
}

// Fills the format's conversions with the arguments, in order. The format has been checked.
std::string logFormat(std::string_view format, const LogArg* args, size_t count);

// Sends one message to the capture, or else to syslog and standard error.
void logWrite(std::string_view name, LogSeverity severity, const std::string& text);

// Declared at compile time in the handle's constructor; called only when a format does not
// match its argument types, which makes that declaration fail to compile.
void logFormatDoesNotMatchArguments();

template <class... Args>
class LogHandle {
 public:
  consteval LogHandle(const char* name, LogSeverity severity, const char* format,
                      const char* action)
      : name_(name), severity_(severity), format_(format), action_(action) {
    if (!logFormatMatches<Args...>(format)) logFormatDoesNotMatchArguments();
  }

  const char* name() const noexcept { return name_; }
  LogSeverity severity() const noexcept { return severity_; }
  const char* format() const noexcept { return format_; }
  const char* recommendedAction() const noexcept { return action_; }

  // The message text for these arguments, as log() would write it.
  std::string text(const Args&... args) const {
    const std::array<LogArg, sizeof...(Args)> converted{logArg(args)...};
    return logFormat(format_, converted.data(), converted.size());
  }
  void log(const Args&... args) const { logWrite(name_, severity_, text(args...)); }

 private:
  const char* name_;
  LogSeverity severity_;
  const char* format_;
  const char* action_;
};

struct LoggedMessage {
  std::string name;
  LogSeverity severity;
  std::string text;
};

// While one exists, logged messages are collected here instead of being written out; for
// tests.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LoggedMessage> messages() const;
  // How many captured messages carry this name.
  size_t count(std::string_view name) const;
  void clear();

 private:
  friend void logWrite(std::string_view, LogSeverity, const std::string&);
  std::vector<LoggedMessage> messages_;
};

}  // namespace Mox
