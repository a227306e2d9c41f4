#include "Mpls/LdpLibPond.h"

#include <fmt/format.h>

#include "Mpls/internal/LabelBindingRows.h"

namespace Ldp::LdpPond {

using Mpls::internal::keyLine;
using Mpls::internal::lastUpdateLine;

std::string LdpLocalLbtLabelEntry::pondString() const { return keyLine(*this); }
std::string LdpPeerLbtLabelEntry::pondString() const { return keyLine(*this); }
std::string LdpFecEntry::pondString() const { return keyLine(*this); }
std::string LdpIdentifierFecEntry::pondString() const { return keyLine(*this); }
std::string LdpLocalLbtLastUpdateEntry::pondString() const { return lastUpdateLine(*this); }
std::string LdpPeerLbtLastUpdateEntry::pondString() const { return lastUpdateLine(*this); }

Kel::Ptr<LdpLabelBindingTable> ldpLabelBindingTableFactory(const std::string& name) {
  return Kel::make<LdpLabelBindingTable>(name);
}

std::string mountGroupName(std::string_view name) { return fmt::format("ldp/lbt/{}", name); }

}  // namespace Ldp::LdpPond
