#include "Pond/internal/MappingGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace Pond::internal {

namespace {

constexpr size_t kSlots = 4096;
MappingState gSlots[kSlots];
// Slots at or above it were never claimed: the handler scans below it.
std::atomic<size_t> gUsed{0};
MappingState gUnguarded;  // handed out when the registry is full; never damaged
struct sigaction gPrevious {};
uintptr_t gPage = 4096;

// Hands the signal on as if Pond's handler were not there.
void chain(int sig, siginfo_t* info, void* context) {
  if (gPrevious.sa_flags & SA_SIGINFO) {
    if (gPrevious.sa_sigaction) {
      gPrevious.sa_sigaction(sig, info, context);
      return;
    }
  } else if (gPrevious.sa_handler != SIG_DFL && gPrevious.sa_handler != SIG_IGN) {
    gPrevious.sa_handler(sig);
    return;
  }
  // The default action: a fault recurs when the access is retried, a sent signal is sent
  // again; either way the process ends as it would have.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  ::sigaction(sig, &dfl, nullptr);
  if (info == nullptr || info->si_code <= 0) {
    ::raise(sig);
  }
}

// Async-signal-safe: atomics, fstat and mmap only.
void onSigbus(int sig, siginfo_t* info, void* context) {
  if (info != nullptr && info->si_code > 0) {  // a fault, not a signal someone sent
    const auto addr = reinterpret_cast<uintptr_t>(info->si_addr);
    // acquire: the slots below the mark are read after it.
    const size_t used = gUsed.load(std::memory_order_acquire);
    for (size_t i = 0; i < used; ++i) {
      MappingState& m = gSlots[i];
      // acquire: pairs with guardMapping's release; the size and fd are read after it.
      const uintptr_t base = m.base.load(std::memory_order_acquire);
      const uint64_t size = m.size.load(std::memory_order_relaxed);
      if (base == 0 || addr < base || addr - base >= size) {
        continue;
      }
      const int savedErrno = errno;
      struct stat st {};
      const uint64_t fileSize =
          ::fstat(m.fd.load(std::memory_order_relaxed), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
      const uint64_t faultPage = (addr - base) & ~(gPage - 1);
      const uint64_t fileEnd = (fileSize + gPage - 1) & ~(gPage - 1);
      const uint64_t from = fileEnd < faultPage ? fileEnd : faultPage;
      const int prot = m.writable.load(std::memory_order_relaxed) ? PROT_READ | PROT_WRITE : PROT_READ;
      // relaxed, both: the engine reads the flag in the same thread, after the handler
      // returns, or in another after faulting itself or meeting the zero pages.
      m.fileSize.store(fileSize, std::memory_order_relaxed);
      m.damaged.store(1, std::memory_order_relaxed);
      void* p = ::mmap(reinterpret_cast<void*>(base + from), size - from, prot,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
      errno = savedErrno;
      if (p != MAP_FAILED) {
        return;
      }
      break;
    }
  }
  chain(sig, info, context);
}

void install() {
  gPage = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  struct sigaction sa {};
  sa.sa_sigaction = onSigbus;
  sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  ::sigemptyset(&sa.sa_mask);
  ::sigaction(SIGBUS, &sa, &gPrevious);
}

}  // namespace

MappingState* guardMapping(void* base, uint64_t size, int fd, bool writable) {
  static std::once_flag once;
  std::call_once(once, install);
  for (size_t i = 0; i < kSlots; ++i) {
    MappingState& m = gSlots[i];
    uint32_t expected = 0;
    // acq_rel: the claim is ordered with the release that freed the slot.
    if (!m.claimed.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
      continue;
    }
    // relaxed, these: published by the release store of the base below.
    m.size.store(size, std::memory_order_relaxed);
    m.fd.store(fd, std::memory_order_relaxed);
    m.writable.store(writable ? 1 : 0, std::memory_order_relaxed);
    m.damaged.store(0, std::memory_order_relaxed);
    m.fileSize.store(0, std::memory_order_relaxed);
    m.base.store(reinterpret_cast<uintptr_t>(base), std::memory_order_release);
    // release: the handler that sees the new mark sees the slot's fields.
    size_t used = gUsed.load(std::memory_order_relaxed);
    while (used < i + 1 &&
           !gUsed.compare_exchange_weak(used, i + 1, std::memory_order_release,
                                        std::memory_order_relaxed)) {
    }
    return &m;
  }
  return &gUnguarded;
}

void unguardMapping(MappingState* state) noexcept {
  if (state == nullptr || state == &gUnguarded) {
    return;
  }
  // release, both: the handler stops matching the mapping before the slot can be reused.
  state->base.store(0, std::memory_order_release);
  state->claimed.store(0, std::memory_order_release);
}

}  // namespace Pond::internal
