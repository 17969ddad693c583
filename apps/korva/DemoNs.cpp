#include "DemoNs.h"

#include <Korva/NetnsUtils.h>

#include <linux/capability.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace KorvaTool {

namespace {

bool hasCapability(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  return data[capability / 32].effective & (1u << (capability % 32));
}

// Addresses one veth end, host 1 or 2 of 10.99.0.0/24 and fd99::/64. `nodad` makes the
// IPv6 address usable at once instead of after duplicate detection.
bool runQuietly(const std::string& line) {
  if (std::system((line + " >/dev/null 2>&1").c_str()) == 0) return true;
  std::printf("  failed: %s\n", line.c_str());
  return false;
}

bool configureEnd(const ThrowawayNs& ns, const std::string& link, int host) {
  const std::string h = std::to_string(host);
  return ns.ip("addr add 10.99.0." + h + "/24 dev " + link) &&
         ns.ip("addr add fd99::" + h + "/64 dev " + link + " nodad") &&
         ns.ip("link set " + link + " up") && ns.ip("link set lo up");
}

}  // namespace

bool demoCapabilitiesPresent() {
  struct Need {
    int capability;
    const char* name;
    const char* purpose;
  };
  for (const Need& need : {Need{CAP_SYS_ADMIN, "CAP_SYS_ADMIN", "create network namespaces"},
                           Need{CAP_NET_ADMIN, "CAP_NET_ADMIN", "create veth links"},
                           Need{CAP_NET_RAW, "CAP_NET_RAW", "open raw sockets"}}) {
    if (!hasCapability(need.capability)) {
      std::printf("  missing capability %s (needed to %s); run as root\n", need.name, need.purpose);
      return false;
    }
  }
  return true;
}

ThrowawayNs::ThrowawayNs(const std::string& role)
    : name_("korva-demo-" + role + "-" + std::to_string(getpid())) {
  created_ = Korva::netNsAdd(name_) == 0;
}

ThrowawayNs::~ThrowawayNs() {
  if (created_) Korva::netNsDelete(name_);
}

bool ThrowawayNs::ip(const std::string& command) const {
  return runQuietly("ip -n " + name_ + " " + command);
}

bool ThrowawayNs::exec(const std::string& command) const {
  return runQuietly("ip netns exec " + name_ + " " + command);
}

bool joinByVeth(const ThrowawayNs& first, const ThrowawayNs& second, const std::string& firstLink,
                const std::string& secondLink) {
  if (!first.created() || !second.created()) {
    std::printf("  could not create the namespaces\n");
    return false;
  }
  return first.ip("link add " + firstLink + " type veth peer name " + secondLink + " netns " +
                  second.name()) &&
         configureEnd(first, firstLink, 1) && configureEnd(second, secondLink, 2);
}

std::string interfaceName(int fd, Mox::U32 index) {
  ifreq request{};
  request.ifr_ifindex = int(index);
  if (ioctl(fd, SIOCGIFNAME, &request) != 0) return "?";
  return request.ifr_name;
}

}  // namespace KorvaTool
