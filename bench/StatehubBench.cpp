// StatehubBench: the state database between processes, at a million collection entries.
//   S3        s         a reader mounts an entity of 1,000,000 entries: from mount() to the
//                       mount complete, every entry in its replica
//   S1        entries/s a publisher changes entries as fast as it can while 10 reading
//                       processes follow (each with an event loop): changes delivered to
//                       every reader per second, from the first change to the last reader
//                       having applied the last one
//   S2-p50/99 us        one change published, to the handler of a reader in another
//                       process (event loop), 3000 rounds 200 us apart
//   P3-futex-p50/99 us  the same cadence with a bare futex word: the machine's floor
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Kel/EventLoop.h"
#include "Statehub/EntityManager.h"

namespace Bench {

class Entry {
 public:
  KEL_VALUE(Entry, "Bench::Entry", (uint32_t, id), (uint32_t, a), (uint64_t, b));
  uint32_t key() const noexcept { return id_; }
};

class Store : public Kel::Entity {
 public:
  KEL_ENTITY(Store, "Bench::Store");
  class NotifieeConst : public Kel::NotifieeOf<Store> {
   public:
    virtual void onStamp() {}
    virtual void onDone() {}
    virtual void onEntry(const uint32_t&) {}
  };
  KEL_ATTR(uint64_t, stamp, Stamp)
  KEL_ATTR(uint64_t, done, Done)
  KEL_VALUE_COLL_ATTR(uint32_t, Entry, entry, Entry)
};

namespace {

constexpr uint32_t kEntries = 1'000'000;
constexpr uint32_t kReaders = 10;
constexpr uint32_t kChanges = 1'000'000;
constexpr uint32_t kBatch = 256;  // changes between two flushes
const std::string kPath = "bench/store";

std::string instance() { return "bench-" + std::to_string(::getpid()); }

Pond::TableSizing sizing() {
  Pond::TableSizing s;
  s.capacity = 2 * kEntries;
  s.logEntries = 1u << 21;
  return s;
}

// Mounts the store in this process with an event loop; runs `until` on the loop.
struct Reader {
  explicit Reader(const std::string& inst)
      : manager(Kel::make<Statehub::EntityManager>(inst, &loop)),
        mount(manager->mount<Store>(kPath)) {}
  bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    return loop.runUntil(done, limit);
  }
  void awaitMounted(std::chrono::seconds limit) {
    if (!runUntil([&] { return mount->status() == Statehub::mountComplete; }, limit)) {
      throw std::runtime_error("the mount never completed");
    }
  }
  Kel::EventLoop loop;
  Statehub::EntityManager::Ptr manager;
  Statehub::Mount<Store>::Ptr mount;
};

struct MountResult {
  uint64_t ns;
  uint32_t entries;
};

struct FollowResult {
  uint64_t doneNs;   // when the reader applied the last change
  uint64_t entries;  // entry notifications it handled
};

// Counts a reader's entry notifications and notes when the last change arrived.
class Follower : public Store::NotifieeConst {
 public:
  explicit Follower(const Kel::Ptr<Store>& s) { notifierIs(s); }
  // Every change of S1 is to another entry, so a reader has them all once it heard of
  // kChanges of them.
  void onEntry(const uint32_t&) override {
    if (++entries == kChanges) {
      doneNs = monoNs();
    }
  }
  void onStamp() override {
    const uint64_t now = monoNs();
    if (notifier()->stamp() != 0 && ++rounds > kNotifyWarm) {
      latency.push_back(now - notifier()->stamp());
    }
  }
  uint64_t entries = 0;
  uint64_t doneNs = 0;
  uint32_t rounds = 0;
  std::vector<uint64_t> latency;
};

int run() {
  note("StatehubBench: " + std::to_string(kEntries) + " entries of 16 bytes; " +
       std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs");
  const std::string inst = instance();
  Statehub::EntityManager::clear(inst);
  struct Clear {
    std::string inst;
    ~Clear() { Statehub::EntityManager::clear(inst); }
  } clear{inst};

  auto manager = Kel::make<Statehub::EntityManager>(inst);
  auto store = Kel::make<Store>();
  auto publication = manager->publish(kPath, store, sizing());
  for (uint32_t i = 0; i < kEntries; ++i) {
    store->entryIs(Entry(i, i, 0));
  }
  publication->flush();

  // S3: a reader mounts the million entries.
  Child mounter("mounting reader (S3)", [&](Child& c) {
    c.ready();
    const uint64_t start = monoNs();
    Reader r(inst);
    r.awaitMounted(std::chrono::seconds(60));
    return bytesOf(MountResult{monoNs() - start, r.mount->entity()->entrys()});
  });
  mounter.waitReady(std::chrono::seconds(60));
  const auto mounted = mounter.result<MountResult>(std::chrono::seconds(120));
  if (mounted.entries != kEntries) {
    throw std::runtime_error("the mounted replica has " + std::to_string(mounted.entries) +
                             " entries");
  }
  figure("S3", double(mounted.ns) / 1e9, "s");

  // S1: ten followers while the publisher changes entries as fast as it can.
  std::vector<std::unique_ptr<Child>> readers;
  for (uint32_t n = 0; n < kReaders; ++n) {
    readers.push_back(std::make_unique<Child>("follower " + std::to_string(n), [&](Child& c) {
      Reader r(inst);
      r.awaitMounted(std::chrono::seconds(120));
      Follower f(r.mount->entity());
      c.ready();
      if (!r.runUntil([&] { return f.doneNs != 0; }, std::chrono::seconds(300))) {
        throw std::runtime_error("heard of " + std::to_string(f.entries) + " changes of " +
                                 std::to_string(kChanges));
      }
      return bytesOf(FollowResult{f.doneNs, f.entries});
    }));
  }
  for (auto& r : readers) {
    r->waitReady(std::chrono::seconds(300));
  }
  const uint64_t start = monoNs();
  for (uint32_t n = 0; n < kChanges; ++n) {
    store->entryIs(Entry(n % kEntries, n, 1));
    if (n % kBatch == kBatch - 1) {
      publication->flush();
    }
  }
  publication->flush();
  uint64_t last = 0;
  for (auto& r : readers) {
    last = std::max(last, r->result<FollowResult>(std::chrono::seconds(300)).doneNs);
  }
  figure("S1", double(kChanges) * 1e9 / double(last - start), "entries/s");
  readers.clear();

  // S2: one change at a time, to a reader's handler in another process.
  Child timer("timing reader (S2)", [&](Child& c) {
    Reader r(inst);
    r.awaitMounted(std::chrono::seconds(120));
    Follower f(r.mount->entity());
    c.ready();
    if (!r.runUntil([&] { return r.mount->entity()->done() == 2; }, std::chrono::seconds(60))) {
      throw std::runtime_error("the last round never came");
    }
    return bytesOf(NotifyResult{quantile(f.latency, 0.50) / 1000, quantile(f.latency, 0.99) / 1000,
                                f.latency.size()});
  });
  timer.waitReady(std::chrono::seconds(120));
  for (uint32_t round = 0; round < kNotifyWarm + kNotifyRounds; ++round) {
    store->stampIs(monoNs());
    publication->flush();
    sleepFor(kNotifyGap);
  }
  store->doneIs(2);
  publication->flush();
  const NotifyResult s2 = timer.result<NotifyResult>(std::chrono::seconds(60));
  figure("S2-p50", s2.p50us, "us");
  figure("S2-p99", s2.p99us, "us");
  const NotifyResult floor = futexFloor();
  figure("P3-futex-p50", floor.p50us, "us");
  figure("P3-futex-p99", floor.p99us, "us");
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::benchMain(argc, argv, "StatehubBench",
                         "Measures the state database between processes at a million entries; prints\n"
                         "`figure NAME VALUE UNIT` lines (bench/README.md).\n",
                         Bench::run);
}
