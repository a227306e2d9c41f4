// Corekit::TimerWheel: many one-shot timers on a Kel::Clock, scheduled and cancelled in
// O(1), for owners with thousands of them (label holds, hold-down and retransmission
// timers) that would not each want a timer of the event loop.
//
// A hierarchical timing wheel (Varghese and Lauck's scheme 7, the Linux kernel's wheel
// before 4.8): 8 levels of 64 slots; a slot of level k spans 64^k ticks, so the wheel
// spans 2^48 ticks (about 8,900 years at 1 ms). A timer goes into the slot of the lowest
// level whose span reaches its due tick; when the wheel's time enters a slot of a level
// above 0, that slot's timers move down to the levels below (a timer moves at most 7
// times in its life). A timer beyond the whole span waits in the top level and is placed
// again each time its slot comes round.
//
// Time and resolution. Times are seconds on the wheel's clock. The wheel counts ticks of
// `tick` seconds from the clock's time when it was made (its origin): tick k ends at
// origin + k * tick. A timer due at time t belongs to the tick in which t falls, the first
// whose end is at or after t (within a millionth of a tick, so that a time computed as
// k * tick is on the boundary), and fires at the first advance at which the clock has
// reached that tick's end (within the same millionth): never earlier than two millionths
// of a tick before t, and at most one tick after it, plus whatever delays the advance.
//
// Advancing. The wheel fires timers only in advance(), which runs every tick up to the
// clock's now, skipping empty stretches in O(levels):
//   - with a Kel::ManualClock (tests), the wheel watches the clock and advances at every
//     move it announces (Clock::NotifieeConst::onNow);
//   - with an event loop (and Kel::systemClock(), which the loop's timers follow), the
//     wheel keeps one loop timer armed for its next event, a due tick or a move of timers
//     between levels, and advances when it fires;
//   - an owner may also call advance() itself.
//
// Order. Timers fire in the order of their due times; timers due at the same time fire in
// the order they were scheduled. An advance that crosses many ticks runs them tick by
// tick, so the order holds across it. A timer never fires inside the call that schedules
// it: one scheduled for a time at or before the wheel's current tick (the last one it ran)
// is due at the next tick, after the timers of the current one.
//
// Callbacks may schedule and cancel timers, their own and others, and move a manual clock
// (the advance under way then runs on to the new time; advance() called from a callback
// does nothing). A callback's exception propagates out of advance() (out of the clock's
// move, or the loop's run); the timers of its tick that have not run yet fire at the next
// advance, before anything else.
//
// Lifecycle. Made by timerWheelFactory(); the loop, when given, must outlive the wheel.
// Destroying the wheel destroys the callbacks of its pending timers without calling them.
// Single-threaded: the wheel, its clock and its loop belong to one reactor thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Kel/Clock.h"
#include "Kel/Entity.h"
#include "Kel/EventLoop.h"

namespace Corekit {

class TimerWheel : public Kel::Entity {
 public:
  KEL_ENTITY(TimerWheel, "Corekit::TimerWheel");
  using Ptr = Kel::Ptr<TimerWheel>;
  using PtrConst = Kel::PtrConst<TimerWheel>;

  // A scheduled timer; TimerId::none is never one.
  enum class TimerId : uint64_t { none = 0 };
  using Callback = std::function<void()>;

  static constexpr int levels = 8;
  static constexpr int slotsPerLevel = 64;
  static constexpr double defaultTick = 0.001;

  // Use timerWheelFactory().
  TimerWheel(Kel::Clock::Ptr clock, Kel::EventLoop* loop, double tick);
  ~TimerWheel() override;

  const Kel::Clock::Ptr& clock() const noexcept { return clock_; }
  double tick() const noexcept { return tick_; }

  // Calls `callback` once, when the clock reaches `when` (see above). Returns the timer's
  // id. Throws Kel::InternalException for an empty callback or a `when` that is not a
  // number. O(1).
  TimerId timerIs(double when, Callback callback);
  // The same, `delay` seconds after the clock's now.
  TimerId timerAfterIs(double delay, Callback callback) {
    return timerIs(clock_->now() + delay, std::move(callback));
  }
  // Cancels a pending timer: its callback is destroyed without being called. Returns true
  // when the timer was pending; false for a timer that has fired (or is firing), was
  // cancelled, or for TimerId::none. O(1); never throws.
  bool timerDel(TimerId id) noexcept;
  // Whether the timer is pending: scheduled and neither fired nor cancelled.
  bool timerHas(TimerId id) const noexcept;
  // The number of pending timers.
  size_t timers() const noexcept { return pending_; }

  // Fires every timer due at the clock's now (see above). Does nothing when called from
  // one of the wheel's callbacks.
  void advance();

 private:
  static constexpr uint32_t nil = ~uint32_t{0};
  enum class State : uint8_t { free, listed, due, cancelled };
  struct Node {
    Callback callback;
    double when = 0;
    uint64_t due = 0;  // the tick
    uint64_t seq = 0;  // scheduling order
    uint32_t prev = nil;
    uint32_t next = nil;
    uint32_t generation = 1;
    uint16_t slot = 0;  // level * 64 + index, while listed
    State state = State::free;
  };
  class ClockWatch : public Kel::Clock::NotifieeConst {
   public:
    explicit ClockWatch(TimerWheel* wheel) : wheel_(wheel) {}
    void onNow() override { wheel_->advance(); }

   private:
    TimerWheel* wheel_;
  };

  Node* nodeOf(TimerId id) noexcept;
  uint64_t dueTickOf(double when) const noexcept;
  uint64_t clockTick() const noexcept;
  uint64_t place(uint32_t idx) noexcept;
  void unlink(uint32_t idx) noexcept;
  void nodeFree(uint32_t idx) noexcept;
  uint64_t nextEventTick() const noexcept;
  void cascade() noexcept;
  void collectDue();
  void runDue();
  void loopArm();

  Kel::Clock::Ptr clock_;
  Kel::EventLoop* loop_;
  double tick_;
  double origin_;
  uint64_t now_ = 0;  // the last tick run
  uint64_t seqLast_ = 0;
  size_t pending_ = 0;

  std::vector<Node> nodes_;
  std::vector<uint32_t> freeNodes_;
  std::array<uint32_t, levels * slotsPerLevel> heads_;
  std::array<uint64_t, levels> occupied_{};  // one bit per non-empty slot

  std::vector<uint32_t> due_;  // the tick being run, in firing order
  size_t dueNext_ = 0;
  bool advancing_ = false;

  Kel::EventLoop::TimerId loopTimer_ = Kel::EventLoop::TimerId::none;
  uint64_t armedTick_ = ~uint64_t{0};
  ClockWatch clockWatch_;
};

// A wheel on `clock`, ticking every `tick` seconds (positive), driven by `loop` when it is
// not null. Throws Kel::InternalException for a null clock or a tick that is not positive.
TimerWheel::Ptr timerWheelFactory(Kel::Clock::Ptr clock, Kel::EventLoop* loop = nullptr,
                                  double tick = TimerWheel::defaultTick);

}  // namespace Corekit
