#include "Pond/TableCore.h"

#include <fmt/format.h>

#include <cstring>

#include "Kel/Hash.h"
#include "Kel/Log.h"
#include "Pond/Exception.h"
#include "Pond/UndoLog.h"
#include "Pond/internal/Segment.h"
#include "Pond/internal/TableEngine.h"

namespace Pond {

namespace internal {

KEL_LOG_MESSAGE(POND_TABLE_CORRUPTION, "POND", "TABLE_CORRUPTION", Kel::LogSeverity::error, "{}",
                "A process reading a shared-memory table found it inconsistent and treated the "
                "affected row as absent.",
                "Restart the agent that writes the table; if the message recurs, report it.");

uint64_t fingerprintOf(const std::string& schema) {
  uint64_t hi = XXH32(schema.data(), schema.size(), 0x9e3779b9u);
  uint64_t lo = XXH32(schema.data(), schema.size(), 0x85ebca6bu);
  return (hi << 32) | lo;
}

}  // namespace internal

using internal::TableEngine;

TableCore::TableCore(Kel::Ptr<MountGroup> group, std::string name, RowFormat format,
                     const TableSizing& sizing)
    : group_(std::move(group)),
      name_(std::move(name)),
      format_(std::move(format)),
      writer_(group_->role() == Role::writer) {
  if (writer_) {
    engine_ = TableEngine::attachWriter(group_->link(), name_, format_, sizing);
    buffer_.resize(engine_->bufferSize() / 8 + 1);
    group_->tableAttached();
  } else {
    internal::Segment::checkName("table", name_);
  }
}

TableCore::~TableCore() = default;

uint32_t TableCore::size() const noexcept { return engine_ ? engine_->rowCount() : 0; }
uint32_t TableCore::capacity() const noexcept { return engine_ ? engine_->capacity() : 0; }
uint64_t TableCore::version() const noexcept { return engine_ ? engine_->version() : 0; }

void TableCore::populate(uint32_t rows, uint64_t recordBytes) const {
  requireWriter();
  if (engine_) {
    engine_->populate(rows, recordBytes);
  }
}

uint64_t TableCore::heapBytes() const noexcept { return engine_ ? engine_->heapBytes() : 0; }
bool TableCore::heapHolds(const std::vector<uint32_t>& recordLengths) const {
  requireWriter();
  return !engine_ || engine_->heapHolds(recordLengths);
}
uint64_t TableCore::residentBytes() const { return engine_ ? engine_->residentBytes() : 0; }

bool TableCore::unreadable() const {
  return engine_ && (engine_->damaged() || engine_->writerStuck());
}

void TableCore::badRow(const std::string& why) const {
  throw CorruptionError(
      fmt::format("table '{}' of mount group '{}': {}", name_, group_->name(), why));
}

bool TableCore::findCopy(const void* key, uint32_t hash, uint32_t* len) const {
  return engine_->find(key, hash, bytes(), len);
}

const uint8_t* TableCore::findOwn(const void* key, uint32_t hash, uint32_t* len) const {
  return engine_->findOwn(key, hash, len);
}

bool TableCore::next(IterHint& hint, uint32_t* len) const {
  alignas(8) uint8_t key[internal::kMaxKeySize];  // variable rows' keys, which the rows hold too
  return engine_->next(hint, bytes(), len, key);
}

bool TableCore::nextKey(IterHint& hint, void* keyOut) const {
  uint32_t len = 0;
  if (format_.variable) {
    return engine_->next(hint, bytes(), &len, keyOut, true);
  }
  if (!engine_->next(hint, bytes(), &len, nullptr)) {
    return false;
  }
  if (format_.keyOffset != RowFormat::kKeyNotBytewise) {
    std::memcpy(keyOut, bytes() + format_.keyOffset, format_.keySize);
  } else {
    format_.keyOfRow(bytes(), keyOut);
  }
  return true;
}

void TableCore::upsertBytes(const void* key, uint32_t hash, uint32_t len) {
  if (UndoLog* undo = group_->undoLog()) [[unlikely]] {
    recordBefore(*undo, key, hash);
    try {
      engine_->upsert(key, hash, bytes(), len);
    } catch (...) {
      undo->dropLast();  // refused: nothing changed
      throw;
    }
    return;
  }
  engine_->upsert(key, hash, bytes(), len);
}

bool TableCore::eraseKey(const void* key, uint32_t hash) {
  if (UndoLog* undo = group_->undoLog()) [[unlikely]] {
    uint32_t len = 0;
    if (!engine_->findOwn(key, hash, &len)) {
      return false;
    }
    recordBefore(*undo, key, hash);
  }
  return engine_->erase(key, hash);
}

void TableCore::recordBefore(UndoLog& undo, const void* key, uint32_t hash) {
  uint32_t len = 0;
  const uint8_t* row = engine_->findOwn(key, hash, &len);
  undo.recordBefore(*this, key, format_.keySize, hash, row, len);
}

void TableCore::undo(const void* key, uint32_t hash, const uint8_t* row, uint32_t len) {
  if (row) {
    std::memcpy(bytes(), row, len);
    engine_->upsert(key, hash, bytes(), len);
  } else {
    engine_->erase(key, hash);
  }
}

void TableCore::requireWriter() const {
  if (!writer_) {
    throw NotWriterError(fmt::format("table '{}' of mount group '{}' is mounted for reading",
                                     name_, group_->name()));
  }
}

uint64_t TableCore::logHead() const noexcept { return engine_->logHead(); }
uint32_t TableCore::logEntries() const noexcept { return engine_->logEntries(); }

TableCore::LogRead TableCore::readLog(uint64_t seq, void* keyOut) const {
  uint32_t op = 0;
  if (engine_->readLog(seq, keyOut, &op) == TableEngine::LogRead::overrun) {
    return LogRead::overrun;
  }
  return op == internal::kLogSet ? LogRead::set : LogRead::erased;
}

bool TableCore::openReader() {
  engine_ = TableEngine::openReader(group_->link(), name_, format_);
  if (!engine_) {
    return false;
  }
  buffer_.resize(engine_->bufferSize() / 8 + 1);
  return true;
}

bool TableCore::closeReader() noexcept {
  if (!engine_) {
    return false;
  }
  engine_.reset();
  return true;
}

void TableCore::reportCorruption(const std::string& text) const {
  if (corruptionHandler_) {
    corruptionHandler_(text);
  } else {
    Kel::log(internal::POND_TABLE_CORRUPTION, text);
  }
}

}  // namespace Pond
