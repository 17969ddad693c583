#pragma once
// The platform's named-network-namespace primitives, on setns(2) and open(2) of the
// namespace files under /var/run/netns (the convention `ip netns` uses). Each returns 0 or
// a descriptor on success and -1 with errno set on failure; the text of the last failure on
// the calling thread is kept for the caller's trace (netnsGetTracebuffer).

#include <cstddef>

namespace Mox {

// The directory of the named namespace files.
inline constexpr const char* kNetnsRunDir = "/var/run/netns";

// Writes "/var/run/netns/<name>" into buffer; -1 (ENAMETOOLONG) when it does not fit.
int netnsRunPath(const char* name, char* buffer, size_t size);

// A descriptor of the named namespace (O_RDONLY | O_CLOEXEC on its file).
int getnsByName(const char* name);

// Moves the calling thread into the named namespace.
int setnsByName(const char* name);

// A socket created inside the named namespace. The calling thread never changes namespace:
// the socket is made by a worker thread that lives in that namespace. Workers are kept per
// name, at most eight, the least recently used ended first. Each call first ends the
// workers whose name is gone or now denotes another namespace, so a namespace deleted by
// anyone (`ip netns del`, another process) is not kept alive by this process.
int netnsSocketAt(int domain, int type, int protocol, const char* name);

// Ends the worker kept for the name, if any: a worker would keep a deleted namespace (and
// whatever interfaces it holds) alive.
void netnsForget(const char* name);

// Text of the last failure of the functions above on this thread ("" when none).
const char* netnsGetTracebuffer();

}  // namespace Mox
