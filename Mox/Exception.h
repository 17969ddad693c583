#pragma once
// The runtime's exception family. Each carries its exact text; what() returns it unchanged
// so callers and tests can compare messages byte for byte.

#include <exception>
#include <string>

namespace Mox {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }
  const std::string& message() const noexcept { return message_; }

 private:
  std::string message_;
};

// A failed system call: the errno value and the step that failed ("setsockopt(IP_HDRINCL)").
class ErrnoException : public Exception {
 public:
  ErrnoException(int errorNumber, std::string message)
      : Exception(std::move(message)), errorNumber_(errorNumber) {}
  int errorNumber() const noexcept { return errorNumber_; }
  // The message followed by the system's text for the errno, for people to read.
  std::string description() const;

 private:
  int errorNumber_;
};

// A value out of its range, or text that does not parse as the value.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// Something that must not happen did, without being worth an abort.
class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// An allocation that failed.
class MemoryException : public Exception {
 public:
  using Exception::Exception;
};

class OpNotSupportedException : public Exception {
 public:
  using Exception::Exception;
};

// A fixed-capacity container that cannot take one more entry.
class MemoryLimitExceededException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Mox
