// The shared-memory table against what a user would otherwise pick: a reader's look-up of a
// present key against std::unordered_map::find in private memory and against LMDB's mdb_get
// in a read transaction; a writer's update, and its insert of a new key (each followed by the
// key's removal, so the fill stays put), against LMDB with one transaction per operation and
// syncing off. Tables hold 1,000, 100,000 and 1,000,000 entries at 75% of capacity;
// probes_per_lookup is the average number of slots a look-up examined. BM_Notification
// measures, in a reader process, how long after the writer set a key the reader's loop had
// read the new value, against a bare datagram over a Unix socket between the same processes.

#include "SideBySide.h"

#include <Cairn/Table.h>
#include <Cairn/Watcher.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>
#include <Mox/FileDescriptor.h>

#include <lmdb.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

using Mox::U64;

struct Value {
  U64 a;
  U64 b;
};

std::string tableName(size_t entries) {
  return "bench-" + std::to_string(entries) + "-" + std::to_string(getpid());
}

// One data set per size: the tables, the baselines and a random order of present keys.
struct DataSet {
  explicit DataSet(size_t entries)
      : name(tableName(entries)), writer(name, static_cast<Mox::U32>(entries * 4 / 3)) {
    std::mt19937_64 random(entries);
    keys.resize(entries);
    for (U64& key : keys) key = random();
    for (U64 key : keys) {
      writer.set(key, {key, 1});
      map[key] = {key, 1};
    }
    reader = std::make_unique<Cairn::Reader<U64, Value>>(name, Mox::U32(entries * 4 / 3));
    std::shuffle(keys.begin(), keys.end(), random);
    openLmdb();
  }
  ~DataSet() {
    mdb_txn_abort(readTxn);
    mdb_env_close(env);
    std::filesystem::remove_all(lmdbDir);
    Cairn::removeTable(name);
  }
  void openLmdb() {
    char dir[] = "/dev/shm/bench-lmdb-XXXXXX";
    lmdbDir = mkdtemp(dir);
    MOX_ASSERT(mdb_env_create(&env) == 0);
    mdb_env_set_mapsize(env, size_t(1) << 30);
    MOX_ASSERT(mdb_env_open(env, lmdbDir.c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0600) == 0);
    MDB_txn* txn;
    MOX_ASSERT(mdb_txn_begin(env, nullptr, 0, &txn) == 0);
    MOX_ASSERT(mdb_dbi_open(txn, nullptr, 0, &dbi) == 0);
    for (U64 key : keys) {
      Value value{key, 1};
      MDB_val k{sizeof key, &key}, v{sizeof value, &value};
      MOX_ASSERT(mdb_put(txn, dbi, &k, &v, 0) == 0);
    }
    MOX_ASSERT(mdb_txn_commit(txn) == 0);
    MOX_ASSERT(mdb_txn_begin(env, nullptr, MDB_RDONLY, &readTxn) == 0);
  }
  // The key for call i of the current batch; batches walk on through the shuffled keys.
  U64 key(size_t i) const { return keys[(cursor + i) % keys.size()]; }

  std::string name;
  Cairn::Writer<U64, Value> writer;
  std::unique_ptr<Cairn::Reader<U64, Value>> reader;
  std::unordered_map<U64, Value> map;
  std::vector<U64> keys;
  size_t cursor = 0;
  std::string lmdbDir;
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  MDB_txn* readTxn = nullptr;
};

DataSet& dataSet(size_t entries) {
  static std::map<size_t, std::unique_ptr<DataSet>> sets;
  auto& set = sets[entries];
  if (!set) set = std::make_unique<DataSet>(entries);
  return *set;
}

void BM_LookUpVsUnorderedMap(benchmark::State& state) {
  DataSet& data = dataSet(state.range(0));
  const U64 probesBefore = data.reader->core().probes();
  U64 lookups = 0, sum = 0;
  bench::compareSideBySide(
      state, "unordered_map",
      [&](size_t i) {
        sum += data.reader->find(data.key(i))->b;
        ++lookups;
      },
      [&](size_t i) {
        sum += data.map.find(data.key(i))->second.b;
        if (i == bench::batch - 1) data.cursor += bench::batch;
      });
  benchmark::DoNotOptimize(sum);
  state.counters["probes_per_lookup"] =
      double(data.reader->core().probes() - probesBefore) / double(lookups);
}

void BM_LookUpVsLmdb(benchmark::State& state) {
  DataSet& data = dataSet(state.range(0));
  U64 sum = 0;
  bench::compareSideBySide(
      state, "lmdb", [&](size_t i) { sum += data.reader->find(data.key(i))->b; },
      [&](size_t i) {
        U64 key = data.key(i);
        MDB_val k{sizeof key, &key}, v;
        if (mdb_get(data.readTxn, data.dbi, &k, &v) == 0) sum += static_cast<Value*>(v.mv_data)->b;
        if (i == bench::batch - 1) data.cursor += bench::batch;
      });
  benchmark::DoNotOptimize(sum);
}

void BM_UpdateVsLmdbPut(benchmark::State& state) {
  DataSet& data = dataSet(state.range(0));
  U64 round = 2;
  bench::compareSideBySide(
      state, "lmdb_put",
      [&](size_t i) {
        data.writer.set(data.key(i), {data.key(i), round});
      },
      [&](size_t i) {
        U64 key = data.key(i);
        Value value{key, round};
        MDB_txn* txn;
        mdb_txn_begin(data.env, nullptr, 0, &txn);
        MDB_val k{sizeof key, &key}, v{sizeof value, &value};
        mdb_put(txn, data.dbi, &k, &v, 0);
        mdb_txn_commit(txn);
        if (i == bench::batch - 1) {
          data.cursor += bench::batch;
          ++round;
        }
      });
  // Readers of LMDB see the new values only in a new read transaction.
  mdb_txn_reset(data.readTxn);
  mdb_txn_renew(data.readTxn);
}

// Even calls insert a key the table does not hold, odd calls remove it again: the same
// operations, one transaction each, on the LMDB side.
void BM_InsertVsLmdbPut(benchmark::State& state) {
  DataSet& data = dataSet(state.range(0));
  const U64 fresh =
      U64(1) << 63;  // far from the cursor of any other run; random keys hit it by chance only
  auto freshKey = [&](size_t i) { return fresh + data.cursor + i / 2; };
  bench::compareSideBySide(
      state, "lmdb_put",
      [&](size_t i) {
        const U64 key = freshKey(i);
        if (i % 2 == 0) {
          data.writer.set(key, {key, 1});
        } else {
          data.writer.del(key);
        }
      },
      [&](size_t i) {
        U64 key = freshKey(i);
        Value value{key, 1};
        MDB_txn* txn;
        mdb_txn_begin(data.env, nullptr, 0, &txn);
        MDB_val k{sizeof key, &key}, v{sizeof value, &value};
        if (i % 2 == 0) {
          mdb_put(txn, data.dbi, &k, &v, 0);
        } else {
          mdb_del(txn, data.dbi, &k, nullptr);
        }
        mdb_txn_commit(txn);
        if (i == bench::batch - 1) data.cursor += bench::batch;
      });
  mdb_txn_reset(data.readTxn);
  mdb_txn_renew(data.readTxn);
}

BENCHMARK(BM_LookUpVsUnorderedMap)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_LookUpVsLmdb)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_UpdateVsLmdbPut)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_InsertVsLmdbPut)->Arg(1000)->Arg(100000)->Arg(1000000);

// --- notification latency ---

U64 nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return U64(t.tv_sec) * 1000000000u + U64(t.tv_nsec);
}

constexpr int kSamples = 2000;
constexpr U64 kLatencyKey = 1;

// The reader process: records, for each change and each ping, how long ago it was sent,
// and acknowledges it so the writer sends the next one.
class LatencyReader : public Cairn::Watcher<U64, Value>::Notifiee,
                      public Mox::FileDescriptor::Notifiee {
 public:
  LatencyReader(int ping, int ack) : ping_(ping), ack_(ack) {}
  void onEntry(const U64&, const Value* value) override {
    if (!value || value->b == 0) return;
    notify.push_back(nowNs() - value->a);
    acknowledge();
  }
  void onReadableCount() override {
    U64 sent;
    while (recv(ping_, &sent, sizeof sent, MSG_DONTWAIT) == sizeof sent) {
      ping.push_back(nowNs() - sent);
      acknowledge();
    }
  }
  void acknowledge() { MOX_ASSERT(send(ack_, "", 1, 0) == 1); }
  std::vector<U64> notify, ping;

 private:
  int ping_;
  int ack_;
};

void awaitAck(int ack) {
  char byte;
  MOX_ASSERT(recv(ack, &byte, 1, 0) == 1);
}

double percentile(std::vector<U64> samples, double p) {
  std::sort(samples.begin(), samples.end());
  return samples.empty() ? 0 : samples[size_t(p * (samples.size() - 1))] / 1000.0;
}

void BM_Notification(benchmark::State& state) {
  const std::string name = tableName(0) + "-latency";
  Cairn::Writer<U64, Value> writer(name, 64);
  int ping[2], ack[2], result[2];
  MOX_ASSERT(socketpair(AF_UNIX, SOCK_DGRAM, 0, ping) == 0);
  MOX_ASSERT(socketpair(AF_UNIX, SOCK_DGRAM, 0, ack) == 0);
  MOX_ASSERT(pipe(result) == 0);
  const pid_t child = fork();
  if (child == 0) {
    auto watcher = Mox::make<Cairn::Watcher<U64, Value>>(name, 64);
    LatencyReader reader(ping[1], ack[1]);
    reader.Cairn::Watcher<U64, Value>::Notifiee::notifierIs(watcher);
    auto pingFd = Mox::make<Mox::FileDescriptor>("ping", ping[1]);
    reader.Mox::FileDescriptor::Notifiee::notifierIs(pingFd);
    Mox::runOnce(5.0);  // the first walk
    reader.acknowledge();
    Mox::runUntil([&] { return reader.ping.size() == kSamples; }, 120.0);
    const double figures[4] = {percentile(reader.notify, 0.5), percentile(reader.notify, 0.99),
                               percentile(reader.ping, 0.5), percentile(reader.ping, 0.99)};
    MOX_ASSERT(write(result[1], figures, sizeof figures) == sizeof figures);
    _exit(0);
  }
  awaitAck(ack[0]);
  for (auto _ : state) {
    for (int i = 0; i < kSamples; ++i) {
      writer.set(kLatencyKey, {nowNs(), U64(i + 1)});
      awaitAck(ack[0]);
      const U64 sent = nowNs();
      MOX_ASSERT(send(ping[0], &sent, sizeof sent, 0) == sizeof sent);
      awaitAck(ack[0]);
    }
  }
  double figures[4] = {};
  MOX_ASSERT(read(result[0], figures, sizeof figures) == sizeof figures);
  waitpid(child, nullptr, 0);
  for (int fd : {ping[0], ping[1], ack[0], ack[1], result[0], result[1]}) close(fd);
  Cairn::removeTable(name);
  state.counters["notify_median_us"] = figures[0];
  state.counters["notify_p99_us"] = figures[1];
  state.counters["ping_median_us"] = figures[2];
  state.counters["ping_p99_us"] = figures[3];
  state.counters["median_ratio"] = figures[0] / figures[2];
}

BENCHMARK(BM_Notification)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
