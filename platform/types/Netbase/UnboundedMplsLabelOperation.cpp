#include "types/Netbase/UnboundedMplsLabelOperation.h"

#include <fmt/format.h>

#include <cstring>

#include "Kel/Binary.h"

namespace Netbase {

std::string UnboundedMplsLabelOperation::labelStackString() const {
  std::string out;
  for (const MplsLabel& l : labelStack_) {
    if (!out.empty()) {
      out.push_back('/');
    }
    fmt::format_to(std::back_inserter(out), "{}", l.value());
  }
  return out;
}

uint32_t UnboundedMplsLabelOperation::serialize(uint8_t* out) const {
  if (labelStack_.size() > kMaxLabels) {
    throw Kel::SizeError(fmt::format("label stack of {} labels; at most {} can be stored",
                                     labelStack_.size(), kMaxLabels));
  }
  Kel::ByteWriter w(out);
  w.put(static_cast<uint16_t>(labelStack_.size()));
  w.put(static_cast<uint8_t>(operation_));
  w.put(uint8_t{0});
  for (const MplsLabel& l : labelStack_) {
    w.put(l.value());
  }
  return static_cast<uint32_t>(w.position());
}

uint32_t UnboundedMplsLabelOperation::deserializeLen(const uint8_t* in, size_t len) {
  Kel::ByteReader r(in, len);
  uint32_t count = r.get<uint16_t>();
  uint32_t need = kBinaryHeadLen + 4 * count;
  Kel::requireLength(in, len, need);
  return need;
}

uint32_t UnboundedMplsLabelOperation::deserialize(const uint8_t* in, size_t len) {
  const uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  const uint32_t count = r.get<uint16_t>();
  const MplsLabelAction operation = static_cast<MplsLabelAction>(r.get<uint8_t>());
  r.skip(1);
  // Every label is checked before anything changes: a bad record leaves this as it was.
  const uint8_t* labels = r.cursor();
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t v;
    std::memcpy(&v, labels + 4 * i, 4);
    (void)MplsLabel(v);
  }
  operation_ = operation;
  labelStack_.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t v;
    std::memcpy(&v, labels + 4 * i, 4);
    labelStack_[i] = MplsLabel::unchecked(v);
  }
  return need;
}

}  // namespace Netbase
