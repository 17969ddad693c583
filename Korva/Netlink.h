#pragma once
// The few rtnetlink helpers the namespace utilities need: a route socket inside a
// namespace, attribute packing, and a request/acknowledge exchange.

#include <Korva/Types.h>

#include <linux/netlink.h>

#include <cstddef>

namespace Korva {

// A bound NETLINK_ROUTE socket inside the named namespace; -1 with errno on failure.
int createNetlinkSocket(const Mox::String8& netNs);

// Appends one attribute to the message; -1 (EMSGSIZE) when it would pass maxLen bytes.
int addattr_l(nlmsghdr* message, size_t maxLen, int type, const void* data, size_t length);

// Sends the request with an acknowledgement demanded and waits (bounded) for it.
// 0 on success; -1 with errno set to the kernel's error otherwise.
int sendNetlinkMsg(int fd, nlmsghdr* message);

}  // namespace Korva
