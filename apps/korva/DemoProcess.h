#pragma once
// What the demo steps that run korva commands as other processes share: a child process
// of this same binary, its output read line by line, every wait bounded, and the process
// gone (killed if need be) when this goes.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace KorvaTool {

class KorvaProcess {
 public:
  static constexpr double patience = 10.0;  // seconds any one wait may take

  // Starts `korva ARGUMENTS`, its standard output on a pipe when `capture`.
  KorvaProcess(const std::vector<std::string>& arguments, bool capture);
  ~KorvaProcess();
  KorvaProcess(const KorvaProcess&) = delete;
  KorvaProcess& operator=(const KorvaProcess&) = delete;

  bool started() const { return pid_ > 0; }
  // Reads lines (echoing each after `label`) until `done` holds for the lines read so far,
  // the output ends or patience runs out; the lines read.
  std::vector<std::string> readUntil(
      const std::string& label, const std::function<bool(const std::vector<std::string>&)>& done);
  std::vector<std::string> readLines(size_t count, const std::string& label);
  // Waits (bounded) for the process to end; its exit status, or -1 (it is then killed).
  int finish();
  // Asks it to stop with SIGINT, then finishes.
  int interrupt();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  int status_ = -1;
  std::string partial_;
};

}  // namespace KorvaTool
