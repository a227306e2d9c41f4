// The timer wheel: due order across levels and beyond the wheel's span, cancellation,
// callbacks that schedule and cancel, an exception in a callback, and a real event loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <vector>

#include "Corekit/TimerWheel.h"
#include "Kel/EventLoop.h"

namespace {

using namespace Corekit;
using Id = TimerWheel::TimerId;

// Random timers on whole milliseconds up to 300 s (every level up to 3), a quarter of them
// cancelled, the clock moved in random jumps: after each move exactly the timers due by
// then have fired, in (time, scheduling) order, and none early.
TEST(TimerWheel, FiresWhatIsDueInDueOrder) {
  auto clock = Kel::manualClockFactory(0);
  auto wheel = timerWheelFactory(clock);
  std::mt19937 rng(11);
  struct Timer {
    int64_t ms;
    bool cancelled;
  };
  std::vector<Timer> timers;
  std::vector<Id> ids;
  std::vector<size_t> fired;
  for (size_t i = 0; i < 3000; ++i) {
    const int64_t ms = rng() % (i % 3 ? 300'000 : 200);
    timers.push_back({ms, false});
    ids.push_back(wheel->timerIs(double(ms) * 0.001, [&, i] {
      EXPECT_GE(clock->now(), double(timers[i].ms) * 0.001 - 1e-9) << i;
      fired.push_back(i);
    }));
  }
  for (size_t i = 0; i < timers.size(); i += 4) {
    timers[i].cancelled = true;
    EXPECT_TRUE(wheel->timerDel(ids[i]));
    EXPECT_FALSE(wheel->timerDel(ids[i]));
  }
  std::vector<size_t> order;
  for (size_t i = 0; i < timers.size(); ++i) {
    if (!timers[i].cancelled) {
      order.push_back(i);
    }
  }
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return timers[a].ms < timers[b].ms; });
  int64_t now = 0;
  while (now < 301'000) {
    now += rng() % 3 ? 1 + rng() % 50 : 1 + rng() % 20'000;
    clock->nowIs(double(now) * 0.001);
    const size_t due = std::count_if(order.begin(), order.end(), [&](size_t i) { return timers[i].ms <= now; });
    ASSERT_EQ(fired.size(), due) << "at " << now << " ms";
  }
  EXPECT_EQ(fired, order);
  EXPECT_EQ(wheel->timers(), 0u);
  EXPECT_FALSE(wheel->timerHas(ids[1]));
  EXPECT_FALSE(wheel->timerDel(ids[1]));
}

TEST(TimerWheel, KeepsTimersBeyondItsSpan) {
  auto clock = Kel::manualClockFactory(0);
  auto wheel = timerWheelFactory(clock, nullptr, 1.0);  // spans 2^48 s
  const double far = 1e15;
  int fired = 0;
  const Id id = wheel->timerIs(far, [&] { ++fired; });
  clock->nowIs(far / 2);
  clock->nowIs(far - 1);
  EXPECT_EQ(fired, 0);
  EXPECT_TRUE(wheel->timerHas(id));
  clock->nowIs(far);
  EXPECT_EQ(fired, 1);
}

TEST(TimerWheel, CallbacksScheduleAndCancel) {
  auto clock = Kel::manualClockFactory(0);
  auto wheel = timerWheelFactory(clock);
  std::vector<std::string> log;
  // At 10, 20 and 30 ms, rescheduled by itself: all within the one move to 100 ms.
  double next = 0.010;
  std::function<void()> repeat = [&] {
    log.push_back("repeat");
    if (std::count(log.begin(), log.end(), "repeat") < 3) {
      wheel->timerIs(next += 0.010, repeat);
    }
  };
  wheel->timerIs(next, repeat);
  Id self = Id::none;
  Id victim = Id::none;
  self = wheel->timerIs(0.005, [&] {
    log.push_back("self");
    EXPECT_FALSE(wheel->timerDel(self));        // firing: no longer pending
    EXPECT_TRUE(wheel->timerDel(victim));       // same tick, not yet run
    wheel->timerIs(clock->now(), [&] { log.push_back("now"); });  // the next tick
    EXPECT_EQ(log.back(), "self");
  });
  victim = wheel->timerIs(0.005, [&] { log.push_back("victim"); });
  clock->nowIs(0.005);
  EXPECT_EQ(log, (std::vector<std::string>{"self"}));
  clock->nowIs(0.100);
  EXPECT_EQ(log, (std::vector<std::string>{"self", "now", "repeat", "repeat", "repeat"}));

  // A callback's exception leaves the rest of its tick for the next advance.
  wheel->timerIs(0.2, [] { throw std::runtime_error("boom"); });
  wheel->timerIs(0.2, [&] { log.push_back("after"); });
  EXPECT_THROW(clock->nowIs(0.2), std::runtime_error);
  EXPECT_EQ(log.back(), "repeat");
  wheel->advance();
  EXPECT_EQ(log.back(), "after");
  EXPECT_EQ(wheel->timers(), 0u);
}

TEST(TimerWheel, RunsOnTheEventLoop) {
  Kel::EventLoop loop;
  auto clock = Kel::systemClock();
  auto wheel = timerWheelFactory(clock, &loop);
  std::vector<int> fired;
  for (int ms : {30, 10, 20, 15}) {
    const double when = clock->now() + ms * 0.001;
    const Id id = wheel->timerIs(when, [&, ms, when] {
      EXPECT_GE(clock->now(), when - 1e-8);  // never early, but for the tick's slack
      fired.push_back(ms);
    });
    if (ms == 15) {
      wheel->timerDel(id);
    }
  }
  EXPECT_TRUE(loop.runUntil([&] { return fired.size() == 3; }, std::chrono::seconds(10)));
  EXPECT_EQ(fired, (std::vector<int>{10, 20, 30}));
  EXPECT_EQ(wheel->timers(), 0u);
}

}  // namespace
