#include "Mpls/MplsLfib.h"

#include <cstring>

#include <fmt/format.h>

#include "Kel/Binary.h"
#include "Kel/Exception.h"

namespace Mpls {

static_assert(sizeof(Netbase::IpGenAddr) == 20 && std::is_trivially_copyable_v<Netbase::IpGenAddr>);
static_assert(sizeof(Netbase::IntfId) == 8 && std::is_trivially_copyable_v<Netbase::IntfId>);
static_assert(sizeof(Netbase::MplsLabelAction) == 4 && sizeof(PayloadType) == 4 &&
              sizeof(TtlMode) == 4);

namespace {

// "[<key's text form>]"
template <class T>
std::string bracketedKey(const T& element) {
  return fmt::format("[{}]", element.key());
}

std::string intfName(const Netbase::IntfId& intf) {
  return intf ? intf.stringValue() : std::string("-");
}

// The layer-2 vias: into a VLAN, or through a tag-to-VLAN map.
template <class V>
std::string vlanViaLine(const V& via) {
  return fmt::format("{} vlanId {} flag {}", bracketedKey(via), via.vlanId(), via.flag());
}
template <class V>
std::string tagMapViaLine(const V& via) {
  return fmt::format("{} dot1qTagToVlanKey {} flag {}", bracketedKey(via), via.dot1qTagToVlanKey(),
                     via.flag());
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Dump lines.

std::string LfibMplsVia::pondString() const {
  std::string stack = labelStack_.labelStackString();
  return fmt::format(
      "{} nextHop {} labelAction {} labelStack {} {} intf {} payloadType {} skipEgressAcl {} "
      "ttlMode {} weight {}",
      bracketedKey(*this), nextHop_.stringValue(), labelAction_, labelStack_.operation(),
      stack.empty() ? "-" : stack, intfName(intf_), payloadType_,
      Kel::valueToStrep(skipEgressAcl_), ttlMode_, weight_);
}

std::string LfibPwVia::pondString() const {
  return fmt::format(
      "{} legacyPwIntfId {} pwIntfId {} controlWordPresent {} pwType {} flowLabelPresent {}",
      bracketedKey(*this), intfName(legacyPwIntfId_), intfName(pwIntfId_),
      Kel::valueToStrep(controlWordPresent_), pwType_, Kel::valueToStrep(flowLabelPresent_));
}

std::string LfibIpLookupVia::pondString() const {
  return fmt::format("{} vrfName {} payloadType {}", bracketedKey(*this),
                     Kel::valueToStrep(vrfName()), payloadType_);
}

std::string LfibVlanVia::pondString() const { return vlanViaLine(*this); }

std::string LfibEvpnVlanAwareVia::pondString() const { return tagMapViaLine(*this); }

std::string LfibEvpnEthernetSegmentFilterVia::pondString() const {
  return fmt::format("{} intfId {}", bracketedKey(*this), intfName(intfId_));
}

std::string LfibEvpnVlanFloodVia::pondString() const { return vlanViaLine(*this); }

std::string LfibEvpnVlanAwareFloodVia::pondString() const { return tagMapViaLine(*this); }

std::string LfibExtFecVia::pondString() const {
  return fmt::format("{} fecId {} labelAction {} payloadType {}", bracketedKey(*this), fecId_,
                     labelAction_, payloadType_);
}

std::string LfibViaSet::pondString() const {
  return fmt::format("{} {}", bracketedKey(*this), key_.viaType());
}

std::string LfibRoute::pondString() const {
  return fmt::format("{} {} {} {} {}", bracketedKey(*this), viaSetKey_, source_, fec_, metric_);
}

std::string RouteInfo::pondString() const {
  return fmt::format("{} {}", bracketedKey(*this), status_);
}

std::string LfibViaSetInfo::pondString() const {
  return fmt::format("{} {}", bracketedKey(*this), status_);
}

std::string LfibDot1qTagToVlanComposite::pondString() const {
  return fmt::format("{} {}", bracketedKey(*this), localVlan_);
}

// ---------------------------------------------------------------------------------------
// The IP lookup via's VRF name.

LfibIpLookupVia::LfibIpLookupVia(const LfibViaKey& key, const L3::VrfName& vrfName,
                                 PayloadType payloadType)
    : key_(key), payloadType_(payloadType) {
  vrfNameIs(vrfName);
}

void LfibIpLookupVia::vrfNameIs(const L3::VrfName& name) {
  KEL_ASSERT(name.bytes() <= L3::VrfName::maxLength(), "VRF name longer than the via's buffer");
  vrfNameBuffer_.delAll();
  const char* bytes = name.c_str();
  for (uint32_t i = 0; i < name.bytes(); ++i) {
    vrfNameBuffer_.set(i, static_cast<uint8_t>(bytes[i]));
  }
  vrfNameBuffer_.set(name.bytes(), 0);
}

L3::VrfName LfibIpLookupVia::vrfName() const {
  const auto* bytes = reinterpret_cast<const char*>(vrfNameBuffer_.begin());
  size_t len = vrfNameBuffer_.count();
  const void* zero = std::memchr(bytes, 0, len);
  if (zero) {
    len = static_cast<size_t>(static_cast<const char*>(zero) - bytes);
  }
  return L3::VrfName(std::string_view(bytes, len));
}

// ---------------------------------------------------------------------------------------
// Binary forms.

uint32_t LfibMplsVia::serialize(uint8_t* out) const {
  Kel::ByteWriter w(out);
  w.put(key_);
  w.put(nextHop_);
  w.put(labelAction_);
  w.skip(labelStack_.serialize(w.cursor()));
  w.put(intf_);
  w.put(payloadType_);
  w.put(static_cast<uint8_t>(skipEgressAcl_));
  w.put(ttlMode_);
  w.put(weight_);
  return static_cast<uint32_t>(w.position());
}

uint32_t LfibMplsVia::deserializeLen(const uint8_t* in, size_t len) {
  constexpr uint32_t kHead = 36;
  Kel::requireLength(in, len, kHead);
  uint32_t need = kFixedLen + Netbase::UnboundedMplsLabelOperation::deserializeLen(
                                  in + kHead, len - kHead);
  Kel::requireLength(in, len, need);
  return need;
}

uint32_t LfibMplsVia::deserialize(const uint8_t* in, size_t len) {
  uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  LfibMplsVia v;
  v.key_ = r.get<LfibViaKey>();
  v.nextHop_ = r.get<Netbase::IpGenAddr>();
  v.labelAction_ = r.get<Netbase::MplsLabelAction>();
  r.skip(v.labelStack_.deserialize(r.cursor(), r.remaining()));
  v.intf_ = r.get<Netbase::IntfId>();
  v.payloadType_ = r.get<PayloadType>();
  v.skipEgressAcl_ = r.get<uint8_t>() != 0;
  v.ttlMode_ = r.get<TtlMode>();
  v.weight_ = r.get<uint32_t>();
  *this = std::move(v);
  return need;
}

uint32_t LfibIpLookupVia::serialize(uint8_t* out) const {
  Kel::ByteWriter w(out);
  w.put(key_);
  w.put(payloadType_);
  w.skip(vrfNameBuffer_.serialize(w.cursor()));
  return static_cast<uint32_t>(w.position());
}

uint32_t LfibIpLookupVia::deserializeLen(const uint8_t* in, size_t len) {
  Kel::requireLength(in, len, kFixedLen);
  return kFixedLen + LfibVrfNameBuffer::deserializeLen(in + kFixedLen, len - kFixedLen);
}

uint32_t LfibIpLookupVia::deserialize(const uint8_t* in, size_t len) {
  uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  LfibIpLookupVia v;
  v.key_ = r.get<LfibViaKey>();
  v.payloadType_ = r.get<PayloadType>();
  r.skip(v.vrfNameBuffer_.deserialize(r.cursor(), r.remaining()));
  *this = std::move(v);
  return need;
}

uint32_t LfibViaSet::serialize(uint8_t* out) const {
  uint32_t count = viaKey_.count();
  KEL_ASSERT(count <= LfibViaKeyArray::capacity,
             fmt::format("via set claims {} via keys; via key data: {}", count,
                         Kel::hexDump(viaKey_.begin(), sizeof(LfibViaKey) * LfibViaKeyArray::capacity)));
  Kel::ByteWriter w(out);
  w.put(key_);
  w.put(backupViaSetKey_);
  w.put(static_cast<uint8_t>(isUsableAsPrimaryVia_));
  w.skip(3);
  w.put(flags_.value());
  w.put(static_cast<uint8_t>(resetFailoverState_));
  w.skip(3);
  w.put(count);
  // LfibViaKey is exactly its three 32-bit fields, in the record's order.
  std::memcpy(w.cursor(), viaKey_.begin(), kViaKeyLen * count);
  return kHeadLen + kViaKeyLen * count;
}

uint32_t LfibViaSet::deserializeLen(const uint8_t* in, size_t len) {
  Kel::requireLength(in, len, kHeadLen);
  uint32_t count;
  std::memcpy(&count, in + 44, sizeof(count));
  if (count > LfibViaKeyArray::capacity) {
    Kel::throwSizeExceeded(LfibViaKeyArray::capacity, count, in, len);
  }
  uint32_t need = kHeadLen + kViaKeyLen * count;
  Kel::requireLength(in, len, need);
  return need;
}

uint32_t LfibViaSet::deserialize(const uint8_t* in, size_t len) {
  uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  LfibViaSet v;
  v.key_ = r.get<LfibViaSetKey>();
  v.backupViaSetKey_ = r.get<LfibViaSetKey>();
  v.isUsableAsPrimaryVia_ = r.get<uint8_t>() != 0;
  r.skip(3);
  v.flags_ = LfibViaSetFlags(r.get<uint32_t>());
  v.resetFailoverState_ = r.get<uint8_t>() != 0;
  r.skip(3);
  uint32_t count = r.get<uint32_t>();
  for (uint32_t i = 0; i < count; ++i) {
    v.viaKey_.set(i, r.get<LfibViaKey>());
  }
  *this = std::move(v);
  return need;
}

// ---------------------------------------------------------------------------------------
// Factories.

Kel::Ptr<LfibDot1qTagToVlan> lfibDot1qTagToVlanFactory(const LfibDot1qTagToVlanKey& key) {
  return Kel::make<LfibDot1qTagToVlan>(key);
}

Kel::Ptr<LocalLfibInfo> localLfibInfoFactory() { return Kel::make<LocalLfibInfo>(); }

}  // namespace Mpls
