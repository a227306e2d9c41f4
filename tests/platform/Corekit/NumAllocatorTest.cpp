// The number allocator: lowest-first order against a model, exhaustion and its
// announcements, cooling on a manual clock, broken arguments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "Corekit/NumAllocator.h"
#include "Kel/Exception.h"

namespace {

using namespace Corekit;

struct Fixture {
  explicit Fixture(NumRange range, double expiry = 0) {
    config->rangeIs(range);
    config->expiryTimeIs(expiry);
    alloc = numAllocatorFactory(config, status, clock);
  }
  NumAllocatorConfig::Ptr config = numAllocatorConfigFactory();
  NumAllocatorStatus::Ptr status = numAllocatorStatusFactory();
  Kel::ManualClock::Ptr clock = Kel::manualClockFactory(0);
  NumAllocator::Ptr alloc;
};

class ExhaustedWatch : public NumAllocatorStatus::NotifieeConst {
 public:
  explicit ExhaustedWatch(const NumAllocatorStatus::Ptr& s) { notifierIs(s); }
  void onRangeExhausted() override { seen.push_back(notifier()->rangeExhausted()); }
  std::vector<bool> seen;
};

// Random gets, releases and reserves over a range of three bitmap levels, each answer and
// the exhaustion flag checked against a plain set of the free numbers.
TEST(NumAllocator, HandsOutTheLowestFreeNumber) {
  const uint32_t first = 100;
  const uint32_t size = 5000;
  Fixture f(NumRange(first, first + size - 1));
  std::set<int64_t> free;
  for (int64_t n = first; n < first + size; ++n) {
    free.insert(n);
  }
  std::mt19937 rng(7);
  std::vector<int64_t> held;
  for (int i = 0; i < 40000; ++i) {
    const unsigned op = rng() % 8;
    if (op < 4 || held.empty()) {
      const int64_t n = f.alloc->getNumber();
      ASSERT_EQ(n, free.empty() ? NumAllocator::noNumber : *free.begin()) << "step " << i;
      if (n >= 0) {
        free.erase(n);
        held.push_back(n);
      }
    } else if (op < 7) {
      const size_t k = rng() % held.size();
      f.alloc->releaseNumber(held[k]);
      free.insert(held[k]);
      held[k] = held.back();
      held.pop_back();
    } else {
      const int64_t n = first + rng() % size;
      ASSERT_EQ(f.alloc->reserveNumber(n), free.erase(n) == 1) << "step " << i;
      if (std::count(held.begin(), held.end(), n) == 0) {
        held.push_back(n);
      }
    }
    ASSERT_EQ(f.status->rangeExhausted(), free.empty());
    ASSERT_EQ(f.alloc->numbersAllocated(), held.size());
  }
  EXPECT_TRUE(f.alloc->isAllocated(held.front()));
  EXPECT_FALSE(f.alloc->isAllocated(first - 1));
  EXPECT_FALSE(f.alloc->isAllocated(first + size));
}

TEST(NumAllocator, AnnouncesExhaustionAndItsEnd) {
  Fixture empty{NumRange()};
  EXPECT_TRUE(empty.status->rangeExhausted());
  EXPECT_EQ(empty.alloc->getNumber(), NumAllocator::noNumber);

  Fixture f(NumRange(0, 2));
  ExhaustedWatch watch(f.status);
  EXPECT_EQ(f.alloc->getNumber(), 0);
  EXPECT_TRUE(f.alloc->reserveNumber(2));
  EXPECT_FALSE(f.alloc->reserveNumber(2));
  EXPECT_EQ(f.alloc->getNumber(), 1);
  EXPECT_EQ(f.alloc->getNumber(), NumAllocator::noNumber);
  f.alloc->releaseNumber(1);
  EXPECT_TRUE(f.alloc->reserveNumber(1));
  EXPECT_EQ(watch.seen, (std::vector<bool>{true, false, true}));
  // A new range means a new allocator, which reports its own state.
  f.config->rangeIs(NumRange(0, 9));
  EXPECT_EQ(f.alloc->getNumber(), NumAllocator::noNumber);
  f.alloc = numAllocatorFactory(f.config, f.status, f.clock);
  EXPECT_EQ(watch.seen.back(), false);
}

// Numbers 0-3, expiry 1 s: a released number waits behind free ones, goes out before the
// range is exhausted, and is free again (lowest first) once its second has passed.
TEST(NumAllocator, ReleasedNumbersCoolForTheExpiryTime) {
  Fixture f(NumRange(0, 3), 1.0);
  for (int64_t n = 0; n < 3; ++n) {
    EXPECT_EQ(f.alloc->getNumber(), n);
  }
  f.alloc->releaseNumber(1);
  EXPECT_EQ(f.alloc->getNumber(), 3);  // 1 cools; 3 is free
  EXPECT_FALSE(f.status->rangeExhausted());
  f.clock->nowIs(0.5);
  f.alloc->releaseNumber(0);
  EXPECT_EQ(f.alloc->getNumber(), 1);  // nothing free: the oldest cooling one
  f.alloc->releaseNumber(1);
  EXPECT_TRUE(f.alloc->reserveNumber(0));  // taken while cooling
  f.clock->nowIs(0.9);
  f.alloc->releaseNumber(0);  // cools again, until 1.9
  f.clock->nowIs(1.5);
  EXPECT_EQ(f.alloc->getNumber(), 1);  // free since 1.5
  EXPECT_EQ(f.alloc->getNumber(), 0);  // still cooling: its first release does not count
  EXPECT_TRUE(f.status->rangeExhausted());

  // Expiry 0 frees what is cooling, at the next call.
  f.alloc->releaseNumber(3);
  f.alloc->releaseNumber(1);
  f.config->expiryTimeIs(0);
  EXPECT_EQ(f.alloc->getNumber(), 1);
  EXPECT_EQ(f.alloc->getNumber(), 3);
}

TEST(NumAllocator, RefusesBrokenArguments) {
  using testing::HasSubstr;
  Fixture f(NumRange(10, 19), 1.0);
  EXPECT_EQ(f.alloc->getNumber(), 10);
  f.alloc->releaseNumber(10);  // cooling
  auto refuses = [](auto call, const std::string& text) {
    try {
      call();
      ADD_FAILURE() << "no exception for " << text;
    } catch (const Kel::InternalException& e) {
      EXPECT_THAT(e.what(), HasSubstr(text));
    }
  };
  refuses([&] { f.alloc->releaseNumber(10); }, "(isAllocated(n)): 10 is not allocated");
  refuses([&] { f.alloc->releaseNumber(11); }, "(isAllocated(n)): 11 is not allocated");
  refuses([&] { f.alloc->releaseNumber(20); }, "(range_.contains(n)): 20 is outside the range [10, 19]");
  refuses([&] { f.alloc->reserveNumber(-1); }, "-1 is outside the range [10, 19]");
  refuses([] { NumRange(5, 4); }, "a range from 5 to 4 is backwards");
  refuses([&] { numAllocatorFactory(f.config, nullptr, f.clock); }, "needs a configuration, a status and a clock");
  EXPECT_EQ(f.alloc->numbersAllocated(), 0u);
  EXPECT_EQ(f.alloc->getNumber(), 11);
}

}  // namespace
