// The memory layout of Pond segments. Internal to platform/Pond.
//
// Nothing in a segment points: every reference is an offset or an index, checked against
// the segment's bounds by every reader before it is used. Every shared struct is
// standard-layout with a fixed size, asserted below. Fields that one process writes while
// others read are accessed only through the atomic helpers at the end of this file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Pond::internal {

constexpr uint64_t kGroupMagic = 0x31505247444e4f50ull;  // "PONDGRP1"
constexpr uint64_t kTableMagic = 0x31424154444e4f50ull;  // "PONDTAB1"
// 2: keys of up to 16 bytes hash with Kel's short-key mix.
// 3: group names are paths of up to 255 bytes (group headers of 320 bytes, tables' of 512).
constexpr uint32_t kLayoutVersion = 3;
constexpr uint32_t kNameMax = 64;        // bytes of a table name or of one component of a
                                         // group's path, without its zero
constexpr uint32_t kGroupNameMax = 255;  // bytes of a group's path, without its zero
constexpr uint32_t kMaxKeySize = 256;

// Chains link slots by index + 1, so that 0 ends a chain and a zero-filled segment holds
// empty buckets: a new table needs no initialisation, and bucket pages stay untouched
// (not resident) until used.
constexpr uint32_t kNoSlot = 0;

// The group segment: who writes the group's tables, and the word readers sleep on.
struct alignas(64) GroupHeader {
  uint64_t magic;
  uint32_t layoutVersion;
  uint32_t headerSize;
  char name[kGroupNameMax + 1];
  uint32_t writerPid;         // the attached writer, 0 when none
  uint32_t reserved1;
  uint64_t writerStartTime;   // its start time (clock ticks since boot, /proc/PID/stat)
  uint64_t incarnation;       // bumped by every writer that attaches
  uint32_t wakeSeq;           // futex word: bumped when the writer publishes changes
  uint32_t reserved2;
};
static_assert(std::is_standard_layout_v<GroupHeader> && sizeof(GroupHeader) == 320 &&
              offsetof(GroupHeader, writerPid) == 272 && offsetof(GroupHeader, wakeSeq) == 296);

// The table segment's header. Sizes and offsets are fixed by the creating writer;
// version, rowCount, slotHighWater and logHead move with every change.
struct alignas(64) TableHeader {
  uint64_t magic;
  uint32_t layoutVersion;
  uint32_t headerSize;
  uint64_t fingerprint;  // of the key and row types and their layout
  char group[kGroupNameMax + 1];
  char table[kNameMax + 1];
  uint8_t reserved0[7];
  uint32_t capacity;      // slots, the most rows the table holds
  uint32_t bucketCount;   // a power of two, at least capacity
  uint32_t slotSize;      // bytes per slot, a multiple of 8
  uint32_t keySize;       // bytes of a key
  uint32_t rowSize;       // fixed rows: bytes of a row; variable rows: the largest record
  uint32_t variable;      // 0: rows stored as they are; 1: serialised records in the heap
  uint32_t logEntries;    // a power of two
  uint32_t logEntrySize;  // bytes per log entry, a multiple of 8
  uint32_t chunkSize;     // heap chunk bytes (a power of two); 0 without a heap
  uint32_t chunkCount;
  uint64_t bucketsOffset;
  uint64_t slotsOffset;
  uint64_t logOffset;
  uint64_t chunkClassOffset;  // one byte per heap chunk: its size class + 1, 0 when unused
                              // (the classes follow from rowSize; a new rule for them
                              // needs a new layout version)
  uint64_t heapOffset;
  uint64_t segmentSize;
  uint64_t version;        // bumped by every change
  uint64_t logHead;        // sequence number of the next log entry
  uint32_t rowCount;
  uint32_t slotHighWater;  // slots at or above it have never been used
};
static_assert(std::is_standard_layout_v<TableHeader> && sizeof(TableHeader) == 512 &&
              offsetof(TableHeader, capacity) == 352 && offsetof(TableHeader, rowCount) == 456);

// A hash bucket: the head of a chain of slots, guarded by a sequence counter that is odd
// while the writer changes the chain.
struct Bucket {
  uint32_t seq;
  uint32_t head;  // first slot's index + 1; kNoSlot for an empty chain
};
static_assert(std::is_standard_layout_v<Bucket> && sizeof(Bucket) == 8);

// The head of every slot; the row (fixed rows) or a HeapRef and the key (variable rows)
// follow. seq is odd while the writer changes the slot.
struct SlotHeader {
  uint32_t seq;
  uint32_t hash;
  uint32_t next;   // the next slot's index + 1; kNoSlot at the end of the chain
  uint32_t flags;  // kSlotLive when the slot holds a row
};
static_assert(std::is_standard_layout_v<SlotHeader> && sizeof(SlotHeader) == 16);
constexpr uint32_t kSlotLive = 1;

// Where slot `index` of a table is: its header, and its row right after it.
constexpr uint64_t slotHeaderOffset(const TableHeader& h, uint32_t index) {
  return h.slotsOffset + uint64_t{index} * h.slotSize;
}
constexpr uint64_t slotRowOffset(const TableHeader& h, uint32_t index) {
  return slotHeaderOffset(h, index) + sizeof(SlotHeader);
}

// Where a variable row's record lives in the heap. Written as one 8-byte word.
struct HeapRef {
  uint32_t offset;  // from the heap's start, a multiple of 8
  uint32_t length;  // bytes of the record
};
static_assert(std::is_standard_layout_v<HeapRef> && sizeof(HeapRef) == 8);

// A change log entry; the changed key follows. seq is the entry's sequence number, stored
// last: an entry whose seq is not the one a reader expects has been overwritten.
struct LogEntryHeader {
  uint64_t seq;
  uint32_t op;  // kLogSet or kLogDelete
  uint32_t reserved;
};
static_assert(std::is_standard_layout_v<LogEntryHeader> && sizeof(LogEntryHeader) == 16);
constexpr uint32_t kLogSet = 1;
constexpr uint32_t kLogDelete = 2;

constexpr uint64_t roundUp8(uint64_t n) { return (n + 7) & ~uint64_t{7}; }

// ---------------------------------------------------------------------------------------
// Access to shared fields. Readers map segments read-only, so loads take const pointers.
// Each call site says why it needs the order it asks for.

inline uint32_t loadAcquire(const uint32_t* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline uint64_t loadAcquire(const uint64_t* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline uint32_t loadRelaxed(const uint32_t* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
inline uint64_t loadRelaxed(const uint64_t* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
inline void storeRelease(uint32_t* p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
inline void storeRelease(uint64_t* p, uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
inline void storeRelaxed(uint32_t* p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
inline void storeRelaxed(uint64_t* p, uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }

// Copies `bytes` (a multiple of 8, both sides 8-byte aligned) with relaxed atomic word
// accesses: the data of a seqlock section races with the writer by design, and is only
// trusted once the sequence counter has been read again unchanged.
inline void seqCopyOut(void* dst, const void* src, size_t bytes) {
  auto* d = static_cast<uint64_t*>(dst);
  const auto* s = static_cast<const uint64_t*>(src);
  for (size_t i = 0; i < bytes / 8; ++i) {
    d[i] = __atomic_load_n(s + i, __ATOMIC_RELAXED);
  }
}
inline void seqCopyIn(void* dst, const void* src, size_t bytes) {
  auto* d = static_cast<uint64_t*>(dst);
  const auto* s = static_cast<const uint64_t*>(src);
  for (size_t i = 0; i < bytes / 8; ++i) {
    __atomic_store_n(d + i, s[i], __ATOMIC_RELAXED);
  }
}

// Writer side of a seqlock section: odd on entry (release fence after, so the data stores
// that follow cannot be seen before it), even on exit (release, so they are seen first).
inline void seqBegin(uint32_t* seq) {
  // relaxed load: the writer's own counter; relaxed store: the fence below orders it.
  __atomic_store_n(seq, __atomic_load_n(seq, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
  // release: a reader that reads any store of the section reads the odd counter after it
  // (pairs with the reader's acquire fence before its second read of the counter).
  __atomic_thread_fence(__ATOMIC_RELEASE);
}
inline void seqEnd(uint32_t* seq) {
  // relaxed load: the writer's own counter; release store: publishes the section's stores
  // before the even counter (pairs with the reader's acquire load of it).
  __atomic_store_n(seq, __atomic_load_n(seq, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
}

}  // namespace Pond::internal
