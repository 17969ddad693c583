#pragma once
// The network the `korva demo` steps run in: two throwaway namespaces, "server" and
// "client", joined by a veth pair (kd0: 10.99.0.1, fd99::1; kd1: 10.99.0.2, fd99::2).
// Everything is removed again when the DemoNet goes, also when a step fails.

#include <Mox/Types.h>

#include <string>

namespace KorvaTool {

// A named namespace that is deleted, with the links in it, when this goes.
class ThrowawayNs {
 public:
  explicit ThrowawayNs(const std::string& role);
  ~ThrowawayNs();
  ThrowawayNs(const ThrowawayNs&) = delete;
  ThrowawayNs& operator=(const ThrowawayNs&) = delete;

  bool created() const { return created_; }
  const std::string& name() const { return name_; }
  // Runs `ip -n <ns> <command>`; says which command failed.
  bool ip(const std::string& command) const;
  // Runs `command` inside the namespace, its output discarded; says when it failed.
  bool exec(const std::string& command) const;

 private:
  std::string name_;
  bool created_ = false;
};

class DemoNet {
 public:
  // Checks the capabilities it needs and builds the network, saying what went wrong.
  DemoNet();
  ~DemoNet();

  bool ready() const { return ready_; }
  const ThrowawayNs& server() const { return server_; }
  const ThrowawayNs& client() const { return client_; }

 private:
  ThrowawayNs server_;
  ThrowawayNs client_;
  bool ready_ = false;
};

// The name of interface `index` in the namespace of socket `fd`; "?" when there is none.
std::string interfaceName(int fd, Mox::U32 index);

}  // namespace KorvaTool
