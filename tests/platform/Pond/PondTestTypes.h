// Row types of the Pond tests: a fixed row stored as it is, and a variable row stored in
// its binary form.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Kel/Binary.h"
#include "Kel/Range.h"
#include "Kel/Value.h"
#include "Pond/MountGroup.h"
#include "Pond/TableSizing.h"

namespace PondTest {

class Key {
  KEL_VALUE(Key, "PondTest::Key", (uint32_t, id));
};

// A fixed row whose words all derive from one number, so that a torn row shows.
class Row {
  KEL_VALUE(Row, "PondTest::Row", (Key, key), (uint64_t, a), (uint64_t, b), (uint64_t, c),
            (uint64_t, d));

 public:
  static Row of(uint32_t id, uint64_t n) {
    return Row(Key(id), n, n * 3 + 1, n ^ 0x5555555555555555ull, ~n);
  }
  // The line of a dump: "[<id>] <a>".
  std::string pondString() const { return "[" + std::to_string(key_.id()) + "] " + std::to_string(a_); }
  bool consistent() const { return b_ == a_ * 3 + 1 && c_ == (a_ ^ 0x5555555555555555ull) && d_ == ~a_; }
};

// Keys numbered in sequence (as labels and indexes are): a reader keeps its sets of them
// as presence bits.
class OrdinalKey {
  KEL_VALUE(OrdinalKey, "PondTest::OrdinalKey", (uint32_t, id));
  KEL_HASH_ORDINAL(id)
};
class OrdinalRow {
  KEL_VALUE(OrdinalRow, "PondTest::OrdinalRow", (OrdinalKey, key), (uint64_t, n));
};

// Rows whose keys the table cannot compare at the row's start: one after another field,
// one with padding bytes (compared through its equality).
class TailKeyRow {
  KEL_VALUE(TailKeyRow, "PondTest::TailKeyRow", (uint64_t, n), (Key, key));
};
class PaddedKey {
  KEL_VALUE(PaddedKey, "PondTest::PaddedKey", (uint8_t, kind), (uint32_t, id));
};
class PaddedKeyRow {
  KEL_VALUE(PaddedKeyRow, "PondTest::PaddedKeyRow", (PaddedKey, key), (uint64_t, n));
};

// A fixed row whose fields have invariants a damaged byte can break.
KEL_RANGE(Level, "PondTest::Level", uint32_t, 1, 9);
class CheckedRow {
  KEL_VALUE(CheckedRow, "PondTest::CheckedRow", (Key, key), (bool, on), (Level, level));
};

// A variable row: its key and 0 to 100 words, each derived from the first.
class VarRow {
  using Words = std::vector<uint32_t>;
  KEL_VALUE(VarRow, "PondTest::VarRow", (Key, key), (Words, words));

 public:
  static constexpr uint32_t kMaxLen = 8 + 4 * 100;
  static VarRow of(uint32_t id, uint32_t n, uint32_t count) {
    Words w;
    for (uint32_t i = 0; i < count; ++i) {
      w.push_back(n + i * 7);
    }
    return VarRow(Key(id), w);
  }
  // The line of a dump: "[<id>] <word count> words".
  std::string pondString() const {
    return "[" + std::to_string(key_.id()) + "] " + std::to_string(words_.size()) + " words";
  }
  uint32_t serializeLen() const { return static_cast<uint32_t>(8 + 4 * words_.size()); }
  void serialize(uint8_t* out) const {
    Kel::ByteWriter w(out);
    w.put(key_.id());
    w.put(static_cast<uint32_t>(words_.size()));
    for (uint32_t x : words_) {
      w.put(x);
    }
  }
  static uint32_t deserializeLen(const uint8_t* in, size_t len) {
    Kel::ByteReader r(in, len);
    r.get<uint32_t>();
    uint32_t count = r.get<uint32_t>();
    if (count > 100) {  // checked before any arithmetic on it
      Kel::throwSizeExceeded(100, count, in, len);
    }
    uint32_t need = 8 + 4 * count;
    Kel::requireLength(in, len, need);
    return need;
  }
  uint32_t deserialize(const uint8_t* in, size_t len) {
    uint32_t need = deserializeLen(in, len);
    Kel::ByteReader r(in, need);
    key_ = Key(r.get<uint32_t>());
    words_.resize(r.get<uint32_t>());
    for (uint32_t& x : words_) {
      x = r.get<uint32_t>();
    }
    return need;
  }
};

// A table's sizing: its capacity, its log's entries and its record heap's bytes.
inline Pond::TableSizing sized(uint32_t capacity, uint32_t log = 0, uint64_t heapBytes = 0) {
  return {.capacity = capacity, .logEntries = log, .heapBytes = heapBytes};
}

// A mount group name of its own for each test, removed at the end.
class ScopedGroupName {
 public:
  explicit ScopedGroupName(const std::string& test)
      : name_("t" + std::to_string(::getpid()) + "-" + test) {
    Pond::MountGroup::removeSegments(name_);
  }
  ~ScopedGroupName() {
    try {
      Pond::MountGroup::removeSegments(name_);
    } catch (const Pond::SegmentError& e) {
      std::fprintf(stderr, "%s\n", e.what());  // a destructor must not throw
    }
  }
  const std::string& operator*() const { return name_; }

 private:
  std::string name_;
};

}  // namespace PondTest
