#include "types/Mpls/LabelBindingTable.h"

#include <cmath>

namespace Mpls {

bool LabelBinding::hasLastUpdate() const noexcept {
  return lastUpdate_ != 0 && !std::isinf(lastUpdate_);
}

void LabelBinding::handleParent(const Kel::Ptr<Kel::Entity>& parent) {
  table_ = dynamic_cast<LabelBindingTable*>(parent.get());
}

void LabelBinding::kelAttrChanged(int index, const void* key) {
  if (!table_) {
    return;
  }
  if (index == kelAttrIndex_mplsLabel) {
    table_->changed(fec_, *static_cast<const Netbase::MplsLabel*>(key));
  } else {
    table_->changed(fec_, Netbase::MplsLabel::null());
  }
}

LabelBindingTable::~LabelBindingTable() {
  for (auto&& [fec, binding] : bindingIter()) {
    binding->table_ = nullptr;
  }
}

void LabelBindingTable::changed(const FwdEqvClass& fec, Netbase::MplsLabel label) {
  changeCounterIs(LabelBindingChange(changeCounter_.counter() + 1, fec, label));
}

void LabelBindingTable::kelAttrRemoving(int index, const void* key) {
  if (index != kelAttrIndex_binding) {
    return;
  }
  const LabelBinding::Ptr b = binding(*static_cast<const FwdEqvClass*>(key));
  b->table_ = nullptr;
  removing_.clear();
  for (const Netbase::MplsLabel& label : b->mplsLabelIter()) {
    removing_.push_back(label);
  }
}

void LabelBindingTable::kelAttrChanged(int index, const void* key) {
  if (index == kelAttrIndex_changeCounter) {
    return;
  }
  const auto& fec = *static_cast<const FwdEqvClass*>(key);
  if (index == kelAttrIndex_binding && !removing_.empty() && !binding(fec)) {
    std::vector<Netbase::MplsLabel> labels;
    labels.swap(removing_);
    for (Netbase::MplsLabel label : labels) {
      changed(fec, label);
    }
    return;
  }
  changed(fec, Netbase::MplsLabel::null());
}

}  // namespace Mpls
