// What keeps a truncated segment from killing the processes that map it. Internal to
// platform/Pond.
//
// A process maps a segment whole and trusts the size it mapped. Any process allowed to
// write the file may ftruncate it shorter; a load or a store beyond the new end then raises
// SIGBUS. Pond installs one process-wide SIGBUS handler (SA_SIGINFO) the first time it
// maps a segment. On a fault inside a mapping registered here, the handler replaces the
// mapping from the file's new end (rounded up to a page) on with anonymous zero pages
// (MAP_FIXED), marks the mapping damaged and returns: the faulting access completes on
// zeros, which readers already survive (every index, offset and length is checked), and
// the engine turns the mark into a Pond::CorruptionError at its next check. A fault
// anywhere else goes to the handler that was installed before Pond's, or takes the
// default action (the process dies, as it would have without Pond). A handler installed
// after Pond's must chain to it for Pond's protection to hold.
//
// The registry is a fixed array of slots, claimed and released with atomics: the handler
// reads it without a lock and registration never allocates. A mapping that finds the
// registry full is not protected (guardMapping returns a state that is never damaged).
//
// Threads: any thread may register and release mappings; a mapping's state is written by
// the handler of whichever thread faults in it.
#pragma once

#include <atomic>
#include <cstdint>

namespace Pond::internal {

struct MappingState {
  std::atomic<uint32_t> claimed{0};  // the slot is in use
  std::atomic<uintptr_t> base{0};    // 0 while the slot is being filled or released
  std::atomic<uint64_t> size{0};
  std::atomic<int> fd{-1};
  std::atomic<uint32_t> writable{0};
  std::atomic<uint32_t> damaged{0};    // 1 once the tail of the mapping is zero pages
  std::atomic<uint64_t> fileSize{0};   // the file's size when the damage was found
};

// Registers a mapping of the file `fd` (which must stay open while it is registered);
// installs the handler on first use.
MappingState* guardMapping(void* base, uint64_t size, int fd, bool writable);
// Forgets the mapping, before it is unmapped.
void unguardMapping(MappingState* state) noexcept;

}  // namespace Pond::internal
