// The event loop: fd handlers, timers, deferred tasks, after-iteration hooks, stopping,
// futex waits.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Kel/EventLoop.h"
#include "Kel/Exception.h"

namespace {

using namespace std::chrono_literals;
using Log = std::vector<std::string>;

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int in() const { return fds[0]; }
  void put() const { EXPECT_EQ(::write(fds[1], "x", 1), 1); }
  void take() const {
    char c;
    EXPECT_EQ(::read(fds[0], &c, 1), 1);
  }
};

TEST(EventLoop, FdHandlerRunsWhenReadableOnly) {
  Kel::EventLoop loop;
  Pipe p;
  std::vector<uint32_t> seen;
  loop.fdIs(p.in(), EPOLLIN, [&](uint32_t revents) {
    seen.push_back(revents);
    p.take();
  });
  EXPECT_EQ(loop.runOnce(0ns), 0u);
  EXPECT_TRUE(seen.empty());
  p.put();
  EXPECT_EQ(loop.runOnce(1s), 1u);
  EXPECT_EQ(seen, std::vector<uint32_t>{EPOLLIN});
  loop.fdDel(p.in());
  p.put();
  EXPECT_EQ(loop.runOnce(0ns), 0u);
  EXPECT_EQ(seen.size(), 1u);

  int closed = ::dup(p.in());
  ::close(closed);
  EXPECT_THAT([&] { loop.fdIs(closed, EPOLLIN, [](uint32_t) {}); },
              ::testing::ThrowsMessage<Kel::Exception>(::testing::AllOf(
                  ::testing::HasSubstr("fd " + std::to_string(closed)),
                  ::testing::HasSubstr("epoll_ctl"))));
}

TEST(EventLoop, HandlersChangeRegistrationsWhileRunning) {
  Kel::EventLoop loop;
  Pipe a, b, c;
  Log log;
  // Whichever of a and b runs first removes the other, whose event is already collected.
  auto removeOther = [&](const Pipe& self, const Pipe& other, std::string name) {
    return [&, name](uint32_t) {
      self.take();
      loop.fdDel(other.in());
      log.push_back(name);
    };
  };
  loop.fdIs(a.in(), EPOLLIN, removeOther(a, b, "a"));
  loop.fdIs(b.in(), EPOLLIN, removeOther(b, a, "b"));
  // c replaces itself, then deletes itself; the captured string must outlive both calls.
  std::string name = "c-first";
  loop.fdIs(c.in(), EPOLLIN, [&, name](uint32_t) {
    c.take();
    loop.fdIs(c.in(), EPOLLIN, [&, name = std::string("c-second")](uint32_t) {
      c.take();
      loop.fdDel(c.in());
      log.push_back(name);
    });
    log.push_back(name);
  });
  a.put();
  b.put();
  c.put();
  EXPECT_EQ(loop.runOnce(1s), 2u);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(std::count(log.begin(), log.end(), "a") + std::count(log.begin(), log.end(), "b"), 1);
  EXPECT_EQ(std::count(log.begin(), log.end(), "c-first"), 1);
  c.put();
  c.put();
  EXPECT_EQ(loop.runOnce(1s), 1u);
  EXPECT_EQ(log.back(), "c-second");
  EXPECT_EQ(loop.runOnce(0ns), 0u);  // c deleted, its second byte left unread
}

TEST(EventLoop, TimersFireInDeadlineOrderRepeatAndCancel) {
  Kel::EventLoop loop;
  Log log;
  auto start = std::chrono::steady_clock::now();
  loop.timerIs(10ms, [&] { log.push_back("10ms"); });
  loop.timerIs(5ms, [&] { log.push_back("5ms"); });
  loop.timerIs(0ms, [&] { log.push_back("0ms"); });
  auto created = std::chrono::steady_clock::now() - start;
  Kel::EventLoop::TimerId cancelled = loop.timerIs(1ms, [&] { log.push_back("cancelled"); });
  loop.timerDel(cancelled);
  EXPECT_TRUE(loop.runUntil([&] { return log.size() == 3; }, 1s));
  EXPECT_EQ(std::count(log.begin(), log.end(), "cancelled"), 0);
  if (created < 5ms) {  // otherwise the deadlines need not follow the delays
    EXPECT_EQ(log, (Log{"0ms", "5ms", "10ms"}));
  }

  // A periodic timer repeats until it deletes itself; a timer deleted by an earlier one
  // due in the same iteration does not fire.
  log.clear();
  int ticks = 0;
  Kel::EventLoop::TimerId periodic{};
  auto tick = [&] {
    if (++ticks == 3) {
      loop.timerDel(periodic);
    }
  };
  periodic = loop.timerIs(0ns, tick, 1ms);
  EXPECT_TRUE(loop.runUntil([&] { return ticks == 3; }, 1s));
  Kel::EventLoop::TimerId victim{};
  loop.timerIs(0ns, [&] {
    loop.timerDel(victim);
    loop.timerIs(0ns, [&] { log.push_back("added"); });
    log.push_back("killer");
  });
  victim = loop.timerIs(0ns, [&] { log.push_back("victim"); });
  EXPECT_EQ(loop.runOnce(0ns), 1u);
  EXPECT_EQ(log, Log{"killer"});
  bool later = false;
  loop.timerIs(3ms, [&] { later = true; });
  EXPECT_TRUE(loop.runUntil([&] { return later; }, 1s));
  EXPECT_EQ(log, (Log{"killer", "added"}));
  EXPECT_EQ(ticks, 3);
}

TEST(EventLoop, IterationRunsFdsTimersTasksThenHooks) {
  Kel::EventLoop loop;
  Pipe p;
  Log log;
  p.put();
  loop.afterIterationHookIs([&] { log.push_back("hook"); });
  loop.defer([&] {
    log.push_back("task1");
    loop.defer([&] { log.push_back("task3"); });
  });
  loop.timerIs(0ns, [&] { log.push_back("timer"); });
  loop.fdIs(p.in(), EPOLLIN, [&](uint32_t) {
    p.take();
    log.push_back("fd");
    loop.defer([&] { log.push_back("task2"); });
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(loop.runOnce(10s), 4u);
  EXPECT_EQ(log, (Log{"fd", "timer", "task1", "task2", "hook"}));
  log.clear();
  EXPECT_EQ(loop.runOnce(10s), 1u);  // a pending task: no waiting
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(log, (Log{"task3", "hook"}));

  // Hooks run once per iteration, even an idle one; one deleting itself stops.
  log.clear();
  Kel::EventLoop::HookId once{};
  once = loop.afterIterationHookIs([&, text = std::string("once")] {
    loop.afterIterationHookDel(once);
    log.push_back(text);
  });
  EXPECT_EQ(loop.runOnce(0ns), 0u);
  EXPECT_EQ(loop.runOnce(0ns), 0u);
  EXPECT_EQ(log, (Log{"hook", "once", "hook"}));

  // A task's exception reaches the caller; the tasks after it run next time.
  log.clear();
  loop.defer([] { throw std::runtime_error("task"); });
  loop.defer([&] { log.push_back("after"); });
  EXPECT_THROW(loop.runOnce(0ns), std::runtime_error);
  EXPECT_EQ(loop.runOnce(0ns), 1u);
  EXPECT_EQ(log, (Log{"after", "hook"}));
}

TEST(EventLoop, StopAndRunUntil) {
  Kel::EventLoop loop;
  bool watchdog = false;
  Kel::EventLoop::TimerId guard = loop.timerIs(5s, [&] {
    watchdog = true;
    loop.stop();
  });
  std::atomic<bool> started = false;
  loop.defer([&] { started = true; });
  std::thread stopper([&] {
    while (!started) {
      std::this_thread::sleep_for(1ms);
    }
    std::this_thread::sleep_for(20ms);  // let the loop fall asleep in epoll_wait
    loop.stop();
  });
  auto start = std::chrono::steady_clock::now();
  loop.run();
  stopper.join();
  EXPECT_FALSE(watchdog);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);

  // From a callback, and before run(); each request is consumed by the run it ends, so the
  // runUntil below waits for its whole timeout.
  loop.defer([&] { loop.stop(); });
  loop.run();
  loop.stop();
  loop.run();
  int iterations = 0;
  loop.afterIterationHookIs([&] { ++iterations; });
  EXPECT_TRUE(loop.runUntil([] { return true; }, 1s));
  EXPECT_EQ(iterations, 0);
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_GT(iterations, 0);
  EXPECT_FALSE(watchdog);
  loop.timerDel(guard);
}

// A wait ends once per futexArm(): when its word is woken (from another thread here; a
// process is the same to the kernel), or at once for a word that changed. A loop asleep on
// a futex still wakes for its fds (level-triggered), timers and stop(); a wait replaced or
// deleted runs nothing, and one the kernel refuses is reported by the next futexArm().
TEST(EventLoop, FutexWaitsEndWhenTheirWordIsWoken) {
  Kel::EventLoop loop;
  int woken = 0;
  Kel::EventLoop::FutexId id = loop.futexIs([&] { ++woken; });
  if (id == Kel::EventLoop::FutexId::none) {
    GTEST_SKIP() << "this kernel has no io_uring futex wait";
  }
  void* page = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  auto* words = static_cast<uint32_t*>(page);
  auto wake = [](uint32_t* word) {
    __atomic_fetch_add(word, 1, __ATOMIC_RELEASE);
    ::syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  };
  ASSERT_TRUE(loop.futexArm(id, &words[0], 0));
  EXPECT_EQ(loop.runOnce(0ns), 0u);
  std::thread waker([&] {
    std::this_thread::sleep_for(20ms);  // the loop is asleep
    wake(&words[0]);
  });
  EXPECT_EQ(loop.runOnce(5s), 1u);
  waker.join();
  wake(&words[0]);  // not armed again
  EXPECT_EQ(loop.runOnce(20ms), 0u);
  ASSERT_TRUE(loop.futexArm(id, &words[0], 0));  // it holds 2
  EXPECT_EQ(loop.runOnce(5s), 1u);
  EXPECT_EQ(woken, 2);
  ASSERT_TRUE(loop.futexArm(id, &words[0], 2));
  ASSERT_TRUE(loop.futexArm(id, &words[1], 0));
  wake(&words[0]);
  EXPECT_EQ(loop.runOnce(20ms), 0u);
  wake(&words[1]);
  EXPECT_EQ(loop.runOnce(5s), 1u);
  EXPECT_EQ(woken, 3);

  ASSERT_TRUE(loop.futexArm(id, &words[1], 1));
  Pipe p;
  loop.fdIs(p.in(), EPOLLIN, [](uint32_t) {});  // never read: ready until deleted
  p.put();
  EXPECT_EQ(loop.runOnce(5s), 1u);
  EXPECT_EQ(loop.runOnce(5s), 1u);
  loop.fdDel(p.in());
  bool fired = false;
  loop.timerIs(10ms, [&] { fired = true; });
  EXPECT_TRUE(loop.runUntil([&] { return fired; }, 5s));
  std::thread stopper([&] {
    std::this_thread::sleep_for(20ms);
    loop.stop();
  });
  loop.run();
  stopper.join();
  loop.futexDel(id);
  wake(&words[1]);
  EXPECT_EQ(loop.runOnce(20ms), 0u);
  EXPECT_EQ(woken, 3);
  EXPECT_FALSE(loop.futexArm(id, &words[1], 2));

  Kel::EventLoop::FutexId refused = loop.futexIs([&] { ++woken; });
  void* gone = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_EQ(::munmap(gone, 4096), 0);
  ASSERT_TRUE(loop.futexArm(refused, static_cast<uint32_t*>(gone), 0));
  EXPECT_EQ(loop.runOnce(5s), 1u);
  EXPECT_FALSE(loop.futexArm(refused, &words[0], 2));
  ::munmap(page, 4096);
}

}  // namespace
