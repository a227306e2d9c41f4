#include "Pond/internal/TableEngine.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>

#include <fmt/format.h>

#include "Kel/Binary.h"
#include "Pond/Exception.h"

namespace Pond::internal {

namespace {

constexpr uint32_t kMaxRecordLen = 65536;
constexpr uint32_t kMaxCapacity = 1u << 30;
constexpr uint32_t kDefaultLogMin = 1024;
constexpr uint32_t kDefaultLogMax = 65536;
constexpr uint32_t kMinChunk = 4096;
// How long a reader tries to get a stable read of one row or chain.
constexpr std::chrono::seconds kStableReadBound{2};

int64_t steadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

constexpr uint64_t align(uint64_t n, uint64_t to) { return (n + to - 1) / to * to; }

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

inline uint64_t packRef(HeapRef r) { return uint64_t{r.offset} | (uint64_t{r.length} << 32); }
inline HeapRef unpackRef(uint64_t w) {
  return HeapRef{static_cast<uint32_t>(w), static_cast<uint32_t>(w >> 32)};
}

}  // namespace

// The sizes and offsets of a table, computed the same way by the writer that creates it
// and by every process that checks it.
struct TableEngine::Geometry {
  uint32_t capacity;
  uint32_t bucketCount;
  uint32_t slotSize;
  uint32_t keySize;
  uint32_t rowSize;
  bool variable;
  uint32_t logEntries;
  uint32_t logEntrySize;
  uint32_t chunkSize;
  uint32_t chunkCount;
  uint64_t bucketsOffset;
  uint64_t slotsOffset;
  uint64_t logOffset;
  uint64_t chunkClassOffset;
  uint64_t heapOffset;
  uint64_t segmentSize;
};

TableEngine::Geometry TableEngine::geometry(const RowLayout& layout, const TableSizing& sizing,
                                            const std::string& where) {
  auto bad = [&](const std::string& why) { throw SegmentError(fmt::format("{}: {}", where, why)); };
  if (sizing.capacity == 0 || sizing.capacity > kMaxCapacity) {
    bad(fmt::format("capacity {} outside 1..{}", sizing.capacity, kMaxCapacity));
  }
  if (layout.keySize == 0 || layout.keySize > kMaxKeySize) {
    bad(fmt::format("key of {} bytes; at most {}", layout.keySize, kMaxKeySize));
  }
  Geometry g{};
  g.capacity = sizing.capacity;
  g.bucketCount = std::bit_ceil(sizing.capacity);
  g.keySize = layout.keySize;
  g.variable = layout.variable;
  uint64_t keyBytes = roundUp8(layout.keySize);
  if (layout.variable) {
    uint32_t maxRecord = sizing.maxRecordLen ? sizing.maxRecordLen : layout.rowSize;
    if (maxRecord == 0 || maxRecord > kMaxRecordLen) {
      bad(fmt::format("largest record of {} bytes outside 1..{}", maxRecord, kMaxRecordLen));
    }
    g.rowSize = maxRecord;
    g.slotSize = static_cast<uint32_t>(sizeof(SlotHeader) + sizeof(HeapRef) + keyBytes);
    g.chunkSize = std::max(kMinChunk, std::bit_ceil(static_cast<uint32_t>(roundUp8(maxRecord))));
    uint64_t heap = sizing.heapBytes
                        ? sizing.heapBytes
                        : uint64_t{sizing.capacity} * std::min<uint64_t>(roundUp8(maxRecord), 256);
    uint64_t chunks = std::max<uint64_t>((heap + g.chunkSize - 1) / g.chunkSize, 4);
    if (chunks > 0xFFFFFFFFull) {
      bad(fmt::format("record heap of {} bytes too large", heap));
    }
    g.chunkCount = static_cast<uint32_t>(chunks);
  } else {
    if (layout.rowSize == 0 || layout.rowSize > kMaxRecordLen) {
      bad(fmt::format("row of {} bytes outside 1..{}", layout.rowSize, kMaxRecordLen));
    }
    g.rowSize = layout.rowSize;
    g.slotSize = static_cast<uint32_t>(sizeof(SlotHeader) + roundUp8(layout.rowSize));
  }
  uint32_t log = sizing.logEntries
                     ? sizing.logEntries
                     : std::clamp(std::bit_ceil(sizing.capacity), kDefaultLogMin, kDefaultLogMax);
  if (log == 0 || log > kMaxCapacity) {
    bad(fmt::format("change log of {} entries outside 1..{}", log, kMaxCapacity));
  }
  g.logEntries = std::bit_ceil(log);
  g.logEntrySize = static_cast<uint32_t>(sizeof(LogEntryHeader) + keyBytes);
  // Every term below is at most 2^30 * 2^17; the sums stay far below 2^63.
  g.bucketsOffset = align(sizeof(TableHeader), 64);
  g.slotsOffset = align(g.bucketsOffset + uint64_t{g.bucketCount} * sizeof(Bucket), 64);
  g.logOffset = align(g.slotsOffset + uint64_t{g.capacity} * g.slotSize, 64);
  g.chunkClassOffset = g.logOffset + uint64_t{g.logEntries} * g.logEntrySize;
  g.heapOffset = align(g.chunkClassOffset + g.chunkCount, 4096);
  g.segmentSize = align(g.heapOffset + uint64_t{g.chunkCount} * g.chunkSize, 4096);
  return g;
}

TableEngine::TableEngine(GroupLink& group, std::string table, const RowLayout& layout,
                         Segment segment, bool writer)
    : group_(group),
      table_(std::move(table)),
      where_(fmt::format("table '{}' of mount group '{}'", table_, group.groupName())),
      layout_(layout),
      segment_(std::move(segment)),
      writer_(writer) {}

TableEngine::~TableEngine() = default;

std::unique_ptr<TableEngine> TableEngine::attachWriter(GroupLink& group, const std::string& table,
                                                       const RowLayout& layout,
                                                       const TableSizing& sizing) {
  Segment::checkName("table", table);
  std::string shm = Segment::tableShmName(group.groupName(), table);
  std::string where = fmt::format("table '{}' of mount group '{}'", table, group.groupName());
  Geometry g = geometry(layout, sizing, where);
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (auto existing = Segment::open(shm, true, sizeof(TableHeader))) {
      std::unique_ptr<TableEngine> e(
          new TableEngine(group, table, layout, std::move(*existing), true));
      e->validate(layout);
      const TableHeader* h = e->header();
      if (h->capacity != g.capacity || h->logEntries != g.logEntries ||
          h->rowSize != g.rowSize || h->chunkCount != g.chunkCount) {
        throw SegmentError(fmt::format(
            "{} exists with capacity {}, log {}, largest row {}, heap {} chunks; asked for "
            "{}, {}, {}, {}: remove its segments to create it anew",
            where, h->capacity, h->logEntries, h->rowSize, h->chunkCount, g.capacity,
            g.logEntries, g.rowSize, g.chunkCount));
      }
      e->rebuildWriterState(false);
      return e;
    }
    auto init = [&](uint8_t* base) {
      auto* h = reinterpret_cast<TableHeader*>(base);
      h->magic = kTableMagic;
      h->layoutVersion = kLayoutVersion;
      h->headerSize = sizeof(TableHeader);
      h->fingerprint = layout.fingerprint;
      std::memcpy(h->group, group.groupName().data(), group.groupName().size());
      std::memcpy(h->table, table.data(), table.size());
      h->capacity = g.capacity;
      h->bucketCount = g.bucketCount;
      h->slotSize = g.slotSize;
      h->keySize = g.keySize;
      h->rowSize = g.rowSize;
      h->variable = g.variable ? 1 : 0;
      h->logEntries = g.logEntries;
      h->logEntrySize = g.logEntrySize;
      h->chunkSize = g.chunkSize;
      h->chunkCount = g.chunkCount;
      h->bucketsOffset = g.bucketsOffset;
      h->slotsOffset = g.slotsOffset;
      h->logOffset = g.logOffset;
      h->chunkClassOffset = g.chunkClassOffset;
      h->heapOffset = g.heapOffset;
      h->segmentSize = g.segmentSize;
    };
    if (auto created = Segment::create(shm, g.segmentSize, group.segmentOptions(), init)) {
      std::unique_ptr<TableEngine> e(
          new TableEngine(group, table, layout, std::move(*created), true));
      e->validate(layout);
      e->rebuildWriterState(true);
      return e;
    }
    // Created by someone else between our open and create: look again.
  }
  throw SegmentError(fmt::format("{}: its segment keeps appearing and disappearing", where));
}

std::unique_ptr<TableEngine> TableEngine::openReader(GroupLink& group, const std::string& table,
                                                     const RowLayout& layout) {
  Segment::checkName("table", table);
  auto segment = Segment::open(Segment::tableShmName(group.groupName(), table), false,
                               sizeof(TableHeader));
  if (!segment) {
    return nullptr;
  }
  std::unique_ptr<TableEngine> e(new TableEngine(group, table, layout, std::move(*segment), false));
  e->validate(layout);
  return e;
}

// Everything a reader relies on is checked here, once: the header's identity, that its
// sizes are those this layout computes, and that the segment holds all of it.
void TableEngine::validate(const RowLayout& layout) const {
  auto bad = [&](const std::string& why) {
    throw SegmentError(fmt::format("{} (segment {}) cannot be used: {}", where_, segment_.name(), why));
  };
  TableHeader h;
  std::memcpy(&h, segment_.base(), sizeof(h));
  if (h.magic != kTableMagic) {
    bad(fmt::format("not a Pond table (magic {:#x})", h.magic));
  }
  if (h.layoutVersion != kLayoutVersion || h.headerSize != sizeof(TableHeader)) {
    bad(fmt::format("layout version {} with a {}-byte header; this build reads version {} ({})",
                    h.layoutVersion, h.headerSize, kLayoutVersion, sizeof(TableHeader)));
  }
  if (h.fingerprint != layout.fingerprint) {
    bad(fmt::format("it holds rows of another type than {} (fingerprint {:#x}, expected {:#x})",
                    layout.typeName, h.fingerprint, layout.fingerprint));
  }
  if (std::memchr(h.group, 0, sizeof(h.group)) == nullptr ||
      std::memchr(h.table, 0, sizeof(h.table)) == nullptr || group_.groupName() != h.group ||
      table_ != h.table) {
    bad("its header names another group or table");
  }
  if (h.keySize != layout.keySize || (h.variable != 0) != layout.variable ||
      (!layout.variable && h.rowSize != layout.rowSize)) {
    bad(fmt::format("key of {} bytes and {} rows of {} bytes; expected {}, {}, {}", h.keySize,
                    h.variable ? "variable" : "fixed", h.rowSize, layout.keySize,
                    layout.variable ? "variable" : "fixed", layout.rowSize));
  }
  TableSizing sizing;
  sizing.capacity = h.capacity;
  sizing.logEntries = h.logEntries;
  sizing.maxRecordLen = layout.variable ? h.rowSize : 0;
  sizing.heapBytes = uint64_t{h.chunkCount} * h.chunkSize;
  if (h.capacity == 0 || h.capacity > kMaxCapacity || !std::has_single_bit(h.logEntries) ||
      (layout.variable && (h.chunkCount < 4 || !std::has_single_bit(h.chunkSize)))) {
    bad("its sizes are out of range");
  }
  Geometry g = geometry(layout, sizing, where_);
  if (g.bucketCount != h.bucketCount || g.slotSize != h.slotSize ||
      g.logEntries != h.logEntries || g.logEntrySize != h.logEntrySize ||
      g.chunkSize != h.chunkSize || g.chunkCount != h.chunkCount ||
      g.bucketsOffset != h.bucketsOffset || g.slotsOffset != h.slotsOffset ||
      g.logOffset != h.logOffset || g.chunkClassOffset != h.chunkClassOffset ||
      g.heapOffset != h.heapOffset || g.segmentSize != h.segmentSize) {
    bad("its sizes and offsets do not match each other");
  }
  if (h.segmentSize > segment_.size()) {
    bad(fmt::format("truncated: {} bytes, its header claims {}", segment_.size(), h.segmentSize));
  }
  const_cast<TableEngine*>(this)->bind();
}

void TableEngine::bind() {
  const TableHeader* h = header();
  capacity_ = h->capacity;
  bucketMask_ = h->bucketCount - 1;
  slotSize_ = h->slotSize;
  keyBytes_ = static_cast<uint32_t>(roundUp8(h->keySize));
  rowBytes_ = h->variable ? 0 : static_cast<uint32_t>(roundUp8(h->rowSize));
  bufferSize_ = static_cast<uint32_t>(roundUp8(h->rowSize));
  logEntries_ = h->logEntries;
  logEntrySize_ = h->logEntrySize;
  chunkSize_ = h->chunkSize;
  chunkCount_ = h->chunkCount;
  heapBytes_ = uint64_t{chunkSize_} * chunkCount_;
  if (layout_.keyOffset != RowLayout::kKeyNotBytewise) {
    keyOffset_ = layout_.keyOffset + (layout_.variable ? static_cast<uint32_t>(sizeof(HeapRef)) : 0);
  }
  damaged_ = segment_.damagedFlag();
  uint8_t* base = segment_.base();
  buckets_ = reinterpret_cast<Bucket*>(base + h->bucketsOffset);
  slots_ = base + h->slotsOffset;
  log_ = base + h->logOffset;
  chunkClass_ = base + h->chunkClassOffset;
  heap_ = base + h->heapOffset;
}

// Readers size buffers by it: never more than the capacity, which the segment holds.
uint32_t TableEngine::rowCount() const noexcept {
  // relaxed: a statistic, ordered with nothing; the bound keeps a torn count harmless.
  return std::min(loadRelaxed(&header()->rowCount), capacity_);
}

// acquire: pairs with changed()'s release, so that a caller that sees a version reads the
// rows as they were at least at that version.
uint64_t TableEngine::version() const noexcept { return loadAcquire(&header()->version); }

// acquire: pairs with appendLog's release: the entries below the head are read after it,
// and the changes they record are visible in the table.
uint64_t TableEngine::logHead() const noexcept { return loadAcquire(&header()->logHead); }

uint64_t TableEngine::residentBytes() const {
  long page = ::sysconf(_SC_PAGESIZE);
  uint64_t pages = (segment_.size() + page - 1) / page;
  std::vector<unsigned char> vec(pages);
  if (::mincore(segment_.base(), segment_.size(), vec.data()) != 0) {
    return 0;
  }
  uint64_t resident = 0;
  for (unsigned char v : vec) {
    resident += v & 1;
  }
  return resident * page;
}

void TableEngine::corrupt(const std::string& what) const {
  checkIntact();  // what looks inconsistent may be the zero pages of a truncated segment
  throw CorruptionError(fmt::format("{}: {}", where_, what));
}

void TableEngine::truncated() const {
  throw CorruptionError(fmt::format("{}: its segment was truncated to {} bytes under the {} "
                                    "(it mapped {} bytes)",
                                    where_, segment_.fileSizeFound(),
                                    writer_ ? "writer" : "reader", segment_.size()));
}

bool TableEngine::writerStuck() const {
  return stuckWriter_ != 0 && stuckWriter_ == group_.writerPid();
}

void TableEngine::stuck(const std::string& what) const {
  stuckWriter_ = group_.writerPid();
  throw WriterStuckError(fmt::format("{}: its writer (pid {}) is stuck: {} for {} s", where_,
                                     stuckWriter_, what, kStableReadBound.count()));
}

void TableEngine::checkProgress(int64_t& since, const char* what, uint32_t index) const {
  checkIntact();
  const int64_t now = steadyNanos();
  if (since == 0) {
    since = now;
  } else if (now - since >= std::chrono::nanoseconds(kStableReadBound).count()) {
    stuck(fmt::format("{} {} kept changing without one stable read", what, index));
  }
}

// The writer holds a counter odd for the few stores of one change; a counter that stays
// odd means the writer was preempted, stopped or hung, or died. The clock and the writer's
// liveness are looked at only after many spins.
uint32_t TableEngine::waitEvenSlow(const uint32_t* seq, const char* what, uint32_t index) const {
  int64_t since = 0;
  for (uint32_t spins = 0;; ++spins) {
    uint32_t s = loadAcquire(seq);  // acquire: as waitEven's
    if ((s & 1) == 0) {
      stuckWriter_ = 0;
      return s;
    }
    if (spins < 256) {
      cpuRelax();
      continue;
    }
    ::sched_yield();
    if (spins == 256 || (spins & 0xfff) == 0) {
      checkIntact();
      if (!group_.writerAlive()) {
        corrupt(fmt::format("{} {} was left half-written by a writer that died", what, index));
      }
      const int64_t now = steadyNanos();
      if (spins == 256) {
        since = now;
        if (writerStuck()) {
          stuck(fmt::format("{} {} stayed half-written", what, index));
        }
      } else if (now - since >= std::chrono::nanoseconds(kStableReadBound).count()) {
        stuck(fmt::format("{} {} stayed half-written", what, index));
      }
    }
  }
}

void TableEngine::checkRecord(HeapRef ref, uint32_t index) const {
  if (ref.length == 0 || ref.length > bufferSize_ || (ref.offset & 7) != 0 ||
      uint64_t{ref.offset} + roundUp8(ref.length) > heapBytes_) {
    corrupt(fmt::format("slot {} refers to a record of {} bytes at heap offset {}", index,
                        ref.length, ref.offset));
  }
}

bool TableEngine::find(const void* key, uint32_t hash, uint8_t* out, uint32_t* recordLen) const {
  alignas(8) uint8_t slotKey[kMaxKeySize];
  const Bucket* b = bucket(hash);
  uint32_t retries = 0;
  int64_t since = 0;
  for (;;) {
    // acquire (waitEven): the chain is read after the bucket's sequence number.
    uint32_t bucketSeq = waitEven(&b->seq, "bucket", hash & bucketMask_);
    // acquire: the slot it names is read after the link, never from before it was filled.
    uint32_t link = loadAcquire(&b->head);
    bool found = false;
    for (uint32_t hops = 0; link != kNoSlot; ++hops) {
      uint32_t index = link - 1;
      if (index >= capacity_ || hops >= capacity_) {
        corruptChain(hash, link, hops);
      }
      const SlotHeader* s = slot(index);
      const uint8_t* data = slotData(index);
      // acquire (waitEven): the slot's fields are read after its sequence number.
      uint32_t seq = waitEven(&s->seq, "slot", index);
      // relaxed, these and the copies below: they race with the writer by design and are
      // trusted only once the slot's sequence number is read again unchanged.
      uint32_t slotHash = loadRelaxed(&s->hash);
      uint32_t next = loadRelaxed(&s->next);
      uint32_t flags = loadRelaxed(&s->flags);
      bool match = false;
      HeapRef ref{};
      if ((flags & kSlotLive) && slotHash == hash) {
        if (layout_.variable) {
          ref = unpackRef(__atomic_load_n(reinterpret_cast<const uint64_t*>(data), __ATOMIC_RELAXED));
          seqCopyOut(slotKey, data + sizeof(HeapRef), keyBytes_);
          // acquire: the loads above complete before the sequence number is read again.
          __atomic_thread_fence(__ATOMIC_ACQUIRE);
          if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
            break;  // the slot changed under us: start over
          }
          match = sameKey(slotKey, key);
        } else {
          seqCopyOut(out, data, rowBytes_);
          // acquire: the copy completes before the sequence number is read again.
          __atomic_thread_fence(__ATOMIC_ACQUIRE);
          if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
            break;
          }
          match = holdsKey(out, key);
        }
      } else {
        // acquire: the hash, link and flags are checked before they are trusted.
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
          break;
        }
      }
      if (match) {
        if (layout_.variable) {
          checkRecord(ref, index);
          // relaxed: the record is checked by the slot's sequence number, as above.
          seqCopyOut(out, heap_ + ref.offset, roundUp8(ref.length));
          // acquire: the record's copy completes before the sequence number is read again.
          __atomic_thread_fence(__ATOMIC_ACQUIRE);
          if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
            break;  // rewritten while copied: the record may be torn
          }
          *recordLen = ref.length;
        } else {
          *recordLen = layout_.rowSize;
        }
        found = true;
        break;
      }
      link = next;
    }
    // acquire: the whole walk completes before the bucket's sequence number is read again.
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    // relaxed: ordered by the fence.
    if (loadRelaxed(&b->seq) == bucketSeq && (found || link == kNoSlot)) {
      readDone();
      return found;
    }
    // The chain changed, or a slot changed under us: walk it again.
    retried(retries, since, "bucket", hash & bucketMask_);
  }
}

void TableEngine::corruptChain(uint32_t hash, uint32_t link, uint32_t hops) const {
  corrupt(fmt::format("bucket {} chains to slot {} ({} hops) in a table of {} slots",
                      hash & bucketMask_, link - 1, hops, capacity_));
}

bool TableEngine::next(IterHint& hint, uint8_t* out, uint32_t* recordLen, void* keyOut,
                       bool keyOnly) const {
  alignas(8) uint8_t slotKey[kMaxKeySize];
  // acquire: the slots below the mark are read after it (allocSlot raises it before it
  // fills a slot).
  uint32_t highWater = std::min(loadAcquire(&header()->slotHighWater), capacity_);
  uint32_t retries = 0;
  int64_t since = 0;
  for (uint32_t index = hint.slot; index < highWater; ++index) {
    const SlotHeader* s = slot(index);
    const uint8_t* data = slotData(index);
    for (;; retried(retries, since, "slot", index)) {
      // acquire (waitEven): the slot's fields are read after its sequence number.
      uint32_t seq = waitEven(&s->seq, "slot", index);
      // relaxed, these and the copies: trusted only once the sequence number is read again
      // unchanged.
      uint32_t flags = loadRelaxed(&s->flags);
      uint32_t hash = loadRelaxed(&s->hash);
      HeapRef ref{};
      if (flags & kSlotLive) {
        if (layout_.variable) {
          ref = unpackRef(__atomic_load_n(reinterpret_cast<const uint64_t*>(data), __ATOMIC_RELAXED));
          seqCopyOut(slotKey, data + sizeof(HeapRef), keyBytes_);
        } else {
          seqCopyOut(out, data, rowBytes_);
        }
      }
      // acquire: the loads above complete before the sequence number is read again.
      __atomic_thread_fence(__ATOMIC_ACQUIRE);
      if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
        continue;
      }
      if (!(flags & kSlotLive)) {
        break;
      }
      if (layout_.variable && keyOnly) {
        std::memcpy(keyOut, slotKey, layout_.keySize);
        *recordLen = 0;
      } else if (layout_.variable) {
        checkRecord(ref, index);
        seqCopyOut(out, heap_ + ref.offset, roundUp8(ref.length));  // relaxed: as above
        // acquire: the record's copy completes before the sequence number is read again.
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        if (loadRelaxed(&s->seq) != seq) {  // relaxed: ordered by the fence
          continue;
        }
        std::memcpy(keyOut, slotKey, layout_.keySize);
        *recordLen = ref.length;
      } else {
        *recordLen = layout_.rowSize;
      }
      readDone();
      hint.slot = index + 1;
      hint.bucket = hash & bucketMask_;
      hint.version = version();
      return true;
    }
  }
  checkIntact();
  hint.slot = highWater;
  hint.version = version();
  return false;
}

TableEngine::LogRead TableEngine::readLog(uint64_t seq, void* keyOut, uint32_t* op) const {
  alignas(8) uint8_t key[kMaxKeySize];
  const auto* e = reinterpret_cast<const LogEntryHeader*>(
      log_ + (seq & (logEntries_ - 1)) * uint64_t{logEntrySize_});
  // acquire: the entry's op and key are read after its sequence number (appendLog stores
  // it with release once they are written).
  if (loadAcquire(&e->seq) != seq) {
    return LogRead::overrun;
  }
  // relaxed: the op and key race with a writer reusing the entry; checked below.
  uint32_t o = loadRelaxed(&e->op);
  seqCopyOut(key, reinterpret_cast<const uint8_t*>(e + 1), keyBytes_);
  // acquire: the op and key are read before the sequence number is read again.
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  // relaxed: ordered by the fence.
  // relaxed: as checkIntact's. A truncated log reads as overrun: the reader resynchronises
  // from the table, which reports the damage.
  if (loadRelaxed(&e->seq) != seq || (o != kLogSet && o != kLogDelete) ||
      damaged_->load(std::memory_order_relaxed)) {
    return LogRead::overrun;
  }
  std::memcpy(keyOut, key, layout_.keySize);
  *op = o;
  return LogRead::entry;
}

// ---------------------------------------------------------------------------------------
// The writer.

void TableEngine::populate(uint32_t rows, uint64_t recordBytes) const {
  const TableHeader* h = header();
  uint8_t* base = segment_.base();
  // relaxed: the mark moves under the writer's own thread meanwhile; where the pages
  // start matters only to how many of them are backed.
  const uint32_t from = std::min(loadRelaxed(&h->slotHighWater), capacity_);
  const uint32_t to = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{from} + rows, capacity_));
  // Every chunk of a size class fills before the next is taken: the records need their
  // bytes in whole chunks, and a chunk more per class for those begun.
  uint64_t heapTo = 0;
  if (chunkSize_ != 0) {
    const uint64_t chunks = (recordBytes + chunkSize_ - 1) / chunkSize_ + classSize_.size();
    heapTo = std::min(heapBytes_, chunks * chunkSize_);
  }
  // In the order the writer needs them: the chains' heads at once, the slots and the
  // records from the first free on.
  const std::pair<uint64_t, uint64_t> ranges[] = {
      {h->bucketsOffset, h->slotsOffset},
      {slotHeaderOffset(*h, from), slotHeaderOffset(*h, to)},
      {h->logOffset, h->heapOffset},
      {h->heapOffset, h->heapOffset + heapTo},
  };
  const uint64_t page = 4096;
  for (auto [begin, end] : ranges) {
    begin = begin / page * page;
    end = std::min((end + page - 1) / page * page, segment_.size());
    // A failure leaves the pages to be faulted in as they are written, as without it.
    if (end > begin) {
      ::madvise(base + begin, end - begin, MADV_POPULATE_WRITE);
    }
  }
}

uint32_t TableEngine::findSlot(const void* key, uint32_t hash, uint32_t* prev) const {
  *prev = kNoSlot;
  uint32_t link = bucket(hash)->head;
  for (uint32_t hops = 0; link != kNoSlot && hops < capacity_; ++hops) {
    const SlotHeader* s = slot(link - 1);
    if (s->hash == hash && (s->flags & kSlotLive) && holdsKey(slotData(link - 1), key)) {
      return link;
    }
    *prev = link;
    link = s->next;
  }
  return kNoSlot;
}

bool TableEngine::holdsKeySlow(const uint8_t* data, const void* key) const {
  if (layout_.variable) {
    alignas(8) uint8_t slotKey[kMaxKeySize];
    std::memcpy(slotKey, data + sizeof(HeapRef), layout_.keySize);
    return layout_.keyEqual(slotKey, key);
  }
  alignas(8) uint8_t rowKey[kMaxKeySize];
  layout_.keyOfRow(data, rowKey);
  return layout_.keyEqual(rowKey, key);
}

uint32_t TableEngine::allocSlot() {
  if (!freeSlots_.empty()) {
    uint32_t index = freeSlots_.back();
    freeSlots_.pop_back();
    return index;
  }
  uint32_t index = header()->slotHighWater;
  // Iteration reads below the high-water mark: raise it before the slot is filled (the
  // fence of the slot's seqBegin keeps the fill after it). release: the writer's earlier
  // changes are visible to a reader that loads the new mark.
  storeRelease(&header()->slotHighWater, index + 1);
  return index;
}

void TableEngine::appendLog(uint32_t op, const void* key) {
  alignas(8) uint8_t padded[kMaxKeySize] = {};
  std::memcpy(padded, key, layout_.keySize);
  TableHeader* h = header();
  uint64_t seq = h->logHead;
  auto* e = reinterpret_cast<LogEntryHeader*>(log_ + (seq & (logEntries_ - 1)) * uint64_t{logEntrySize_});
  // A reader that loaded the entry's old seq must not accept the new contents.
  // relaxed: the fence below orders it before them.
  storeRelaxed(&e->seq, ~uint64_t{0});
  // release: a reader that reads any of the new op and key bytes then reads the invalid
  // seq again (pairs with readLog's acquire fence).
  __atomic_thread_fence(__ATOMIC_RELEASE);
  storeRelaxed(&e->op, op);  // relaxed, with the key: between the fence and the store of seq
  seqCopyIn(e + 1, padded, keyBytes_);
  storeRelease(&e->seq, seq);  // release: publishes the op and key before the entry's seq
  // release: publishes the entry, and the change it records, before the head moves past it.
  storeRelease(&h->logHead, seq + 1);
}

void TableEngine::changed() {
  TableHeader* h = header();
  // release: publishes the change before the version that counts it.
  storeRelease(&h->version, h->version + 1);
  group_.noteChange();
}

void TableEngine::upsert(const void* key, uint32_t hash, const uint8_t* row, uint32_t len) {
  if (!writer_) {
    throw NotWriterError(fmt::format("{} is mounted for reading", where_));
  }
  checkIntact();
  alignas(8) uint8_t keyBuf[kMaxKeySize] = {};
  std::memcpy(keyBuf, key, layout_.keySize);
  uint32_t prev;
  uint32_t link = findSlot(key, hash, &prev);
  if (link == kNoSlot && freeSlots_.empty() && header()->slotHighWater >= capacity_) {
    checkIntact();  // a truncated segment reads as empty chains: not a full table
    throw TableFullException(fmt::format("{} is full ({} rows)", where_, capacity_));
  }
  HeapRef ref{};
  if (layout_.variable) {
    ref = HeapRef{allocBlock(len), len};
    // relaxed: a free block; the slot's seqEnd (release) publishes it before the reference.
    seqCopyIn(heap_ + ref.offset, row, roundUp8(len));
  }
  if (link != kNoSlot) {
    SlotHeader* s = slot(link - 1);
    uint8_t* data = slotData(link - 1);
    HeapRef old{};
    seqBegin(&s->seq);  // the slot's seqlock section (see seqBegin and seqEnd)
    if (layout_.variable) {
      old = unpackRef(*reinterpret_cast<const uint64_t*>(data));
      // relaxed: inside the slot's seqlock section; one word, so never torn.
      __atomic_store_n(reinterpret_cast<uint64_t*>(data), packRef(ref), __ATOMIC_RELAXED);
    } else {
      seqCopyIn(data, row, rowBytes_);  // relaxed: inside the slot's seqlock section
    }
    seqEnd(&s->seq);
    if (layout_.variable) {
      freeBlock(old);
    }
  } else {
    uint32_t index = allocSlot();
    SlotHeader* s = slot(index);
    uint8_t* data = slotData(index);
    Bucket* b = bucket(hash);
    // The slot is filled in its seqlock section, and only then linked in the bucket's:
    // seqEnd's release publishes the row before the bucket link.
    seqBegin(&s->seq);
    // relaxed, these stores: inside the slot's seqlock section.
    storeRelaxed(&s->hash, hash);
    storeRelaxed(&s->next, b->head);
    storeRelaxed(&s->flags, kSlotLive);
    if (layout_.variable) {
      __atomic_store_n(reinterpret_cast<uint64_t*>(data), packRef(ref), __ATOMIC_RELAXED);
      seqCopyIn(data + sizeof(HeapRef), keyBuf, keyBytes_);
    } else {
      seqCopyIn(data, row, rowBytes_);
    }
    seqEnd(&s->seq);
    seqBegin(&b->seq);
    storeRelaxed(&b->head, index + 1);  // relaxed: inside the bucket's seqlock section
    seqEnd(&b->seq);
    // relaxed: a statistic, ordered with nothing.
    storeRelaxed(&header()->rowCount, header()->rowCount + 1);
  }
  appendLog(kLogSet, keyBuf);
  changed();
  checkIntact();
}

// Makes a chain skip slots: the slot `prev` (kNoSlot: the bucket `b`) links to `next`.
// Readers walking the chain meanwhile start over: the bucket's seqlock covers the change,
// and the slot's covers its own link.
void TableEngine::unlink(Bucket* b, uint32_t prev, uint32_t next) {
  seqBegin(&b->seq);
  if (prev == kNoSlot) {
    storeRelaxed(&b->head, next);  // relaxed: inside the bucket's seqlock section
  } else {
    SlotHeader* p = slot(prev - 1);
    seqBegin(&p->seq);
    storeRelaxed(&p->next, next);  // relaxed: inside both seqlock sections
    seqEnd(&p->seq);
  }
  seqEnd(&b->seq);
}

bool TableEngine::erase(const void* key, uint32_t hash) {
  if (!writer_) {
    throw NotWriterError(fmt::format("{} is mounted for reading", where_));
  }
  checkIntact();
  uint32_t prev;
  uint32_t link = findSlot(key, hash, &prev);
  if (link == kNoSlot) {
    return false;
  }
  alignas(8) uint8_t keyBuf[kMaxKeySize] = {};
  std::memcpy(keyBuf, key, layout_.keySize);
  SlotHeader* s = slot(link - 1);
  unlink(bucket(hash), prev, s->next);
  HeapRef old{};
  if (layout_.variable) {
    old = unpackRef(*reinterpret_cast<const uint64_t*>(slotData(link - 1)));
  }
  // Unlinked first, then emptied: a reader still on the slot sees it change and starts
  // over.
  seqBegin(&s->seq);
  storeRelaxed(&s->flags, 0);  // relaxed: inside the slot's seqlock section
  seqEnd(&s->seq);
  if (layout_.variable) {
    freeBlock(old);
  }
  freeSlots_.push_back(link - 1);
  storeRelaxed(&header()->rowCount, header()->rowCount - 1);  // relaxed: a statistic
  appendLog(kLogDelete, keyBuf);
  changed();
  checkIntact();
  return true;
}

// ---------------------------------------------------------------------------------------
// The record heap: chunks of one size class each, carved into blocks. A chunk whose blocks
// are all free goes back to the pool of chunks (and its memory back to the system).

void TableEngine::initHeapClasses() {
  classSize_.clear();
  uint32_t maxLen = static_cast<uint32_t>(roundUp8(header()->rowSize));
  for (uint32_t size = 16;; ) {
    classSize_.push_back(std::min(size, chunkSize_));
    if (size >= maxLen) {
      break;
    }
    size += size < 256 ? 8 : size < 1024 ? 32 : size < 4096 ? 128 : 1024;
  }
  classOf8_.assign(maxLen / 8 + 1, 0);
  uint8_t cls = 0;
  for (uint32_t units = 0; units <= maxLen / 8; ++units) {
    while (classSize_[cls] < units * 8) {
      ++cls;
    }
    classOf8_[units] = cls;
  }
  partialChunks_.assign(classSize_.size(), {});
}

uint32_t TableEngine::allocBlock(uint32_t len) {
  uint8_t cls = classOf8_[(len + 7) / 8];
  uint32_t size = classSize_[cls];
  auto& partial = partialChunks_[cls];
  while (!partial.empty()) {
    uint32_t c = partial.back();
    Chunk& chunk = chunks_[c];
    if (chunkClass_[c] == cls + 1 && !chunk.freeBlocks.empty()) {
      uint32_t block = chunk.freeBlocks.back();
      chunk.freeBlocks.pop_back();
      ++chunk.live;
      if (chunk.freeBlocks.empty()) {
        partial.pop_back();
      }
      return c * chunkSize_ + block * size;
    }
    partial.pop_back();  // full, or freed and reused for another class since
  }
  uint32_t c;
  if (!freeChunks_.empty()) {
    c = freeChunks_.back();
    freeChunks_.pop_back();
  } else if (chunkHighWater_ < chunkCount_) {
    c = chunkHighWater_++;
  } else {
    checkIntact();
    throw TableFullException(fmt::format("{} is full: its record heap of {} bytes is used up",
                                         where_, heapBytes_));
  }
  chunkClass_[c] = cls + 1;
  Chunk& chunk = chunks_[c];
  uint32_t blocks = chunkSize_ / size;
  chunk.freeBlocks.clear();
  for (uint32_t i = blocks; i-- > 1;) {
    chunk.freeBlocks.push_back(static_cast<uint16_t>(i));
  }
  chunk.live = 1;
  if (!chunk.freeBlocks.empty()) {
    partial.push_back(c);
  }
  return c * chunkSize_;
}

bool TableEngine::heapHolds(const std::vector<uint32_t>& recordLengths) const {
  if (!layout_.variable || recordLengths.empty()) {
    return true;
  }
  const uint32_t maxLen = static_cast<uint32_t>(roundUp8(header()->rowSize));
  std::vector<uint64_t> wanted(classSize_.size(), 0);
  for (uint32_t len : recordLengths) {
    if (len == 0 || len > maxLen) {
      return false;  // upsert refuses it anyway
    }
    ++wanted[classOf8_[(len + 7) / 8]];
  }
  // Blocks free in chunks already carved for a class, and chunks free for any class.
  std::vector<uint64_t> freeBlocks(classSize_.size(), 0);
  uint64_t freeChunks = chunkCount_ - chunkHighWater_;
  for (uint32_t c = 0; c < chunkHighWater_; ++c) {
    if (chunkClass_[c] == 0) {
      ++freeChunks;
    } else if (chunkClass_[c] <= classSize_.size()) {
      freeBlocks[chunkClass_[c] - 1] += chunks_[c].freeBlocks.size();
    }
  }
  uint64_t chunksNeeded = 0;
  for (size_t cls = 0; cls < wanted.size(); ++cls) {
    if (wanted[cls] > freeBlocks[cls]) {
      const uint64_t perChunk = chunkSize_ / classSize_[cls];
      chunksNeeded += (wanted[cls] - freeBlocks[cls] + perChunk - 1) / perChunk;
    }
  }
  return chunksNeeded <= freeChunks;
}

void TableEngine::freeBlock(HeapRef ref) {
  uint32_t c = ref.offset / chunkSize_;
  uint8_t cls = chunkClass_[c] - 1;
  Chunk& chunk = chunks_[c];
  if (--chunk.live == 0) {
    chunkClass_[c] = 0;
    chunk.freeBlocks = {};
    freeChunks_.push_back(c);
    // Give the chunk's pages back; a reader still copying from it reads zeros, and its
    // seqlock check throws that copy away.
    ::fallocate(segment_.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                static_cast<off_t>(header()->heapOffset + uint64_t{c} * chunkSize_), chunkSize_);
    return;
  }
  bool wasFull = chunk.freeBlocks.empty();
  chunk.freeBlocks.push_back(static_cast<uint16_t>((ref.offset % chunkSize_) / classSize_[cls]));
  if (wasFull) {
    partialChunks_[cls].push_back(c);
  }
}

// ---------------------------------------------------------------------------------------
// A writer's repair. The writer's private state is rebuilt from the segment, and what a
// writer that died left behind is repaired: seqlock counters left odd, a row rewritten in
// place half-way, slots filled but never linked, records no slot refers to. Rows it has to
// drop are logged as deleted, so that readers hear of them.

// What the walk over the chains found.
struct TableEngine::Repair {
  uint32_t highWater = 0;                         // slots at or above it were never used
  std::vector<uint8_t> linked;                    // per slot below it: kept on a chain
  std::vector<std::vector<uint64_t>> usedBlocks;  // per heap chunk: a bit per block in use
  std::vector<std::vector<uint8_t>> dropped;      // the keys of the rows dropped
  uint32_t rows = 0;
};

void TableEngine::rebuildWriterState(bool created) {
  if (layout_.variable) {
    initHeapClasses();
  }
  Repair repair;
  repair.highWater = std::min(header()->slotHighWater, capacity_);
  // release: a reader's iteration reads no slot at or above the mark it loads (acquire).
  storeRelease(&header()->slotHighWater, repair.highWater);
  repair.linked.assign(repair.highWater, 0);
  repair.usedBlocks.resize(layout_.variable ? chunkCount_ : 0);
  // A table this writer has just created holds empty chains: nothing to walk.
  for (uint32_t bi = 0; !created && bi <= bucketMask_; ++bi) {
    repairChain(bi, repair);
  }
  rebuildFreeSlots(repair);
  // relaxed: rowCount is a statistic, ordered with nothing else.
  storeRelaxed(&header()->rowCount, repair.rows);
  if (layout_.variable) {
    rebuildHeap(repair.usedBlocks);
  }
  for (const auto& key : repair.dropped) {
    appendLog(kLogDelete, key.data());
  }
  if (!repair.dropped.empty()) {
    changed();
  }
  checkIntact();
}

// Closes the bucket's seqlock if it was left open and walks its chain, unlinking the slots
// whose rows do not stay; a chain that leaves the slots in use, or loops, is cut there.
void TableEngine::repairChain(uint32_t bi, Repair& repair) {
  Bucket* b = &buckets_[bi];
  if (b->seq & 1) {
    seqEnd(&b->seq);  // release: the dead writer's stores to the chain are published
  }
  uint32_t prev = kNoSlot;
  for (uint32_t link = b->head; link != kNoSlot;) {
    uint32_t index = link - 1;
    if (index >= repair.highWater || repair.linked[index]) {
      unlink(b, prev, kNoSlot);  // the rest of the chain cannot be trusted
      return;
    }
    bool keep = keepChained(index, bi, repair);
    uint32_t next = slot(index)->next;
    if (keep) {
      repair.linked[index] = 1;
      ++repair.rows;
      prev = link;
    } else {
      unlink(b, prev, next);
    }
    link = next;
  }
}

// Closes a chained slot's seqlock if it was left open and says whether its row stays: live,
// on its hash's chain and whole (a fixed row not caught rewritten half-way, a variable
// row's record in the heap and its own). The key of a row that goes, when known, is noted
// to be logged.
bool TableEngine::keepChained(uint32_t index, uint32_t bi, Repair& repair) {
  SlotHeader* s = slot(index);
  const uint8_t* data = slotData(index);
  bool torn = s->seq & 1;
  if (torn) {
    seqEnd(&s->seq);  // release: what the dead writer stored is published (and checked below)
  }
  bool keep = (s->flags & kSlotLive) && (s->hash & bucketMask_) == bi;
  alignas(8) uint8_t key[kMaxKeySize];
  bool keyKnown;
  if (layout_.variable) {
    std::memcpy(key, data + sizeof(HeapRef), layout_.keySize);
    keyKnown = true;
    keep = keep && claimRecord(unpackRef(*reinterpret_cast<const uint64_t*>(data)), repair);
  } else {
    // A fixed row rewritten half-way may be torn: drop it. Its key is intact: an update in
    // place writes the same key bytes again.
    keyKnown = s->flags & kSlotLive;
    layout_.keyOfRow(data, key);
    keep = keep && !torn;
  }
  if (!keep && keyKnown) {
    repair.dropped.emplace_back(key, key + layout_.keySize);
  }
  return keep;
}

// Marks the heap block of `ref` used; false when the reference does not fit the heap and
// its size classes, or another row's record is there already.
bool TableEngine::claimRecord(HeapRef ref, Repair& repair) const {
  uint32_t c = ref.offset / chunkSize_;
  bool fits = ref.length > 0 && ref.length <= bufferSize_ && (ref.offset & 7) == 0 &&
              uint64_t{ref.offset} + ref.length <= heapBytes_ && chunkClass_[c] != 0 &&
              chunkClass_[c] <= classSize_.size() &&
              classSize_[chunkClass_[c] - 1] >= ref.length &&
              (ref.offset % chunkSize_) % classSize_[chunkClass_[c] - 1] == 0;
  if (!fits) {
    return false;
  }
  uint32_t block = (ref.offset % chunkSize_) / classSize_[chunkClass_[c] - 1];
  auto& bits = repair.usedBlocks[c];
  bits.resize(chunkSize_ / 16 / 64 + 1, 0);
  uint64_t bit = uint64_t{1} << (block % 64);
  if (bits[block / 64] & bit) {
    return false;  // two slots share one record
  }
  bits[block / 64] |= bit;
  return true;
}

// Every slot below the high-water mark that no chain keeps is free; one left live, or with
// its seqlock open, is cleared first.
void TableEngine::rebuildFreeSlots(const Repair& repair) {
  freeSlots_.clear();
  for (uint32_t index = repair.highWater; index-- > 0;) {
    if (repair.linked[index]) {
      continue;
    }
    SlotHeader* s = slot(index);
    if (s->flags != 0 || (s->seq & 1)) {
      if (s->seq & 1) {
        seqEnd(&s->seq);  // even again, so that the section below leaves it even
      }
      seqBegin(&s->seq);
      // relaxed: inside the slot's seqlock section.
      storeRelaxed(&s->flags, 0);
      seqEnd(&s->seq);
    }
    freeSlots_.push_back(index);
  }
}

// The heap's chunks from the blocks the kept rows use: a chunk without any goes back to
// the pool, the others keep their class and free blocks.
void TableEngine::rebuildHeap(const std::vector<std::vector<uint64_t>>& usedBlocks) {
  chunks_.assign(chunkCount_, Chunk{});
  freeChunks_.clear();
  chunkHighWater_ = 0;
  for (uint32_t c = 0; c < chunkCount_; ++c) {
    if (chunkClass_[c] != 0) {
      chunkHighWater_ = c + 1;
    }
  }
  for (uint32_t c = chunkHighWater_; c-- > 0;) {
    uint8_t cls1 = chunkClass_[c];
    const auto& bits = usedBlocks[c];
    if (cls1 == 0 || cls1 > classSize_.size() || bits.empty()) {
      chunkClass_[c] = 0;
      freeChunks_.push_back(c);
      continue;
    }
    uint32_t blocks = chunkSize_ / classSize_[cls1 - 1];
    Chunk& chunk = chunks_[c];
    for (uint32_t block = blocks; block-- > 0;) {
      if (bits[block / 64] & (uint64_t{1} << (block % 64))) {
        ++chunk.live;
      } else {
        chunk.freeBlocks.push_back(static_cast<uint16_t>(block));
      }
    }
    if (!chunk.freeBlocks.empty()) {
      partialChunks_[cls1 - 1].push_back(c);
    }
  }
}

}  // namespace Pond::internal
