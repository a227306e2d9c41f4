#include "types/Netbase/UnboundedMplsLabelOperation.h"

#include <fmt/format.h>

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
  uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  uint32_t count = r.get<uint16_t>();
  MplsLabelAction operation = static_cast<MplsLabelAction>(r.get<uint8_t>());
  r.skip(1);
  MplsLabelStack stack;
  stack.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    stack.push_back(MplsLabel(r.get<uint32_t>()));
  }
  operation_ = operation;
  labelStack_ = std::move(stack);
  return need;
}

}  // namespace Netbase
