#include <Korva/Netlink.h>
#include <Korva/NetnsUtils.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Korva {

int createNetlinkSocket(const Mox::String8& netNs) {
  int fd = socketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE, netNs);
  if (fd < 0) return -1;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  // The kernel answers at once; the bound only guards against a lost reply.
  timeval timeout{1, 0};
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int addattr_l(nlmsghdr* message, size_t maxLen, int type, const void* data, size_t length) {
  const size_t attributeLength = NLA_HDRLEN + length;
  if (NLMSG_ALIGN(message->nlmsg_len) + NLA_ALIGN(attributeLength) > maxLen) {
    errno = EMSGSIZE;
    return -1;
  }
  auto* attribute =
      reinterpret_cast<nlattr*>(reinterpret_cast<char*>(message) + NLMSG_ALIGN(message->nlmsg_len));
  attribute->nla_type = static_cast<U16>(type);
  attribute->nla_len = static_cast<U16>(attributeLength);
  if (length) std::memcpy(reinterpret_cast<char*>(attribute) + NLA_HDRLEN, data, length);
  message->nlmsg_len =
      static_cast<U32>(NLMSG_ALIGN(message->nlmsg_len) + NLA_ALIGN(attributeLength));
  return 0;
}

int sendNetlinkMsg(int fd, nlmsghdr* message) {
  message->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  message->nlmsg_seq = 1;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(fd, message, message->nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof kernel) < 0) {
    return -1;
  }
  alignas(nlmsghdr) char reply[4096];
  for (;;) {
    ssize_t received = recv(fd, reply, sizeof reply, 0);
    if (received < 0) return -1;
    for (auto* header = reinterpret_cast<nlmsghdr*>(reply); NLMSG_OK(header, received);
         header = NLMSG_NEXT(header, received)) {
      if (header->nlmsg_type != NLMSG_ERROR) continue;
      int error = -static_cast<nlmsgerr*>(NLMSG_DATA(header))->error;
      if (error == 0) return 0;
      errno = error;
      return -1;
    }
  }
}

}  // namespace Korva
