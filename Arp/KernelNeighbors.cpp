#include <Arp/KernelNeighbors.h>

#include <Korva/KorvaUtils.h>
#include <Korva/NetnsUtils.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

namespace Arp {

using Mox::U16;
using Mox::U32;
using Mox::U8;
using Vrf::VrfIdMap::VrfId;

namespace {

Mox::TraceHandle trace("KernelNeighbors");

constexpr int receiveBufferBytes = 4 << 20;  // a burst of changes fits; an overrun re-dumps

// Calls fn(type, payload, length) for each attribute in [data, data + length) that is whole;
// stops at the first one that is not (the kernel's bytes are checked, never trusted).
void forEachAttribute(const void* data, size_t length,
                      const std::function<void(U16, const U8*, size_t)>& fn) {
  const auto* at = static_cast<const U8*>(data);
  while (length >= sizeof(rtattr)) {
    rtattr attribute;
    std::memcpy(&attribute, at, sizeof attribute);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > length) return;
    fn(attribute.rta_type & NLA_TYPE_MASK, at + RTA_LENGTH(0), attribute.rta_len - RTA_LENGTH(0));
    const size_t step = RTA_ALIGN(attribute.rta_len);
    if (step >= length) return;
    at += step;
    length -= step;
  }
}

// The attribute's text up to its first NUL or end.
std::string textOf(const U8* payload, size_t length) {
  const auto* text = reinterpret_cast<const char*>(payload);
  return std::string(text, strnlen(text, length));
}

// The fixed header of a message of type T and its attributes; null when too short.
template <class T>
const T* body(const nlmsghdr& message, const U8** attributes, size_t* length) {
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof(T))) return nullptr;
  const auto* start = static_cast<const U8*>(NLMSG_DATA(&message));
  *attributes = start + NLMSG_ALIGN(sizeof(T));
  const size_t used = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(T)));
  *length = message.nlmsg_len > used ? message.nlmsg_len - used : 0;
  return reinterpret_cast<const T*>(start);
}

}  // namespace

size_t forEachNetlinkMessage(const nlmsghdr* data, size_t length,
                             const std::function<void(const nlmsghdr&)>& fn) {
  size_t left = length;
  for (const nlmsghdr* message = data; NLMSG_OK(message, left);) {
    fn(*message);
    // A last message without its padding ends the datagram (NLMSG_NEXT would step past it).
    const size_t step = NLMSG_ALIGN(message->nlmsg_len);
    if (step >= left) return 0;
    left -= step;
    message = reinterpret_cast<const nlmsghdr*>(reinterpret_cast<const U8*>(message) + step);
  }
  return left;
}

std::optional<NeighborMessage> parseNeighbor(const nlmsghdr& message) {
  const U8* attributes;
  size_t length;
  const auto* header = body<ndmsg>(message, &attributes, &length);
  if (!header) return std::nullopt;
  NeighborMessage neighbor;
  neighbor.type = message.nlmsg_type;
  neighbor.family = header->ndm_family;
  neighbor.ifindex = header->ndm_ifindex;
  neighbor.state = header->ndm_state;
  neighbor.flags = header->ndm_flags;
  if (neighbor.family != AF_INET && neighbor.family != AF_INET6) return neighbor;
  const size_t addrSize = neighbor.family == AF_INET ? 4 : 16;
  forEachAttribute(attributes, length, [&](U16 type, const U8* payload, size_t size) {
    if (type == NDA_DST && size == addrSize) {
      if (addrSize == 4) {
        U32 word;
        std::memcpy(&word, payload, 4);
        neighbor.addr = Korva::IpGenAddr(Korva::IpAddr(word));
      } else {
        U32 words[4];
        std::memcpy(words, payload, 16);
        neighbor.addr = Korva::IpGenAddr(Korva::Ip6Addr::fromWords(
            ntohl(words[0]), ntohl(words[1]), ntohl(words[2]), ntohl(words[3])));
      }
    }
    if (type == NDA_LLADDR && size == Korva::EthAddr::byteCount) {
      neighbor.ethAddr = Korva::EthAddr::fromBuffer(payload);
    }
  });
  return neighbor;
}

class KernelNeighbors::Reactor : public Mox::FileDescriptor::Notifiee {
 public:
  explicit Reactor(KernelNeighbors& publisher) : publisher_(publisher) {}
  void onReadableCount() override { publisher_.readAll(); }

 private:
  KernelNeighbors& publisher_;
};

KernelNeighbors::KernelNeighbors(const Mox::Ptr<Table::Status>& table,
                                 const Mox::Ptr<Vrf::VrfIdMap::Writer>& vrfs,
                                 const Korva::NamespaceName& netNs)
    : table_(table), vrfs_(vrfs) {
  if (!table_ || !vrfs_) throw Mox::RangeException("null ValidPtr");
  table_->arpEntry().openWriter();
  table_->neighborEntry().openWriter();
  const int fd = Korva::socketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE, netNs.value());
  if (fd < 0) throw Mox::ErrnoException(errno, "socket(NETLINK_ROUTE) in " + netNs.value());
  fd_ = Mox::make<Mox::FileDescriptor>("KernelNeighbors " + netNs.value(), fd);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_LINK | RTMGRP_NEIGH;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    throw Mox::ErrnoException(errno, "bind(NETLINK_ROUTE)");
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes) != 0) {
    throw Mox::ErrnoException(errno, "setsockopt(SO_RCVBUF)");
  }
  reactor_ = std::make_unique<Reactor>(*this);
  reactor_->notifierIs(fd_.get());
  buffer_.resize(64 * 1024 / sizeof(nlmsghdr));
  if (!requestDump(RTM_GETLINK)) throw Mox::ErrnoException(errno, "send(netlink dump request)");
}

KernelNeighbors::~KernelNeighbors() = default;

bool KernelNeighbors::requestDump(Mox::U16 type) {
  struct {
    nlmsghdr header;
    rtgenmsg family;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++sequence_;
  request.family.rtgen_family = AF_UNSPEC;
  phase_ = type == RTM_GETLINK ? Phase::links : Phase::neighbors;
  if (phase_ == Phase::neighbors) seen_.clear();
  if (send(fd_->descriptor(), &request, sizeof request, 0) >= 0) return true;
  MOX_TRACE(trace, 0, "netlink dump request failed: " << std::strerror(errno));
  return false;
}

void KernelNeighbors::readAll() {
  const size_t room = buffer_.size() * sizeof(nlmsghdr);
  for (;;) {
    const ssize_t received = recv(fd_->descriptor(), buffer_.data(), room, 0);
    if (received < 0 && errno == ENOBUFS) {
      // Changes were lost: start again from a dump, which also removes what went.
      MOX_TRACE(trace, 1, "netlink overrun: dumping again");
      requestDump(RTM_GETLINK);
      continue;
    }
    if (received <= 0) return;
    handleDatagram(buffer_.data(), static_cast<size_t>(received));
  }
}

void KernelNeighbors::handleDatagram(const void* data, size_t length) {
  if (reinterpret_cast<uintptr_t>(data) % alignof(nlmsghdr)) {
    // Headers are read in place, so they must be aligned.
    if (length > buffer_.size() * sizeof(nlmsghdr)) return static_cast<void>(++malformed_);
    data = std::memcpy(buffer_.data(), data, length);
  }
  const auto* messages = static_cast<const nlmsghdr*>(data);
  if (forEachNetlinkMessage(messages, length, [&](const nlmsghdr& message) { handle(message); })) {
    ++malformed_;
  }
}

void KernelNeighbors::handle(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case NLMSG_DONE:
      if (message.nlmsg_seq == sequence_) dumpDone();
      return;
    case NLMSG_ERROR:
      ++malformed_;
      MOX_TRACE(trace, 1, "netlink error for request " << message.nlmsg_seq);
      return;
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return handleLink(message);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      return handleNeighbor(message);
    default:
      return;
  }
}

void KernelNeighbors::dumpDone() {
  if (phase_ == Phase::links) return static_cast<void>(requestDump(RTM_GETNEIGH));
  if (phase_ != Phase::neighbors) return;
  sweep();
  phase_ = Phase::live;
  synced_ = true;
  MOX_TRACE(trace, 3, "synced: " << published_.size() << " neighbours");
}

// Removes what the table holds and the kernel did not report in the last dump.
void KernelNeighbors::sweep() {
  for (bool isArp : {true, false}) {
    std::vector<Table::ArpKey> gone;
    table_->entryMap(isArp).forEach([&](const Table::ArpEntry& entry) {
      if (!seen_.count(entry.key())) gone.push_back(entry.key());
    });
    for (const Table::ArpKey& key : gone) table_->entryMap(isArp).entryDel(key);
  }
  for (auto it = published_.begin(); it != published_.end();) {
    it = seen_.count(it->second.key()) ? std::next(it) : published_.erase(it);
  }
}

void KernelNeighbors::handleLink(const nlmsghdr& message) {
  const U8* attributes;
  size_t length;
  const auto* info = body<ifinfomsg>(message, &attributes, &length);
  if (!info) return static_cast<void>(++malformed_);
  if (info->ifi_family != AF_UNSPEC) return;  // a bridge's view of its ports, not the link
  if (message.nlmsg_type == RTM_DELLINK) {
    links_.erase(info->ifi_index);
    return;
  }
  Link link;
  forEachAttribute(attributes, length, [&](U16 type, const U8* payload, size_t size) {
    if (type == IFLA_IFNAME) link.name = textOf(payload, size);
    if (type == IFLA_MASTER && size >= sizeof(U32)) std::memcpy(&link.master, payload, sizeof(U32));
    if (type != IFLA_LINKINFO) return;
    forEachAttribute(payload, size, [&](U16 inner, const U8* kind, size_t kindSize) {
      if (inner == IFLA_INFO_KIND) link.isVrf = textOf(kind, kindSize) == "vrf";
    });
  });
  Link& known = links_[info->ifi_index];
  const bool moved = known.name != link.name || known.master != link.master;
  known = link;
  if (moved) rekey(info->ifi_index);
}

void KernelNeighbors::handleNeighbor(const nlmsghdr& message) {
  const std::optional<NeighborMessage> neighbor = parseNeighbor(message);
  if (!neighbor) return static_cast<void>(++malformed_);
  if (neighbor->family != AF_INET && neighbor->family != AF_INET6) return;
  if (neighbor->flags & NTF_PROXY) return;
  if (!neighbor->addr) return static_cast<void>(++malformed_);
  const Korva::IpGenAddr& addr = *neighbor->addr;
  if (addr.isMulticast() || addr.isUnspecified()) return;
  const Neighbor key{neighbor->ifindex, addr};
  // NUD_NONE is no bit but the state without any.
  const bool unusable =
      neighbor->state == NUD_NONE || (neighbor->state & (NUD_INCOMPLETE | NUD_FAILED));
  if (neighbor->type == RTM_DELNEIGH || !neighbor->ethAddr || unusable) return withdraw(key);
  publish(key, *neighbor->ethAddr, neighbor->state & NUD_PERMANENT);
}

bool KernelNeighbors::keyOf(int ifindex, const Korva::IpGenAddr& addr, Table::ArpKey* key) {
  const auto link = links_.find(ifindex);
  if (link == links_.end()) return skip("unknown interface", ifindex), false;
  Korva::IntfId intfId;
  try {
    intfId = Korva::IntfId(Korva::kernelIntfToVexIntf(link->second.name));
  } catch (const Mox::RangeException&) {
    return skip("interface without a switch name", ifindex), false;
  }
  VrfId vrfId = VrfId::defaultVrf();
  const auto master = links_.find(link->second.master);
  if (link->second.master && master != links_.end() && master->second.isVrf) {
    vrfId = vrfs_->vrfIs(master->second.name);
    if (vrfId == VrfId::null()) return skip("VRF id map full", ifindex), false;
  }
  *key = Table::ArpKey(vrfId, intfId, addr);
  return true;
}

void KernelNeighbors::publish(const Neighbor& neighbor, Korva::EthAddr ethAddr, bool isStatic) {
  Table::ArpKey key;
  if (!keyOf(neighbor.first, neighbor.second, &key)) return withdraw(neighbor);
  const ArpSource source(isStatic ? ArpSource::ArpSourceId::cli : ArpSource::ArpSourceId::dynamic);
  const Table::ArpEntry entry(key, ethAddr, isStatic, false, source);
  auto known = published_.find(neighbor);
  if (known != published_.end() && known->second.key() != key) withdraw(neighbor);
  try {
    table_->entryMap(neighbor.second.isV4()).entryIs(entry);
  } catch (const Mox::MemoryLimitExceededException&) {
    return skip("ARP table full", neighbor.first);
  }
  published_[neighbor] = entry;
  seen_.insert(key);
  MOX_TRACE(trace, 5, "published " << entry);
}

void KernelNeighbors::withdraw(const Neighbor& neighbor) {
  const auto known = published_.find(neighbor);
  if (known == published_.end()) return;
  MOX_TRACE(trace, 5, "withdrawn " << known->second.key());
  table_->entryMap(neighbor.second.isV4()).entryDel(known->second.key());
  seen_.erase(known->second.key());
  published_.erase(known);
}

// The link's name or VRF changed: its neighbours move to their new keys.
void KernelNeighbors::rekey(int ifindex) {
  std::vector<std::pair<Neighbor, Table::ArpEntry>> moving;
  for (auto it = published_.lower_bound({ifindex, Korva::IpGenAddr()});
       it != published_.end() && it->first.first == ifindex; ++it) {
    moving.push_back(*it);
  }
  for (const auto& [neighbor, entry] : moving) publish(neighbor, entry.ethAddr(), entry.isStatic());
}

void KernelNeighbors::skip(const char* why, int ifindex) {
  ++skipped_;
  MOX_TRACE(trace, 5, "skipped a neighbour on interface index " << ifindex << ": " << why);
}

}  // namespace Arp
