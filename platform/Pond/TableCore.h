// Pond::TableCore: the part of every Pond::PondMap that does not depend on its key and row
// types. It holds the table's engine, which it keeps out of sight: a table's user includes
// Pond/PondMap.h and sees the table, not its shared-memory layout.
//
// The typed face (PondMap) describes its rows once (a RowFormat), hashes keys and turns
// rows into bytes and back; everything else is done here, on key and row bytes, by
// functions defined out of line. Roles, what readers observe and threads are as PondMap
// says.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>
#include <string>

#include "Kel/Entity.h"
#include "Pond/IterHint.h"
#include "Pond/MountGroup.h"
#include "Pond/TableSizing.h"

namespace Pond {

class UndoLog;

namespace internal {
class TableEngine;

constexpr uint32_t kKeyHashSeed = 0x504f4e44;  // "POND": readers and writer agree on it

uint64_t fingerprintOf(const std::string& schema);
}  // namespace internal

class TableCore {
 public:
  TableCore(const TableCore&) = delete;
  TableCore& operator=(const TableCore&) = delete;

  const std::string& tableName() const noexcept { return name_; }
  const Kel::Ptr<MountGroup>& group() const noexcept { return group_; }
  bool opened() const noexcept { return engine_ != nullptr; }
  uint32_t size() const noexcept;
  uint32_t capacity() const noexcept;
  uint64_t version() const noexcept;
  // Variable rows: bytes of record heap (0 for fixed rows).
  uint64_t heapBytes() const noexcept;
  // Writer: whether the record heap takes records of these lengths (as serializeLen gives
  // them) on top of what it holds now. A writer that must not fail half way asks first.
  bool heapHolds(const std::vector<uint32_t>& recordLengths) const;
  // Writer: backs with memory the pages that `rows` more rows, with `recordBytes` bytes of
  // records, will be written to, so that writing them takes no page faults. A writer about
  // to fill its tables runs it on a thread of its own meanwhile: rows are written as the
  // pages come. Safe beside the writer's writes; without it the pages come as they are
  // written.
  void populate(uint32_t rows, uint64_t recordBytes) const;
  // Bytes of the table's segment resident in memory.
  uint64_t residentBytes() const;
  // The table's segment was truncated under this process, or the last read found its
  // writer stuck (see Pond::WriterStuckError): reads fail row after row, so iterations
  // stop at the first failure.
  bool unreadable() const;

  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandler_ = std::move(handler);
  }

  // The shape of a table's rows, as its typed face knows them.
  struct RowFormat {
    // Keys whose bytes are not their identity (padding, floating point) compare through
    // keyEqual: keyOffset is kKeyNotBytewise then.
    static constexpr uint32_t kKeyNotBytewise = UINT32_MAX;

    std::string typeName;   // "Mpls::RouteKey -> Mpls::LfibRoute", for messages
    uint64_t fingerprint;   // of the key and row types and their sizes
    uint32_t keySize;
    uint32_t rowSize;       // fixed rows: sizeof the row; variable rows: the largest record
    bool variable;
    // Fixed rows: where the key's bytes are in the row, when it holds them as they are;
    // variable rows: 0 (the table keeps their keys apart). Else kKeyNotBytewise.
    uint32_t keyOffset;
    bool (*keyEqual)(const void* a, const void* b);
    void (*keyOfRow)(const void* row, void* keyOut);  // fixed rows only
  };

 protected:
  // Writer role: creates the table or attaches to the one a previous writer left
  // (repairing it). Reader role: checks the name; the table is opened by openReader.
  TableCore(Kel::Ptr<MountGroup> group, std::string name, RowFormat format,
            const TableSizing& sizing);
  ~TableCore();

  bool writer() const noexcept { return writer_; }
  const RowFormat& rowFormat() const noexcept { return format_; }
  // The buffer that rows and records pass through, big enough for the largest.
  uint8_t* bytes() const noexcept { return reinterpret_cast<uint8_t*>(buffer_.data()); }

  // Reader: copies the row or record of `key` into bytes(); false when absent. Throws
  // Pond::CorruptionError.
  bool findCopy(const void* key, uint32_t hash, uint32_t* len) const;
  // Writer: the row (fixed rows) or record of `key` in place, or null; valid until the
  // next change.
  const uint8_t* findOwn(const void* key, uint32_t hash, uint32_t* len) const;
  // Copies the next row at or after the hint into bytes() and moves the hint past it;
  // false at the end.
  bool next(IterHint& hint, uint32_t* len) const;
  // The same, for the row's key only (variable rows: their records are not read).
  bool nextKey(IterHint& hint, void* keyOut) const;
  // Writer: the row is in bytes(), `len` bytes of it.
  void upsertBytes(const void* key, uint32_t hash, uint32_t len);
  bool eraseKey(const void* key, uint32_t hash);
  // Throws NotWriterError unless the group's role is writer.
  void requireWriter() const;

  // The change log.
  enum class LogRead { set, erased, overrun };
  uint64_t logHead() const noexcept;
  uint32_t logEntries() const noexcept;
  LogRead readLog(uint64_t seq, void* keyOut) const;

  // Reader: opens the table; true when it was opened by this call.
  bool openReader();
  // Reader: drops the table's mapping; false when it was not open.
  bool closeReader() noexcept;

  // Throws CorruptionError naming the table: a row that does not decode, or whose
  // decoded value breaks its type's invariants, described by `why`.
  [[noreturn]] void badRow(const std::string& why) const;

  // Hands a reader's corruption finding to the corruption handler (by default, the system
  // log).
  void reportCorruption(const std::string& text) const;

 private:
  friend class UndoLog;
  // Hands `undo` what the change of `key` about to be made replaces.
  void recordBefore(UndoLog& undo, const void* key, uint32_t hash);
  // Puts `row` (`len` bytes) back under `key`, or erases the key when `row` is null.
  void undo(const void* key, uint32_t hash, const uint8_t* row, uint32_t len);

  Kel::Ptr<MountGroup> group_;
  std::string name_;
  RowFormat format_;
  std::unique_ptr<internal::TableEngine> engine_;
  bool writer_ = false;
  mutable std::vector<uint64_t> buffer_;
  std::function<void(const std::string&)> corruptionHandler_;
};

}  // namespace Pond
