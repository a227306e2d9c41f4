#include "Pond/internal/FutexRing.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace Pond::internal {

namespace {

// Not in every distribution's kernel headers yet (Linux 6.7).
constexpr uint8_t kOpFutexWait = 51;
constexpr uint32_t kFutex2SizeU32 = 0x02;
constexpr uint64_t kFutexBitsetAny = 0xffffffffull;

int ioUringSetup(unsigned entries, io_uring_params* p) {
  return static_cast<int>(::syscall(__NR_io_uring_setup, entries, p));
}
// Submits `submit` entries and runs the completions deferred to this thread, without
// waiting for any.
int ioUringEnter(int fd, unsigned submit) {
  return static_cast<int>(
      ::syscall(__NR_io_uring_enter, fd, submit, 0, IORING_ENTER_GETEVENTS, nullptr, 0));
}
int ioUringRegister(int fd, unsigned op, void* arg, unsigned n) {
  return static_cast<int>(::syscall(__NR_io_uring_register, fd, op, arg, n));
}

}  // namespace

std::unique_ptr<FutexRing> FutexRing::create(int eventFd) {
  io_uring_params p{};
  // Completions run on this thread when it enters the ring (it alone submits); a wait that
  // ends raises IORING_SQ_TASKRUN, which ended() reads.
  p.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_TASKRUN_FLAG;
  const int fd = ioUringSetup(4, &p);
  if (fd < 0) {
    return nullptr;
  }
  std::unique_ptr<FutexRing> ring(new FutexRing);
  ring->fd_ = fd;
  if (!(p.features & IORING_FEAT_SINGLE_MMAP)) {
    return nullptr;
  }
  // Does this kernel know the futex wait?
  std::vector<uint8_t> probeBytes(sizeof(io_uring_probe) + 256 * sizeof(io_uring_probe_op));
  auto* probe = reinterpret_cast<io_uring_probe*>(probeBytes.data());
  if (ioUringRegister(fd, IORING_REGISTER_PROBE, probe, 256) < 0 ||
      probe->last_op < kOpFutexWait ||
      !(probe->ops[kOpFutexWait].flags & IO_URING_OP_SUPPORTED)) {
    return nullptr;
  }
  ring->ringsBytes_ = std::max<size_t>(p.sq_off.array + p.sq_entries * sizeof(uint32_t),
                                       p.cq_off.cqes + p.cq_entries * sizeof(io_uring_cqe));
  void* rings = ::mmap(nullptr, ring->ringsBytes_, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_POPULATE, fd, IORING_OFF_SQ_RING);
  if (rings == MAP_FAILED) {
    return nullptr;
  }
  ring->rings_ = rings;
  ring->sqesBytes_ = p.sq_entries * sizeof(io_uring_sqe);
  void* sqes = ::mmap(nullptr, ring->sqesBytes_, PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_POPULATE, fd, IORING_OFF_SQES);
  if (sqes == MAP_FAILED) {
    return nullptr;
  }
  ring->sqes_ = static_cast<io_uring_sqe*>(sqes);
  char* base = static_cast<char*>(rings);
  ring->sqFlags_ = reinterpret_cast<uint32_t*>(base + p.sq_off.flags);
  ring->sqTail_ = reinterpret_cast<uint32_t*>(base + p.sq_off.tail);
  ring->sqMask_ = reinterpret_cast<uint32_t*>(base + p.sq_off.ring_mask);
  ring->sqArray_ = reinterpret_cast<uint32_t*>(base + p.sq_off.array);
  ring->cqHead_ = reinterpret_cast<uint32_t*>(base + p.cq_off.head);
  ring->cqTail_ = reinterpret_cast<uint32_t*>(base + p.cq_off.tail);
  ring->cqMask_ = reinterpret_cast<uint32_t*>(base + p.cq_off.ring_mask);
  ring->cqes_ = reinterpret_cast<io_uring_cqe*>(base + p.cq_off.cqes);
  int efd = eventFd;
  if (ioUringRegister(fd, IORING_REGISTER_EVENTFD, &efd, 1) < 0) {
    return nullptr;
  }
  return ring;
}

FutexRing::~FutexRing() {
  if (sqes_) {
    ::munmap(sqes_, sqesBytes_);
  }
  if (rings_) {
    ::munmap(rings_, ringsBytes_);
  }
  if (fd_ >= 0) {
    ::close(fd_);  // ends the pending wait
  }
}

bool FutexRing::arm(const uint32_t* word, uint32_t seen) {
  // acquire: the kernel raises the flag when a wait ends and queues its completion for this
  // thread, which the io_uring_enter below runs.
  const bool woken = (__atomic_load_n(sqFlags_, __ATOMIC_ACQUIRE) & IORING_SQ_TASKRUN) != 0;
  unsigned submit = 0;
  if (pending_ == 0 || (woken && pending_ == 1)) {
    // Only this thread writes the submission queue: the kernel reads what the release
    // store of the tail publishes.
    const uint32_t tail = *sqTail_;
    const uint32_t index = tail & *sqMask_;
    io_uring_sqe* sqe = &sqes_[index];
    std::memset(sqe, 0, sizeof(*sqe));
    sqe->opcode = kOpFutexWait;
    sqe->fd = static_cast<int32_t>(kFutex2SizeU32);  // shared: not FUTEX2_PRIVATE
    sqe->addr = reinterpret_cast<uint64_t>(word);
    sqe->off = seen;  // the value the wait expects
    sqe->addr3 = kFutexBitsetAny;
    sqArray_[index] = index;
    __atomic_store_n(sqTail_, tail + 1, __ATOMIC_RELEASE);
    submit = 1;
  } else if (!woken) {
    return true;  // the pending wait still waits
  }
  // The new wait is submitted before the ended one completes: one system call for both.
  if (ioUringEnter(fd_, submit) != static_cast<int>(submit)) {
    return false;
  }
  pending_ += submit;
  bool waiting = true;
  uint32_t head = *cqHead_;
  // acquire: the completions are read after the tail that publishes them.
  const uint32_t tail = __atomic_load_n(cqTail_, __ATOMIC_ACQUIRE);
  for (; head != tail; ++head) {
    const int32_t res = cqes_[head & *cqMask_].res;
    // Woken, or the word no longer held the value: anything else and the ring cannot wait.
    waiting = waiting && (res == 0 || res == -EAGAIN);
    --pending_;
  }
  __atomic_store_n(cqHead_, head, __ATOMIC_RELEASE);  // release: the entries were read
  return waiting;
}

bool FutexRing::ended() const noexcept {
  // acquire: the kernel raises the flag before it signals the eventfd, and the eventfd's lock
  // orders the two: a reader that drained that signal sees the flag.
  return pending_ == 0 || (__atomic_load_n(sqFlags_, __ATOMIC_ACQUIRE) & IORING_SQ_TASKRUN) != 0;
}

}  // namespace Pond::internal
