// How the state database keeps an entity in Pond: the rows of every table are a key and a
// record of bytes, both in the binary form of Kel/Codec.h. Internal to platform/Statehub.
//
// An entity published at a path is one mount group. Its tables, for an entity type with
// scalars and collections, nested entity collections flattened:
//   "kel-meta"            key 0: the entity's type name
//   "kel-scalars"         key: the attribute's index; record: the value
//   "<coll>"              key: the element's key; record: the value ("" for sets)
//   "<coll>"              (entity collections) key: the child's key; record: ""
//   "<coll>-kel-scalars", "<coll>-<childColl>", ...: the children's attributes, keyed by
//                         the child's key followed by their own key
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Kel/Binary.h"
#include "Kel/Value.h"

namespace Statehub::internal {

// A table key: up to 60 bytes of binary form.
class StoredKey {
 public:
  static constexpr size_t kMaxBytes = 60;
  using Bytes = std::array<uint8_t, kMaxBytes>;
  KEL_VALUE(StoredKey, "Statehub::StoredKey", (uint32_t, length), (Bytes, bytes));

  // False when `bytes` is longer than kMaxBytes.
  static bool fits(std::string_view bytes) noexcept { return bytes.size() <= kMaxBytes; }
  static StoredKey of(std::string_view bytes) noexcept {
    StoredKey k;
    k.length_ = static_cast<uint32_t>(bytes.size());
    std::memcpy(k.bytes_.data(), bytes.data(), bytes.size());
    return k;
  }
  std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(bytes_.data()),
            std::min<size_t>(length_, kMaxBytes)};
  }
};

// A table row: its key and the value's bytes.
class StoredRecord {
 public:
  KEL_VALUE(StoredRecord, "Statehub::StoredRecord", (StoredKey, key), (std::string, value));

  static constexpr uint32_t kMaxLen = 8192;
  uint32_t serializeLen() const noexcept {
    return static_cast<uint32_t>(1 + key_.view().size() + value_.size());
  }
  uint32_t serialize(uint8_t* out) const {
    const std::string_view k = key_.view();
    out[0] = static_cast<uint8_t>(k.size());
    std::memcpy(out + 1, k.data(), k.size());
    std::memcpy(out + 1 + k.size(), value_.data(), value_.size());
    return serializeLen();
  }
  uint32_t deserialize(const uint8_t* in, size_t len) {
    Kel::requireLength(in, len, 1);
    const size_t k = in[0];
    if (k > StoredKey::kMaxBytes) {
      Kel::throwSizeExceeded(StoredKey::kMaxBytes, k, in, len);
    }
    Kel::requireLength(in, len, 1 + k);
    key_ = StoredKey::of({reinterpret_cast<const char*>(in + 1), k});
    value_.assign(reinterpret_cast<const char*>(in + 1 + k), len - 1 - k);
    return static_cast<uint32_t>(len);
  }
  static uint32_t deserializeLen(const uint8_t*, size_t len) { return static_cast<uint32_t>(len); }
};

}  // namespace Statehub::internal
