// Corekit::NumAllocator: hands out the numbers of a range, lowest free first, to one owner
// that names things by small integers (the label manager's label blocks, say).
//
// Three entities take part:
//   NumAllocatorConfig   what the owner asks for: the range and the expiry time
//   NumAllocatorStatus   what the allocator reports: whether the range is exhausted
//   NumAllocator         the allocator, made by numAllocatorFactory(config, status, clock)
//
// Every number of the range is in exactly one of three states:
//   allocated  handed out by getNumber() or taken by reserveNumber(), until released;
//   cooling    released less than expiryTime seconds ago (on the allocator's clock);
//   free       never handed out, or released at least expiryTime seconds ago.
//
// Expiry time. A released number cools for expiryTime seconds so that a holder that has
// not yet heard of the release does not collide at once with a new holder of the same
// number. getNumber() hands out the lowest free number; only when no number is free does
// it hand out a cooling one, the one released first: a cooling number delays reuse but
// never makes the range exhausted. A number released at time t is free again once the
// clock reads t + expiryTime or later. The allocator reads expiryTime from its
// configuration at every call, so a change applies to the numbers already cooling as well
// (an expiry time of 0 or less frees them all at the next call). Released numbers leave
// the cooling state lazily, at the next call that changes the allocator, in release order:
// each costs O(log n) once, so every call is amortised O(log n) in the range's size n.
//
// Exhaustion. status.rangeExhausted is true exactly when no number is free or cooling,
// that is when getNumber() would fail; every call that changes it announces the change
// (onRangeExhausted), after the allocator is consistent again, so a handler may call the
// allocator. An owner waiting for room hears of the first release.
//
// Range. The allocator takes the configuration's range when it is made and keeps it: a
// later change of config.range does nothing to it. An owner that changes the range builds
// a new allocator (and reserves again what it still holds); the label manager does so,
// with the empty range while it restarts. An allocator of the empty range is always
// exhausted.
//
// Broken arguments (a number outside the range, the release of a number that is not
// allocated, a null configuration, status or clock) throw Kel::InternalException and
// change nothing.
//
// Memory: about two bits per number of the range, plus 16 bytes per cooling number.
// Single-threaded: the allocator, its configuration and its status belong to the reactor
// thread of their owner.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>

#include <absl/container/flat_hash_map.h>

#include "Corekit/internal/BitTree.h"
#include "Kel/Clock.h"
#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"

namespace Corekit {

// The numbers [first, last], or none at all (the default). first <= last always holds for
// a range that is not empty; the empty range is first 1, last 0.
class NumRange {
 public:
  KEL_VALUE_BASE(NumRange, "Corekit::NumRange", (uint32_t, first, 1u), (uint32_t, last, 0u));
  // [first, last]; throws Kel::InternalException when last < first (use NumRange() for
  // the empty range).
  NumRange(uint32_t first, uint32_t last);

  bool empty() const noexcept { return last_ < first_; }
  uint64_t size() const noexcept { return empty() ? 0 : uint64_t{last_} - first_ + 1; }
  bool contains(int64_t n) const noexcept { return n >= first_ && n <= last_; }
};

class NumAllocatorConfig : public Kel::Entity {
 public:
  KEL_ENTITY(NumAllocatorConfig, "Corekit::NumAllocatorConfig");
  using Ptr = Kel::Ptr<NumAllocatorConfig>;
  using PtrConst = Kel::PtrConst<NumAllocatorConfig>;
  class NotifieeConst : public Kel::NotifieeOf<NumAllocatorConfig> {
   public:
    virtual void onRange() {}
    virtual void onExpiryTime() {}
  };

  // The numbers to hand out; empty by default.
  KEL_ATTR(NumRange, range, Range)
  // Seconds a released number cools before it is free again (see above); 0 by default:
  // a released number is free at once.
  KEL_ATTR(double, expiryTime, ExpiryTime, 0.0)
};

NumAllocatorConfig::Ptr numAllocatorConfigFactory();

class NumAllocatorStatus : public Kel::Entity {
 public:
  KEL_ENTITY(NumAllocatorStatus, "Corekit::NumAllocatorStatus");
  using Ptr = Kel::Ptr<NumAllocatorStatus>;
  using PtrConst = Kel::PtrConst<NumAllocatorStatus>;
  class NotifieeConst : public Kel::NotifieeOf<NumAllocatorStatus> {
   public:
    virtual void onRangeExhausted() {}
  };

  // No number is free or cooling: getNumber() would fail. Written by the allocator only.
  KEL_ATTR(bool, rangeExhausted, RangeExhausted, false)
};

NumAllocatorStatus::Ptr numAllocatorStatusFactory();

class NumAllocator : public Kel::Entity {
 public:
  KEL_ENTITY(NumAllocator, "Corekit::NumAllocator");
  using Ptr = Kel::Ptr<NumAllocator>;
  using PtrConst = Kel::PtrConst<NumAllocator>;

  // What getNumber() returns when the range is exhausted.
  static constexpr int64_t noNumber = -1;

  // Use numAllocatorFactory().
  NumAllocator(NumAllocatorConfig::PtrConst config, NumAllocatorStatus::Ptr status,
               Kel::Clock::Ptr clock);

  // The range taken from the configuration when the allocator was made.
  const NumRange& range() const noexcept { return range_; }

  // Allocates and returns the lowest free number; when none is free, the cooling number
  // released first; when none is cooling either, returns noNumber (-1) and changes nothing.
  // O(log n), amortised.
  int64_t getNumber();

  // Makes `n` free again, or cooling when the expiry time is positive. Throws
  // Kel::InternalException when `n` is outside the range or not allocated. O(log n),
  // amortised.
  void releaseNumber(int64_t n);

  // Allocates the given number, as an owner does when it learns again, after a restart,
  // what it held. Returns true when `n` was free or cooling and is now allocated; false
  // when it was allocated already (it stays so, and the caller decides whether that is a
  // conflict). Throws Kel::InternalException when `n` is outside the range. O(log n),
  // amortised.
  bool reserveNumber(int64_t n);

  // Whether `n` is allocated; false for a number outside the range. O(1).
  bool isAllocated(int64_t n) const noexcept;

  // How many numbers are allocated. O(1).
  uint64_t numbersAllocated() const noexcept { return allocatedCount_; }

 private:
  struct Cooling {
    uint32_t offset;    // the number minus range().first()
    double releasedAt;  // the clock's time at the release
  };

  void expire();
  uint32_t takeOldestCooling();
  // Whether the queue entry of `off` just taken out was stale; counts it off if so.
  bool staleTaken(uint32_t off);
  void exhaustedUpdate();

  NumAllocatorConfig::PtrConst config_;
  NumAllocatorStatus::Ptr status_;
  Kel::Clock::Ptr clock_;
  NumRange range_;

  internal::BitTree free_;           // offsets of the free numbers
  std::vector<uint64_t> allocated_;  // one bit per offset
  uint64_t allocatedCount_ = 0;
  uint64_t freeCount_ = 0;
  uint64_t coolingCount_ = 0;  // cooling numbers, stale entries of cooling_ not counted
  std::deque<Cooling> cooling_;  // release order
  // Entries of cooling_ left behind by a number reserved while it cooled: offset -> how
  // many. They are older than any live entry of the same offset, so the next entries of
  // that offset to leave the queue are the stale ones.
  absl::flat_hash_map<uint32_t, uint32_t> stale_;
};

// Throws Kel::InternalException when an argument is null.
NumAllocator::Ptr numAllocatorFactory(NumAllocatorConfig::PtrConst config,
                                      NumAllocatorStatus::Ptr status, Kel::Clock::Ptr clock);

}  // namespace Corekit
