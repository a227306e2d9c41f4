#include "Corekit/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <utility>

#include "Kel/Exception.h"

namespace Corekit {

namespace {

constexpr int kBits = 6;
constexpr uint64_t kSlotMask = TimerWheel::slotsPerLevel - 1;
// Ticks stop here: far enough for any clock, and shifts of it by a level stay in 64 bits.
constexpr uint64_t kTickMax = uint64_t{1} << 60;
constexpr uint64_t kNever = ~uint64_t{0};
// A time within this fraction of a tick of a boundary is on it: k * tick computed in
// floating point may land a hair past the boundary.
constexpr double kTickSlack = 1e-6;

}  // namespace

TimerWheel::TimerWheel(Kel::Clock::Ptr clock, Kel::EventLoop* loop, double tick)
    : clock_(std::move(clock)), loop_(loop), tick_(tick), clockWatch_(this) {
  KEL_ASSERT(clock_, "a timer wheel needs a clock");
  KEL_ASSERT(tick_ > 0, "a timer wheel's tick must be positive");
  origin_ = clock_->now();
  heads_.fill(nil);
  clockWatch_.notifierIs(clock_);
}

TimerWheel::~TimerWheel() {
  if (loop_ && loopTimer_ != Kel::EventLoop::TimerId::none) {
    loop_->timerDel(loopTimer_);
  }
}

TimerWheel::Ptr timerWheelFactory(Kel::Clock::Ptr clock, Kel::EventLoop* loop, double tick) {
  return Kel::make<TimerWheel>(std::move(clock), loop, tick);
}

// ---------------------------------------------------------------------------------------
// Timers and their ids: the low 32 bits are the node's index + 1, the high ones its
// generation, raised each time the node is freed so that an old id matches nothing.

TimerWheel::Node* TimerWheel::nodeOf(TimerId id) noexcept {
  const auto raw = static_cast<uint64_t>(id);
  const uint64_t index = (raw & 0xffffffffu) - 1;
  if (index >= nodes_.size()) {
    return nullptr;
  }
  Node& n = nodes_[index];
  return n.generation == (raw >> 32) && n.state != State::free && n.state != State::cancelled
             ? &n
             : nullptr;
}

bool TimerWheel::timerHas(TimerId id) const noexcept {
  return const_cast<TimerWheel*>(this)->nodeOf(id) != nullptr;
}

TimerWheel::TimerId TimerWheel::timerIs(double when, Callback callback) {
  KEL_ASSERT(callback, "a timer needs a callback");
  KEL_ASSERT(!std::isnan(when), "a timer's time must be a number");
  uint32_t idx;
  if (freeNodes_.empty()) {
    idx = static_cast<uint32_t>(nodes_.size());
    nodes_.emplace_back();
    // Room for every node to be free: freeing (timerDel) never allocates.
    freeNodes_.reserve(nodes_.capacity());
  } else {
    idx = freeNodes_.back();
    freeNodes_.pop_back();
  }
  Node& n = nodes_[idx];
  n.callback = std::move(callback);
  n.when = when;
  n.due = std::max(dueTickOf(when), now_ + 1);
  n.seq = ++seqLast_;
  const uint64_t visit = place(idx);
  ++pending_;
  const auto id = static_cast<TimerId>((uint64_t{n.generation} << 32) | (idx + 1));
  if (loop_ && !advancing_ && visit < armedTick_) {
    loopArm();
  }
  return id;
}

bool TimerWheel::timerDel(TimerId id) noexcept {
  Node* n = nodeOf(id);
  if (!n) {
    return false;
  }
  const auto idx = static_cast<uint32_t>(n - nodes_.data());
  --pending_;
  if (n->state == State::listed) {
    unlink(idx);
    nodeFree(idx);
  } else {
    // In the tick being run: runDue() frees it when it comes to it.
    n->state = State::cancelled;
    n->callback = nullptr;
    ++n->generation;
  }
  return true;
}

void TimerWheel::nodeFree(uint32_t idx) noexcept {
  Node& n = nodes_[idx];
  n.callback = nullptr;
  if (n.state != State::cancelled) {
    ++n.generation;
  }
  n.state = State::free;
  freeNodes_.push_back(idx);
}

// ---------------------------------------------------------------------------------------
// Ticks and slots.

uint64_t TimerWheel::dueTickOf(double when) const noexcept {
  const double x = std::ceil((when - origin_) / tick_ - kTickSlack);
  if (!(x < static_cast<double>(kTickMax))) {
    return kTickMax;
  }
  return x <= 0 ? 0 : static_cast<uint64_t>(x);
}

uint64_t TimerWheel::clockTick() const noexcept {
  const double x = std::floor((clock_->now() - origin_) / tick_ + kTickSlack);
  if (!(x < static_cast<double>(kTickMax))) {
    return kTickMax;
  }
  return x <= 0 ? 0 : static_cast<uint64_t>(x);
}

// Lists the node in the slot of the lowest level that reaches its due tick (which is not
// before now_), and returns the tick at which the wheel will come to that slot.
uint64_t TimerWheel::place(uint32_t idx) noexcept {
  Node& n = nodes_[idx];
  const uint64_t delta = n.due - now_;
  int level = delta < slotsPerLevel ? 0 : (std::bit_width(delta) - 1) / kBits;
  uint64_t block;  // the slot's block number at its level
  if (level < levels) {
    block = n.due >> (level * kBits);
  } else {
    // Beyond the wheel: the top level's slot that comes round last.
    level = levels - 1;
    block = (now_ >> (level * kBits)) + slotsPerLevel;
  }
  const auto slot = static_cast<uint16_t>(level * slotsPerLevel + (block & kSlotMask));
  n.slot = slot;
  n.state = State::listed;
  n.prev = nil;
  n.next = heads_[slot];
  if (n.next != nil) {
    nodes_[n.next].prev = idx;
  }
  heads_[slot] = idx;
  occupied_[level] |= uint64_t{1} << (block & kSlotMask);
  return block << (level * kBits);
}

void TimerWheel::unlink(uint32_t idx) noexcept {
  Node& n = nodes_[idx];
  if (n.prev != nil) {
    nodes_[n.prev].next = n.next;
  } else {
    heads_[n.slot] = n.next;
    if (n.next == nil) {
      occupied_[n.slot / slotsPerLevel] &= ~(uint64_t{1} << (n.slot % slotsPerLevel));
    }
  }
  if (n.next != nil) {
    nodes_[n.next].prev = n.prev;
  }
}

// The first tick after now_ at which a non-empty slot comes round: at level k, slot s
// comes round at the start of the next block numbered s modulo 64.
uint64_t TimerWheel::nextEventTick() const noexcept {
  uint64_t next = kNever;
  for (int level = 0; level < levels; ++level) {
    if (!occupied_[level]) {
      continue;
    }
    const int shift = level * kBits;
    const uint64_t block = now_ >> shift;
    const int from = static_cast<int>((block + 1) & kSlotMask);
    const int ahead = std::countr_zero(std::rotr(occupied_[level], from));
    next = std::min(next, (block + 1 + static_cast<uint64_t>(ahead)) << shift);
  }
  return next;
}

// At the start of a block of level k (now_ a multiple of 64^k), the slot of that block
// moves down, lowest level first.
void TimerWheel::cascade() noexcept {
  for (int level = 1; level < levels; ++level) {
    const int shift = level * kBits;
    if (now_ & ((uint64_t{1} << shift) - 1)) {
      return;
    }
    const uint64_t index = (now_ >> shift) & kSlotMask;
    const size_t slot = static_cast<size_t>(level) * slotsPerLevel + index;
    uint32_t idx = heads_[slot];
    heads_[slot] = nil;
    occupied_[level] &= ~(uint64_t{1} << index);
    while (idx != nil) {
      const uint32_t next = nodes_[idx].next;
      place(idx);
      idx = next;
    }
  }
}

// ---------------------------------------------------------------------------------------
// Firing.

void TimerWheel::collectDue() {
  const size_t slot = now_ & kSlotMask;
  for (uint32_t idx = heads_[slot]; idx != nil; idx = nodes_[idx].next) {
    nodes_[idx].state = State::due;
    due_.push_back(idx);
  }
  heads_[slot] = nil;
  occupied_[0] &= ~(uint64_t{1} << slot);
  if (due_.size() > 1) {
    std::sort(due_.begin(), due_.end(), [this](uint32_t a, uint32_t b) {
      const Node& x = nodes_[a];
      const Node& y = nodes_[b];
      return x.when != y.when ? x.when < y.when : x.seq < y.seq;
    });
  }
}

void TimerWheel::runDue() {
  while (dueNext_ < due_.size()) {
    const uint32_t idx = due_[dueNext_++];
    if (nodes_[idx].state == State::cancelled) {
      nodeFree(idx);
      continue;
    }
    Callback callback = std::move(nodes_[idx].callback);
    nodeFree(idx);
    --pending_;
    callback();
  }
  due_.clear();
  dueNext_ = 0;
}

void TimerWheel::advance() {
  if (advancing_) {
    return;
  }
  // A callback may drop the last reference to the wheel.
  Kel::PtrConst<TimerWheel> keep(kelRefCount() ? this : nullptr);
  advancing_ = true;
  try {
    runDue();
    for (;;) {
      const uint64_t target = clockTick();
      if (now_ >= target) {
        break;
      }
      const uint64_t next = nextEventTick();
      if (next > target) {
        now_ = target;
        break;
      }
      now_ = next;
      cascade();
      collectDue();
      runDue();
    }
  } catch (...) {
    advancing_ = false;
    loopArm();
    throw;
  }
  advancing_ = false;
  loopArm();
}

// Keeps the loop's one timer on the wheel's next event (at once when a tick was left
// half run by an exception).
void TimerWheel::loopArm() {
  if (!loop_) {
    return;
  }
  const uint64_t next = due_.empty() ? nextEventTick() : now_;
  if (next == armedTick_ && loopTimer_ != Kel::EventLoop::TimerId::none) {
    return;
  }
  if (loopTimer_ != Kel::EventLoop::TimerId::none) {
    loop_->timerDel(loopTimer_);
    loopTimer_ = Kel::EventLoop::TimerId::none;
  }
  armedTick_ = next;
  if (next == kNever) {
    return;
  }
  const double delay = origin_ + static_cast<double>(next) * tick_ - clock_->now();
  const auto ns = std::chrono::nanoseconds(
      delay <= 0 ? 0 : static_cast<int64_t>(std::min(std::ceil(delay * 1e9), 1e18)));
  loopTimer_ = loop_->timerIs(ns, [this] {
    loopTimer_ = Kel::EventLoop::TimerId::none;
    armedTick_ = kNever;
    advance();
  });
}

}  // namespace Corekit
