// Pond::internal::FutexRing: an io_uring that waits on a futex word for the caller and
// signals an eventfd when the word is woken (Linux 6.7 and later: IORING_OP_FUTEX_WAIT).
// A reader that polls its group's change fd then hears of a writer's publish with one
// wake-up, its own, instead of two (a waiting thread's, then its own through the eventfd).
// (A Kel::EventLoop waits on the word itself: MountGroup::loopIs.)
//
// The ring defers its completions to the thread that owns it (IORING_SETUP_DEFER_TASKRUN):
// the writer's FUTEX_WAKE queues the wait's completion and signals the eventfd from the
// writer's own system call, so the owner's epoll_wait returns with the eventfd ready. A
// ring without that flag would interrupt the owner's epoll_wait to complete the wait in its
// context first (EINTR, then a second epoll_wait), and its completion would signal the
// eventfd a second time.
//
// The wait is on the word's shared-memory mapping (not a private futex), so a writer in
// another process wakes it with a plain FUTEX_WAKE. At most two waits are pending: arm()
// submits the next one in the same system call that completes the one that ended.
//
// Threads: the thread that creates a ring is the only one that may use it.
#pragma once

#include <linux/io_uring.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Pond::internal {

class FutexRing {
 public:
  // A ring whose waits signal `eventFd` when they end; null when the kernel has no io_uring,
  // no futex wait or no deferred completions on it, or refuses io_uring to this process.
  static std::unique_ptr<FutexRing> create(int eventFd);
  ~FutexRing();
  FutexRing(const FutexRing&) = delete;
  FutexRing& operator=(const FutexRing&) = delete;

  // Makes sure a wait on `word` is pending, one that ends (and signals the eventfd) when the
  // word is woken, at once when it no longer holds `seen`; consumes the completions of the
  // waits that ended. One system call when a wait ended, none otherwise. False when the
  // ring cannot wait (a submission refused, a wait failed otherwise than by ending): the
  // caller then waits another way.
  bool arm(const uint32_t* word, uint32_t seen);
  // Whether a wait ended that arm() has not consumed: its signal of the eventfd may have been
  // drained since, and the eventfd must be signalled again. Read after draining it.
  bool ended() const noexcept;

 private:
  FutexRing() = default;

  int fd_ = -1;
  void* rings_ = nullptr;
  size_t ringsBytes_ = 0;
  io_uring_sqe* sqes_ = nullptr;
  size_t sqesBytes_ = 0;
  uint32_t* sqFlags_ = nullptr;
  uint32_t* sqTail_ = nullptr;
  uint32_t* sqMask_ = nullptr;
  uint32_t* sqArray_ = nullptr;
  uint32_t* cqHead_ = nullptr;
  uint32_t* cqTail_ = nullptr;
  uint32_t* cqMask_ = nullptr;
  io_uring_cqe* cqes_ = nullptr;
  // Waits submitted whose completion was not consumed.
  uint32_t pending_ = 0;
};

}  // namespace Pond::internal
