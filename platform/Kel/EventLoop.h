// Kel::EventLoop: the epoll loop that drives an agent's reactors, a tool or a test.
//
// The library never blocks; whoever owns the thread (an agent's main, a tool, a test)
// creates one EventLoop, registers file descriptors, timers, deferred tasks and
// after-iteration hooks with it, and drives it with run(), runOnce() or runUntil(). The
// owner of the loop owns it outright: it is neither copied nor moved, and its callbacks
// are destroyed with it.
//
// One iteration waits in epoll_wait for a ready fd, the next timer deadline or stop(),
// then runs, in this order:
//   1. the handlers of the ready fds and of the futex words woken (futexIs below);
//   2. the timers due, earliest deadline first (creation order breaks ties);
//   3. the tasks deferred before this step began, in FIFO order;
//   4. the after-iteration hooks, in registration order (a writer publishes its
//      shared-memory changes from one, once per batch).
// A callback may register or remove fds, timers and hooks, its own included, and defer
// tasks. What it adds to a step that has already started waits for the next iteration;
// what it removes before its turn does not run. Every callback given to the loop must be
// non-empty (Kel::InternalException otherwise). An idle loop sleeps in epoll_wait; the
// timers share one timerfd on the monotonic clock.
//
// Futex words: a process that announces changes through a 32-bit word in shared memory
// (a new value, then FUTEX_WAKE; Pond's writers do) can wake the loop itself, where the
// kernel has io_uring's futex wait (Linux 6.7). While a futex handler is registered the
// loop sleeps in io_uring_enter instead of epoll_wait, on its futex waits and on its epoll
// fd at once, and the system call that sleeps also submits the waits armed since: the
// waker reaches the loop's thread directly, with no helper thread or eventfd in between,
// and an idle loop still costs nothing.
//
// A callback's exception propagates out of runOnce(), run() or runUntil() and the loop
// stays usable: due timers, deferred tasks, futex handlers and level-triggered fds not yet
// dispatched are found again by the next iteration.
//
// Threads: one thread runs the loop and makes every call to it, construction and
// destruction included; only stop() may be called from another thread, at any time
// while the loop exists. The loop must not be run from inside one of its callbacks.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>

namespace Kel {

class EventLoop {
 public:
  enum class TimerId : uint64_t { none = 0 };
  enum class HookId : uint64_t { none = 0 };
  enum class FutexId : uint64_t { none = 0 };

  using FdHandler = std::function<void(uint32_t revents)>;
  using Callback = std::function<void()>;

  static constexpr std::chrono::nanoseconds forever = std::chrono::nanoseconds::max();

  // Creates the epoll fd, the timerfd and the eventfd that stop() writes. Throws
  // Kel::Exception naming the failed call.
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls `handler(revents)` whenever `fd` is ready for one of `events` (EPOLLIN,
  // EPOLLOUT..., level-triggered unless EPOLLET is given); EPOLLERR and EPOLLHUP are always
  // reported. Replaces the handler and events of an fd already registered. Requires an
  // open fd that epoll supports; throws Kel::Exception naming the fd otherwise, and
  // nothing changes then. The loop does not own the fd: call fdDel() before closing it.
  void fdIs(int fd, uint32_t events, FdHandler handler);
  // Stops watching `fd`; its handler is not called again, even for an event already
  // collected in this iteration. Does nothing for an fd not registered. Never throws.
  void fdDel(int fd) noexcept;

  // Calls `callback` once `delay` has passed on the monotonic clock (a negative delay
  // counts as zero), then every `period` after that deadline when `period` is positive.
  // A periodic timer that falls behind fires once and skips the periods it missed; no
  // timer fires twice in one iteration. Returns the timer's id, never TimerId::none.
  TimerId timerIs(std::chrono::nanoseconds delay, Callback callback,
                  std::chrono::nanoseconds period = std::chrono::nanoseconds::zero());
  // Cancels a timer: it does not fire again. Does nothing for a timer that has already
  // fired its single time, was deleted, or for TimerId::none.
  void timerDel(TimerId id) noexcept;

  // Queues `task` for the deferred step of the current iteration when called before that
  // step begins, or of the next iteration otherwise. A pending task keeps the next
  // iteration from waiting.
  void defer(Callback task);

  // Registers `hook` to run at the end of every iteration, after everything else, even an
  // iteration that found nothing to do. Returns its id, never HookId::none.
  HookId afterIterationHookIs(Callback hook);
  // Unregisters a hook. Does nothing for an unknown id.
  void afterIterationHookDel(HookId id) noexcept;

  // Registers `handler`, run in the fd step once the wait futexArm() armed for it ends.
  // Returns FutexId::none where the loop cannot wait on futex words (no io_uring, no futex
  // wait in it, or io_uring refused to this process): the caller waits another way.
  FutexId futexIs(Callback handler);
  // Arms the wait of `id` on the futex word `word` (shared, not FUTEX_PRIVATE), in place of
  // the one it had: the wait ends when the word is woken, or at once when it does not hold
  // `expected`, and the handler then runs once. The kernel sees the wait when the loop next
  // sleeps or polls, so a wake that comes before is not missed: the word holds a new value
  // then. Returns false, arming nothing, when the last wait of `id` ended otherwise (the
  // kernel refused it, e.g. for a word that is not mapped): the caller waits another way.
  bool futexArm(FutexId id, const uint32_t* word, uint32_t expected);
  // Unregisters `id` and cancels its wait; its handler is not called again, even for a wait
  // that ended in this iteration. Does nothing for an unknown id. Never throws.
  void futexDel(FutexId id) noexcept;

  // Runs one iteration. Waits at most `maxWait` for an fd, a futex or the next timer: not at
  // all when it is zero or negative, a task is deferred, a futex handler is still to run or
  // a timer is due; with `forever`, for as long as it takes. Returns the number of fd and
  // futex handlers, timers and deferred tasks run; hooks are not counted, so 0 means
  // nothing was ready. Throws Kel::Exception when epoll_wait, io_uring_enter or
  // timerfd_settime fails, Kel::InternalException when called from one of the loop's
  // callbacks.
  size_t runOnce(std::chrono::nanoseconds maxWait = forever);
  // Runs iterations until stop() is called, and returns after finishing the iteration in
  // which the request is seen; the request is then consumed. A stop() made while the
  // loop is not running makes the next run() return without waiting.
  void run();
  // Runs iterations until `done()` is true, `timeout` has passed, or stop() is called (the
  // request is consumed). `done` is checked before the first iteration and after each.
  // Returns the last result of done().
  bool runUntil(const std::function<bool()>& done, std::chrono::nanoseconds timeout);

  // Asks run() or runUntil() to return, and wakes a loop that sleeps. Safe from
  // any thread and from callbacks; never throws.
  void stop() noexcept;

 private:
  struct FdWatch {
    uint32_t serial;  // distinguishes a new registration of a reused fd number
    uint32_t events;
    FdHandler handler;
  };
  struct Timer {
    Callback callback;
    std::chrono::nanoseconds period;
  };
  // Deadlines are nanoseconds of CLOCK_MONOTONIC; ties fire in id (creation) order.
  using TimerKey = std::pair<std::chrono::nanoseconds, uint64_t>;
  struct Hook {
    uint64_t id;  // 0 once deleted while the hooks are running
    Callback callback;
  };
  struct FutexWatch {
    Callback handler;
    uint64_t wait = 0;    // the pending wait's tag in the ring; 0 for none
    uint32_t waits = 0;   // armed so far
    bool failed = false;  // the last wait ended in an error
  };
  class Ring;

  // One iteration that waits until `deadline` at most (CLOCK_MONOTONIC; forever, or
  // nanoseconds::min() for no waiting).
  size_t iterate(std::chrono::nanoseconds deadline);
  void waitForEvents(std::chrono::nanoseconds deadline);
  void waitInRing(bool block);
  void futexWaitCancel(uint64_t wait);
  size_t dispatchFds();
  size_t dispatchTimers();
  size_t runDeferred();
  void runHooks();
  void timerfdArm(std::chrono::nanoseconds deadline);
  bool stopRequested() noexcept;

  int epollFd_ = -1;
  int timerFd_ = -1;
  int wakeFd_ = -1;
  bool running_ = false;
  std::atomic<bool> stop_{false};

  absl::flat_hash_map<int, std::shared_ptr<FdWatch>> fds_;
  uint32_t fdSerial_ = 0;
  std::vector<epoll_event> events_;
  size_t eventCount_ = 0;

  std::map<TimerKey, Timer> timers_;
  absl::flat_hash_map<uint64_t, std::chrono::nanoseconds> timerDeadlines_;
  uint64_t timerIdLast_ = 0;
  std::chrono::nanoseconds timerfdDeadline_ = forever;  // forever: disarmed
  std::vector<uint64_t> timersDue_;

  std::vector<Callback> deferred_;
  std::vector<Callback> deferredRunning_;

  std::deque<Hook> hooks_;
  uint64_t hookIdLast_ = 0;
  bool hooksRunning_ = false;
  bool hookDeletedWhileRunning_ = false;

  // Created by the first futexIs(); null when the kernel refused it (ringRefused_).
  std::unique_ptr<Ring> ring_;
  bool ringRefused_ = false;
  bool ringPollsEpoll_ = false;  // a poll of epollFd_ is pending in the ring
  absl::flat_hash_map<uint64_t, std::shared_ptr<FutexWatch>> futexes_;
  uint64_t futexIdLast_ = 0;
  std::vector<uint64_t> futexesWoken_;  // ids whose wait ended, in order; handlers to run
};

}  // namespace Kel
