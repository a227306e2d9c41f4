#include "Corekit/NumAllocator.h"

#include <fmt/format.h>

#include "Kel/Exception.h"

namespace Corekit {

namespace internal {

BitTree::BitTree(uint64_t size, bool full) {
  // Level k has ceil(count of level k-1 / 64) words; the top level has one.
  uint64_t bits = size;
  do {
    levelStart_.push_back(words_.size());
    const uint64_t words = bits == 0 ? 1 : (bits + 63) / 64;
    words_.resize(words_.size() + words, 0);
    if (full) {
      uint64_t* w = words_.data() + levelStart_.back();
      for (uint64_t i = 0; i < bits / 64; ++i) {
        w[i] = ~uint64_t{0};
      }
      if (bits % 64) {
        w[bits / 64] = (uint64_t{1} << (bits % 64)) - 1;
      }
    }
    bits = words;
  } while (bits > 1);
}

}  // namespace internal

NumRange::NumRange(uint32_t first, uint32_t last) : first_(first), last_(last) {
  KEL_ASSERT(first <= last, fmt::format("a range from {} to {} is backwards", first, last));
}

NumAllocatorConfig::Ptr numAllocatorConfigFactory() { return Kel::make<NumAllocatorConfig>(); }

NumAllocatorStatus::Ptr numAllocatorStatusFactory() { return Kel::make<NumAllocatorStatus>(); }

NumAllocator::NumAllocator(NumAllocatorConfig::PtrConst config, NumAllocatorStatus::Ptr status,
                           Kel::Clock::Ptr clock)
    : config_(std::move(config)),
      status_(std::move(status)),
      clock_(std::move(clock)),
      range_(config_ ? config_->range() : NumRange()),
      free_(range_.size(), true),
      allocated_((range_.size() + 63) / 64, 0),
      freeCount_(range_.size()) {
  KEL_ASSERT(config_ && status_ && clock_, "a number allocator needs a configuration, a status and a clock");
  exhaustedUpdate();
}

NumAllocator::Ptr numAllocatorFactory(NumAllocatorConfig::PtrConst config,
                                      NumAllocatorStatus::Ptr status, Kel::Clock::Ptr clock) {
  return Kel::make<NumAllocator>(std::move(config), std::move(status), std::move(clock));
}

bool NumAllocator::isAllocated(int64_t n) const noexcept {
  if (!range_.contains(n)) {
    return false;
  }
  const uint64_t off = static_cast<uint64_t>(n - range_.first());
  return (allocated_[off >> 6] >> (off & 63)) & 1;
}

int64_t NumAllocator::getNumber() {
  expire();
  uint64_t off;
  if (freeCount_) {
    off = free_.first();
    free_.erase(off);
    --freeCount_;
  } else if (coolingCount_) {
    off = takeOldestCooling();
  } else {
    return noNumber;
  }
  allocated_[off >> 6] |= uint64_t{1} << (off & 63);
  ++allocatedCount_;
  exhaustedUpdate();
  return range_.first() + static_cast<int64_t>(off);
}

void NumAllocator::releaseNumber(int64_t n) {
  KEL_ASSERT(range_.contains(n),
             fmt::format("{} is outside the range [{}, {}]", n, range_.first(), range_.last()));
  KEL_ASSERT(isAllocated(n), fmt::format("{} is not allocated", n));
  expire();
  const auto off = static_cast<uint32_t>(n - range_.first());
  allocated_[off >> 6] &= ~(uint64_t{1} << (off & 63));
  --allocatedCount_;
  if (config_->expiryTime() > 0) {
    cooling_.push_back(Cooling{off, clock_->now()});
    ++coolingCount_;
  } else {
    free_.insert(off);
    ++freeCount_;
  }
  exhaustedUpdate();
}

bool NumAllocator::reserveNumber(int64_t n) {
  KEL_ASSERT(range_.contains(n),
             fmt::format("{} is outside the range [{}, {}]", n, range_.first(), range_.last()));
  expire();
  if (isAllocated(n)) {
    return false;
  }
  const auto off = static_cast<uint32_t>(n - range_.first());
  if (free_.has(off)) {
    free_.erase(off);
    --freeCount_;
  } else {
    // Cooling: its queue entry stays behind, to be skipped when it leaves the queue.
    ++stale_[off];
    --coolingCount_;
  }
  allocated_[off >> 6] |= uint64_t{1} << (off & 63);
  ++allocatedCount_;
  exhaustedUpdate();
  return true;
}

void NumAllocator::expire() {
  if (cooling_.empty()) {
    return;
  }
  const double now = clock_->now();
  const double expiry = config_->expiryTime();
  while (!cooling_.empty() && (expiry <= 0 || cooling_.front().releasedAt + expiry <= now)) {
    const uint32_t off = cooling_.front().offset;
    cooling_.pop_front();
    if (staleTaken(off)) {
      continue;
    }
    --coolingCount_;
    free_.insert(off);
    ++freeCount_;
  }
}

uint32_t NumAllocator::takeOldestCooling() {
  for (;;) {
    const uint32_t off = cooling_.front().offset;
    cooling_.pop_front();
    if (staleTaken(off)) {
      continue;
    }
    --coolingCount_;
    return off;
  }
}

bool NumAllocator::staleTaken(uint32_t off) {
  if (stale_.empty()) {
    return false;
  }
  auto it = stale_.find(off);
  if (it == stale_.end()) {
    return false;
  }
  if (--it->second == 0) {
    stale_.erase(it);
  }
  return true;
}

void NumAllocator::exhaustedUpdate() { status_->rangeExhaustedIs(freeCount_ + coolingCount_ == 0); }

}  // namespace Corekit
