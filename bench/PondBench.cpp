// PondBench: Pond at a million rows (32-byte keys, 64-byte fixed rows), with LMDB,
// Boost.Interprocess and in-process hash maps (std::unordered_map, absl::flat_hash_map)
// as peers on the same rows and the same lookup keys, in the same run. bench/README.md
// says what each figure measures.
//
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
// Exits non-zero, with a message on stderr, when anything fails: a child that dies, a
// wrong lookup, a wait that runs out.
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "BenchSupport.h"
#include "Kel/EventLoop.h"
#include "Pond/PondMap.h"
#include "Stores.h"

namespace Bench {
namespace {

using Pond::MountGroup;
using Pond::PondMap;
using Table = PondMap<Key, Row>;
using std::chrono::seconds;

constexpr uint32_t kProbes = 2'000'000;
constexpr uint32_t kLookupRounds = 3;     // P2 figures: the median of the rounds
constexpr uint32_t kBursts = 20;               // P3-rate: bursts of changes, each written as
constexpr uint32_t kBurstRows = 50'000;        // fast as possible; a burst stays below the
                                               // change log (65,536 entries at a million rows)
constexpr uint64_t kNotifyTag = 0x50334c4154;  // "P3LAT" in a row's `b`: a timed round
constexpr uint64_t kLastTag = 0x50334c415354;  // "P3LAST": the burst's last row

struct BurstFigures {
  uint64_t burstWritten = 0;  // P3-rate: the changes the writer made
  double burstWriteRate = 0;  // and how fast it made them
};

struct RateResult {
  uint64_t handled;    // notifications
  uint64_t elapsedNs;  // summed over the bursts, from its first notification to its last row
  uint64_t offBursts;  // bursts whose notifications were not one per change (a resync)
};

// A reader whose change handler times each round's row: now - the stamp the writer put in
// it just before committing it. With `eventLoop`, a Kel::EventLoop drives the group (its
// change fd, fed by the group's waiter thread); otherwise waitForChange and processChanges.
NotifyResult notifyLatency(const Workload& w, const std::string& group, Table& table,
                           MountGroup& writer, bool eventLoop) {
  const uint32_t total = kNotifyWarm + kNotifyRounds;
  Child reader(eventLoop ? "Pond reader (P3-loop)" : "Pond reader (P3)", [&](Child& c) {
    Kel::EventLoop loop;
    auto g = MountGroup::reader(group);
    Table t(g, "rows");
    if (!g->ready()) {
      throw std::runtime_error("the table did not open");
    }
    std::vector<uint64_t> latency;
    latency.reserve(kNotifyRounds);
    bool done = false;
    t.changeHandlerIs([&](const Key& k) {
      uint64_t now = monoNs();
      Row r;
      if (!t.find(k, r) || r.b() != kNotifyTag) {
        return;
      }
      if (r.a() >= kNotifyWarm) {
        latency.push_back(now - r.stamp());
      }
      done = done || r.a() == total - 1;
    });
    if (eventLoop) {
      g->loopIs(&loop);
      loop.runUntil([] { return false; }, std::chrono::milliseconds(50));  // the waiter starts
      c.ready();
      if (!loop.runUntil([&] { return done; }, seconds(60))) {
        throw std::runtime_error("the writer's last row never arrived");
      }
      g->loopIs(nullptr);
    } else {
      c.ready();
      auto deadline = std::chrono::steady_clock::now() + seconds(60);
      while (!done) {
        if (std::chrono::steady_clock::now() > deadline) {
          throw std::runtime_error("the writer's last row never arrived");
        }
        g->waitForChange(std::chrono::milliseconds(100));
        g->processChanges();
      }
    }
    if (latency.size() != kNotifyRounds) {
      throw std::runtime_error("heard of " + std::to_string(latency.size()) + " of " +
                               std::to_string(kNotifyRounds) + " timed rows");
    }
    NotifyResult res{quantile(latency, 0.50) / 1000, quantile(latency, 0.99) / 1000,
                     latency.size()};
    return bytesOf(res);
  });
  reader.waitReady(seconds(60));
  for (uint32_t round = 0; round < total; ++round) {
    uint32_t k = round % (kRows - 1);
    table.upsert(Row(w.keys[k], k, monoNs(), round, kNotifyTag));
    writer.publish();
    sleepFor(kNotifyGap);
  }
  return reader.result<NotifyResult>(seconds(60));
}

// A reader that only counts notifications, against a writer that changes rows as fast as
// it can, in bursts shorter than the table's change log: a reader slower than the writer
// then works through the log at its own pace instead of falling off it and resynchronising
// (which it would do, by design, a log's length behind). Each burst ends with the writer's
// last row (a key the bursts do not otherwise touch, with a tag their rows never carry);
// the reader acknowledges it before the next burst starts.
RateResult changeRate(const Workload& w, const std::string& group, Table& table, MountGroup& writer,
                      BurstFigures& out) {
  const Key lastKey = w.keys[kRows - 1];
  Child reader("Pond reader (P3-rate)", [&](Child& c) {
    auto g = MountGroup::reader(group);
    Table t(g, "rows");
    if (!g->ready()) {
      throw std::runtime_error("the table did not open");
    }
    RateResult res{};
    uint64_t inBurst = 0;
    uint64_t first = 0;
    uint32_t burst = 0;
    t.changeHandlerIs([&](const Key& k) {
      if (inBurst++ == 0) {
        first = monoNs();
      }
      Row r;
      if (k == lastKey && t.find(k, r) && r.b() == kLastTag && r.a() == burst) {
        res.elapsedNs += monoNs() - first;
        res.handled += inBurst;
        res.offBursts += inBurst != kBurstRows + 1;
        inBurst = 0;
        if (++burst < kBursts) {
          c.ready();  // for the next burst
        }
      }
    });
    c.ready();
    auto deadline = std::chrono::steady_clock::now() + seconds(120);
    while (burst < kBursts) {
      if (std::chrono::steady_clock::now() > deadline) {
        throw std::runtime_error("the last row of burst " + std::to_string(burst) +
                                 " never arrived");
      }
      g->waitForChange(std::chrono::milliseconds(100));
      g->processChanges();
    }
    return bytesOf(res);
  });
  uint64_t writeNs = 0;
  uint32_t k = 0;
  for (uint32_t burst = 0; burst < kBursts; ++burst) {
    reader.waitReady(seconds(60));
    sleepFor(std::chrono::microseconds(1000));  // the reader goes back to sleep
    uint64_t t0 = monoNs();
    for (uint32_t i = 0; i < kBurstRows; ++i, k = (k + 1) % (kRows - 1)) {
      table.upsert(Row(w.keys[k], k, 0, i, 0));
    }
    table.upsert(Row(lastKey, kRows - 1, 0, burst, kLastTag));
    writer.publish();
    writeNs += monoNs() - t0;
  }
  out.burstWritten = uint64_t(kBursts) * (kBurstRows + 1);
  out.burstWriteRate = double(out.burstWritten) * 1e9 / double(writeNs);
  RateResult r = reader.result<RateResult>(seconds(60));
  if (r.handled < out.burstWritten || r.elapsedNs == 0) {
    throw std::runtime_error("Pond reader (P3-rate): " + std::to_string(r.handled) +
                             " notifications for " + std::to_string(out.burstWritten) + " changes");
  }
  return r;
}

// Pond: the writer (this process) fills the table; readers mount the group in children.
class PondStore : public Store {
 public:
  explicit PondStore(const Workload& w) : w_(w), group_("pondbench" + std::to_string(::getpid())) {
    removeAtExit("/dev/shm/pond." + group_);
    removeAtExit("/dev/shm/pond." + group_ + ".rows");
    MountGroup::removeSegments(group_);
    writer_ = MountGroup::writer(group_);
    Pond::TableSizing sizing;
    sizing.capacity = kRows;
    table_ = std::make_unique<Table>(writer_, "rows", sizing);
  }
  ~PondStore() override {
    reader_.reset();
    table_.reset();
    writer_ = nullptr;
    MountGroup::removeSegments(group_);
  }

  std::string name() const override { return ""; }

  // Every row into the empty table, published as the writer goes (see MountGroup.h).
  double insertAll() override {
    uint64_t t0 = monoNs();
    for (uint32_t i = 0; i < kRows; ++i) {
      table_->upsert(w_.rowOf(i));
    }
    writer_->publish();
    uint64_t t1 = monoNs();
    if (table_->size() != kRows) {
      throw std::runtime_error("Pond: the table holds " + std::to_string(table_->size()) + " rows");
    }
    return double(kRows) * 1e9 / double(t1 - t0);
  }

  // The reader mounts the group in its own process; the writer stays idle meanwhile.
  void startLookups() override {
    std::string group = group_;
    reader_ = startReader(w_, "Pond reader", [group] {
      auto g = MountGroup::reader(group);
      auto t = std::make_shared<Table>(g, "rows");
      if (!g->ready()) {
        throw std::runtime_error("the table did not open");
      }
      return [g, t](const Key& k, Row& row) { return t->find(k, row); };
    });
  }
  LookupFigures lookupRound(uint32_t) override {
    return reader_->ask<LookupFigures>(kRoundTimeout);
  }
  void stopLookups() override {
    reader_->finish(seconds(30));
    reader_.reset();
  }

  const std::string& group() const { return group_; }
  Table& table() { return *table_; }
  MountGroup& writer() { return *writer_; }

 private:
  const Workload& w_;
  std::string group_;
  Kel::Ptr<MountGroup> writer_;
  std::unique_ptr<Table> table_;
  std::unique_ptr<Child> reader_;
};

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

std::string suffixed(const std::string& figure, const std::string& store) {
  return store.empty() ? figure : figure + "-" + store;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// P3: notification latency with an idle reader, then the rate a reader keeps up with.
// P3-futex is the wake-up the readers get, alone: the writer (this process) stores a word in
// shared memory and wakes it (a shared futex on shmem, as a group's wake word), at the same
// 200 us cadence, to a child forked from this process as the readers are, neither pinned.
// It leaves out what P3 adds to the wake-up by its definition: the writer's upsert between
// the stamp and the publish, and the reader's processChanges() up to its handler.
void notifyFigures(const Workload& w, PondStore& pond) {
  NotifyResult n = notifyLatency(w, pond.group(), pond.table(), pond.writer(), false);
  figure("P3-p50", n.p50us, "us");
  figure("P3-p99", n.p99us, "us");
  NotifyResult l = notifyLatency(w, pond.group(), pond.table(), pond.writer(), true);
  figure("P3-loop-p50", l.p50us, "us");
  figure("P3-loop-p99", l.p99us, "us");
  NotifyResult f = futexFloor();
  figure("P3-futex-p50", f.p50us, "us");
  figure("P3-futex-p99", f.p99us, "us");
  BurstFigures pf;
  RateResult r = changeRate(w, pond.group(), pond.table(), pond.writer(), pf);
  figure("P3-rate", double(r.handled) * 1e9 / double(r.elapsedNs), "changes/s");
  note("P3-rate: the writer made " + std::to_string(pf.burstWritten) + " changes in " +
       std::to_string(kBursts) + " bursts, at " + std::to_string(uint64_t(pf.burstWriteRate)) +
       " changes/s; the reader handled " + std::to_string(r.handled) + " notifications in " +
       std::to_string(r.elapsedNs / 1000000) + " ms" +
       (r.offBursts ? "; in " + std::to_string(r.offBursts) +
                          " bursts not one per change (it resynchronised)"
                    : ""));
  note("load average at the end " + loadAverage());
}

// --notify-only: Pond's own P1 (it fills the table), then the P3 figures; no peers, no P2.
bool gNotifyOnly = false;

int run() {
  note("PondBench: " + std::to_string(kRows) + " rows of 64 bytes, 32-byte keys; " +
       std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs; load average " + loadAverage());
  Workload w = Workload::make(kRows, kProbes);
  note("a steady_clock::now() pair costs " + std::to_string(uint64_t(clockPairNs())) +
       " ns; it is part of every P2 latency sample");

  auto pondStore = std::make_unique<PondStore>(w);
  PondStore& pond = *pondStore;
  std::vector<std::unique_ptr<Store>> stores;
  stores.push_back(std::move(pondStore));
  if (gNotifyOnly) {
    figure("P1", pond.insertAll(), "rows/s");
    notifyFigures(w, pond);
    return 0;
  }
#ifdef MPLS_BENCH_LMDB
  stores.push_back(lmdbStore(w));
#else
  std::printf("skipped lmdb (not installed)\n");
#endif
#ifdef MPLS_BENCH_BOOST
  stores.push_back(boostStore(w));
#else
  std::printf("skipped boost (not installed)\n");
#endif
  stores.push_back(unorderedMapStore(w));
  stores.push_back(flatHashMapStore(w));

  // P1, one store after the other.
  for (auto& s : stores) {
    figure(suffixed("P1", s->name()), s->insertAll(), "rows/s");
  }

  // P2: every reader ready at once, then rounds that take the stores in turn.
  for (auto& s : stores) {
    s->startLookups();
  }
  std::vector<std::vector<LookupFigures>> rounds(stores.size());
  for (uint32_t round = 0; round < kLookupRounds; ++round) {
    for (size_t i = 0; i < stores.size(); ++i) {
      rounds[i].push_back(stores[i]->lookupRound(round));
    }
  }
  std::vector<double> rate(stores.size());
  for (size_t i = 0; i < stores.size(); ++i) {
    stores[i]->stopLookups();
    std::vector<double> r, p50, p99;
    for (const LookupFigures& f : rounds[i]) {
      r.push_back(f.rate);
      p50.push_back(f.p50);
      p99.push_back(f.p99);
    }
    rate[i] = median(r);
    const std::string& n = stores[i]->name();
    figure(suffixed("P2", n), rate[i], "lookups/s");
    figure(suffixed("P2", n) + "-p50", median(p50), "ns");
    figure(suffixed("P2", n) + "-p99", median(p99), "ns");
  }
  std::string spread = "P2 rates of the " + std::to_string(kLookupRounds) + " rounds (lookups/s):";
  for (size_t i = 0; i < stores.size(); ++i) {
    spread += (i ? "; " : " ") + (stores[i]->name().empty() ? "pond" : stores[i]->name());
    spread += " " + absl::StrJoin(rounds[i], " ", [](std::string* out, const LookupFigures& f) {
      absl::StrAppend(out, uint64_t(f.rate));
    });
  }
  note(spread);
  for (size_t i = 1; i < stores.size(); ++i) {
    const std::string& n = stores[i]->name();
    if (n == "lmdb" || n == "unordered-map") {
      figure("P2-vs-" + n, rate[0] / rate[i], "ratio");
    }
  }
  // The peers are done: their memory goes back before the notification figures.
  stores.resize(1);

  notifyFigures(w, pond);
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "--notify-only") {
    Bench::gNotifyOnly = true;
    argv[1] = argv[0];
    --argc;
    ++argv;
  }
  return Bench::benchMain(argc, argv, "PondBench",
                         "Measures Pond at a million rows and compares it with LMDB,\n"
                         "Boost.Interprocess and in-process hash maps; prints\n"
                         "`figure NAME VALUE UNIT` lines (bench/README.md).\n"
                         "\n"
                         "  --notify-only  only Pond's P1 (it fills the table) and the P3\n"
                         "                 figures: no peers, no lookups\n",
                         Bench::run);
}
