#include "Kel/EventLoop.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

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

}  // namespace

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

size_t EventLoop::runOnce(nanoseconds maxWait) {
  KEL_ASSERT(!running_, "the loop is run from one of its own callbacks");
  running_ = true;
  OnExit done([this] { running_ = false; });
  waitForEvents(maxWait);
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
    runOnce(deadline == forever ? forever : deadline - now);
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
  if (!stop_.exchange(false, std::memory_order_acquire)) {
    return false;
  }
  drain(wakeFd_);
  return true;
}

void EventLoop::waitForEvents(nanoseconds maxWait) {
  eventCount_ = 0;
  int timeout = 0;
  if (deferred_.empty() && maxWait > nanoseconds::zero()) {
    nanoseconds now = monotonicNow();
    nanoseconds wake = saturatingAdd(now, maxWait);
    if (!timers_.empty()) {
      wake = std::min(wake, timers_.begin()->first.first);
    }
    if (wake > now) {
      timerfdArm(wake);
      timeout = -1;
    }
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
  size_t count = eventCount_;
  eventCount_ = 0;
  size_t n = 0;
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
