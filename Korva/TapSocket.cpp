#include <Korva/TapSocket.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Korva {

namespace {

Mox::TraceHandle trace("TapSocket");

constexpr const char* tunDevice = "/dev/net/tun";

[[noreturn]] void throwSetupFailure(const char* step) {
  const int error = errno;
  const char* hint = (error == EPERM || error == EACCES) ? " (try: sudo chmod 666 /dev/net/tun)"
                                                         : " (is the kernel tun-enabled?)";
  throw Mox::Exception(std::string(step) + ": " + std::strerror(error) + hint);
}

}  // namespace

TapSocket::TapSocket(Mox::String8 name, Type type) : PktSocket(name), type_(type) {
  const int fd = open(tunDevice, O_RDWR);
  if (fd < 0) throwSetupFailure(tunDevice);
  ifreq request{};
  std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (ioctl(fd, TUNSETIFF, &request) < 0) {
    const int error = errno;
    close(fd);
    errno = error;
    throwSetupFailure("ioctl TUNSETIFF");
  }
  descriptorIs(fd);
  MOX_TRACE(trace, 5, "TapSocket " << name << " on fd " << fd);
}

ssize_t TapPktSocket::recvfrom(int fd, void* buf, U32 len, int, sockaddr* from,
                               socklen_t* fromLen) {
  if (from && fromLen) std::memset(from, 0, *fromLen);
  return ::read(fd, buf, len);
}

ssize_t TapPktSocket::sendmsg(Mox::Ptr<Pkt> pkt) {
  return ::writev(descriptor(), pkt->iovecs(), pkt->iovecCount());
}

}  // namespace Korva
