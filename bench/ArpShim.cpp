// The ARP shim mirroring the shared table against the least a user could do instead: a bare
// loop that reads the same table and fills a std::map per VRF and interface. Two phases over
// 100,000 IPv4 entries on 50 interfaces: the initial walk (the shim's construction), then
// 100,000 changes of Ethernet address, written in chunks of 1,000 (untimed) and each chunk
// followed by the shim through its event loop or by the loop reading the chunk's keys.
// Each side goes first in every other run. Counters per phase: entries per second of each
// side (fastest run) and cost = the loop's rate / ours, which is to stay at most 3.

#include <Arp/ArpShim.h>
#include <Korva/IntfIdDesc.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace {

using Arp::Table::ArpEntry;
using Arp::Table::ArpKey;
using Vrf::VrfIdMap::VrfId;
using Clock = std::chrono::steady_clock;

constexpr Mox::U32 entryCount = 100000;
constexpr Mox::U32 chunkSize = 1000;
constexpr int interfaceCount = 50;

using BareMirror = std::map<VrfId, std::map<Korva::IntfId, std::map<Korva::IpGenAddr, ArpEntry>>>;

struct Setup {
  Setup() {
    Korva::IntfIdMgr::ensureInitialized();
    for (Mox::U32 i = 0; i < entryCount; ++i) {
      const Korva::IntfId intf("Ethernet" + std::to_string(1 + i % interfaceCount));
      const ArpKey key(VrfId(0), intf, Korva::IpGenAddr(Korva::IpAddr(0x0a000000 + i + 1)));
      keys.push_back(key);
      arp->arpEntryIs(ArpEntry(key, Korva::EthAddr(0, 0, 1), false, false, Arp::ArpSource()));
    }
    vrfWriter = Vrf::VrfIdMap::writerFactory(vrfStatus, vrfName);
  }
  ~Setup() {
    vrfWriter = nullptr;
    Arp::Table::Status::remove(arpName);
    Cairn::removeTable(vrfName);
    Cairn::NamedSegment::remove(vrfName);
  }
  const std::string arpName = "bench-arp-" + std::to_string(getpid());
  const std::string vrfName = "bench-arpvrf-" + std::to_string(getpid());
  Mox::Ptr<Arp::Table::Status> arp = Arp::Table::statusFactory(arpName, entryCount * 4 / 3);
  Mox::Ptr<Vrf::VrfIdMap::Status> vrfStatus = Vrf::VrfIdMap::statusFactory(vrfName);
  Mox::Ptr<Vrf::VrfIdMap::Writer> vrfWriter;
  std::vector<ArpKey> keys;
};

void mirrorBare(BareMirror& mirror, const ArpEntry& entry) {
  const ArpKey& key = entry.key();
  mirror[key.vrfId()][key.intfId()][key.addr()] = entry;
}

double entriesPerSecond(Clock::duration d) {
  return entryCount / std::chrono::duration<double>(d).count();
}

// How long fn() takes.
template <class Fn>
Clock::duration timed(Fn&& fn) {
  const auto start = Clock::now();
  fn();
  return Clock::now() - start;
}

// Runs both sides, each first in every other call, so neither gains by finding the table in
// the caches where the other left it; adds each side's time.
template <class Ours, class Bare>
void bothSides(bool oursFirst, Ours&& ours, Bare&& bare, Clock::duration& oursTime,
               Clock::duration& bareTime) {
  if (!oursFirst) bareTime += timed(bare);
  oursTime += timed(ours);
  if (oursFirst) bareTime += timed(bare);
}

void BM_ArpShim(benchmark::State& state) {
  Setup setup;
  // A second handle on the tables, as another process would have: the bare loop's reader.
  auto reader = Arp::Table::statusFactory(setup.arpName, entryCount * 4 / 3);
  auto best = [](Clock::duration& b, Clock::duration d) { b = std::min(b, d); };
  Clock::duration walk = Clock::duration::max(), bareWalk = walk, change = walk, bareChange = walk;
  Mox::U16 mac = 1;
  bool oursFirst = true;
  for (auto _ : state) {
    oursFirst = !oursFirst;
    auto dir = Arp::arpVrfStatusDirFactory("bench");
    Mox::Ptr<Arp::ArpShimSm> shim;
    BareMirror bare;
    Clock::duration ours{}, baseline{};
    bothSides(
        oursFirst,
        [&] {
          shim = Arp::arpShimSmFactory(reader, setup.vrfStatus, "", true, false,
                                       Arp::neighborDirFactory("default"), dir);
        },
        [&] {
          reader->arpEntry().forEach([&](const ArpEntry& entry) { mirrorBare(bare, entry); });
        },
        ours, baseline);
    best(walk, ours);
    best(bareWalk, baseline);
    MOX_ASSERT(dir->vrfStatus("default")->arpIntfStatusSize() == interfaceCount);

    ++mac;
    ours = baseline = {};
    for (Mox::U32 from = 0; from < entryCount; from += chunkSize) {
      for (Mox::U32 i = from; i < from + chunkSize; ++i) {
        setup.arp->arpEntryIs(
            ArpEntry(setup.keys[i], Korva::EthAddr(0, 0, mac), false, false, Arp::ArpSource()));
      }
      const ArpKey& last = setup.keys[from + chunkSize - 1];
      auto intf = dir->vrfStatus("default")->arpIntfStatus(last.intfId().stringValue());
      bothSides((from / chunkSize) % 2 == 0,
                [&] {
                  MOX_ASSERT(Mox::runUntil(
                      [&] {
                        return intf->arpEntry(last.addr().v4Addr()).ethAddr() ==
                               Korva::EthAddr(0, 0, mac);
                      },
                      10.0));
                },
                [&] {
                  for (Mox::U32 i = from; i < from + chunkSize; ++i) {
                    mirrorBare(bare, reader->arpEntry(setup.keys[i]));
                  }
                },
                ours, baseline);
    }
    best(change, ours);
    best(bareChange, baseline);
    benchmark::DoNotOptimize(bare);
  }
  // Entries per second of each side, and what ours costs against the loop (held to <= 3).
  auto report = [&](const std::string& phase, Clock::duration ours, Clock::duration bare) {
    state.counters[phase + "_ours_per_s"] = entriesPerSecond(ours);
    state.counters[phase + "_bare_map_per_s"] = entriesPerSecond(bare);
    state.counters[phase + "_cost"] = entriesPerSecond(bare) / entriesPerSecond(ours);
  };
  report("walk", walk, bareWalk);
  report("change", change, bareChange);
}
BENCHMARK(BM_ArpShim)->Iterations(4)->Unit(benchmark::kMillisecond);

}  // namespace
