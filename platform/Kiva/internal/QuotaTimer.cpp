#include "Kiva/internal/QuotaTimer.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kiva/SmControl.h"

namespace Kiva {

int quotaSignal() noexcept { return SIGRTMIN + 7; }

namespace internal {

namespace {

constexpr int kSlots = 4096;

// Never destroyed: a late signal may still write a slot while the process exits.
std::array<std::atomic<bool>, kSlots>& flags() {
  static auto* slots = new std::array<std::atomic<bool>, kSlots>();
  return *slots;
}
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler stores to it");

struct SlotPool {
  std::mutex mutex;
  std::vector<int> free;
  int next = 0;
};

SlotPool& pool() {
  static auto* p = new SlotPool();
  return *p;
}

void onQuotaSignal(int, siginfo_t* info, void*) {
  if (info->si_code != SI_TIMER) {
    return;
  }
  const int slot = info->si_value.sival_int;
  if (slot >= 0 && slot < kSlots) {
    flags()[static_cast<size_t>(slot)].store(true, std::memory_order_relaxed);
  }
}

[[noreturn]] void throwErrno(const char* call, int error) {
  throw Kel::Exception(fmt::format("Kiva quota timer: {} failed: {}", call, std::strerror(error)));
}

void installHandler() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Both touched here first, so that the handler never runs a static initialiser.
    (void)flags();
    (void)pool();
    struct sigaction old {};
    if (::sigaction(quotaSignal(), nullptr, &old) != 0) {
      throwErrno("sigaction", errno);
    }
    const bool ours = (old.sa_flags & SA_SIGINFO) && old.sa_sigaction == &onQuotaSignal;
    if (!ours && old.sa_handler != SIG_DFL) {
      throw Kel::Exception(
          fmt::format("Kiva quota timer: signal {} already has a handler", quotaSignal()));
    }
    struct sigaction sa {};
    sa.sa_sigaction = &onQuotaSignal;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    if (::sigaction(quotaSignal(), &sa, nullptr) != 0) {
      throwErrno("sigaction", errno);
    }
  });
}

int slotGet() {
  SlotPool& p = pool();
  std::lock_guard lock(p.mutex);
  if (!p.free.empty()) {
    int slot = p.free.back();
    p.free.pop_back();
    return slot;
  }
  if (p.next == kSlots) {
    throw Kel::Exception(fmt::format("Kiva quota timer: more than {} timers", kSlots));
  }
  return p.next++;
}

void slotPut(int slot) {
  SlotPool& p = pool();
  std::lock_guard lock(p.mutex);
  p.free.push_back(slot);
}

}  // namespace

QuotaTimer::QuotaTimer() {
  installHandler();
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, quotaSignal());
  if (int error = ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr); error != 0) {
    throwErrno("pthread_sigmask", error);
  }
  slot_ = slotGet();
  flag_ = &flags()[static_cast<size_t>(slot_)];
  flag_->store(false, std::memory_order_relaxed);
  sigevent sev{};
  sev.sigev_notify = SIGEV_THREAD_ID;
  sev.sigev_signo = quotaSignal();
  sev.sigev_value.sival_int = slot_;
  sev._sigev_un._tid = ::gettid();
  if (::timer_create(CLOCK_MONOTONIC, &sev, &timer_) != 0) {
    const int error = errno;
    slotPut(slot_);
    throwErrno("timer_create", error);
  }
}

QuotaTimer::~QuotaTimer() {
  ::timer_delete(timer_);
  slotPut(slot_);
}

void QuotaTimer::arm(std::chrono::nanoseconds quota) {
  flag_->store(false, std::memory_order_relaxed);
  itimerspec expiry{};
  auto secs = std::chrono::duration_cast<std::chrono::seconds>(quota);
  expiry.it_value.tv_sec = secs.count();
  expiry.it_value.tv_nsec = (quota - secs).count();
  if (::timer_settime(timer_, 0, &expiry, nullptr) != 0) {
    throwErrno("timer_settime", errno);
  }
}

void QuotaTimer::disarm() noexcept {
  if (!flag_->load(std::memory_order_relaxed)) {
    itimerspec zero{};
    ::timer_settime(timer_, 0, &zero, nullptr);
  }
}

const std::atomic<bool>& QuotaTimer::neverExpired() noexcept {
  static const std::atomic<bool> never{false};
  return never;
}

}  // namespace internal
}  // namespace Kiva
