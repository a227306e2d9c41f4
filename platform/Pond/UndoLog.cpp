#include "Pond/UndoLog.h"

#include <fmt/format.h>

#include <cstring>

#include "Pond/Exception.h"
#include "Pond/TableCore.h"

namespace Pond {

UndoLog::UndoLog(Kel::Ptr<MountGroup> group) : group_(std::move(group)) {
  if (group_->role() != Role::writer) {
    throw NotWriterError(
        fmt::format("mount group '{}' is mounted for reading: nothing to undo", group_->name()));
  }
  if (group_->undoLog_) {
    throw NotWriterError(fmt::format("mount group '{}' has an undo log already", group_->name()));
  }
  group_->undoLog_ = this;
}

UndoLog::~UndoLog() { group_->undoLog_ = nullptr; }

void UndoLog::recordBefore(TableCore& table, const void* key, uint32_t keyBytes, uint32_t hash,
                           const uint8_t* row, uint32_t rowBytes) {
  const uint64_t offset = bytes_.size();
  bytes_.resize(offset + keyBytes + (row ? rowBytes : 0));
  std::memcpy(bytes_.data() + offset, key, keyBytes);
  if (row) {
    std::memcpy(bytes_.data() + offset + keyBytes, row, rowBytes);
  }
  entries_.push_back(Entry{&table, hash, keyBytes, row ? rowBytes : 0, row != nullptr, offset});
}

void UndoLog::dropLast() noexcept {
  bytes_.resize(entries_.back().offset);
  entries_.pop_back();
}

void UndoLog::rollback() {
  // Not recorded: the log's own writes.
  group_->undoLog_ = nullptr;
  struct Resume {
    UndoLog* log;
    ~Resume() { log->group_->undoLog_ = log; }
  } resume{this};
  while (!entries_.empty()) {
    const Entry& e = entries_.back();
    const uint8_t* key = bytes_.data() + e.offset;
    e.table->undo(key, e.hash, e.hadRow ? key + e.keyBytes : nullptr, e.rowBytes);
    bytes_.resize(e.offset);
    entries_.pop_back();
  }
}

}  // namespace Pond
