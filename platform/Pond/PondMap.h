// Pond::PondMap<Key, Row>: a keyed table in shared memory, written by one process and read
// by any number of others (see Pond/MountGroup.h for the group it belongs to).
//
// Rows are values whose key() is their key. A row type is stored one of two ways:
//   - as it is in memory (trivially copyable types);
//   - as its binary form, when it has serializeLen(), serialize(out), deserialize(in, len)
//     and deserializeLen(in, len); it then occupies about its serialised length, not its
//     largest one, in a record heap of 4 KiB chunks, each cut into blocks of one size
//     class (8-byte steps up to 256 bytes, coarser above). Its largest record is
//     TableSizing::maxRecordLen, or Row::kMaxLen. Size the heap for the records, plus a
//     chunk per size class in use.
// Keys are trivially copyable values hashed with their framework hash.
//
// Who writes: the one process whose group role is writer (upsert, erase, clear). Reading
// works in both roles; the writer reads its own rows in place.
//
// What a reader may observe: a lookup copies the row out of shared memory and checks it was
// not changed meanwhile; it never blocks the writer and never returns a torn row. A lookup
// that races with a change returns the row as it was before or after it. An iteration
// returns every row present from its start to its end once, each as it was at some moment
// between them; rows added or removed meanwhile may or may not be returned. version()
// counts the changes: a lookup made after it returned sees every change it counted. size()
// may lag or lead a change in progress.
//
// Notifications (readers): MountGroup::processChanges() calls the change handler once per
// changed key: a row added, changed or deleted. Several changes of one key between two
// calls may come as one; a reader that fell behind the change log, or that sees a new
// writer, gets a notification for every row present and every row gone instead, so that
// no change is ever lost.
//
// Corruption: a reader that finds the shared structure inconsistent, a row that does not
// decode or breaks its type's invariants (Kel/StoredValue.h: a bounded value out of its
// range, a bool neither 0 nor 1, ...), a segment truncated under the process or a writer
// stuck half-way through a change hands the error's text (a Pond::CorruptionError's,
// naming the table) to the corruption handler (by default, the system log) and carries on
// as if the row were absent; an iteration that meets a truncated segment or a stuck
// writer ends there. A key in the change log that breaks its type's invariants is
// reported and skipped.
//
// Threads: a table belongs to the thread of its group.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "Kel/Binary.h"
#include "Kel/StoredValue.h"
#include "Kel/Value.h"
#include "Pond/IterHint.h"
#include "Pond/KeySet.h"
#include "Pond/MountGroup.h"
#include "Pond/TableCore.h"
#include "Pond/TableSizing.h"

namespace Pond {

template <class Row>
concept VariableRow = requires(const Row& r, Row& w, uint8_t* out, const uint8_t* in, size_t n) {
  { r.serializeLen() } -> std::convertible_to<uint32_t>;
  r.serialize(out);
  w.deserialize(in, n);
  Row::deserializeLen(in, n);
};

template <class Key, class Row>
class PondMap final : public TableCore, private internal::TableBase {
  static_assert(std::is_trivially_copyable_v<Key>, "keys are stored as they are");
  static_assert(VariableRow<Row> || std::is_trivially_copyable_v<Row>,
                "a row is trivially copyable or has a binary form");

 public:
  // Writer role: creates the table or attaches to the one left by a previous writer (see
  // TableCore for the repair). Reader role: mounts the table, which may appear later.
  PondMap(Kel::Ptr<MountGroup> group, std::string name, const TableSizing& sizing = {})
      : TableCore(std::move(group), std::move(name), formatOf(sizing), sizing) {
    TableCore::group()->tableIs(this);
  }
  ~PondMap() { TableCore::group()->tableDel(this); }
  PondMap(const PondMap&) = delete;
  PondMap& operator=(const PondMap&) = delete;

  const std::string& tableName() const override { return TableCore::tableName(); }
  bool opened() const override { return TableCore::opened(); }

  // The row of `key`, or a default row when there is none.
  Row lookup(const Key& key) const {
    Row row{};
    find(key, row);
    return row;
  }
  // Copies the row of `key` into `row` and returns true; false when there is none.
  bool find(const Key& key, Row& row) const {
    if (!opened()) {
      return false;
    }
    try {
      const uint32_t hash = Kel::hashOf(key, internal::kKeyHashSeed);
      uint32_t len = 0;
      if (writer()) {
        // In place: nothing changes the table under its writer.
        const uint8_t* data = findOwn(&key, hash, &len);
        if (!data) {
          return false;
        }
        decodeFrom(row, data, len);
        return true;
      }
      // A reader's lookups often come in runs of one key (one state machine after another
      // reacting to one change): the last answer stands while the table's version says
      // that nothing changed since it was read.
      const uint64_t version = kRemembers ? TableCore::version() : 0;
      if (kRemembers && last_.valid && last_.version == version && last_.key == key) {
        if (last_.found) {
          row = last_.row;
        }
        return last_.found;
      }
      last_.valid = false;
      const bool found = findCopy(&key, hash, &len);
      if (found) {
        decodeFrom(row, bytes(), len);
      }
      remember(key, found ? &row : nullptr, version);
      return found;
    } catch (const Kel::Exception& e) {
      reportCorruption(e.what());
      return false;
    }
  }

  // Whether the table holds a row under `key`. The writer looks in place and decodes
  // nothing; a reader copies the row out as find() does. Corruption counts as absent.
  bool contains(const Key& key) const {
    if (!opened()) {
      return false;
    }
    if (!writer()) {
      Row row{};
      return find(key, row);
    }
    try {
      uint32_t len = 0;
      return findOwn(&key, Kel::hashOf(key, internal::kKeyHashSeed), &len) != nullptr;
    } catch (const Kel::Exception& e) {
      reportCorruption(e.what());
      return false;
    }
  }

  // Calls f(row) for the rows at or after `hint`, at most `maxRows` of them, moving the
  // hint on; true when the iteration reached the end.
  template <class F>
  bool forEach(IterHint& hint, F&& f, uint32_t maxRows = UINT32_MAX) const {
    if (!opened()) {
      return true;
    }
    for (uint32_t n = 0; n < maxRows; ++n) {
      Row row{};
      try {
        uint32_t len = 0;
        const uint64_t version = kRemembers && !writer() ? TableCore::version() : 0;
        if (!next(hint, &len)) {
          return true;
        }
        decodeFrom(row, bytes(), len);
        if (kRemembers && !writer()) {
          remember(row.key(), &row, version);  // its handler may look it up
        }
      } catch (const Kel::Exception& e) {
        reportCorruption(e.what());
        if (unreadable()) {
          return true;
        }
        ++hint.slot;
        continue;
      }
      f(static_cast<const Row&>(row));
    }
    return false;
  }
  template <class F>
  void forEach(F&& f) const {
    IterHint hint;
    forEach(hint, std::forward<F>(f));
  }

  // Writer: inserts or replaces the row under row.key(). Throws TableFullException when
  // the table is full, Kel::SizeError ("expected size <= ..., instead got ...") for a
  // record larger than the table's largest, NotWriterError in a reader.
  void upsert(const Row& row) {
    requireWriter();
    Key key = row.key();
    uint32_t len;
    if constexpr (VariableRow<Row>) {
      len = row.serializeLen();
      if (len > rowFormat().rowSize || len == 0) {
        std::vector<uint8_t> record(len);
        row.serialize(record.data());
        Kel::throwSizeExceeded(rowFormat().rowSize, len, record.data(), record.size());
      }
      row.serialize(bytes());
    } else {
      len = sizeof(Row);
      std::memcpy(bytes(), &row, sizeof(Row));
    }
    upsertBytes(&key, Kel::hashOf(key, internal::kKeyHashSeed), len);
  }
  // Writer: removes the row of `key`; false when there was none.
  bool erase(const Key& key) {
    requireWriter();
    return eraseKey(&key, Kel::hashOf(key, internal::kKeyHashSeed));
  }
  // Writer: removes every row.
  void clear() {
    requireWriter();
    std::vector<Key> keys;
    keys.reserve(size());
    forEach([&](const Row& r) { keys.push_back(r.key()); });
    for (const Key& k : keys) {
      erase(k);
    }
  }

  // Reader: called with the key of every changed row (see above). To tell a consumer that
  // fell behind the log of the rows removed meanwhile, the table keeps the set of keys it
  // has told of. A consumer that can list the keys it holds itself (a replica) passes
  // `keepKeys` false and a resync handler instead: the table then keeps no copy of the
  // keys, which saves a hash-set update per change and the set's memory.
  void changeHandlerIs(std::function<void(const Key&)> handler, bool keepKeys = true) {
    changeHandler_ = std::move(handler);
    const bool track = changeHandler_ && keepKeys;
    if (track && opened() && !tracking_) {
      known_ = presentKeys();
    }
    if (!track) {
      known_.clear();
    }
    tracking_ = track;
  }
  // Reader: called after a resync (the consumer fell behind the change log, or the group
  // was replaced) has told of every present row and of the logged rows gone: a consumer
  // that keeps no key set checks its own keys against the table then.
  void resyncHandlerIs(std::function<void()> handler) { resyncHandler_ = std::move(handler); }
  // Reader: called when the table is opened, or opened again after its group was replaced;
  // called at once when it is open already.
  void mountHandlerIs(std::function<void()> handler) {
    mountHandler_ = std::move(handler);
    if (mountHandler_ && opened()) {
      mountHandler_();
    }
  }
  using TableCore::corruptionHandlerIs;

 private:
  static RowFormat formatOf(const TableSizing& sizing) {
    RowFormat f;
    f.typeName = std::string(Key::kelTypeName) + " -> " + std::string(Row::kelTypeName);
    f.keySize = sizeof(Key);
    f.variable = VariableRow<Row>;
    if constexpr (VariableRow<Row>) {
      if constexpr (requires { Row::kMaxLen; }) {
        f.rowSize = sizing.maxRecordLen ? sizing.maxRecordLen : Row::kMaxLen;
      } else {
        f.rowSize = sizing.maxRecordLen;
      }
    } else {
      f.rowSize = sizeof(Row);
    }
    f.fingerprint = internal::fingerprintOf(
        Kel::schemaOf<Key>() + " -> " + Kel::schemaOf<Row>() +
        (VariableRow<Row> ? " (serialised)" : " (" + std::to_string(sizeof(Row)) + " bytes)"));
    f.keyOffset = keyOffset();
    f.keyEqual = [](const void* a, const void* b) {
      Key x;
      Key y;
      std::memcpy(&x, a, sizeof(Key));
      std::memcpy(&y, b, sizeof(Key));
      return x == y;
    };
    f.keyOfRow = [](const void* row, void* keyOut) {
      if constexpr (!VariableRow<Row>) {
        Row r;
        std::memcpy(&r, row, sizeof(Row));
        Key k = r.key();
        std::memcpy(keyOut, &k, sizeof(Key));
      }
    };
    return f;
  }

  // Where a stored row holds its key's bytes (see RowFormat::keyOffset). Keys with one
  // representation per value compare bytewise; a fixed row holds its key as it is when
  // key() returns a reference to a member of the row.
  static uint32_t keyOffset() {
    if constexpr (!std::has_unique_object_representations_v<Key>) {
      return RowFormat::kKeyNotBytewise;
    } else if constexpr (VariableRow<Row>) {
      return 0;
    } else if constexpr (std::is_lvalue_reference_v<decltype(std::declval<const Row&>().key())>) {
      static const uint32_t offset = [] {
        const Row r{};
        const auto* at = reinterpret_cast<const std::byte*>(&r.key());
        const auto* base = reinterpret_cast<const std::byte*>(&r);
        return at >= base && at + sizeof(Key) <= base + sizeof(Row)
                   ? static_cast<uint32_t>(at - base)
                   : RowFormat::kKeyNotBytewise;
      }();
      return offset;
    } else {
      return RowFormat::kKeyNotBytewise;
    }
  }

  // Throws CorruptionError naming the table for a record that does not decode, and, in a
  // reader, for a row (fixed rows: copied as bytes) that breaks its type's invariants;
  // `row` is a default row then.
  void decodeFrom(Row& row, const uint8_t* in, uint32_t len) const {
    if constexpr (VariableRow<Row>) {
      try {
        row.deserialize(in, len);
      } catch (const std::exception& e) {
        row = Row{};
        badRow("a record of " + std::to_string(len) + " bytes does not decode as " +
               std::string(Row::kelTypeName) + ": " + e.what());
      }
    } else {
      std::memcpy(&row, in, sizeof(Row));
    }
    // Readers check every row. The writer reads rows that it wrote, or that a predecessor
    // of its own user wrote (it refuses segments that others may write): checking them
    // too would cost its lookups a third of their speed.
    if (!writer() && !Kel::storedValueValid(row)) [[unlikely]] {
      std::string fault;
      Kel::storedValueValid(row, &fault);
      row = Row{};  // the caller's row never keeps bytes that break its invariants
      badRow("a row breaks the invariants of " + std::string(Row::kelTypeName) + ": " + fault);
    }
  }

  // Whether a key read from the change log (or from a row's slot: `where`) is one;
  // reports it when not.
  bool validLogKey(const Key& key, const char* where = "in the change log") const {
    std::string fault;
    if (Kel::storedValueValid(key, &fault)) [[likely]] {
      return true;
    }
    reportCorruption("table '" + tableName() + "' of mount group '" + TableCore::group()->name() +
                     "': a key " + where + " breaks the invariants of " +
                     std::string(Key::kelTypeName) + ": " + fault);
    return false;
  }

  // The keys of the rows present, read without their rows.
  KeySet<Key> presentKeys() const {
    KeySet<Key> keys;
    keys.reserve(size());
    IterHint hint;
    while (true) {
      Key key{};
      try {
        if (!nextKey(hint, &key)) {
          break;
        }
      } catch (const Kel::Exception& e) {
        reportCorruption(e.what());
        if (unreadable()) {
          break;
        }
        ++hint.slot;
        continue;
      }
      if (validLogKey(key, "of a row")) {
        keys.insert(key);
      }
    }
    return keys;
  }

  // Keeps a reader's last answer: `row` under `key` (null: absent), read at `version`.
  // Rows larger than a few cache lines are not kept: copying them costs what it saves.
  static constexpr bool kRemembers = sizeof(Row) <= 128;
  void remember(const Key& key, const Row* row, uint64_t version) const {
    if constexpr (!kRemembers) {
      return;
    }
    last_.key = key;
    last_.found = row != nullptr;
    if (row) {
      last_.row = *row;
    }
    last_.version = version;
    last_.valid = true;
  }

  bool tryOpen() override {
    last_.valid = false;
    if (opened()) {
      return true;
    }
    if (!openReader()) {
      return false;
    }
    if (reopened_) {
      resync();  // the group was replaced: hear what changed from the tables themselves
    } else {
      cursor_ = logHead();
      if (tracking_) {
        known_ = presentKeys();
      }
    }
    if (mountHandler_) {
      mountHandler_();
    }
    return true;
  }

  void close() override {
    last_.valid = false;
    if (closeReader()) {
      reopened_ = true;
    }
  }

  size_t pollChanges() override {
    if (!opened()) {
      return 0;
    }
    uint64_t head = logHead();
    if (head < cursor_ || head - cursor_ > logEntries()) {
      return resync();
    }
    size_t delivered = 0;
    for (; cursor_ < head; ++cursor_) {
      Key key;
      LogRead op = readLog(cursor_, &key);
      if (op == LogRead::overrun) {
        return delivered + resync();
      }
      if (!validLogKey(key)) {
        continue;
      }
      if (tracking_) {
        if (op == LogRead::set) {
          known_.insert(key);
        } else {
          known_.erase(key);
        }
      }
      if (changeHandler_) {
        changeHandler_(key);
      }
      ++delivered;
    }
    return delivered;
  }

  size_t resync() override {
    if (!opened()) {
      return 0;
    }
    uint64_t head = logHead();
    // The rows logged since the last delivery and gone since: the consumer may have read
    // them in the table before it heard of them, so it hears of them now. (Entries the log
    // no longer holds are lost to this; a consumer that fell that far behind cannot tell.)
    KeySet<Key> logged;
    if (changeHandler_ && head >= cursor_ && head - cursor_ <= logEntries()) {
      for (uint64_t seq = cursor_; seq < head; ++seq) {
        Key key;
        if (readLog(seq, &key) == LogRead::overrun) {
          break;
        }
        if (validLogKey(key)) {
          logged.insert(key);
        }
      }
    }
    auto present = presentKeys();
    size_t delivered = 0;
    if (changeHandler_) {
      present.forEach([&](const Key& k) {
        changeHandler_(k);
        ++delivered;
      });
      known_.forEach([&](const Key& k) {
        if (!present.contains(k)) {
          logged.erase(k);
          changeHandler_(k);
          ++delivered;
        }
      });
      logged.forEach([&](const Key& k) {
        if (!present.contains(k)) {
          changeHandler_(k);
          ++delivered;
        }
      });
    }
    if (tracking_) {
      known_ = std::move(present);
    }
    cursor_ = head;
    if (resyncHandler_) {
      resyncHandler_();
    }
    return delivered;
  }

  // A reader's last answer (see find).
  struct LastAnswer {
    bool valid = false;
    bool found = false;
    uint64_t version = 0;
    Key key{};
    Row row{};
  };
  mutable LastAnswer last_;
  uint64_t cursor_ = 0;
  bool reopened_ = false;
  bool tracking_ = false;
  KeySet<Key> known_;
  std::function<void(const Key&)> changeHandler_;
  std::function<void()> mountHandler_;
  std::function<void()> resyncHandler_;
};

}  // namespace Pond
