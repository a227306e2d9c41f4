#include "Kel/EventLoop.h"

#include <linux/io_uring.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Kel/Exception.h"

namespace Kel {

namespace {

using std::chrono::nanoseconds;

constexpr size_t kEventsInitial = 64;
constexpr size_t kEventsMax = 1024;

[[noreturn]] void throwErrno(std::string_view call, int err) {
  throw Exception(fmt::format("EventLoop: {} failed: {}", call, std::strerror(err)));
}

nanoseconds monotonicNow() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::chrono::seconds(ts.tv_sec) + nanoseconds(ts.tv_nsec);
}

nanoseconds saturatingAdd(nanoseconds a, nanoseconds b) {
  return b >= EventLoop::forever - a ? EventLoop::forever : a + b;
}

// Internal fds carry serial 0; registrations start at 1.
uint64_t eventKey(uint32_t serial, int fd) {
  return (uint64_t{serial} << 32) | static_cast<uint32_t>(fd);
}

void drain(int fd) {
  uint64_t count;
  while (::read(fd, &count, sizeof count) > 0) {
  }
}

template <class F>
class OnExit {
 public:
  explicit OnExit(F f) : f_(std::move(f)) {}
  ~OnExit() { f_(); }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  F f_;
};

// Tags of the ring's submissions (user_data). A futex wait's is its watch's id, then the
// number of waits armed for it before (24 bits), so that the end of a wait replaced is
// told from its successor's.
constexpr uint64_t kTagIgnored = 0;  // cancellations: their outcome tells nothing
constexpr uint64_t kTagEpoll = 1;    // the poll of the epoll fd
constexpr int kTagWaitBits = 24;

// Not in every distribution's kernel headers yet (Linux 6.7).
constexpr uint8_t kOpFutexWait = 51;
constexpr uint32_t kFutex2SizeU32 = 0x02;
constexpr uint64_t kFutexBitsetAny = 0xffffffffull;

}  // namespace

// The io_uring the loop sleeps in once it waits on futex words. Its completions are
// deferred to the loop's thread (IORING_SETUP_DEFER_TASKRUN), the only one that submits: a
// futex wake from another process queues the completion and wakes the thread sleeping in
// io_uring_enter, which runs it before it returns.
class EventLoop::Ring {
 public:
  // Null when the kernel has no io_uring, no futex wait or deferred completions in it, or
  // refuses io_uring to this process.
  static std::unique_ptr<Ring> create() {
    io_uring_params p{};
    p.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_TASKRUN_FLAG;
    const int fd = static_cast<int>(::syscall(__NR_io_uring_setup, kEntries, &p));
    if (fd < 0) {
      return nullptr;
    }
    std::unique_ptr<Ring> ring(new Ring);
    ring->fd_ = fd;
    std::vector<uint8_t> probeBytes(sizeof(io_uring_probe) + 256 * sizeof(io_uring_probe_op));
    auto* probe = reinterpret_cast<io_uring_probe*>(probeBytes.data());
    auto supports = [probe](uint8_t op) {
      return probe->last_op >= op && (probe->ops[op].flags & IO_URING_OP_SUPPORTED);
    };
    if (!(p.features & IORING_FEAT_SINGLE_MMAP) ||
        ::syscall(__NR_io_uring_register, fd, IORING_REGISTER_PROBE, probe, 256) < 0 ||
        !supports(kOpFutexWait) || !supports(IORING_OP_POLL_ADD) ||
        !supports(IORING_OP_ASYNC_CANCEL)) {
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
    ring->sqMask_ = *reinterpret_cast<uint32_t*>(base + p.sq_off.ring_mask);
    ring->sqEntries_ = p.sq_entries;
    ring->sqArray_ = reinterpret_cast<uint32_t*>(base + p.sq_off.array);
    ring->cqHead_ = reinterpret_cast<uint32_t*>(base + p.cq_off.head);
    ring->cqTail_ = reinterpret_cast<uint32_t*>(base + p.cq_off.tail);
    ring->cqMask_ = *reinterpret_cast<uint32_t*>(base + p.cq_off.ring_mask);
    ring->cqes_ = reinterpret_cast<io_uring_cqe*>(base + p.cq_off.cqes);
    return ring;
  }

  ~Ring() {
    if (sqes_) {
      ::munmap(sqes_, sqesBytes_);
    }
    if (rings_) {
      ::munmap(rings_, ringsBytes_);
    }
    if (fd_ >= 0) {
      ::close(fd_);  // cancels what is pending
    }
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  // The next submission entry, zeroed, tagged `tag`; submitted by the next enter(). A full
  // queue is submitted first.
  io_uring_sqe* prepare(uint64_t tag) {
    if (queued_ == sqEntries_) {
      enter(false);
    }
    // Only this thread writes the submission queue: the kernel reads what the release
    // store of the tail publishes.
    const uint32_t tail = *sqTail_;
    const uint32_t index = tail & sqMask_;
    io_uring_sqe* sqe = &sqes_[index];
    std::memset(sqe, 0, sizeof(*sqe));
    sqe->user_data = tag;
    sqArray_[index] = index;
    __atomic_store_n(sqTail_, tail + 1, __ATOMIC_RELEASE);
    ++queued_;
    return sqe;
  }

  // Submits what is queued and runs the completions deferred to this thread; with `block`,
  // first sleeps until there is a completion. A signal cuts the sleep short.
  void enter(bool block) {
    const int n = static_cast<int>(::syscall(__NR_io_uring_enter, fd_, queued_, block ? 1 : 0,
                                             IORING_ENTER_GETEVENTS, nullptr, 0));
    if (n < 0) {
      if (errno == EINTR) {
        return;
      }
      throwErrno("io_uring_enter", errno);
    }
    queued_ -= std::min(queued_, static_cast<uint32_t>(n));
  }

  // Whether enter() has something to do without sleeping.
  bool busy() const noexcept {
    // acquire: the kernel raises the flag when it queues a completion for this thread.
    return queued_ != 0 || (__atomic_load_n(sqFlags_, __ATOMIC_ACQUIRE) & IORING_SQ_TASKRUN) != 0;
  }

  // Calls f(tag, result) for each completion that came, in order.
  template <class F>
  void reap(F&& f) {
    uint32_t head = *cqHead_;
    // acquire: the completions are read after the tail that publishes them.
    const uint32_t tail = __atomic_load_n(cqTail_, __ATOMIC_ACQUIRE);
    for (; head != tail; ++head) {
      const io_uring_cqe& cqe = cqes_[head & cqMask_];
      f(cqe.user_data, cqe.res);
    }
    __atomic_store_n(cqHead_, head, __ATOMIC_RELEASE);  // release: the entries were read
  }

 private:
  static constexpr unsigned kEntries = 64;

  Ring() = default;

  int fd_ = -1;
  void* rings_ = nullptr;
  size_t ringsBytes_ = 0;
  io_uring_sqe* sqes_ = nullptr;
  size_t sqesBytes_ = 0;
  uint32_t* sqFlags_ = nullptr;
  uint32_t* sqTail_ = nullptr;
  uint32_t sqMask_ = 0;
  uint32_t sqEntries_ = 0;
  uint32_t* sqArray_ = nullptr;
  uint32_t* cqHead_ = nullptr;
  uint32_t* cqTail_ = nullptr;
  uint32_t cqMask_ = 0;
  io_uring_cqe* cqes_ = nullptr;
  uint32_t queued_ = 0;  // prepared, not submitted
};

EventLoop::EventLoop() : events_(kEventsInitial) {
  try {
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) {
      throwErrno("epoll_create1", errno);
    }
    timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timerFd_ < 0) {
      throwErrno("timerfd_create", errno);
    }
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) {
      throwErrno("eventfd", errno);
    }
    for (int fd : {timerFd_, wakeFd_}) {
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = eventKey(0, fd);
      if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
        throwErrno("epoll_ctl", errno);
      }
    }
  } catch (...) {
    for (int fd : {epollFd_, timerFd_, wakeFd_}) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
    throw;
  }
}

EventLoop::~EventLoop() {
  ring_.reset();
  ::close(wakeFd_);
  ::close(timerFd_);
  ::close(epollFd_);
}

void EventLoop::fdIs(int fd, uint32_t events, FdHandler handler) {
  KEL_ASSERT(handler, "empty fd handler");
  KEL_ASSERT(fd != epollFd_ && fd != timerFd_ && fd != wakeFd_, "the fd belongs to the loop");
  auto it = fds_.find(fd);
  auto watch = std::make_shared<FdWatch>(FdWatch{0, events, std::move(handler)});
  auto fail = [fd](int err) { throwErrno(fmt::format("fdIs fd {}: epoll_ctl", fd), err); };
  auto add = [&] {
    if (++fdSerial_ == 0) {
      ++fdSerial_;
    }
    watch->serial = fdSerial_;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = eventKey(watch->serial, fd);
    return ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) == 0;
  };
  if (it == fds_.end()) {
    if (!add()) {
      fail(errno);
    }
    fds_.emplace(fd, std::move(watch));
    return;
  }
  watch->serial = it->second->serial;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = eventKey(watch->serial, fd);
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &ev) != 0) {
    // ENOENT: the fd was closed without fdDel and its number reused.
    if (errno != ENOENT || !add()) {
      fail(errno);
    }
  }
  it->second = std::move(watch);
}

void EventLoop::fdDel(int fd) noexcept {
  if (fds_.erase(fd) == 0) {
    return;
  }
  // Fails harmlessly when the fd was already closed.
  ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::TimerId EventLoop::timerIs(nanoseconds delay, Callback callback, nanoseconds period) {
  KEL_ASSERT(callback, "empty timer callback");
  nanoseconds deadline = saturatingAdd(monotonicNow(), std::max(delay, nanoseconds::zero()));
  uint64_t id = ++timerIdLast_;
  timers_.emplace(TimerKey{deadline, id},
                  Timer{std::move(callback), std::max(period, nanoseconds::zero())});
  try {
    timerDeadlines_.emplace(id, deadline);
  } catch (...) {
    timers_.erase(TimerKey{deadline, id});
    throw;
  }
  return TimerId{id};
}

void EventLoop::timerDel(TimerId timer) noexcept {
  auto it = timerDeadlines_.find(static_cast<uint64_t>(timer));
  if (it == timerDeadlines_.end()) {
    return;
  }
  // Absent from timers_ while its own callback runs.
  timers_.erase(TimerKey{it->second, it->first});
  timerDeadlines_.erase(it);
}

void EventLoop::defer(Callback task) {
  KEL_ASSERT(task, "empty deferred task");
  deferred_.push_back(std::move(task));
}

EventLoop::HookId EventLoop::afterIterationHookIs(Callback hook) {
  KEL_ASSERT(hook, "empty after-iteration hook");
  uint64_t id = ++hookIdLast_;
  hooks_.push_back(Hook{id, std::move(hook)});
  return HookId{id};
}

void EventLoop::afterIterationHookDel(HookId hook) noexcept {
  auto id = static_cast<uint64_t>(hook);
  if (id == 0) {
    return;
  }
  auto it = std::find_if(hooks_.begin(), hooks_.end(), [id](const Hook& h) { return h.id == id; });
  if (it == hooks_.end()) {
    return;
  }
  if (hooksRunning_) {
    // The hook may be the one running: it is destroyed once the hooks are done.
    it->id = 0;
    hookDeletedWhileRunning_ = true;
  } else {
    hooks_.erase(it);
  }
}

EventLoop::FutexId EventLoop::futexIs(Callback handler) {
  KEL_ASSERT(handler, "empty futex handler");
  if (!ring_ && !ringRefused_) {
    ring_ = Ring::create();
    ringRefused_ = !ring_;
  }
  if (!ring_) {
    return FutexId::none;
  }
  uint64_t id = ++futexIdLast_;
  futexes_.emplace(id, std::make_shared<FutexWatch>(FutexWatch{std::move(handler)}));
  return FutexId{id};
}

bool EventLoop::futexArm(FutexId id, const uint32_t* word, uint32_t expected) {
  auto it = futexes_.find(static_cast<uint64_t>(id));
  if (it == futexes_.end() || it->second->failed) {
    return false;
  }
  FutexWatch& watch = *it->second;
  if (watch.wait != 0) {
    // Possibly on a mapping since replaced at the same address: a new wait in any case.
    futexWaitCancel(watch.wait);
  }
  watch.wait = (it->first << kTagWaitBits) | (watch.waits++ & ((1u << kTagWaitBits) - 1));
  const uint64_t tag = watch.wait;
  io_uring_sqe* sqe = ring_->prepare(tag);
  sqe->opcode = kOpFutexWait;
  sqe->fd = static_cast<int32_t>(kFutex2SizeU32);  // shared: not FUTEX2_PRIVATE
  sqe->addr = reinterpret_cast<uint64_t>(word);
  sqe->off = expected;  // the value the wait expects
  sqe->addr3 = kFutexBitsetAny;
  return true;
}

void EventLoop::futexDel(FutexId id) noexcept {
  auto it = futexes_.find(static_cast<uint64_t>(id));
  if (it == futexes_.end()) {
    return;
  }
  if (it->second->wait != 0) {
    try {
      futexWaitCancel(it->second->wait);
    } catch (const Exception&) {
      // The queue could not be flushed: the wait stays, and its end is ignored.
    }
  }
  futexes_.erase(it);
}

void EventLoop::futexWaitCancel(uint64_t wait) {
  io_uring_sqe* sqe = ring_->prepare(kTagIgnored);
  sqe->opcode = IORING_OP_ASYNC_CANCEL;
  sqe->addr = wait;
}

size_t EventLoop::runOnce(nanoseconds maxWait) {
  return iterate(maxWait > nanoseconds::zero() ? saturatingAdd(monotonicNow(), maxWait)
                                               : nanoseconds::min());
}

size_t EventLoop::iterate(nanoseconds deadline) {
  KEL_ASSERT(!running_, "the loop is run from one of its own callbacks");
  running_ = true;
  OnExit done([this] { running_ = false; });
  waitForEvents(deadline);
  size_t n = dispatchFds();
  n += dispatchTimers();
  n += runDeferred();
  runHooks();
  return n;
}

void EventLoop::run() {
  while (!stopRequested()) {
    runOnce(forever);
  }
}

bool EventLoop::runUntil(const std::function<bool()>& done, nanoseconds timeout) {
  nanoseconds deadline = saturatingAdd(monotonicNow(), std::max(timeout, nanoseconds::zero()));
  for (;;) {
    if (done()) {
      return true;
    }
    nanoseconds now = monotonicNow();
    if (stopRequested() || now >= deadline) {
      return false;
    }
    // The same deadline at every iteration: the timerfd stays armed as it is.
    iterate(deadline);
  }
}

void EventLoop::stop() noexcept {
  stop_.store(true, std::memory_order_release);
  uint64_t one = 1;
  // Fails only when the counter is saturated: a wake-up is pending anyway.
  if (::write(wakeFd_, &one, sizeof one) < 0) {
  }
}

bool EventLoop::stopRequested() noexcept {
  // acquire, both: pair with stop()'s release. Loaded first: no write while nothing asks.
  if (!stop_.load(std::memory_order_acquire) ||
      !stop_.exchange(false, std::memory_order_acquire)) {
    return false;
  }
  drain(wakeFd_);
  return true;
}

void EventLoop::waitForEvents(nanoseconds deadline) {
  eventCount_ = 0;
  int timeout = 0;
  if (deferred_.empty() && futexesWoken_.empty() && deadline != nanoseconds::min()) {
    nanoseconds now = monotonicNow();
    nanoseconds wake = deadline;
    if (!timers_.empty()) {
      wake = std::min(wake, timers_.begin()->first.first);
    }
    if (wake > now) {
      timerfdArm(wake);
      timeout = -1;
    }
  }
  if (!futexes_.empty()) {
    waitInRing(timeout != 0);
    return;
  }
  int n = ::epoll_wait(epollFd_, events_.data(), static_cast<int>(events_.size()), timeout);
  if (n < 0) {
    if (errno == EINTR) {
      return;
    }
    throwErrno("epoll_wait", errno);
  }
  eventCount_ = static_cast<size_t>(n);
}

void EventLoop::waitInRing(bool block) {
  if (block && !ringPollsEpoll_) {
    // One-shot: armed again after each time it fires, when epoll is read, so that a
    // level-triggered fd still ready fires it again at once.
    io_uring_sqe* sqe = ring_->prepare(kTagEpoll);
    sqe->opcode = IORING_OP_POLL_ADD;
    sqe->fd = epollFd_;
    sqe->poll32_events = POLLIN;
    ringPollsEpoll_ = true;
  }
  if (block || ring_->busy()) {
    ring_->enter(block);
  }
  // Without sleeping, epoll is read as it would be without the ring; after a sleep, only
  // when its poll fired: a poll still pending says that no fd became ready since.
  bool readEpoll = !block;
  ring_->reap([&](uint64_t tag, int32_t result) {
    if (tag == kTagEpoll) {
      ringPollsEpoll_ = false;
      readEpoll = true;
      return;
    }
    auto watch = futexes_.find(tag >> kTagWaitBits);
    if (tag == kTagIgnored || watch == futexes_.end() || watch->second->wait != tag) {
      return;  // a cancellation, or a wait deleted or replaced
    }
    watch->second->wait = 0;
    // Woken, or the word did not hold the value expected; anything else is a failure,
    // which the next futexArm() reports.
    watch->second->failed = result != 0 && result != -EAGAIN;
    futexesWoken_.push_back(watch->first);
  });
  if (!readEpoll) {
    return;
  }
  int n = ::epoll_wait(epollFd_, events_.data(), static_cast<int>(events_.size()), 0);
  if (n < 0) {
    if (errno == EINTR) {
      return;
    }
    throwErrno("epoll_wait", errno);
  }
  eventCount_ = static_cast<size_t>(n);
}

void EventLoop::timerfdArm(nanoseconds deadline) {
  if (deadline == timerfdDeadline_) {
    return;
  }
  itimerspec spec{};
  if (deadline != forever) {
    auto secs = std::chrono::duration_cast<std::chrono::seconds>(deadline);
    spec.it_value.tv_sec = secs.count();
    spec.it_value.tv_nsec = (deadline - secs).count();
  }
  if (::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
    throwErrno("timerfd_settime", errno);
  }
  timerfdDeadline_ = deadline;
}

size_t EventLoop::dispatchFds() {
  size_t n = 0;
  if (!futexesWoken_.empty()) {
    size_t ran = 0;
    // After an exception the handlers not yet run stay for the next iteration.
    OnExit keep([this, &ran] {
      futexesWoken_.erase(futexesWoken_.begin(),
                          futexesWoken_.begin() + static_cast<std::ptrdiff_t>(ran));
    });
    while (ran < futexesWoken_.size()) {
      auto it = futexes_.find(futexesWoken_[ran++]);
      if (it == futexes_.end()) {
        continue;  // deleted meanwhile
      }
      // Holds the handler while it runs, even if it deletes itself.
      std::shared_ptr<FutexWatch> watch = it->second;
      ++n;
      watch->handler();
    }
  }
  size_t count = eventCount_;
  eventCount_ = 0;
  for (size_t i = 0; i < count; ++i) {
    const epoll_event& ev = events_[i];
    auto serial = static_cast<uint32_t>(ev.data.u64 >> 32);
    auto fd = static_cast<int>(static_cast<uint32_t>(ev.data.u64));
    if (serial == 0) {
      drain(fd);
      if (fd == timerFd_) {
        timerfdDeadline_ = forever;
      }
      continue;
    }
    auto it = fds_.find(fd);
    if (it == fds_.end() || it->second->serial != serial) {
      continue;
    }
    uint32_t revents = ev.events & (it->second->events | EPOLLERR | EPOLLHUP);
    if (revents == 0) {
      continue;
    }
    // Holds the handler while it runs, even if it deletes or replaces itself.
    std::shared_ptr<FdWatch> watch = it->second;
    ++n;
    watch->handler(revents);
  }
  if (count == events_.size() && count < kEventsMax) {
    events_.resize(count * 2);
  }
  return n;
}

size_t EventLoop::dispatchTimers() {
  if (timers_.empty()) {
    return 0;
  }
  nanoseconds now = monotonicNow();
  timersDue_.clear();
  for (const auto& entry : timers_) {
    if (entry.first.first > now) {
      break;
    }
    timersDue_.push_back(entry.first.second);
  }
  size_t n = 0;
  for (uint64_t id : timersDue_) {
    auto it = timerDeadlines_.find(id);
    if (it == timerDeadlines_.end()) {
      continue;
    }
    auto node = timers_.extract(TimerKey{it->second, id});
    Timer& timer = node.mapped();
    ++n;
    if (timer.period == nanoseconds::zero()) {
      timerDeadlines_.erase(it);
      timer.callback();
      continue;
    }
    nanoseconds missed = timer.period * ((now - it->second) / timer.period);
    nanoseconds next = saturatingAdd(saturatingAdd(it->second, missed), timer.period);
    it->second = next;
    OnExit reinsert([&, id, next] {
      auto again = timerDeadlines_.find(id);
      if (again != timerDeadlines_.end() && again->second == next) {
        node.key() = TimerKey{next, id};
        timers_.insert(std::move(node));
      }
    });
    timer.callback();
  }
  return n;
}

size_t EventLoop::runDeferred() {
  if (deferred_.empty()) {
    return 0;
  }
  deferredRunning_.swap(deferred_);
  size_t ran = 0;
  OnExit requeue([this, &ran] {
    // After an exception the tasks not yet run go back ahead of those deferred meanwhile.
    auto rest = deferredRunning_.begin() + static_cast<std::ptrdiff_t>(ran);
    deferred_.insert(deferred_.begin(), std::make_move_iterator(rest),
                     std::make_move_iterator(deferredRunning_.end()));
    deferredRunning_.clear();
  });
  while (ran < deferredRunning_.size()) {
    deferredRunning_[ran++]();
  }
  return ran;
}

void EventLoop::runHooks() {
  hooksRunning_ = true;
  OnExit compact([this] {
    hooksRunning_ = false;
    if (hookDeletedWhileRunning_) {
      hookDeletedWhileRunning_ = false;
      std::erase_if(hooks_, [](const Hook& h) { return h.id == 0; });
    }
  });
  size_t count = hooks_.size();
  for (size_t i = 0; i < count; ++i) {
    if (hooks_[i].id != 0) {
      hooks_[i].callback();
    }
  }
}

}  // namespace Kel
