// Pond::internal::FutexRing: an io_uring that waits on a futex word for the caller and
// signals an eventfd when the word is woken (Linux 6.7 and later: IORING_OP_FUTEX_WAIT).
// A reader's event loop then hears of a writer's publish with one wake-up, the loop's own,
// instead of two (a waiting thread's, then the loop's through the eventfd).
//
// One wait at a time: arm() submits a wait unless one is pending, reap() consumes the
// completion of the one that ended. The wait is on the word's shared-memory mapping (not a
// private futex), so a writer in another process wakes it with a plain FUTEX_WAKE.
//
// Threads: one thread uses a ring.
#pragma once

#include <linux/io_uring.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Pond::internal {

class FutexRing {
 public:
  // A ring whose completions signal `eventFd`; null when the kernel has no io_uring, no
  // futex wait on it, or refuses io_uring to this process.
  static std::unique_ptr<FutexRing> create(int eventFd);
  ~FutexRing();
  FutexRing(const FutexRing&) = delete;
  FutexRing& operator=(const FutexRing&) = delete;

  // Makes sure a wait on `word` is pending: one that ends (and signals the eventfd) when
  // the word is woken, at once when it no longer holds `seen`. False when the ring could
  // not submit it.
  bool arm(const uint32_t* word, uint32_t seen);
  // Consumes the completions that came.
  void reap();

 private:
  FutexRing() = default;

  int fd_ = -1;
  void* rings_ = nullptr;
  size_t ringsBytes_ = 0;
  io_uring_sqe* sqes_ = nullptr;
  size_t sqesBytes_ = 0;
  uint32_t* sqTail_ = nullptr;
  uint32_t* sqMask_ = nullptr;
  uint32_t* sqArray_ = nullptr;
  uint32_t* cqHead_ = nullptr;
  uint32_t* cqTail_ = nullptr;
  uint32_t* cqMask_ = nullptr;
  io_uring_cqe* cqes_ = nullptr;
  bool pending_ = false;
};

}  // namespace Pond::internal
