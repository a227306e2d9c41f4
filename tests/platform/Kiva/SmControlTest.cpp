// Kiva's control: counted slices for deterministic scheduling, timed slices that end by a
// timer's signal, and slices on an event loop that leave the loop's other work its turn.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Kel/EventLoop.h"
#include "Kel/Exception.h"
#include "Kiva/SmControl.h"

namespace {

using namespace std::chrono_literals;

// A scan of `keys` keys that records which key each slice started at.
struct Scan {
  Scan(const Kiva::SmControl::Ptr& control, std::string name, int keys)
      : keys(keys), task(control, std::move(name), [this] { return slice(); }) {}
  bool slice() {
    starts.push_back(next);
    while (next < keys) {
      ++next;
      if (task.control()->shouldYield()) {
        return next < keys;
      }
    }
    return false;
  }
  int keys;
  int next = 0;
  std::vector<int> starts;
  Kiva::Task task;
};

std::chrono::nanoseconds now() { return std::chrono::steady_clock::now().time_since_epoch(); }

TEST(SmControl, CountedSlicesRunTasksInTurnUntilDone) {
  auto control = Kiva::countingSmControlFactory(3);
  Scan a(control, "a", 7), b(control, "b", 2), c(control, "c", 5);
  a.task.schedule();
  b.task.schedule();
  c.task.schedule();
  EXPECT_EQ(control->pendingTasks(), 3u);
  EXPECT_FALSE(control->idle());

  // Slice 1: a yields after 3 keys. Slice 2: b finishes with 2, c yields after 1 more.
  EXPECT_TRUE(control->runSlice());
  EXPECT_EQ(a.next, 3);
  EXPECT_EQ(b.next, 0);
  EXPECT_TRUE(control->runSlice());
  EXPECT_EQ(b.next, 2);
  EXPECT_EQ(c.next, 1);
  EXPECT_FALSE(b.task.scheduled());

  // c is cancelled, then comes back at the back of the queue.
  c.task.cancel();
  EXPECT_EQ(control->runPending(), 2u);  // a: keys 4-6, then 7
  EXPECT_EQ(a.starts, (std::vector<int>{0, 3, 6}));
  c.task.schedule();
  control->runPending();
  EXPECT_EQ(c.starts, (std::vector<int>{0, 1, 4}));
  EXPECT_TRUE(control->idle());
  EXPECT_FALSE(control->runSlice());
  EXPECT_EQ(control->slices(), 6u);

  // A task destroyed while queued, or inside its own slice, is gone from the queue.
  {
    Scan d(control, "d", 10);
    d.task.schedule();
  }
  EXPECT_TRUE(control->idle());
  auto* e = new Scan(control, "e", 10);
  Kiva::Task killer(control, "killer", [&] { return delete e, false; });
  killer.schedule();
  e->task.schedule();
  control->runPending();
  EXPECT_TRUE(control->idle());

  EXPECT_THROW(control->quotaIs(0ns), Kel::InternalException);
  EXPECT_THROW(Kiva::countingSmControlFactory(0), Kel::InternalException);
}

// A busy scan far longer than the quota yields at least once, and every slice's time is
// handed to the observer.
TEST(SmControl, TimedSliceEndsAfterItsQuota) {
  auto control = Kiva::smControlFactory();
  EXPECT_EQ(control->quota(), Kiva::SmControl::defaultQuota);
  control->quotaIs(1ms);
  std::vector<std::chrono::nanoseconds> observed;
  control->sliceObserverIs([&](std::chrono::nanoseconds t) { observed.push_back(t); });
  const auto busyUntil = now() + 50ms;
  int yields = 0;
  Kiva::Task busy(control, "busy", [&] {
    while (now() < busyUntil) {
      if (control->shouldYield()) {
        return ++yields, true;
      }
    }
    return false;
  });
  busy.schedule();
  control->runPending();
  EXPECT_GE(yields, 1);
  EXPECT_EQ(observed.size(), control->slices());
  EXPECT_GE(control->sliceMax(), 1ms);  // a timer never fires early
  EXPECT_GT(control->sliceTotal(), control->sliceMax());
}

// On a loop, every slice is one iteration: an always-ready fd is served between any two
// slices. A signal that interrupts epoll_wait leaves the loop usable.
TEST(SmControl, LoopRunsOtherWorkBetweenSlices) {
  Kel::EventLoop loop;
  auto control = Kiva::smControlFactory(&loop);
  const int fd = eventfd(1, EFD_CLOEXEC);
  int served = 0;
  loop.fdIs(fd, EPOLLIN, [&](uint32_t) { ++served; });
  std::vector<int> servedAtSlice;
  const auto busyUntil = now() + 20ms;
  Kiva::Task busy(control, "busy", [&] {
    servedAtSlice.push_back(served);
    while (now() < busyUntil) {
      if (control->shouldYield()) {
        return true;
      }
    }
    return false;
  });
  busy.schedule();
  EXPECT_TRUE(loop.runUntil([&] { return control->idle(); }, 10s));
  ASSERT_GE(servedAtSlice.size(), 2u);
  for (size_t i = 1; i < servedAtSlice.size(); ++i) {
    EXPECT_GT(servedAtSlice[i], servedAtSlice[i - 1]);
  }
  loop.fdDel(fd);
  close(fd);

  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  std::thread poke([tid] {
    std::this_thread::sleep_for(200ms);
    syscall(SYS_tgkill, getpid(), tid, Kiva::quotaSignal());
  });
  const auto before = now();
  EXPECT_EQ(loop.runOnce(5s), 0u);  // woken by the signal, nothing ready
  EXPECT_LT(now() - before, 4s);
  poke.join();
}

}  // namespace
