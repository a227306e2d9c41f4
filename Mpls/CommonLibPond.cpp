#include "Mpls/CommonLibPond.h"

#include <fmt/format.h>

#include "Mpls/internal/LabelBindingRows.h"

namespace CommonLibPond {

using Mpls::internal::keyLine;
using Mpls::internal::lastUpdateLine;

std::string LocalLbtLabelEntry::pondString() const { return keyLine(*this); }
std::string PeerLbtLabelEntry::pondString() const { return keyLine(*this); }
std::string RouterIdFecEntry::pondString() const { return keyLine(*this); }
std::string LdpIdentifierFecEntry::pondString() const { return keyLine(*this); }
std::string FecEntry::pondString() const { return keyLine(*this); }
std::string LocalLbtLastUpdateEntry::pondString() const { return lastUpdateLine(*this); }
std::string PeerLbtLastUpdateEntry::pondString() const { return lastUpdateLine(*this); }

Kel::Ptr<LabelBindingTable> labelBindingTableFactory(const std::string& name) {
  return Kel::make<LabelBindingTable>(name);
}

std::string mountGroupName(std::string_view name) { return fmt::format("mpls/lbt/{}", name); }

}  // namespace CommonLibPond
