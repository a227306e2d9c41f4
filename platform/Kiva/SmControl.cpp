#include "Kiva/SmControl.h"

#include <time.h>

#include <algorithm>
#include <utility>

#include "Kel/Exception.h"
#include "Kiva/internal/QuotaTimer.h"

namespace Kiva {

namespace {

std::chrono::nanoseconds monotonicNow() noexcept {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

}  // namespace

SmControl::SmControl(Kel::EventLoop* loop, uint32_t keysPerSlice)
    : loop_(loop), keysPerSlice_(keysPerSlice), expired_(&internal::QuotaTimer::neverExpired()) {}

SmControl::~SmControl() {
  while (head_) {
    unlink(head_);
  }
  delete timer_;
}

void SmControl::quotaIs(std::chrono::nanoseconds quota) {
  KEL_ASSERT(quota > std::chrono::nanoseconds::zero(), "a slice's quota must be positive");
  quota_ = quota;
}

void SmControl::enqueue(Task* task) {
  task->prev_ = tail_;
  task->next_ = nullptr;
  (tail_ ? tail_->next_ : head_) = task;
  tail_ = task;
  task->linked_ = true;
  ++pending_;
  deferSlice();
}

void SmControl::unlink(Task* task) noexcept {
  (task->prev_ ? task->prev_->next_ : head_) = task->next_;
  (task->next_ ? task->next_->prev_ : tail_) = task->prev_;
  task->prev_ = task->next_ = nullptr;
  task->linked_ = false;
  --pending_;
}

void SmControl::deferSlice() {
  if (!loop_ || sliceDeferred_ || inSlice_) {
    return;
  }
  sliceDeferred_ = true;
  loop_->defer([self = Ptr(this)] {
    self->sliceDeferred_ = false;
    self->runSlice();
  });
}

void SmControl::sliceBegin() {
  sliceKeys_ = 0;
  if (keysPerSlice_ == 0 && !timer_) {
    timer_ = new internal::QuotaTimer();
    expired_ = &timer_->expired();
  }
  // Read before arming: a slice that ran its quota out measures at least the quota.
  sliceStart_ = monotonicNow();
  if (keysPerSlice_ == 0) {
    timer_->arm(quota_);
  }
  inSlice_ = true;
}

void SmControl::sliceEnd() noexcept {
  const std::chrono::nanoseconds took = monotonicNow() - sliceStart_;
  if (timer_) {
    timer_->disarm();
  }
  inSlice_ = false;
  ++slices_;
  sliceMax_ = std::max(sliceMax_, took);
  sliceTotal_ += took;
  if (sliceObserver_) {
    sliceObserver_(took);
  }
}

bool SmControl::sliceOver() const noexcept {
  if (keysPerSlice_ != 0) {
    return sliceKeys_ >= keysPerSlice_;
  }
  return expired_->load(std::memory_order_relaxed);
}

bool SmControl::runSlice() {
  KEL_ASSERT(!inSlice_, "a slice is run from inside a task");
  if (!head_) {
    return false;
  }
  sliceBegin();
  struct End {
    SmControl* control;
    ~End() {
      control->running_ = nullptr;
      control->sliceEnd();
      if (control->head_) {
        control->deferSlice();
      }
    }
  } end{this};
  do {
    Task* task = head_;
    unlink(task);
    running_ = task;
    runningDestroyed_ = false;
    const bool more = task->slice_();
    if (!runningDestroyed_ && more && !task->linked_) {
      enqueue(task);
    }
    running_ = nullptr;
  } while (head_ && !sliceOver());
  return true;
}

uint64_t SmControl::runPending() {
  uint64_t n = 0;
  while (runSlice()) {
    ++n;
  }
  return n;
}

SmControl::Ptr smControlFactory(Kel::EventLoop* loop) { return Kel::make<SmControl>(loop, 0); }

SmControl::Ptr countingSmControlFactory(uint32_t keysPerSlice, Kel::EventLoop* loop) {
  KEL_ASSERT(keysPerSlice > 0, "a counted slice holds at least one key");
  return Kel::make<SmControl>(loop, keysPerSlice);
}

// ---------------------------------------------------------------------------------------
// Task

Task::Task(SmControl::Ptr control, std::string name, Slice slice)
    : control_(std::move(control)), name_(std::move(name)), slice_(std::move(slice)) {
  KEL_ASSERT(control_ && slice_, "a task needs a control and a slice");
}

Task::~Task() {
  cancel();
  if (control_->running_ == this) {
    control_->runningDestroyed_ = true;
  }
}

void Task::schedule() {
  if (!linked_) {
    control_->enqueue(this);
  }
}

void Task::cancel() noexcept {
  if (linked_) {
    control_->unlink(this);
  }
}

}  // namespace Kiva
