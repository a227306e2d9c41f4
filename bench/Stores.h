// The stores PondBench compares, behind one interface: Pond itself (PondBench.cpp), LMDB
// and Boost.Interprocess (each only when found at configure time: MPLS_BENCH_LMDB,
// MPLS_BENCH_BOOST), and hash maps in the benchmark's own process (std::unordered_map, the
// floor the targets name, and absl::flat_hash_map).
//
// A store is filled once (P1), then serves rounds of lookups (P2) that the benchmark
// interleaves with the other stores' rounds, so that every store meets the same moments
// of a busy machine. A shared store's lookups run in a reader process of its own, forked
// by startLookups. Each store removes what it created in /dev/shm when destroyed, and
// registers it with Bench::removeAtExit in case it is not. Failures throw
// std::runtime_error.
#pragma once

#include <memory>
#include <string>

#include "BenchSupport.h"

namespace Bench {

class Store {
 public:
  virtual ~Store() = default;
  // The name in figures ("lmdb" gives P1-lmdb, P2-lmdb...); empty for Pond.
  virtual std::string name() const = 0;
  // Inserts every row into the empty store; returns rows per second.
  virtual double insertAll() = 0;
  // Gets a reader ready (in another process for a shared store): it opens the store and
  // makes the warm-up lookups, checking every answer.
  virtual void startLookups() = 0;
  virtual LookupFigures lookupRound(uint32_t round) = 0;
  // Ends the reader; throws when it failed.
  virtual void stopLookups() = 0;
};

#ifdef MPLS_BENCH_LMDB
std::unique_ptr<Store> lmdbStore(const Workload& w);
#endif
#ifdef MPLS_BENCH_BOOST
std::unique_ptr<Store> boostStore(const Workload& w);
#endif
std::unique_ptr<Store> unorderedMapStore(const Workload& w);
std::unique_ptr<Store> flatHashMapStore(const Workload& w);

// A reader process for a shared store: `open` runs in the child and returns its lookup
// function; the child warms up, says it is ready, then times one round per request.
template <class Open>
std::unique_ptr<Child> startReader(const Workload& w, const std::string& what, Open open) {
  auto child = std::make_unique<Child>(what, [&w, what, open](Child& c) {
    auto lookup = open();
    warmLookups(w, what.c_str(), lookup);
    c.ready();
    for (uint32_t round = 0; c.nextRequest(); ++round) {
      c.answer(timeLookups(w, what.c_str(), round, lookup));
    }
    return std::string();
  });
  child->waitReady(std::chrono::seconds(300));
  return child;
}

// The timed lookup loops of a reader process run this long at most.
constexpr std::chrono::seconds kRoundTimeout{300};

}  // namespace Bench
