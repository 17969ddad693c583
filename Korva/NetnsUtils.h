#pragma once
// Named network namespaces the way `ip netns` keeps them: one file per name under
// /var/run/netns, bind-mounted onto the namespace. Every function returns 0 (or a
// descriptor) on success and -1 with errno set on failure, traces the failure once, and
// never throws. Only netNsAdd and validateNetNs switch the calling thread's namespace,
// and they always switch it back before returning.

#include <Korva/Types.h>

namespace Korva {

// The name under which the agent's own namespace is known.
extern const char* const defaultNsStr;
extern const Mox::String8 DEFAULT_NS;

int mkNsRunDir();
// Makes /var/run/netns a shared mount point, so names made here are seen by other
// mount namespaces.
int remountNsRunDir();
int openNsRunDir();

bool netNsExists(const Mox::String8& name);
// The inode number of the named namespace; 0 when it has none.
U64 netNsInode(const Mox::String8& name);
int netNsDelete(const Mox::String8& name);
int setNsByName(const Mox::String8& name);
// A socket inside the named namespace; the calling thread stays where it is.
int socketAt(int domain, int type, int protocol, const Mox::String8& name);
// Names the agent's own namespace DEFAULT_NS.
int mountDefaultNetNs();
int netNsAdd(const Mox::String8& name);
int netNsAddEvenIfPresent(const Mox::String8& name);
int moveIntfNetNs(const Mox::String8& intf, const Mox::String8& fromNs, const Mox::String8& toNs);
// Whether the namespace descriptor (or the namespace of that name) can be entered.
int validateNetNs(int fd, bool* valid);
int validateNetNs(const Mox::String8& name, bool* valid);

// The same operations under their plain lower-case names.
int setns_by_name(const Mox::String8& name);
int move_intf_netns(const Mox::String8& intf, const Mox::String8& fromNs, const Mox::String8& toNs);
int socket_at(int domain, int type, int protocol, const Mox::String8& name);

}  // namespace Korva
