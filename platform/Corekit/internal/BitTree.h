// Corekit::internal::BitTree: a set of the integers [0, size) whose lowest member is found
// in O(log64 size) steps, never by scanning.
//
// Level 0 holds one bit per integer; each word of level k+1 holds one bit per word of
// level k, set when that word is not zero. The top level is one word. Finding the lowest
// member walks down from the top taking the lowest set bit of one word per level (four
// words for a million integers); inserting or erasing touches a level above only when a
// word below turns empty or stops being so. Memory: about size / 8 bytes, plus 1/63 for
// the levels above.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Corekit::internal {

class BitTree {
 public:
  static constexpr uint64_t none = ~uint64_t{0};

  // The set of [0, size), full or empty.
  BitTree(uint64_t size, bool full);

  bool has(uint64_t i) const noexcept { return (words_[i >> 6] >> (i & 63)) & 1; }

  // Requires i < size.
  void insert(uint64_t i) noexcept {
    for (size_t level = 0;; ++level) {
      uint64_t& w = words_[levelStart_[level] + (i >> 6)];
      const bool wasEmpty = w == 0;
      w |= uint64_t{1} << (i & 63);
      if (!wasEmpty || level + 1 == levelStart_.size()) {
        return;
      }
      i >>= 6;
    }
  }

  // Requires i < size.
  void erase(uint64_t i) noexcept {
    for (size_t level = 0;; ++level) {
      uint64_t& w = words_[levelStart_[level] + (i >> 6)];
      w &= ~(uint64_t{1} << (i & 63));
      if (w != 0 || level + 1 == levelStart_.size()) {
        return;
      }
      i >>= 6;
    }
  }

  // The lowest member, or `none` when the set is empty.
  uint64_t first() const noexcept {
    size_t level = levelStart_.size() - 1;
    if (words_[levelStart_[level]] == 0) {
      return none;
    }
    uint64_t i = 0;
    for (;; --level) {
      i = (i << 6) | static_cast<uint64_t>(std::countr_zero(words_[levelStart_[level] + i]));
      if (level == 0) {
        return i;
      }
    }
  }

 private:
  std::vector<uint64_t> words_;     // level 0 first, then each level above it
  std::vector<size_t> levelStart_;  // the index of each level's first word
};

}  // namespace Corekit::internal
