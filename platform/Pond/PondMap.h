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
// Writer (the process whose group role is writer): upsert, erase, clear. Reading works in
// both roles. A reader's lookup copies the row out of shared memory and checks it was not
// changed meanwhile; it never blocks the writer and never returns a torn row.
//
// Notifications (readers): MountGroup::processChanges() calls the change handler once per
// changed key: a row added, changed or deleted. Several changes of one key between two
// calls may come as one; a reader that fell behind the change log, or that sees a new
// writer, gets a notification for every row present and every row gone instead, so that
// no change is ever lost.
//
// Corruption: a reader that finds the shared structure inconsistent hands the error's text
// to the corruption handler (by default, the system log) and carries on as if the row were
// absent.
//
// Threads: a table belongs to the thread of its group.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "Kel/Binary.h"
#include "Kel/Value.h"
#include "Pond/IterHint.h"
#include "Pond/MountGroup.h"
#include "Pond/internal/TableEngine.h"

namespace Pond {

template <class Row>
concept VariableRow = requires(const Row& r, Row& w, uint8_t* out, const uint8_t* in, size_t n) {
  { r.serializeLen() } -> std::convertible_to<uint32_t>;
  r.serialize(out);
  w.deserialize(in, n);
  Row::deserializeLen(in, n);
};

namespace internal {
constexpr uint32_t kKeyHashSeed = 0x504f4e44;  // "POND": readers and writer agree on it

// Reports a reader's corruption finding to the system log.
void logCorruption(const std::string& text);
uint64_t fingerprintOf(const std::string& schema);
}  // namespace internal

template <class Key, class Row>
class PondMap final : private internal::TableBase {
  static_assert(std::is_trivially_copyable_v<Key>, "keys are stored as they are");
  static_assert(VariableRow<Row> || std::is_trivially_copyable_v<Row>,
                "a row is trivially copyable or has a binary form");

 public:
  // Writer role: creates the table or attaches to the one left by a previous writer (see
  // TableEngine for the repair). Reader role: mounts the table, which may appear later.
  PondMap(Kel::Ptr<MountGroup> group, std::string name, const TableSizing& sizing = {})
      : group_(std::move(group)), name_(std::move(name)), layout_(makeLayout(sizing)) {
    if (group_->role() == Role::writer) {
      engine_ = internal::TableEngine::attachWriter(group_->link(), name_, layout_, sizing);
      buffer_.resize(engine_->bufferSize() / 8 + 1);
      group_->tableAttached();
    } else {
      internal::Segment::checkName("table", name_);
    }
    group_->tableIs(this);
  }
  ~PondMap() { group_->tableDel(this); }
  PondMap(const PondMap&) = delete;
  PondMap& operator=(const PondMap&) = delete;

  const std::string& tableName() const override { return name_; }
  const Kel::Ptr<MountGroup>& group() const noexcept { return group_; }
  bool opened() const override { return engine_ != nullptr; }
  uint32_t size() const { return engine_ ? engine_->rowCount() : 0; }
  uint32_t capacity() const { return engine_ ? engine_->capacity() : 0; }
  uint64_t version() const { return engine_ ? engine_->version() : 0; }
  // Bytes of the table's segment resident in memory.
  uint64_t residentBytes() const { return engine_ ? engine_->residentBytes() : 0; }

  // The row of `key`, or a default row when there is none.
  Row lookup(const Key& key) const {
    Row row{};
    find(key, row);
    return row;
  }
  // Copies the row of `key` into `row` and returns true; false when there is none.
  bool find(const Key& key, Row& row) const {
    if (!engine_) {
      return false;
    }
    try {
      const uint32_t hash = Kel::hashOf(key, internal::kKeyHashSeed);
      if (engine_->writer()) {
        return findOwn(key, hash, row);
      }
      uint32_t len = 0;
      if (!engine_->find(&key, hash, bytes(), &len)) {
        return false;
      }
      decodeFrom(row, bytes(), len);
      return true;
    } catch (const Kel::Exception& e) {
      reportCorruption(e.what());
      return false;
    }
  }

  // Calls f(row) for the rows at or after `hint`, at most `maxRows` of them, moving the
  // hint on; true when the iteration reached the end.
  template <class F>
  bool forEach(IterHint& hint, F&& f, uint32_t maxRows = UINT32_MAX) const {
    if (!engine_) {
      return true;
    }
    for (uint32_t n = 0; n < maxRows; ++n) {
      Row row{};
      try {
        uint32_t len = 0;
        alignas(8) uint8_t key[sizeof(Key) + 8];
        if (!engine_->next(hint, bytes(), &len, key)) {
          return true;
        }
        decode(row, len);
      } catch (const Kel::Exception& e) {
        reportCorruption(e.what());
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
      if (len > layout_.rowSize || len == 0) {
        std::vector<uint8_t> record(len);
        row.serialize(record.data());
        Kel::throwSizeExceeded(layout_.rowSize, len, record.data(), record.size());
      }
      row.serialize(bytes());
    } else {
      len = sizeof(Row);
      std::memcpy(bytes(), &row, sizeof(Row));
    }
    engine_->upsert(&key, Kel::hashOf(key, internal::kKeyHashSeed), bytes(), len);
  }
  // Writer: removes the row of `key`; false when there was none.
  bool erase(const Key& key) {
    requireWriter();
    return engine_->erase(&key, Kel::hashOf(key, internal::kKeyHashSeed));
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

  // Reader: called with the key of every changed row (see above).
  void changeHandlerIs(std::function<void(const Key&)> handler) {
    changeHandler_ = std::move(handler);
    if (changeHandler_ && engine_ && !tracking_) {
      known_ = presentKeys();
    }
    tracking_ = static_cast<bool>(changeHandler_);
  }
  // Reader: called when the table is opened, or opened again after its group was replaced;
  // called at once when it is open already.
  void mountHandlerIs(std::function<void()> handler) {
    mountHandler_ = std::move(handler);
    if (mountHandler_ && engine_) {
      mountHandler_();
    }
  }
  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandler_ = std::move(handler);
  }

 private:
  static internal::RowLayout makeLayout(const TableSizing& sizing) {
    internal::RowLayout l;
    l.typeName = std::string(Key::kelTypeName) + " -> " + std::string(Row::kelTypeName);
    l.keySize = sizeof(Key);
    l.variable = VariableRow<Row>;
    if constexpr (VariableRow<Row>) {
      if constexpr (requires { Row::kMaxLen; }) {
        l.rowSize = sizing.maxRecordLen ? sizing.maxRecordLen : Row::kMaxLen;
      } else {
        l.rowSize = sizing.maxRecordLen;
      }
    } else {
      l.rowSize = sizeof(Row);
    }
    l.fingerprint = internal::fingerprintOf(
        Kel::schemaOf<Key>() + " -> " + Kel::schemaOf<Row>() +
        (VariableRow<Row> ? " (serialised)" : " (" + std::to_string(sizeof(Row)) + " bytes)"));
    l.keyEqual = [](const void* a, const void* b) {
      Key x;
      Key y;
      std::memcpy(&x, a, sizeof(Key));
      std::memcpy(&y, b, sizeof(Key));
      return x == y;
    };
    l.keyOfRow = [](const void* row, void* keyOut) {
      if constexpr (!VariableRow<Row>) {
        Row r;
        std::memcpy(&r, row, sizeof(Row));
        Key k = r.key();
        std::memcpy(keyOut, &k, sizeof(Key));
      }
    };
    return l;
  }

  uint8_t* bytes() const { return reinterpret_cast<uint8_t*>(buffer_.data()); }

  // The writer's lookup, in place (see TableEngine::findOwnSlot).
  bool findOwn(const Key& key, uint32_t hash, Row& row) const {
    if constexpr (VariableRow<Row>) {
      const uint8_t* data = engine_->findOwnSlot(hash, [&](const uint8_t* d) {
        Key stored;
        std::memcpy(&stored, d + internal::TableEngine::kVariableKeyOffset, sizeof(Key));
        return stored == key;
      });
      if (!data) {
        return false;
      }
      uint32_t len = 0;
      const uint8_t* record = engine_->ownRecord(data, &len);
      row.deserialize(record, len);
      return true;
    } else {
      alignas(Row) uint8_t image[sizeof(Row)];
      const uint8_t* data = engine_->findOwnSlot(hash, [&](const uint8_t* d) {
        std::memcpy(image, d, sizeof(Row));
        return reinterpret_cast<const Row*>(image)->key() == key;
      });
      if (!data) {
        return false;
      }
      std::memcpy(&row, image, sizeof(Row));
      return true;
    }
  }

  static void decodeFrom(Row& row, const uint8_t* in, uint32_t len) {
    if constexpr (VariableRow<Row>) {
      row.deserialize(in, len);
    } else {
      std::memcpy(&row, in, sizeof(Row));
    }
  }
  void decode(Row& row, uint32_t len) const { decodeFrom(row, bytes(), len); }

  void requireWriter() const {
    if (group_->role() != Role::writer) {
      throw NotWriterError(fmt::format("table '{}' of mount group '{}' is mounted for reading",
                                       name_, group_->name()));
    }
  }

  void reportCorruption(const std::string& text) const {
    if (corruptionHandler_) {
      corruptionHandler_(text);
    } else {
      internal::logCorruption(text);
    }
  }

  absl::flat_hash_set<Key, Kel::Hasher<Key>> presentKeys() const {
    absl::flat_hash_set<Key, Kel::Hasher<Key>> keys;
    keys.reserve(size());
    forEach([&](const Row& r) { keys.insert(r.key()); });
    return keys;
  }

  bool tryOpen() override {
    if (engine_) {
      return true;
    }
    engine_ = internal::TableEngine::openReader(group_->link(), name_, layout_);
    if (!engine_) {
      return false;
    }
    buffer_.resize(engine_->bufferSize() / 8 + 1);
    if (reopened_) {
      resync();  // the group was replaced: hear what changed from the tables themselves
    } else {
      cursor_ = engine_->logHead();
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
    if (engine_) {
      engine_.reset();
      reopened_ = true;
    }
  }

  size_t pollChanges() override {
    if (!engine_) {
      return 0;
    }
    uint64_t head = engine_->logHead();
    if (head < cursor_ || head - cursor_ > engine_->logEntries()) {
      return resync();
    }
    size_t delivered = 0;
    for (; cursor_ < head; ++cursor_) {
      Key key;
      uint32_t op = 0;
      if (engine_->readLog(cursor_, &key, &op) == internal::TableEngine::LogRead::overrun) {
        return delivered + resync();
      }
      if (tracking_) {
        if (op == internal::kLogSet) {
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
    if (!engine_) {
      return 0;
    }
    uint64_t head = engine_->logHead();
    // The rows logged since the last delivery and gone since: the consumer may have read
    // them in the table before it heard of them, so it hears of them now. (Entries the log
    // no longer holds are lost to this; a consumer that fell that far behind cannot tell.)
    absl::flat_hash_set<Key, Kel::Hasher<Key>> logged;
    if (changeHandler_ && head >= cursor_ && head - cursor_ <= engine_->logEntries()) {
      for (uint64_t seq = cursor_; seq < head; ++seq) {
        Key key;
        uint32_t op = 0;
        if (engine_->readLog(seq, &key, &op) == internal::TableEngine::LogRead::overrun) {
          break;
        }
        logged.insert(key);
      }
    }
    auto present = presentKeys();
    size_t delivered = 0;
    if (changeHandler_) {
      for (const Key& k : present) {
        changeHandler_(k);
        ++delivered;
      }
      for (const Key& k : known_) {
        if (!present.contains(k)) {
          logged.erase(k);
          changeHandler_(k);
          ++delivered;
        }
      }
      for (const Key& k : logged) {
        if (!present.contains(k)) {
          changeHandler_(k);
          ++delivered;
        }
      }
    }
    if (tracking_) {
      known_ = std::move(present);
    }
    cursor_ = head;
    return delivered;
  }

  Kel::Ptr<MountGroup> group_;
  std::string name_;
  internal::RowLayout layout_;
  std::unique_ptr<internal::TableEngine> engine_;
  mutable std::vector<uint64_t> buffer_;
  uint64_t cursor_ = 0;
  bool reopened_ = false;
  bool tracking_ = false;
  absl::flat_hash_set<Key, Kel::Hasher<Key>> known_;
  std::function<void(const Key&)> changeHandler_;
  std::function<void()> mountHandler_;
  std::function<void(const std::string&)> corruptionHandler_;
};

}  // namespace Pond
