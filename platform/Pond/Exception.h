// The errors of the shared-memory table service.
#pragma once

#include "Kel/Exception.h"

namespace Pond {

class PondException : public Kel::Exception {
 public:
  using Kel::Exception::Exception;
};

// A segment that cannot be created, opened or trusted: a bad name, a permission or system
// error, a header that does not match (magic, layout version, row type, sizes), a file
// shorter than its header claims. The message names the segment and what is wrong.
class SegmentError : public PondException {
 public:
  using PondException::PondException;
};

// Another live process is the writer of the mount group.
class WriterExistsError : public PondException {
 public:
  using PondException::PondException;
};

// The writer's table has no room for another row: "table 'route' of mount group 'lfib'
// is full (1024 rows)"; for variable rows, its record heap may be what is full.
class TableFullException : public PondException {
 public:
  using PondException::PondException;
};

// A reader found the shared structure inconsistent: an index out of bounds, a row that
// does not decode or breaks its type's invariants, a segment truncated under the process
// ("... segment was truncated to N bytes under the reader"). Lookups and iterations hand
// its text to the table's corruption handler and carry on as if the row were absent.
class CorruptionError : public PondException {
 public:
  using PondException::PondException;
};

// A reader got no stable read of a row within its bound (2 s) while the group's writer
// lives: a sequence counter stayed odd, or kept changing, all that time. The writer is
// stopped or hung, or a damaged group header names some other live process. The message
// names the table, the writer's pid and what stayed half-written: "table 'route' of mount
// group 'lfib': its writer (pid 1234) is stuck: slot 7 stayed half-written for 2 s".
class WriterStuckError : public CorruptionError {
 public:
  using CorruptionError::CorruptionError;
};

// A mutating call on a table mounted for reading.
class NotWriterError : public PondException {
 public:
  using PondException::PondException;
};

}  // namespace Pond
