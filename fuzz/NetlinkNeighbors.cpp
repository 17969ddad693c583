// Netlink neighbour messages, as KernelNeighbors reads them from the kernel. The input is
// taken three ways:
//  - as a datagram, read in place from a buffer of exactly its size: the messages walked
//    lie inside it, and each neighbour decoded has its header's fields and an address (of
//    its family's size) and MAC address found among the message's bytes;
//  - as the fields of a well-formed message (family, type, address, MAC address, state,
//    interface index, flags; an unknown attribute before them), which decodes back to them;
//  - as a datagram handed to a publisher writing a real shared ARP table, which then holds
//    exactly the neighbours the publisher says it published.
#include "FuzzCheck.h"

#include <Arp/KernelNeighbors.h>
#include <Cairn/Segment.h>
#include <Korva/IntfIdDesc.h>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace KorvaFuzz;
using Mox::U8;

namespace {

std::string_view input;

bool within(const U8* begin, const U8* end, const std::string& bytes) {
  return std::search(begin, end, bytes.begin(), bytes.end(),
                     [](U8 a, char b) { return a == U8(b); }) != end;
}

template <class T>
T fieldAt(const nlmsghdr& message, size_t offset) {
  T value;
  std::memcpy(&value, reinterpret_cast<const U8*>(NLMSG_DATA(&message)) + offset, sizeof value);
  return value;
}

void checkWalk(const U8* data, size_t size) {
  const std::unique_ptr<U8[]> buffer(new U8[size]);  // exactly the datagram: ASan sees past it
  std::memcpy(buffer.get(), data, size);
  const U8* end = buffer.get() + size;
  const size_t left = Arp::forEachNetlinkMessage(
      reinterpret_cast<const nlmsghdr*>(buffer.get()), size, [&](const nlmsghdr& message) {
        const auto* start = reinterpret_cast<const U8*>(&message);
        require(start >= buffer.get() && message.nlmsg_len <= size_t(end - start),
                "a message outside the datagram", input);
        if (message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH) return;
        const std::optional<Arp::NeighborMessage> neighbor = Arp::parseNeighbor(message);
        if (!neighbor) {
          require(message.nlmsg_len < NLMSG_LENGTH(sizeof(ndmsg)), "a whole header not decoded",
                  input);
          return;
        }
        require(neighbor->type == message.nlmsg_type &&
                    neighbor->family == fieldAt<U8>(message, offsetof(ndmsg, ndm_family)) &&
                    neighbor->ifindex == fieldAt<int>(message, offsetof(ndmsg, ndm_ifindex)) &&
                    neighbor->state == fieldAt<Mox::U16>(message, offsetof(ndmsg, ndm_state)) &&
                    neighbor->flags == fieldAt<U8>(message, offsetof(ndmsg, ndm_flags)),
                "decoded header fields differ", input);
        const U8* attributes = start + NLMSG_LENGTH(sizeof(ndmsg));
        const U8* messageEnd = start + message.nlmsg_len;
        if (neighbor->addr) {
          require((neighbor->family == AF_INET && neighbor->addr->isV4()) ||
                      (neighbor->family == AF_INET6 && neighbor->addr->isV6()),
                  "an address of another family", input);
          require(within(attributes, messageEnd, neighbor->addr->bytes()),
                  "an address not in the message", input);
        }
        if (neighbor->ethAddr) {
          std::string mac(Korva::EthAddr::byteCount, '\0');
          neighbor->ethAddr->copyToBuffer(reinterpret_cast<unsigned char*>(mac.data()));
          require(within(attributes, messageEnd, mac), "a MAC address not in the message", input);
        }
      });
  require(left <= size, "more bytes left than given", input);
}

// Appends one attribute.
void add(std::vector<U8>& bytes, Mox::U16 type, const void* payload, size_t length) {
  const size_t at = bytes.size();
  bytes.resize(at + RTA_SPACE(length));
  rtattr attribute{Mox::U16(RTA_LENGTH(length)), type};
  std::memcpy(bytes.data() + at, &attribute, sizeof attribute);
  std::memcpy(bytes.data() + at + RTA_LENGTH(0), payload, length);
}

void checkBuilt(const U8* data, size_t size) {
  U8 fields[40] = {};
  std::memcpy(fields, data, std::min(size, sizeof fields));
  const bool v4 = fields[0] & 1, withMac = fields[0] & 2;
  std::vector<U8> bytes(NLMSG_LENGTH(sizeof(ndmsg)));
  ndmsg header{};
  header.ndm_family = v4 ? AF_INET : AF_INET6;
  std::memcpy(&header.ndm_state, fields + 1, 2);
  std::memcpy(&header.ndm_ifindex, fields + 3, 4);
  header.ndm_flags = fields[7];
  std::memcpy(bytes.data() + NLMSG_HDRLEN, &header, sizeof header);
  add(bytes, NDA_CACHEINFO, fields + 8, fields[0] >> 2 & 15);
  add(bytes, NDA_DST, fields + 14, v4 ? 4 : 16);
  if (withMac) add(bytes, NDA_LLADDR, fields + 30, Korva::EthAddr::byteCount);
  const Mox::U16 type = fields[0] & 64 ? RTM_DELNEIGH : RTM_NEWNEIGH;
  const nlmsghdr message{Mox::U32(bytes.size()), type, 0, 0, 0};
  std::memcpy(bytes.data(), &message, sizeof message);

  int walked = 0;
  std::optional<Arp::NeighborMessage> neighbor;
  const size_t left = Arp::forEachNetlinkMessage(reinterpret_cast<const nlmsghdr*>(bytes.data()),
                                                 bytes.size(), [&](const nlmsghdr& at) {
                                                   ++walked;
                                                   neighbor = Arp::parseNeighbor(at);
                                                 });
  require(walked == 1 && left == 0 && neighbor, "a built message is not walked whole", input);
  const std::string addr(reinterpret_cast<const char*>(fields + 14), v4 ? 4 : 16);
  require(neighbor->type == type && neighbor->family == header.ndm_family &&
              neighbor->ifindex == header.ndm_ifindex && neighbor->state == header.ndm_state &&
              neighbor->flags == header.ndm_flags && neighbor->addr &&
              neighbor->addr->bytes() == addr && neighbor->ethAddr.has_value() == withMac &&
              (!withMac || *neighbor->ethAddr == Korva::EthAddr::fromBuffer(fields + 30)),
          "a built message decodes to other fields", input);
}

// A publisher on a netlink socket of this process's namespace, whose kernel messages are
// never read: only the input reaches it.
struct Publisher {
  Publisher() {
    Korva::IntfIdMgr::ensureInitialized();
    table = Arp::Table::statusFactory(tableName, 64);
    vrfs = Vrf::VrfIdMap::writerFactory(Vrf::VrfIdMap::statusFactory(vrfName), vrfName);
  }
  ~Publisher() {
    Arp::Table::Status::remove(tableName);
    Cairn::removeTable(vrfName);
    Cairn::NamedSegment::remove(vrfName);
  }
  size_t tableSize() const {
    size_t entries = 0;
    for (bool isArp : {true, false}) {
      table->entryMap(isArp).forEach([&](const Arp::Table::ArpEntry&) { ++entries; });
    }
    return entries;
  }
  const std::string tableName = "fuzz-kn-" + std::to_string(getpid());
  const std::string vrfName = "fuzz-knvrf-" + std::to_string(getpid());
  Mox::Ptr<Arp::Table::Status> table;
  Mox::Ptr<Vrf::VrfIdMap::Writer> vrfs;
};

void checkPublished(const U8* data, size_t size) {
  static Publisher publisher;
  publisher.table->arpEntryDelAll();
  publisher.table->neighborEntryDelAll();
  Arp::KernelNeighbors neighbors(publisher.table, publisher.vrfs, Korva::NamespaceName(""));
  neighbors.handleDatagram(data, size);
  require(neighbors.size() == publisher.tableSize(), "the table and the publisher disagree", input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  checkWalk(data, size);
  checkBuilt(data, size);
  checkPublished(data, size);
  return 0;
}
