// The framework's hash accumulator: started with a 32-bit seed, fed one 32-bit word at a
// time, and finished into a 32-bit hash. Value types feed their fields in declaration
// order (Kel::hashFeed); nothing else about the mixing is promised, only that equal word
// sequences hash equal.
//
// Words are gathered in a small buffer and mixed by XXH3 a block at a time, so the hash of
// a typical key (a handful of words) is one XXH3 call over the stack buffer, folded to 32
// bits; up to four words are mixed inline, by two multiply-folds.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Kel {

class HashAccumulator {
 public:
  explicit HashAccumulator(uint32_t seed) noexcept : seed_(seed) {}

  void add(uint32_t word) noexcept {
    if (count_ == kBlockWords) [[unlikely]] {
      flush();
    }
    words_[count_++] = word;
  }

  void add64(uint64_t word) noexcept {
    add(static_cast<uint32_t>(word));
    add(static_cast<uint32_t>(word >> 32));
  }

  // Feeds the length, then the bytes packed four to a word (the last word zero-padded).
  void addBytes(std::string_view bytes) noexcept {
    add(static_cast<uint32_t>(bytes.size()));
    size_t i = 0;
    for (; i + 4 <= bytes.size(); i += 4) {
      uint32_t w;
      std::memcpy(&w, bytes.data() + i, 4);
      add(w);
    }
    if (i < bytes.size()) {
      uint32_t w = 0;
      std::memcpy(&w, bytes.data() + i, bytes.size() - i);
      add(w);
    }
  }

  uint32_t result() const noexcept { return ofWords(words_, count_ * sizeof(uint32_t), seed_); }

  // What feeding these words one by one gives, for at most kBlockWords of them: the hash
  // of values whose memory is their word sequence, without copying them.
  static uint32_t ofWords(const void* words, size_t bytes, uint64_t seed) noexcept {
    const uint64_t h = bytes <= 16 ? ofShortWords(static_cast<const uint8_t*>(words), bytes, seed)
                                   : XXH3_64bits_withSeed(words, bytes, seed);
    return static_cast<uint32_t>(h ^ (h >> 32));
  }

 public:
  static constexpr uint32_t kBlockWords = 16;

 private:

  // Keys of up to four words (a label, a via key) are most of what is hashed, on every
  // table lookup: two 64-bit multiply-folds (as in wyhash) instead of a call into XXH3.
  static uint64_t ofShortWords(const uint8_t* p, size_t bytes, uint64_t seed) noexcept {
    constexpr uint64_t k0 = 0xa0761d6478bd642full;
    constexpr uint64_t k1 = 0xe7037ed1a0b428dbull;
    uint64_t a = 0;
    uint64_t b = 0;
    if (bytes > 8) {
      std::memcpy(&a, p, 8);
      std::memcpy(&b, p + 8, bytes - 8);
    } else {
      std::memcpy(&a, p, bytes);
    }
    const uint64_t m = mixFold(a ^ k1, b ^ seed ^ k0);
    return mixFold(m ^ k0 ^ bytes, (m >> 29) ^ k1);
  }
  static uint64_t mixFold(uint64_t a, uint64_t b) noexcept {
    const unsigned __int128 r = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
  }

  // Only for values of more than 16 words: out of line, off the hot path.
  [[gnu::noinline, gnu::cold]] void flush() noexcept {
    seed_ = XXH3_64bits_withSeed(words_, sizeof(words_), seed_);
    count_ = 0;
  }

  uint64_t seed_;
  uint32_t count_ = 0;
  uint32_t words_[kBlockWords] = {};  // four vector stores; keeps every read defined
};

}  // namespace Kel
