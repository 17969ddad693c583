#pragma once
// `korva` itself as a child process, for the demo steps that need a second process.

#include <sys/types.h>

#include <string>
#include <vector>

namespace KorvaTool {

// Seconds any one demo step may wait for a child.
constexpr double kPatience = 10.0;

// `korva ARGUMENTS` as a child process, its standard output on a pipe when `capture`.
struct Child {
  pid_t pid = -1;
  int output = -1;
};

Child spawnKorva(const std::vector<std::string>& arguments, bool capture);
// Waits (bounded) for the child to end; its exit status, or -1.
int finish(pid_t pid);
// Echoes the child's lines, each after "  <who>: ", until `count` have come (or patience
// runs out).
std::vector<std::string> readLines(int fd, size_t count, const char* who);

}  // namespace KorvaTool
