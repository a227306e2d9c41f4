// Kiva::internal::QuotaTimer: the engine behind a timed SmControl. A POSIX timer on
// CLOCK_MONOTONIC, delivered as quotaSignal() to the thread that created it, whose handler
// sets this timer's flag.
//
// The flag lives in a process-wide table of slots, never freed, and the timer carries the
// slot's number: a signal still queued after its timer was deleted can only set the flag
// of a slot, harmlessly (a later owner of the slot yields once too early), never write
// into freed memory. 4096 slots: a process with more timers alive at once gets
// Kel::Exception.
//
// Threads: arm, disarm and destruction on the creating thread; the flag is written by the
// signal handler on that same thread (a lock-free atomic, relaxed).
#pragma once

#include <time.h>

#include <atomic>
#include <chrono>

namespace Kiva::internal {

class QuotaTimer {
 public:
  // Installs the handler on first use, unblocks the signal in this thread and creates the
  // timer. Throws Kel::Exception naming the failed call, or when the signal has another
  // handler, or when no slot is free.
  QuotaTimer();
  ~QuotaTimer();
  QuotaTimer(const QuotaTimer&) = delete;
  QuotaTimer& operator=(const QuotaTimer&) = delete;

  const std::atomic<bool>& expired() const noexcept { return *flag_; }
  // Clears the flag and arms the timer to expire once after `quota`. Throws Kel::Exception
  // when timer_settime fails.
  void arm(std::chrono::nanoseconds quota);
  // Disarms the timer unless it has already expired. Never throws.
  void disarm() noexcept;

  // A flag that is never set: what a control that has no timer yet reads.
  static const std::atomic<bool>& neverExpired() noexcept;

 private:
  int slot_;
  std::atomic<bool>* flag_;
  timer_t timer_{};
};

}  // namespace Kiva::internal
