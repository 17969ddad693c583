// A process on the other side of a table, for the multi-process tests:
//   cairnPeer write NAME CAPACITY OPS SEED KEYSPACE   plays a random sequence, then the
//                                                      sentinel; prints nothing
//   cairnPeer watch NAME CAPACITY [hold]              follows changes until the sentinel
//                                                      ("hold": reads a line from standard
//                                                      input first, falling behind);
//                                                      prints "v KEY VALUE" per entry,
//                                                      "n KEY" per key notified present,
//                                                      "torn N", "resyncs N"
//   cairnPeer churn NAME CAPACITY SEED KEYSPACE       checks every entry, prints "ok" or
//                                                      "torn", then changes entries
//                                                      forever, writing a byte every 16
//   cairnPeer scan NAME CAPACITY KEYSPACE             reads every key over and over until
//                                                      standard input closes; prints
//                                                      "torn N scans M"
#include "Cairn/PeerProtocol.h"

#include <Cairn/Watcher.h>
#include <Mox/Activity.h>

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>

using namespace CairnTest;

namespace {

U32 corruptions = 0;

using Table = Cairn::Writer<U32, Payload>;

void play(Table& table, OpSequence& sequence, U64 count) {
  CairnTest::play(
      sequence, count, [&](U32 key, U64 value) { table.set(key, payload(key, value)); },
      [&](U32 key) { table.del(key); });
}

int write(const std::string& name, U32 capacity, U32 ops, U64 seed, U32 keySpace) {
  Table table(name, capacity);
  OpSequence sequence(seed, keySpace);
  play(table, sequence, ops);
  table.set(kSentinel, payload(kSentinel, ops));
  return 0;
}

class Follower : public Cairn::Watcher<U32, Payload>::Notifiee {
 public:
  void onEntry(const U32& key, const Payload* value) override {
    if (!value) return;
    torn += !intact(key, *value);
    notified.insert(key);
    done = done || key == kSentinel;
  }
  std::set<U32> notified;
  U32 torn = 0;
  bool done = false;
};

int watch(const std::string& name, U32 capacity, bool hold) {
  auto watcher = Mox::make<Cairn::Watcher<U32, Payload>>(name, capacity);
  Follower follower;
  follower.notifierIs(watcher);
  if (hold) {
    Mox::runOnce(5.0);  // the first walk, then no loop while the writer runs on
    std::string line;
    std::getline(std::cin, line);
  }
  // A walk reads slot by slot while the writer runs on, so it can meet the sentinel before an
  // entry written earlier; the ring brings that entry on a later turn.
  auto caughtUp = [&] {
    bool all = true;
    watcher->reader().forEach([&](const void* key, const void* value) {
      const void* seen = watcher->seen(key);
      all = all && seen && std::memcmp(seen, value, sizeof(Payload)) == 0;
    });
    return all;
  };
  if (!Mox::runUntil([&] { return follower.done && caughtUp(); }, 60.0)) return 2;
  watcher->reader().forEach([&](const void* key, const void* value) {
    U32 k;
    Payload p;
    std::memcpy(&k, key, sizeof k);
    std::memcpy(&p, value, sizeof p);
    std::printf("v %u %llu\n", k, static_cast<unsigned long long>(p.value));
  });
  for (U32 key : follower.notified) std::printf("n %u\n", key);
  std::printf("torn %u\nresyncs %llu\n", follower.torn + corruptions,
              static_cast<unsigned long long>(watcher->resyncs()));
  return 0;
}

int churn(const std::string& name, U32 capacity, U64 seed, U32 keySpace) {
  Table table(name, capacity);
  U32 torn = 0;
  table.forEach([&](const U32& key, const Payload& value) { torn += !intact(key, value); });
  std::printf("%s\n", torn ? "torn" : "ok");
  std::fflush(stdout);
  OpSequence sequence(seed, keySpace);
  for (;;) {
    play(table, sequence, 16);
    if (::write(1, "x", 1) != 1) return 1;
  }
}

bool inputOpen() {
  pollfd input{0, POLLIN, 0};
  if (poll(&input, 1, 0) <= 0) return true;
  char byte;
  return read(0, &byte, 1) > 0;
}

int scan(const std::string& name, U32 capacity, U32 keySpace) {
  Cairn::Reader<U32, Payload> table(name, capacity);
  U32 torn = 0;
  U64 scans = 0;
  for (; inputOpen(); ++scans) {
    for (U32 key = 0; key < keySpace; ++key) {
      if (auto value = table.find(key)) torn += !intact(key, *value);
    }
    table.forEach([&](const U32& key, const Payload& value) { torn += !intact(key, value); });
  }
  std::printf("torn %u scans %llu\n", torn + corruptions, static_cast<unsigned long long>(scans));
  return 0;
}

U64 number(const char* text) {
  return std::strtoull(text, nullptr, 10);
}

}  // namespace

int main(int argc, char** argv) {
  Cairn::corruptionHandlerIs([](const Cairn::Corruption&) { ++corruptions; });
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "write" && argc == 7) {
    return write(argv[2], number(argv[3]), number(argv[4]), number(argv[5]), number(argv[6]));
  }
  if (mode == "watch" && argc >= 4) return watch(argv[2], number(argv[3]), argc == 5);
  if (mode == "churn" && argc == 6) {
    return churn(argv[2], number(argv[3]), number(argv[4]), number(argv[5]));
  }
  if (mode == "scan" && argc == 5) return scan(argv[2], number(argv[3]), number(argv[4]));
  std::fprintf(stderr, "usage: see the top of cairnPeer.cpp\n");
  return 64;
}
