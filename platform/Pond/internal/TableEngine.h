// The engine of every Pond table: one writer process, any number of reader processes, a
// hash table in one shared-memory segment. Internal to platform/Pond: no public header
// includes it. Pond::TableCore holds it, out of line; the typed face is Pond::PondMap
// (Pond/PondMap.h). The engine works on key and row bytes; the typed face supplies the key
// equality, where the rows hold their keys, and the conversions.
//
// Who may do what:
//   - exactly one process (the writer) calls upsert, erase and clear; it maps the segment
//     read-write;
//   - readers map the segment read-only and call find, next and readLog; they never take
//     a lock and never make the writer wait;
//   - the writer reads its own rows in place (findOwn); its iteration uses the reader
//     path.
// What a reader may observe: every row it returns was committed by the writer as a whole
// (per-slot seqlocks; rows are copied out, then checked). A lookup that races with the
// writer sees the row before or after the change. A reader that finds the structure
// inconsistent (an index out of bounds, a chain that loops, a record that does not fit)
// throws Pond::CorruptionError, never reads out of bounds. A reader never waits without
// bound: a row that stays half-written, or keeps changing, for 2 s while the writer lives
// is Pond::WriterStuckError. A segment truncated under a reader or the writer does not
// kill it (see MappingGuard.h): every call that met the damage throws CorruptionError.
//
// The writer's allocator state (free slots, free heap blocks) lives in the writer's own
// memory and is rebuilt from the segment whenever a writer attaches: a writer killed at any
// instant leaves a readable table, and the next one repairs what the dead one left
// half-written.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Pond/IterHint.h"
#include "Pond/TableCore.h"
#include "Pond/TableSizing.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"

namespace Pond {

namespace internal {

// What a table's group provides to it.
class GroupLink {
 public:
  virtual const std::string& groupName() const = 0;
  virtual const SegmentOptions& segmentOptions() const = 0;
  // Writer: a change was logged (the group decides when readers are woken).
  virtual void noteChange() = 0;
  // Whether the group's writer process is alive, and its pid (0 when none).
  virtual bool writerAlive() const = 0;
  virtual uint32_t writerPid() const = 0;

 protected:
  ~GroupLink() = default;
};

// The shape of a table's rows, from the typed face.
using RowLayout = TableCore::RowFormat;

class TableEngine {
 public:
  // Creates the table, or attaches to the one a previous writer left (repairing it).
  // Throws Pond::SegmentError when an existing table has another layout.
  static std::unique_ptr<TableEngine> attachWriter(GroupLink& group, const std::string& table,
                                                   const RowLayout& layout,
                                                   const TableSizing& sizing);
  // Opens the table for reading; null when it does not exist (yet). Throws
  // Pond::SegmentError when it exists but cannot be trusted.
  static std::unique_ptr<TableEngine> openReader(GroupLink& group, const std::string& table,
                                                 const RowLayout& layout);
  ~TableEngine();

  const std::string& tableName() const noexcept { return table_; }
  bool writer() const noexcept { return writer_; }
  uint32_t capacity() const noexcept { return capacity_; }
  // Bytes a caller's buffer needs for one row or record.
  uint32_t bufferSize() const noexcept { return bufferSize_; }
  uint32_t rowCount() const noexcept;
  uint64_t version() const noexcept;
  ino_t inode() const noexcept { return segment_.inode(); }
  // Segment bytes resident in memory (pages touched), from mincore.
  uint64_t residentBytes() const;
  // The segment was truncated under this process: every row read fails from now on.
  bool damaged() const noexcept { return segment_.damaged(); }
  // The last read gave up on a stuck writer, which is still the group's writer.
  bool writerStuck() const;

  // Copies the row (fixed rows: rowSize bytes) or record of `key` into `out` (bufferSize()
  // bytes) and returns true; false when absent. `recordLen` receives the record's length.
  bool find(const void* key, uint32_t hash, uint8_t* out, uint32_t* recordLen) const;

  // The writer's own lookup. Nothing else changes the table under its writer, so it
  // reads in place, without the readers' seqlock protocol and without a copy; what it
  // returns stays valid until the writer's next change. The row (fixed rows) or record of
  // `key`, and its length; null when absent. Inline: the typed face's one out-of-line
  // call reaches it, and it compares key bytes itself (see holdsKey).
  const uint8_t* findOwn(const void* key, uint32_t hash, uint32_t* len) const {
    const uint8_t* found = findOwnUnchecked(key, hash, len);
    // relaxed: the flag is this thread's own (see MappingGuard.h).
    if (damaged_->load(std::memory_order_relaxed)) [[unlikely]] {
      truncated();
    }
    return found;
  }
  const uint8_t* findOwnUnchecked(const void* key, uint32_t hash, uint32_t* len) const {
    // Plain loads: only this process stores to the table.
    uint32_t link = buckets_[hash & bucketMask_].head;
    for (uint32_t hops = 0; link != kNoSlot; ++hops) {
      if (link > capacity_ || hops >= capacity_) [[unlikely]] {
        corruptChain(hash, link, hops);
      }
      const SlotHeader* s = slot(link - 1);
      const uint8_t* data = slotData(link - 1);
      if (s->hash == hash && (s->flags & kSlotLive) && holdsKey(data, key)) {
        if (layout_.variable) {
          return ownRecord(data, len);
        }
        *len = layout_.rowSize;
        return data;
      }
      link = s->next;
    }
    return nullptr;
  }
  // Copies the next row at or after hint.slot, moves the hint past it and returns true;
  // false at the end. `keyOut` (variable rows) receives its key; with `keyOnly`, a
  // variable row's record is not copied (`recordLen` is 0).
  bool next(IterHint& hint, uint8_t* out, uint32_t* recordLen, void* keyOut,
            bool keyOnly = false) const;

  // Writer only. `row` has rowSize bytes (fixed rows) or `len` bytes (variable rows, at
  // most rowSize). Throws Pond::TableFullException when the table (or its record heap) is
  // full; nothing is changed then.
  void upsert(const void* key, uint32_t hash, const uint8_t* row, uint32_t len);
  bool erase(const void* key, uint32_t hash);
  // Writer only: whether the record heap takes records of these lengths on top of what it
  // holds, each in a block of its size class. True for fixed rows, which need no heap.
  bool heapHolds(const std::vector<uint32_t>& recordLengths) const;
  uint64_t heapBytes() const noexcept { return heapBytes_; }
  // Writer: backs the pages that `rows` more rows with `recordBytes` bytes of records will
  // be written to (see TableCore::populate).
  void populate(uint32_t rows, uint64_t recordBytes) const;

  enum class LogRead { entry, overrun };
  uint64_t logHead() const noexcept;
  uint32_t logEntries() const noexcept { return logEntries_; }
  // Reads entry `seq` (below logHead()): its op (kLogSet, kLogDelete) and key. `overrun`
  // when the entry has been overwritten since.
  LogRead readLog(uint64_t seq, void* keyOut, uint32_t* op) const;

 private:
  struct Geometry;
  TableEngine(GroupLink& group, std::string table, const RowLayout& layout, Segment segment,
              bool writer);
  static Geometry geometry(const RowLayout& layout, const TableSizing& sizing,
                           const std::string& where);
  void bind();
  void validate(const RowLayout& layout) const;
  // A writer's repair: rebuildWriterState and the steps it takes (`created`: a table this
  // writer has just created, whose chains are all empty).
  struct Repair;
  void rebuildWriterState(bool created);
  void repairChain(uint32_t bucketIndex, Repair& repair);
  bool keepChained(uint32_t index, uint32_t bucketIndex, Repair& repair);
  bool claimRecord(HeapRef ref, Repair& repair) const;
  void rebuildFreeSlots(const Repair& repair);
  void rebuildHeap(const std::vector<std::vector<uint64_t>>& usedBlocks);
  void initHeapClasses();

  TableHeader* header() const noexcept { return reinterpret_cast<TableHeader*>(segment_.base()); }
  Bucket* bucket(uint32_t hash) const noexcept { return buckets_ + (hash & bucketMask_); }
  SlotHeader* slot(uint32_t index) const noexcept {
    return reinterpret_cast<SlotHeader*>(slots_ + uint64_t{index} * slotSize_);
  }
  uint8_t* slotData(uint32_t index) const noexcept {
    return slots_ + uint64_t{index} * slotSize_ + sizeof(SlotHeader);
  }

  // Whether slot data (or a copy of it: a fixed row) holds `key`. Keys that compare
  // bytewise are compared where the slot keeps them, without a call through the layout.
  bool holdsKey(const uint8_t* data, const void* key) const {
    if (keyOffset_ != RowLayout::kKeyNotBytewise) [[likely]] {
      return sameBytes(data + keyOffset_, key, layout_.keySize);
    }
    return holdsKeySlow(data, key);
  }
  bool holdsKeySlow(const uint8_t* data, const void* key) const;
  // Whether two keys (their bytes) are equal.
  bool sameKey(const void* a, const void* b) const {
    return keyOffset_ != RowLayout::kKeyNotBytewise ? sameBytes(a, b, layout_.keySize)
                                                    : layout_.keyEqual(a, b);
  }
  // memcmp, with keys of 4 to 16 bytes (most keys) compared in registers: two loads from
  // each end, which overlap for the sizes in between.
  static bool sameBytes(const void* a, const void* b, uint32_t n) {
    const auto* p = static_cast<const uint8_t*>(a);
    const auto* q = static_cast<const uint8_t*>(b);
    if (n >= 8 && n <= 16) {
      return load<uint64_t>(p) == load<uint64_t>(q) &&
             load<uint64_t>(p + n - 8) == load<uint64_t>(q + n - 8);
    }
    if (n >= 4 && n < 8) {
      return load<uint32_t>(p) == load<uint32_t>(q) &&
             load<uint32_t>(p + n - 4) == load<uint32_t>(q + n - 4);
    }
    return std::memcmp(a, b, n) == 0;
  }
  template <class W>
  static W load(const uint8_t* p) {
    W w;
    std::memcpy(&w, p, sizeof(W));
    return w;
  }

  // The record a variable row's slot data refers to, and its length.
  const uint8_t* ownRecord(const uint8_t* slotData, uint32_t* recordLen) const {
    HeapRef ref;
    std::memcpy(&ref, slotData, sizeof(ref));
    if (ref.length == 0 || ref.length > bufferSize_ || (ref.offset & 7) != 0 ||
        uint64_t{ref.offset} + ((ref.length + 7) & ~7u) > heapBytes_) [[unlikely]] {
      checkRecord(ref, static_cast<uint32_t>((slotData - slots_) / slotSize_));
    }
    *recordLen = ref.length;
    return heap_ + ref.offset;
  }

  // Waits for a seqlock counter to be even and returns it.
  uint32_t waitEven(const uint32_t* seq, const char* what, uint32_t index) const {
    // acquire: the fields the counter guards must not be read before it.
    uint32_t s = loadAcquire(seq);
    return (s & 1) == 0 ? s : waitEvenSlow(seq, what, index);
  }
  uint32_t waitEvenSlow(const uint32_t* seq, const char* what, uint32_t index) const;
  // Throws CorruptionError when the segment was found truncated.
  void checkIntact() const {
    // relaxed: the flag is set by this thread's fault handler, or another's (see
    // MappingGuard.h); a read that met the zero pages is checked after it.
    if (damaged_->load(std::memory_order_relaxed)) [[unlikely]] {
      truncated();
    }
  }
  [[noreturn, gnu::cold]] void truncated() const;
  // A read got through: checks the segment, and forgets a writer found stuck before.
  void readDone() const {
    checkIntact();
    stuckWriter_ = 0;
  }
  // A read retried: throws WriterStuckError once retries went on for the bound.
  void retried(uint32_t& retries, int64_t& since, const char* what, uint32_t index) const {
    if ((++retries & 1023) == 0) [[unlikely]] {
      checkProgress(since, what, index);
    }
  }
  void checkProgress(int64_t& since, const char* what, uint32_t index) const;
  [[noreturn, gnu::cold]] void stuck(const std::string& what) const;
  [[noreturn]] void corrupt(const std::string& what) const;
  [[noreturn, gnu::cold]] void corruptChain(uint32_t hash, uint32_t link, uint32_t hops) const;
  void checkRecord(HeapRef ref, uint32_t index) const;

  // Writer helpers.
  uint32_t findSlot(const void* key, uint32_t hash, uint32_t* prev) const;
  void unlink(Bucket* b, uint32_t prev, uint32_t next);
  uint32_t allocSlot();
  uint32_t allocBlock(uint32_t len);
  void freeBlock(HeapRef ref);
  void appendLog(uint32_t op, const void* key);
  void changed();

  GroupLink& group_;
  std::string table_;
  std::string where_;  // "table 'route' of mount group 'lfib'", for messages
  RowLayout layout_;
  Segment segment_;
  bool writer_;
  const std::atomic<uint32_t>* damaged_ = nullptr;  // segment_.damagedFlag()
  // The pid of a writer found stuck by the last read, until a read gets through: later
  // reads give up on it without waiting the whole bound again.
  mutable uint32_t stuckWriter_ = 0;

  // Cached from the validated header.
  uint32_t capacity_ = 0;
  uint32_t bucketMask_ = 0;
  uint32_t slotSize_ = 0;
  uint32_t keyBytes_ = 0;   // key size rounded up to 8
  uint32_t keyOffset_ = RowLayout::kKeyNotBytewise;  // of the key in slot data, if bytewise
  uint32_t rowBytes_ = 0;   // fixed: row size rounded up to 8
  uint32_t bufferSize_ = 0;
  uint32_t logEntries_ = 0;
  uint32_t logEntrySize_ = 0;
  uint32_t chunkSize_ = 0;
  uint32_t chunkCount_ = 0;
  uint64_t heapBytes_ = 0;
  Bucket* buckets_ = nullptr;
  uint8_t* slots_ = nullptr;
  uint8_t* log_ = nullptr;
  uint8_t* chunkClass_ = nullptr;
  uint8_t* heap_ = nullptr;

  // The writer's private state.
  std::vector<uint32_t> freeSlots_;  // slot indexes, most recently freed last
  std::vector<uint32_t> classSize_;  // record size classes, ascending
  std::vector<uint8_t> classOf8_;    // (len + 7) / 8 -> class
  struct Chunk {
    uint32_t live = 0;
    std::vector<uint16_t> freeBlocks;
  };
  std::vector<Chunk> chunks_;
  std::vector<std::vector<uint32_t>> partialChunks_;  // per class: chunks with free blocks
  std::vector<uint32_t> freeChunks_;
  uint32_t chunkHighWater_ = 0;
};

}  // namespace internal
}  // namespace Pond
