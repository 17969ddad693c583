#include <Korva/Netlink.h>
#include <Korva/NetnsUtils.h>
#include <Mox/Assert.h>
#include <Mox/Netns.h>
#include <Mox/Trace.h>

#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Korva {

const char* const defaultNsStr = "default";
const Mox::String8 DEFAULT_NS = defaultNsStr;

namespace {

Mox::TraceHandle trace("NetnsUtils");

// The agent's namespace is the process's; the caller's is its own thread's, which differs
// from the process's while a thread is inside another namespace.
constexpr const char* agentNs = "/proc/self/ns/net";
constexpr const char* threadNs = "/proc/thread-self/ns/net";

// Runs a step, and on failure traces `message + strerror` and leaves errno as it was.
void traceFailure(const std::string& message) {
  int error = errno;
  MOX_TRACE(trace, 0, message << std::strerror(error));
  errno = error;
}

std::string runPath(const Mox::String8& name) {
  char path[4096];
  if (Mox::netnsRunPath(name.c_str(), path, sizeof path) < 0) return std::string();
  return path;
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Brings up the loopback device of the named namespace.
int setLoUp(const Mox::String8& name) {
  int fd = socketAt(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0, name);
  if (fd < 0) {
    traceFailure("Failed to open socket in ns " + name + " : ");
    return -1;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  int result = ioctl(fd, SIOCGIFFLAGS, &request);
  if (result < 0) {
    traceFailure("Error getting flags for kernel interface lo: ");
  } else {
    request.ifr_flags |= IFF_UP;
    result = ioctl(fd, SIOCSIFFLAGS, &request);
    if (result < 0) traceFailure("Error setting kernel interface lo up: ");
  }
  int error = errno;
  close(fd);
  errno = error;
  return result < 0 ? -1 : 0;
}

// Returns the calling thread to the namespace it came from and closes the saved descriptor;
// -1 when the thread could not go back.
int returnToNamespace(int savedNs, const Mox::String8& name) {
  int result = setns(savedNs, CLONE_NEWNET);
  if (result < 0) traceFailure("Cannot setns back from " + name + " : ");
  int error = errno;
  MOX_ASSERT_TEXT(close(savedNs) == 0, "close( curr_netns_fd ) == 0");
  errno = error;
  return result;
}

}  // namespace

int mkNsRunDir() {
  if (mkdir(Mox::kNetnsRunDir, 0755) == 0 || errno == EEXIST) return 0;
  traceFailure(std::string("Failed to create ns dir ") + Mox::kNetnsRunDir + " : ");
  return -1;
}

int remountNsRunDir() {
  const char* dir = Mox::kNetnsRunDir;
  if (mount(dir, dir, "none", MS_BIND, nullptr) < 0) {
    int error = errno;
    MOX_TRACE(trace, 0, "Bind mount " << dir << " -> " << dir << " failed: " << strerror(error));
    errno = error;
    return -1;
  }
  int result = mount("none", dir, nullptr, MS_SHARED | MS_REC, nullptr);
  int error = errno;
  MOX_TRACE(trace, 1, "Shared mount of " << dir << " : " << (result < 0 ? strerror(error) : "ok"));
  errno = error;
  return result < 0 ? -1 : 0;
}

int openNsRunDir() {
  int fd = open(Mox::kNetnsRunDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) traceFailure(std::string("Failed to open ns dir ") + Mox::kNetnsRunDir + " : ");
  return fd;
}

bool netNsExists(const Mox::String8& name) {
  return netNsInode(name) != 0;
}

U64 netNsInode(const Mox::String8& name) {
  const std::string path = runPath(name);
  struct stat file;
  if (stat(path.c_str(), &file) < 0) {
    traceFailure("stat failed for " + path + " : ");
    return 0;
  }
  return file.st_ino;
}

int netNsDelete(const Mox::String8& name) {
  const std::string path = runPath(name);
  struct stat file;
  if (path.empty() || stat(path.c_str(), &file) < 0) {
    int error = errno;
    MOX_TRACE(trace, 0, "Tried to delete a ns that didn't exist: " << name);
    errno = error;
    return -1;
  }
  Mox::netnsForget(name.c_str());
  // Not mounted (a half-made name) is fine: the file still has to go.
  if (umount2(path.c_str(), MNT_DETACH) < 0 && errno != EINVAL) {
    traceFailure("Cannot umount " + path + " : ");
  }
  if (unlink(path.c_str()) < 0) {
    traceFailure("Cannot remove " + path + " : ");
    return -1;
  }
  return 0;
}

int setNsByName(const Mox::String8& name) {
  if (Mox::setnsByName(name.c_str()) == 0) return 0;
  int error = errno;
  MOX_TRACE(
      trace, 0,
      "Cannot setns to " << name << " : " << strerror(error) << " " << Mox::netnsGetTracebuffer());
  errno = error;
  return -1;
}

int socketAt(int domain, int type, int protocol, const Mox::String8& name) {
  // The empty name is the agent's own namespace, like the default one.
  if (name.empty()) return socket(domain, type, protocol);
  const std::string path = runPath(name);
  struct stat target, own;
  const bool named = !path.empty() && stat(path.c_str(), &target) == 0;
  // The caller's own namespace (by name, or the default one before it has been named)
  // needs no worker thread.
  if ((named && stat(threadNs, &own) == 0 && sameFile(target, own)) ||
      (!named && name == DEFAULT_NS)) {
    return socket(domain, type, protocol);
  }
  int fd = Mox::netnsSocketAt(domain, type, protocol, name.c_str());
  if (fd < 0) {
    int error = errno;
    MOX_TRACE(trace, 0, Mox::netnsGetTracebuffer());
    errno = error;
  }
  return fd;
}

int mountDefaultNetNs() {
  if (mkNsRunDir() < 0) return -1;
  const std::string path = runPath(DEFAULT_NS);
  struct stat existing, agent;
  if (stat(path.c_str(), &existing) == 0) {
    if (stat(agentNs, &agent) == 0 && sameFile(existing, agent)) {
      MOX_TRACE(trace, 1, path << " exists");
      return 0;
    }
    netNsDelete(DEFAULT_NS);
  }
  int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
  if (fd < 0) {
    traceFailure("open failed for " + path + " : ");
    return -1;
  }
  close(fd);
  if (mount(agentNs, path.c_str(), "none", MS_BIND, nullptr) < 0) {
    traceFailure(std::string("Bind ") + agentNs + " -> " + path + " failed: ");
    int error = errno;
    unlink(path.c_str());
    errno = error;
    return -1;
  }
  return 0;
}

int netNsAdd(const Mox::String8& name) {
  const std::string path = runPath(name);
  if (path.empty() || mkNsRunDir() < 0) return -1;
  int savedNs = open(threadNs, O_RDONLY | O_CLOEXEC);
  if (savedNs < 0) {
    traceFailure(std::string("Cannot open ") + threadNs + " : ");
    return -1;
  }
  int file = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
  if (file < 0) {
    traceFailure("Cannot create " + path + " : ");
    MOX_ASSERT_TEXT(close(savedNs) == 0, "close( curr_netns_fd ) == 0");
    return -1;
  }
  close(file);
  if (unshare(CLONE_NEWNET) < 0) {
    traceFailure("Cannot unshare " + name + " : ");
    int error = errno;
    unlink(path.c_str());
    MOX_ASSERT_TEXT(close(savedNs) == 0, "close( curr_netns_fd ) == 0");
    errno = error;
    return -1;
  }
  // This thread now sits in the new namespace; its /proc/thread-self view names it.
  if (mount(threadNs, path.c_str(), "none", MS_BIND, nullptr) < 0) {
    traceFailure(std::string("Cannot mount ") + threadNs + " on " + path + " - ");
    int error = errno;
    netNsDelete(name);
    returnToNamespace(savedNs, name);
    errno = error;
    return -1;
  }
  if (name != DEFAULT_NS && setLoUp(name) < 0) {
    MOX_TRACE(trace, 0, "Cannot configure interface lo. : " << strerror(errno));
  }
  return returnToNamespace(savedNs, name) < 0 ? -1 : 0;
}

int netNsAddEvenIfPresent(const Mox::String8& name) {
  netNsDelete(name);
  return netNsAdd(name);
}

int moveIntfNetNs(const Mox::String8& intf, const Mox::String8& fromNs, const Mox::String8& toNs) {
  int target = Mox::getnsByName(toNs.c_str());
  if (target < 0) {
    traceFailure("Cannot open namespace " + toNs + " : ");
    return -1;
  }
  int fd = createNetlinkSocket(fromNs);
  if (fd < 0) {
    traceFailure("Cannot open netlink socket in " + fromNs + " : ");
    close(target);
    return -1;
  }
  struct {
    nlmsghdr header;
    ifinfomsg info;
    char attributes[256];
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
  request.header.nlmsg_type = RTM_NEWLINK;
  request.info.ifi_family = AF_UNSPEC;
  U32 targetFd = static_cast<U32>(target);
  int result =
      addattr_l(&request.header, sizeof request, IFLA_IFNAME, intf.c_str(), intf.size() + 1);
  if (result == 0) {
    result = addattr_l(&request.header, sizeof request, IFLA_NET_NS_FD, &targetFd, sizeof targetFd);
  }
  if (result == 0) result = sendNetlinkMsg(fd, &request.header);
  int error = errno;
  if (result < 0) {
    MOX_TRACE(
        trace, 0,
        "Cannot move " << intf << " from " << fromNs << " to " << toNs << " : " << strerror(error));
  }
  close(fd);
  close(target);
  errno = error;
  return result;
}

int validateNetNs(int fd, bool* valid) {
  *valid = false;
  int savedNs = open(threadNs, O_RDONLY | O_CLOEXEC);
  if (savedNs < 0) {
    traceFailure(std::string("Cannot open ") + threadNs + " : ");
    return -1;
  }
  MOX_TRACE(trace, 5, "Net Namespace fd: " << fd);
  *valid = setns(fd, CLONE_NEWNET) == 0;
  MOX_ASSERT_TEXT(setns(savedNs, CLONE_NEWNET) == 0, "setns( curr_netns_fd, 0x40000000 ) == 0");
  MOX_ASSERT_TEXT(close(savedNs) == 0, "close( curr_netns_fd ) == 0");
  return 0;
}

int validateNetNs(const Mox::String8& name, bool* valid) {
  *valid = false;
  const std::string path = runPath(name);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    traceFailure("Cannot open " + path + " : ");
    return -1;
  }
  int result = validateNetNs(fd, valid);
  close(fd);
  return result;
}

int setns_by_name(const Mox::String8& name) {
  return setNsByName(name);
}

int move_intf_netns(const Mox::String8& intf, const Mox::String8& fromNs,
                    const Mox::String8& toNs) {
  return moveIntfNetNs(intf, fromNs, toNs);
}

int socket_at(int domain, int type, int protocol, const Mox::String8& name) {
  return socketAt(domain, type, protocol, name);
}

}  // namespace Korva
