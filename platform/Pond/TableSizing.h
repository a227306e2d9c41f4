// Pond::TableSizing: how big a Pond table is (see Pond/PondMap.h).
#pragma once

#include <cstdint>

namespace Pond {

// How big a table is. Fixed by the writer that creates the table.
struct TableSizing {
  uint32_t capacity = 1024;   // rows
  uint32_t logEntries = 0;    // change log entries (a power of two); 0: the default
  uint64_t heapBytes = 0;     // variable rows: bytes of record heap; 0: from capacity
  uint32_t maxRecordLen = 0;  // variable rows: the largest record; 0: the row type's own
};

}  // namespace Pond
