// The attribute log as a mount reads it from another process. The first input byte says how
// many of the next bytes drive random changes to a published test tree (its low 7 bits) and
// whether the valid stream is left out (bit 7); the bytes after those are appended.
//  - The publisher's own bytes for the tree (snapshot, then live changes), captured on a
//    plain socket and replayed to a mount, give a mirror equal to the tree.
//  - The appended bytes then go to the mount record by record (split by their length
//    field): each record is applied or drops the connection with ATTRLOG_MOUNT_DROPPED and
//    its reason, and a dropped record leaves the mirror as the records before it left it.
#include "AttrLog/RandomTree.h"
#include "FuzzCheck.h"

#include <Mox/Activity.h>
#include <Mox/AttrLogMount.h>
#include <Mox/AttrLogPublisher.h>
#include <Mox/Log.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace KorvaFuzz;

namespace {

std::string_view input;
const std::string endpoint = "@korva-fuzz-attrlog-" + std::to_string(getpid());

int connected(const std::string& to) {
  sockaddr_un address;
  const socklen_t length = Mox::attrLogAddress(to, &address);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0,
          "a connection to " + to, input);
  return fd;
}

// Appends what is waiting on `fd`.
void drain(int fd, std::string* into) {
  char buffer[4096];
  for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) into->append(buffer, n);
}

// The publisher's bytes for the tree that the changes make: half before a mount comes (the
// snapshot), half after. The tree is returned in `tree`.
std::string published(const uint8_t* changes, size_t count, Mox::Ptr<AttrLogTest::Root>* tree) {
  size_t next = 0;
  AttrLogTest::RandomTree random([&] { return next < count ? changes[next++] : 0u; });
  auto root = AttrLogTest::rootFactory("root");
  while (next < count / 2) random.change(*root);
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint + "-pub", root);
  const int tap = connected(endpoint + "-pub");
  require(Mox::runUntil([&] { return publisher->mountCount() == 1; }, 5.0), "the tap is taken",
          input);
  while (next < count) random.change(*root);
  publisher->flush();
  std::string bytes;
  require(Mox::runUntil(
              [&] {
                drain(tap, &bytes);
                return publisher->backlog() == 0;
              },
              5.0),
          "the publisher sends everything", input);
  drain(tap, &bytes);
  close(tap);
  *tree = root;
  return bytes;
}

// Plays the publisher's part to one mount.
struct Feeder {
  Feeder() : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address;
    const socklen_t length = Mox::attrLogAddress(endpoint, &address);
    require(bind(listener, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                listen(listener, 1) == 0,
            "the feeder listens", "");
  }
  // Sends `bytes` to the mount's connection and lets the mount read them all.
  void send(int conn, std::string_view bytes) {
    require(write(conn, bytes.data(), bytes.size()) == ssize_t(bytes.size()), "bytes are sent",
            input);
    int unread = -1;
    require(Mox::runUntil([&] { return ioctl(conn, SIOCOUTQ, &unread) == 0 && unread == 0; }, 5.0),
            "the mount reads the bytes", input);
  }
  int listener;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Feeder feeder;
  if (size < 1) return 0;
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  const bool valid = !(data[0] & 0x80);
  const size_t changes = std::min<size_t>(data[0] & 0x7f, size - 1);
  Mox::Ptr<AttrLogTest::Root> tree;
  const std::string stream = valid ? published(data + 1, changes, &tree) : "";

  Mox::LogCapture log;
  auto mount = Mox::make<Mox::AttrLogMount>(endpoint, AttrLogTest::rootFactory("root"), 1e6);
  const int conn = accept4(feeder.listener, nullptr, nullptr, SOCK_CLOEXEC);
  require(conn >= 0, "the mount connects", input);
  feeder.send(conn, stream);
  if (valid) {
    require(mount->connected() && AttrLogTest::dump(*mount->root()) == AttrLogTest::dump(*tree),
            "the mirror differs from the published tree", input);
  }
  std::string_view rest = input.substr(1 + changes);
  while (!rest.empty() && mount->drops() == 0) {
    // One record, or what is left of the last.
    Mox::AttrLogReader head(rest.substr(0, 4));
    const size_t length = head.remaining() == 4 ? 4 + size_t(head.integer<Mox::U32>()) : 4;
    const std::string_view record = rest.substr(0, length);
    rest.remove_prefix(record.size());
    const std::vector<std::string> before = AttrLogTest::dump(*mount->root());
    feeder.send(conn, record);
    if (mount->drops() == 0) continue;
    require(!mount->lastError().empty() && log.count("ATTRLOG_MOUNT_DROPPED") == 1,
            "a drop without its logged reason", input);
    require(AttrLogTest::dump(*mount->root()) == before,
            "a dropped record changed the mirror: " + mount->lastError(), input);
  }
  require(mount->drops() > 0 || log.count("ATTRLOG_MOUNT_DROPPED") == 0,
          "a reason logged without a drop", input);
  close(conn);
  return 0;
}
