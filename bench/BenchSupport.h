// What every part of PondBench shares: the key and row types, the workload (the rows and
// the lookup keys), the lookup measurement every store goes through, child processes with
// bounded waits, the removal of the benchmark's shared-memory names, and figure output.
//
// Single-threaded: the benchmark runs one store at a time; readers run in forked children.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Kel/ChildProcess.h"
#include "Kel/Value.h"

namespace Bench {

constexpr uint32_t kRows = 1'000'000;

// A 32-byte key of eight words.
class Key {
  KEL_VALUE(Key, "Bench::Key", (uint32_t, w0), (uint32_t, w1), (uint32_t, w2), (uint32_t, w3),
            (uint32_t, w4), (uint32_t, w5), (uint32_t, w6), (uint32_t, w7));
};

// A 64-byte fixed row: its key and 32 bytes of payload. `index` is the row's position in
// the workload; `stamp` carries a CLOCK_MONOTONIC time in the notification figures.
class Row {
  KEL_VALUE(Row, "Bench::Row", (Key, key), (uint64_t, index), (uint64_t, stamp), (uint64_t, a),
            (uint64_t, b));
};

static_assert(sizeof(Key) == 32 && std::is_trivially_copyable_v<Key>);
static_assert(sizeof(Row) == 64 && std::is_trivially_copyable_v<Row>);

// The rows every store gets, and the keys every reader looks up.
struct Workload {
  std::vector<Key> keys;          // the rows' keys, in insertion order
  std::vector<Key> probes;        // lookup keys: half of them rows' keys, half absent, shuffled
  std::vector<int32_t> probeRow;  // the row index of each probe; -1 for an absent key

  static Workload make(uint32_t rows, uint32_t probes);
  Row rowOf(uint32_t index, uint64_t stamp = 0) const {
    return Row(keys[index], index, stamp, index * 3ull + 1, ~uint64_t{index});
  }
};

// CLOCK_MONOTONIC in nanoseconds.
inline uint64_t monoNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1'000'000'000u + uint64_t(ts.tv_nsec);
}

// The p-th quantile (0..1) of `samples`, which it sorts.
double quantile(std::vector<uint64_t>& samples, double p);

// ---------------------------------------------------------------------------------------
// Lookups, measured the same way for every store. `lookup(key, row) -> bool` copies the
// row of `key` into `row` and returns true, or returns false when there is none. The
// probes are half hits and half misses in random order, so the loops pay for both.

struct LookupFigures {
  double rate = 0;  // lookups per second over the timed loop
  double p50 = 0;   // ns per single timed lookup
  double p99 = 0;
};

constexpr uint64_t kRateLookups = 4'000'000;   // the timed loop of a round
constexpr uint32_t kLatencySamples = 100'000;  // single lookups timed one by one, per round
constexpr uint32_t kWarmLookups = 1'000'000;   // untimed, checked: maps the pages in

// Where the lookups' results go, so that no loop is optimised away.
inline volatile uint64_t gLookupSink = 0;

// Untimed lookups whose every answer is checked; throws std::runtime_error naming `who`
// at the first wrong one.
template <class Lookup>
void warmLookups(const Workload& w, const char* who, Lookup&& lookup) {
  const size_t n = w.probes.size();
  Row row;
  for (uint32_t i = 0; i < kWarmLookups; ++i) {
    int32_t expect = w.probeRow[i % n];
    bool found = lookup(w.probes[i % n], row);
    if (found != (expect >= 0) ||
        (found && (row.index() != uint64_t(expect) || !(row.key() == w.probes[i % n])))) {
      throw std::runtime_error(std::string(who) + ": lookup " + std::to_string(i) +
                               " gave a wrong answer");
    }
  }
}

// One round: the timed loop (its hits are counted and checked), then the single timed
// lookups, one steady_clock pair around each (the pair's own cost is in the samples).
// Rounds start at different probes.
template <class Lookup>
LookupFigures timeLookups(const Workload& w, const char* who, uint32_t round, Lookup&& lookup) {
  const size_t n = w.probes.size();
  const size_t start = size_t(round) * 7919 % n;
  uint64_t expectedHits = 0;
  for (uint64_t i = 0; i < kRateLookups; ++i) {
    expectedHits += w.probeRow[(start + i) % n] >= 0;
  }
  LookupFigures f;
  Row row;
  uint64_t hits = 0;
  uint64_t sink = 0;
  uint64_t t0 = monoNs();
  for (uint64_t i = 0; i < kRateLookups; ++i) {
    bool found = lookup(w.probes[(start + i) % n], row);
    hits += found;
    sink += row.index();
  }
  uint64_t t1 = monoNs();
  if (hits != expectedHits) {
    throw std::runtime_error(std::string(who) + ": " + std::to_string(hits) + " hits in the " +
                             "timed loop, expected " + std::to_string(expectedHits));
  }
  f.rate = double(kRateLookups) * 1e9 / double(t1 - t0);

  std::vector<uint64_t> samples(kLatencySamples);
  for (uint32_t i = 0; i < kLatencySamples; ++i) {
    const Key& k = w.probes[(start + kRateLookups + i) % n];
    auto a = std::chrono::steady_clock::now();
    bool found = lookup(k, row);
    auto b = std::chrono::steady_clock::now();
    samples[i] = uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(b - a).count());
    sink += found + row.index();
  }
  f.p50 = quantile(samples, 0.50);
  f.p99 = quantile(samples, 0.99);
  gLookupSink = sink;
  return f;
}

// The median cost of one steady_clock::now() pair, in ns (part of every latency sample).
double clockPairNs();

// ---------------------------------------------------------------------------------------
// Child processes.

// A forked child running `body`, on Kel::ChildProcess. The child tells the parent it is
// ready, answers its requests, and its body's returned bytes go to the parent when it
// ends; answers and results travel as hex lines. Every wait of the parent is bounded; a
// child that dies, fails or overstays is reported as a std::runtime_error naming it, and
// killed. Children die with the parent, never return into main (they _exit, with status 1
// after printing their exception to stderr), and leave the parent's shared-memory names
// alone.
class Child {
 public:
  using Body = std::function<std::string(Child&)>;
  Child(std::string what, const Body& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Child side.
  void ready();
  // Waits for the parent's next request; false once the parent has no more.
  bool nextRequest();
  // The requests' descriptor, for an event loop to wait on; read it through nextRequest().
  int requestFd() const noexcept { return channel_->requestFd(); }
  template <class T>
  void answer(const T& t) {
    static_assert(std::is_trivially_copyable_v<T>);
    send(std::string(reinterpret_cast<const char*>(&t), sizeof(T)));
  }

  // Parent side.
  void waitReady(std::chrono::seconds timeout);
  // Sends a request and waits for the child's answer.
  template <class T>
  T ask(std::chrono::seconds timeout) {
    return decode<T>(askBytes(timeout));
  }
  // Waits for the bytes the body returned, and for the child to exit with status 0.
  template <class T>
  T result(std::chrono::seconds timeout) {
    T t = decode<T>(awaitBytes(timeout));
    finish(std::chrono::seconds(10));
    return t;
  }
  // No more requests: waits for the child to exit with status 0.
  void finish(std::chrono::seconds timeout);

 private:
  template <class T>
  T decode(const std::string& bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes.size() != sizeof(T)) {
      failed("answered " + std::to_string(bytes.size()) + " bytes, expected " +
             std::to_string(sizeof(T)));
    }
    T t;
    std::memcpy(&t, bytes.data(), sizeof(T));
    return t;
  }
  void send(const std::string& bytes);
  std::string askBytes(std::chrono::seconds timeout);
  std::string awaitBytes(std::chrono::seconds timeout);
  [[noreturn]] void failed(const std::string& why);

  std::string what_;
  std::unique_ptr<Kel::ChildProcess> process_;
  Kel::ChildProcess::Channel* channel_ = nullptr;  // in the child only
};

// A program run to its end, as an operator runs it.
struct ProgramRun {
  double seconds;      // from its fork to its exit
  std::string output;  // what it wrote to its standard output
};

// Runs `argv` (argv[0] is the program's path) with its standard output to the file
// `outPath` ("/dev/null" to drop it), and reads that file back; throws std::runtime_error
// naming the command, with its output, unless it exits with status 0 within `timeout`.
ProgramRun runProgram(const std::vector<std::string>& argv, const std::string& outPath,
                      std::chrono::seconds timeout);

// ---------------------------------------------------------------------------------------
// Notification latency: rounds of one change each, a gap apart, the first ones not counted.

constexpr uint32_t kNotifyWarm = 200;     // rounds not counted
constexpr uint32_t kNotifyRounds = 3000;  // one change each, ~200 us apart
constexpr auto kNotifyGap = std::chrono::microseconds(200);

struct NotifyResult {
  double p50us;
  double p99us;
  uint64_t samples;
};

template <class T>
std::string bytesOf(const T& t) {
  return std::string(reinterpret_cast<const char*>(&t), sizeof(T));
}

void sleepFor(std::chrono::microseconds d);

// The notification cadence with a bare futex word in shared memory instead of a table:
// the wake-up cost of the machine, which no notification between processes goes below.
NotifyResult futexFloor();

// ---------------------------------------------------------------------------------------
// Names in /dev/shm that this process created: removed at exit, after an exception, and
// on SIGINT, SIGTERM, SIGHUP and SIGALRM (which also bounds the whole run).

void installCleanup(std::chrono::seconds wholeRunLimit);
void removeAtExit(const std::string& path);
// Removes every registered name now (the parent only; children leave them alone).
void removeAll();

// ---------------------------------------------------------------------------------------
// Output.

void figure(const std::string& name, double value, const char* unit);
// An informative line that is not a figure.
void note(const std::string& text);

// What a benchmark program's main does: --help prints `usage` (after "usage: <program>"),
// any other argument is refused with status 2; then `run` with the cleanup installed, a
// failure printed after "<name>: failed: " with status 1 and the names removed.
int benchMain(int argc, char** argv, const char* name, const char* usage,
              const std::function<int()>& run);

}  // namespace Bench
