// Pond::UndoLog: takes a writer's changes back.
//
// While an UndoLog of a writer group lives, every change to every table of the group is
// recorded with what it replaced: the row (or record) that was there, or its absence.
// rollback() puts back what each change replaced, newest first, through the tables' usual
// write path: readers see the rollback as changes, in an order that retraces the writer's
// own steps backwards, so an order the writer kept for its readers (a via before the set
// that names it, a set before its route) holds on the way back too. The rows come back
// byte for byte; a change the table refused (a full table) was never made and is not
// recorded.
//
// Notifications of the typed collections (Kel entities over the tables) are not sent for
// the rows a rollback puts back: the log works below them. A writer whose in-process state
// mirrors its tables reads them again after a rollback.
//
// Writer only; one log per group at a time; the tables must outlive the log. Memory: the
// key and the replaced row of every change, until the log is dropped.
#pragma once

#include <cstdint>
#include <vector>

#include "Kel/Entity.h"
#include "Pond/MountGroup.h"

namespace Pond {

class TableCore;

class UndoLog {
 public:
  // Starts recording the changes of `group`. Throws NotWriterError for a reader's group,
  // and when the group has a log already.
  explicit UndoLog(Kel::Ptr<MountGroup> group);
  UndoLog(const UndoLog&) = delete;
  UndoLog& operator=(const UndoLog&) = delete;
  // Stops recording; the changes stay.
  ~UndoLog();

  // The changes recorded and not rolled back.
  size_t changes() const noexcept { return entries_.size(); }
  // Puts back what every recorded change replaced, newest first, and forgets them; goes on
  // recording afterwards. Throws what the tables' writes throw (a change in between may
  // have used the room the rows need); the changes not yet taken back stay recorded.
  void rollback();

 private:
  friend class TableCore;
  struct Entry {
    TableCore* table;
    uint32_t hash;
    uint32_t keyBytes;
    uint32_t rowBytes;  // of the replaced row; 0 with hadRow false
    bool hadRow;
    uint64_t offset;  // of the key, then the row, in bytes_
  };
  // A change of `table` is about to be made (TableCore calls these).
  void recordBefore(TableCore& table, const void* key, uint32_t keyBytes, uint32_t hash,
                    const uint8_t* row, uint32_t rowBytes);
  // The change just recorded was refused.
  void dropLast() noexcept;

  Kel::Ptr<MountGroup> group_;
  std::vector<Entry> entries_;
  std::vector<uint8_t> bytes_;
};

}  // namespace Pond
