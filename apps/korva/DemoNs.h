#pragma once
// What the demo steps that need real network namespaces share: the capability check and
// throwaway namespaces joined by a veth pair, removed again whatever happens.

#include <Mox/Types.h>

#include <string>

namespace KorvaTool {

// True when the process may create namespaces and links; otherwise says what is missing.
bool demoCapabilitiesPresent();

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

// Links the two namespaces with a veth pair, kd0 (in `first`: 10.99.0.1, fd99::1) and
// kd1 (in `second`: 10.99.0.2, fd99::2) unless named otherwise, both up, with their
// loopbacks.
bool joinByVeth(const ThrowawayNs& first, const ThrowawayNs& second,
                const std::string& firstLink = "kd0", const std::string& secondLink = "kd1");

// The name of interface `index` in the namespace of socket `fd`; "?" when there is none.
std::string interfaceName(int fd, Mox::U32 index);

}  // namespace KorvaTool
