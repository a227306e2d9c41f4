// Kiva: the cooperative runtime of long scans. A reactor that must walk a large collection
// (a start-up pass over a million configured routes, say) does not walk it in one go: it
// walks it in slices, keeps a bookmark (the last key it visited) between them, and lets
// the event loop run other reactors and file descriptors in between.
//
//   Kiva::SmControl   decides when a slice is over (shouldYield) and runs the slices:
//                     it queues the tasks that have work and runs them, one slice at a
//                     time, on the agent's Kel::EventLoop or, without a loop, when
//                     runSlice()/runPending() is called (unit tests, benchmarks)
//   Kiva::Task        one named piece of resumable work: a function that does one slice
//                     of its work and says whether any is left
//
// Slices. A slice begins when the control starts running queued tasks and ends when the
// queue is empty or the slice is over. Within a slice the control runs tasks in FIFO
// order; a task asks shouldYield() after each key and returns when it answers true (or
// when it has no work left); a task that returns with work left goes to the back of the
// queue. With a loop, each slice is one deferred task of the loop, so every iteration of
// the loop (ready fds, due timers, hooks) runs between two slices.
//
// When a slice is over:
//   - timed (the default): once the quota (0.5 ms unless quotaIs() says otherwise) has
//     passed since the slice began. shouldYield() is a load of a flag and costs no system
//     call: the slice arms a POSIX timer (CLOCK_MONOTONIC, delivered to the thread that
//     runs the slices as the real-time signal quotaSignal()) whose handler sets the flag.
//     Arming costs one timer_settime per slice, disarming a slice that ended early one
//     more; reading the clock for the slice statistics goes through the vDSO.
//   - counted (tests): after `keysPerSlice` calls of shouldYield() that the slice's tasks
//     made in total, whatever the time.
//
// The signal. quotaSignal() (SIGRTMIN + 7) gets a handler, installed once per process with
// SA_RESTART and SA_SIGINFO, that stores to an atomic flag and does nothing else; a
// signal of that number from anything but a control's timer is ignored. The first timed
// slice of a thread unblocks that signal in the thread. Interrupted system calls that
// SA_RESTART does not restart (epoll_wait among them) return EINTR; Kel::EventLoop treats
// that as an iteration with nothing ready. The timer is armed only during a slice, so the
// signal reaches no other code but by a race of a few microseconds at a slice's end.
// Installing the handler throws Kel::Exception when the signal already has a handler of
// another's.
//
// Statistics. Every slice's wall time is counted (slices(), sliceMax(), sliceTotal()) and,
// when a slice observer is installed, handed to it as the slice ends.
//
// Ownership and threads. The host creates the control, holds it through Kel::Ptr and hands
// it to the reactors whose scans it runs; they keep it alive. A Task belongs to whoever
// created it (usually a scan state machine) and unqueues itself when destroyed. The event
// loop, when one is given, must outlive the control. Everything runs on one thread: the
// one that runs the slices, which must be the one that created the control. A timed
// control that has run a slice is not usable in a child made by fork() (the child has no
// timer).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "Kel/Entity.h"
#include "Kel/EventLoop.h"
#include "Kel/Ptr.h"

namespace Kiva {

class Task;

namespace internal {
class QuotaTimer;
}

// The real-time signal by which a timed slice's quota expires.
int quotaSignal() noexcept;

class SmControl : public Kel::Entity {
 public:
  KEL_ENTITY(SmControl, "Kiva::SmControl");
  using Ptr = Kel::Ptr<SmControl>;
  class NotifieeConst : public Kel::NotifieeOf<SmControl> {};
  using SliceObserver = std::function<void(std::chrono::nanoseconds)>;

  static constexpr std::chrono::nanoseconds defaultQuota = std::chrono::microseconds(500);

  // Use smControlFactory() or countingSmControlFactory(). `loop` may be null.
  SmControl(Kel::EventLoop* loop, uint32_t keysPerSlice);
  ~SmControl() override;

  // Asked by a task after each key: whether it should stop and return now. A few
  // nanoseconds, no system call. Meaningful only inside a slice.
  bool shouldYield() noexcept {
    if (keysPerSlice_ != 0) [[unlikely]] {
      return ++sliceKeys_ >= keysPerSlice_;
    }
    return expired_->load(std::memory_order_relaxed);
  }

  // The time quota of a timed slice; a change takes effect at the next slice. Requires a
  // positive quota (Kel::InternalException otherwise).
  std::chrono::nanoseconds quota() const noexcept { return quota_; }
  void quotaIs(std::chrono::nanoseconds quota);
  // Non-zero: the control is counted and a slice ends after that many keys; zero: timed.
  uint32_t keysPerSlice() const noexcept { return keysPerSlice_; }
  void keysPerSliceIs(uint32_t keys) noexcept { keysPerSlice_ = keys; }

  Kel::EventLoop* loop() const noexcept { return loop_; }
  // Whether no task is queued or running.
  bool idle() const noexcept { return !head_ && !running_; }
  // How many tasks are queued (the running one not counted).
  uint32_t pendingTasks() const noexcept { return pending_; }

  // Runs one slice: the queued tasks until the queue is empty or the slice is over.
  // Returns false, and does nothing, when no task is queued. Throws what a task throws;
  // the slice ends then and the throwing task is not queued again. Must not be called
  // from inside a task.
  bool runSlice();
  // Runs slices until no task is queued; returns how many ran. The same rules.
  uint64_t runPending();

  // Slice statistics since the control was made: wall time, clock read at a slice's
  // beginning and end.
  uint64_t slices() const noexcept { return slices_; }
  std::chrono::nanoseconds sliceMax() const noexcept { return sliceMax_; }
  std::chrono::nanoseconds sliceTotal() const noexcept { return sliceTotal_; }
  // Called with each slice's wall time as the slice ends; an empty observer removes it.
  void sliceObserverIs(SliceObserver observer) { sliceObserver_ = std::move(observer); }

 private:
  friend class Task;
  void enqueue(Task* task);
  void unlink(Task* task) noexcept;
  void sliceBegin();
  void sliceEnd() noexcept;
  bool sliceOver() const noexcept;
  void deferSlice();

  Kel::EventLoop* loop_;
  uint32_t keysPerSlice_;
  uint32_t sliceKeys_ = 0;
  const std::atomic<bool>* expired_;
  std::chrono::nanoseconds quota_ = defaultQuota;
  internal::QuotaTimer* timer_ = nullptr;  // created by the first timed slice

  Task* head_ = nullptr;
  Task* tail_ = nullptr;
  Task* running_ = nullptr;
  bool runningDestroyed_ = false;
  uint32_t pending_ = 0;
  bool inSlice_ = false;
  bool sliceDeferred_ = false;

  std::chrono::nanoseconds sliceStart_{0};
  uint64_t slices_ = 0;
  std::chrono::nanoseconds sliceMax_{0};
  std::chrono::nanoseconds sliceTotal_{0};
  SliceObserver sliceObserver_;
};

// A timed control (0.5 ms slices) on `loop`, or without one when `loop` is null.
SmControl::Ptr smControlFactory(Kel::EventLoop* loop = nullptr);
// A counted control: each slice ends after `keysPerSlice` keys (at least 1).
SmControl::Ptr countingSmControlFactory(uint32_t keysPerSlice, Kel::EventLoop* loop = nullptr);

// One named piece of resumable work run by a control. `slice` does one slice of the work,
// asking the control's shouldYield() after each key, and returns true when work is left
// (the task is then queued again) or false when it is done.
//
// The task is not copied or moved; destroying it unqueues it, even from inside its own
// slice. It holds its control, so the control outlives it.
class Task {
 public:
  using Slice = std::function<bool()>;

  // Requires a control and a non-empty `slice` (Kel::InternalException otherwise).
  Task(SmControl::Ptr control, std::string name, Slice slice);
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  const std::string& name() const noexcept { return name_; }
  const SmControl::Ptr& control() const noexcept { return control_; }
  // Whether the task is queued.
  bool scheduled() const noexcept { return linked_; }
  // Queues the task at the back when it is not queued; with a loop, makes sure a slice is
  // deferred on it. Called from the task's own slice, it makes the task run again even if
  // the slice returns false.
  void schedule();
  // Takes the task out of the queue; a running slice finishes. Never throws.
  void cancel() noexcept;

 private:
  friend class SmControl;
  SmControl::Ptr control_;
  std::string name_;
  Slice slice_;
  Task* prev_ = nullptr;
  Task* next_ = nullptr;
  bool linked_ = false;
};

}  // namespace Kiva
