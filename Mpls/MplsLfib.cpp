#include "Mpls/MplsLfib.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include <fmt/format.h>

#include "Kel/Binary.h"
#include "Kel/Exception.h"
#include "Mpls/LfibRouteView.h"

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

namespace {
// An MPLS via's record up to its label stack: key, next hop and label action.
constexpr uint32_t kMplsViaHeadLen = 36;
}  // namespace

uint32_t LfibMplsVia::deserializeLen(const uint8_t* in, size_t len) {
  Kel::requireLength(in, len, kMplsViaHeadLen);
  uint32_t need = kFixedLen + Netbase::UnboundedMplsLabelOperation::deserializeLen(
                                  in + kMplsViaHeadLen, len - kMplsViaHeadLen);
  Kel::requireLength(in, len, need);
  return need;
}

uint32_t LfibMplsVia::deserialize(const uint8_t* in, size_t len) {
  const uint32_t need = deserializeLen(in, len);
  // The label stack first: it is the only part that can be refused once the length is
  // known, and refuses before changing anything.
  const uint32_t stackLen =
      labelStack_.deserialize(in + kMplsViaHeadLen, need - kMplsViaHeadLen);
  Kel::ByteReader r(in, need);
  key_ = r.get<LfibViaKey>();
  nextHop_ = r.get<Netbase::IpGenAddr>();
  labelAction_ = r.get<Netbase::MplsLabelAction>();
  r.skip(stackLen);
  intf_ = r.get<Netbase::IntfId>();
  payloadType_ = r.get<PayloadType>();
  skipEgressAcl_ = r.get<uint8_t>() != 0;
  ttlMode_ = r.get<TtlMode>();
  weight_ = r.get<uint32_t>();
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
  // The record is whole; only its flags can still be refused, and they are read first.
  uint32_t flagBits;
  std::memcpy(&flagBits, in + 36, sizeof(flagBits));
  const LfibViaSetFlags flags(flagBits);
  Kel::ByteReader r(in, need);
  key_ = r.get<LfibViaSetKey>();
  backupViaSetKey_ = r.get<LfibViaSetKey>();
  isUsableAsPrimaryVia_ = r.get<uint8_t>() != 0;
  r.skip(3);
  r.get<uint32_t>();
  flags_ = flags;
  resetFailoverState_ = r.get<uint8_t>() != 0;
  r.skip(3);
  uint32_t count = r.get<uint32_t>();
  viaKey_.delAll();
  for (uint32_t i = 0; i < count; ++i) {
    viaKey_.set(i, r.get<LfibViaKey>());
  }
  return need;
}

// ---------------------------------------------------------------------------------------
// LfibStatus.

// One check per via collection: its keys must carry its via type. Each is a function of
// its own, so that its report names it and the constant it compares with.
#define MPLS_VERIFY_VIA_TYPE(x, Type, name, Name, Row, capacity, label)          \
  void LfibStatus::verifyViaType##Type(const LfibViaKey& key) const {            \
    KEL_ASSERT(key.viaType() == viaType##Type##_, "via key and via coll type mismatch"); \
  }
MPLS_LFIB_VIA_TYPES(MPLS_VERIFY_VIA_TYPE, _)
#undef MPLS_VERIFY_VIA_TYPE

void LfibStatus::handleRoute(const RouteKey& key) const {
  const LfibRoute route = lfibRoute(key);
  if (route == LfibRoute() || !isEvpnViaType(route.viaSetKey().viaType())) {
    return;
  }
  KEL_ASSERT(route.metric() == 0, "EVPN lfib routes must have metric set to 0");
}

void LfibStatus::handleViaSet(const LfibViaSetKey& key) const {
  const LfibViaSet vs = viaSet(key);
  if (vs == LfibViaSet()) {
    return;
  }
  const LfibViaType viaType = vs.key().viaType();
  for (const LfibViaKey& slot : vs.viaKey()) {
    const LfibViaType viaKeyType = slot.viaType();
    KEL_ASSERT(viaKeyType == viaType, "Vias in a viaSet must always be homogeneous");
  }
  if (isEvpnViaType(viaType)) {
    KEL_ASSERT(vs.viaKeys() <= 1, "EVPN via sets must contain at most 1 via key");
  }
}

void LfibStatus::dumpState(Kel::DumpContext& context, int indent) const {
  // The tables in their order but for two: the external FEC vias come right after the
  // MPLS vias, and the tag-to-VLAN maps (local to the process) right before their flat
  // form in the shared table.
  tableForEach([&](const auto& table) {
    if (table.name == LfibVia<viaTypeExternalFec>::collection) {
      return;
    }
    if (table.name == "dot1qTagToVlanComposite") {
      dumpTagToVlanMaps(context, indent);
    }
    KelPond::dumpRows(context, indent, table);
    if (table.name == LfibVia<viaTypeMplsIp>::collection) {
      KelPond::dumpRows(context, indent,
                        KelPond::TableRef<LfibViaKey, LfibExtFecVia>{
                            LfibVia<viaTypeExternalFec>::collection, extFecViaTable()});
    }
  });
}

void LfibStatus::dumpTagToVlanMaps(Kel::DumpContext& context, int indent) const {
  std::vector<std::pair<LfibDot1qTagToVlanKey, std::string>> maps;
  for (const auto& [key, map] : dot1qTagToVlanColl_) {
    std::vector<std::pair<Bridging::VlanId, Bridging::VlanIdOrNone>> tags(
        map->dot1qTagToVlanIdIter().begin(), map->dot1qTagToVlanIdIter().end());
    std::sort(tags.begin(), tags.end());
    std::string line = fmt::format("[{}]", key);
    for (const auto& [tag, vlan] : tags) {
      line += fmt::format(" {}:{}", tag.value(), vlan.value());
    }
    maps.emplace_back(key, std::move(line));
  }
  std::sort(maps.begin(), maps.end());
  KelPond::dumpHeader(context, indent, "dot1qTagToVlanColl", maps.size());
  for (const auto& [key, line] : maps) {
    context.printf("%*c%s\n", indent + 2, ' ', line);
  }
}

Kel::Ptr<LfibStatus> lfibStatusFactory() { return Kel::make<LfibStatus>(); }

// ---------------------------------------------------------------------------------------
// LfibViaIndexAllocator.

LfibViaIndexAllocator::LfibViaIndexAllocator(LFib::Source source, LfibStatus::Ptr lfibStatus)
    : source_(source), lfibStatus_(std::move(lfibStatus)) {}

uint32_t LfibViaIndexAllocator::viaKeyIndexInc(LfibViaType viaType, uint32_t delta) {
  const uint32_t index = viaKeyIndex(viaType) + delta;
  viaKeyIndexIs(viaType, index);
  return index;
}

uint32_t LfibViaIndexAllocator::viaSetKeyIndexInc(const ViaSetKeyIndexDomain& domain,
                                                  uint32_t delta) {
  const uint32_t index = viaSetKeyIndex(domain) + delta;
  viaSetKeyIndexIs(domain, index);
  return index;
}

LfibViaKey LfibViaIndexAllocator::getViaKey(LfibViaType viaType) {
  switch (viaType) {
    case viaTypeMplsIp:
    case viaTypeMplsPseudowire:
    case viaTypeIpLookup:
    case viaTypeExternalFec:
      break;
    case viaTypeVlan:
    case viaTypeEvpnVlanAware:
    case viaTypeEvpnEthernetSegment:
    case viaTypeEvpnVlanFlood:
    case viaTypeEvpnVlanAwareFlood:
    case viaTypeReserved:
      KEL_FATAL_ASSERT(false && "Unsupported via type");
      break;
    case viaTypeMax:
      KEL_FATAL_ASSERT(false && "Via type not supported");
      break;
    default:
      // Types beyond the last one have no via table to consult: their keys go unchecked.
      if (viaType < viaTypeMax) {
        KEL_FATAL_ASSERT(false && "Unknown via type");
      }
  }
  const uint32_t start = viaKeyIndex(viaType);
  for (;;) {
    const uint32_t index = viaKeyIndexInc(viaType, 1);
    const LfibViaKey candidate(source_, viaType, index);
    bool taken = false;
    lfibViaTypeVisit(viaType, [&](auto via) { taken = via.contains(*lfibStatus_, candidate); });
    if (!taken) {
      return candidate;
    }
    if (index == start) {
      KEL_FATAL_ASSERT(0 && "No via keys left");
    }
  }
}

LfibViaSetKey LfibViaIndexAllocator::getViaSetKey(LfibViaType viaType,
                                                  LfibViaSetType viaSetType) {
  const ViaSetKeyIndexDomain domain(viaType, viaSetType);
  const uint32_t start = viaSetKeyIndex(domain);
  for (;;) {
    const uint32_t index = viaSetKeyIndexInc(domain, 1);
    const LfibViaSetKey candidate(source_, index, viaType, viaSetType);
    const auto* viaSets = lfibStatus_->viaSetTable();
    if (!viaSets || !viaSets->contains(candidate)) {
      return candidate;
    }
    if (index == start) {
      KEL_FATAL_ASSERT(0 && "No via set keys left");
    }
  }
}

Kel::Ptr<LfibViaIndexAllocator> lfibViaIndexAllocatorFactory(
    LFib::Source source, const Kel::Ptr<LfibStatus>& lfibStatus) {
  return Kel::make<LfibViaIndexAllocator>(source, lfibStatus);
}

// ---------------------------------------------------------------------------------------
// Integrity across tables.

bool lfibViaStored(const LfibStatus& lfib, const LfibViaKey& key) {
  bool stored = false;
  lfibViaTypeVisit(key.viaType(), [&](auto via) { stored = via.contains(lfib, key); });
  return stored;
}

namespace {

using Problem = LfibIntegrityProblem;
using Kind = LfibIntegrityProblem::Kind;

// The problems of a via set as read: vias of another via type, vias missing.
void addViaSetProblems(const LfibStatus& lfib, const LfibViaSet& set, std::vector<Problem>& out) {
  for (const LfibViaKey& via : set.viaKey()) {
    if (via == LfibViaKey()) {
      continue;
    }
    if (via.viaType() != set.key().viaType()) {
      out.push_back(Problem{Kind::viaTypeMismatch, RouteKey(), set.key(), via});
    } else if (!lfibViaStored(lfib, via)) {
      out.push_back(Problem{Kind::viaMissing, RouteKey(), set.key(), via});
    }
  }
}

bool problemLess(const Problem& a, const Problem& b) {
  return std::tie(a.kind, a.route, a.viaSet, a.via) < std::tie(b.kind, b.route, b.viaSet, b.via);
}

// Reads before a via set's problems are taken as they are (see lfibRouteView).
constexpr int kMaxReads = 64;

// The problems of the via set of `key`, read until the set is found unchanged after its
// vias were looked up: a via set rewritten in place while its vias were looked up may
// have dropped one of them. `set` receives the set as read; false when it is absent.
bool viaSetProblems(const LfibStatus& lfib, const LfibViaSetKey& key, LfibViaSet& set,
                    std::vector<Problem>& out) {
  const auto* viaSets = lfib.viaSetTable();
  std::vector<Problem> found;
  for (int read = 0; read < kMaxReads; ++read) {
    if (!viaSets || !viaSets->find(key, set)) {
      return false;
    }
    found.clear();
    addViaSetProblems(lfib, set, found);
    LfibViaSet again;
    if (found.empty() || (viaSets->find(key, again) && again == set)) {
      break;
    }
  }
  out.insert(out.end(), found.begin(), found.end());
  return true;
}

// One walk of the whole LFIB: routes, via sets, vias.
LfibIntegrityReport integrityPass(const LfibStatus& lfib) {
  LfibIntegrityReport report;
  absl::flat_hash_set<LfibViaSetKey, Kel::Hasher<LfibViaSetKey>> namedSets;
  absl::flat_hash_set<LfibViaKey, Kel::Hasher<LfibViaKey>> namedVias;
  lfib.lfibRouteForEach([&](const LfibRoute& route) {
    ++report.routes;
    namedSets.insert(route.viaSetKey());
    // Read whole: the route may have moved to another via set since the walk read it.
    if (const std::optional<LfibRouteView> view = lfibRouteView(lfib, route.key())) {
      namedSets.insert(view->route.viaSetKey());
      if (!view->viaSetFound) {
        report.problems.push_back(
            Problem{Kind::viaSetMissing, route.key(), view->route.viaSetKey(), LfibViaKey()});
      }
    }
  });
  lfib.viaSetForEach([&](const LfibViaSet& walked) {
    ++report.viaSets;
    if (!namedSets.contains(walked.key())) {
      report.problems.push_back(
          Problem{Kind::viaSetUnused, RouteKey(), walked.key(), LfibViaKey()});
    }
    LfibViaSet set;
    if (viaSetProblems(lfib, walked.key(), set, report.problems)) {
      namedVias.insert(set.viaKey().begin(), set.viaKey().end());
    }
    namedVias.insert(walked.viaKey().begin(), walked.viaKey().end());
  });
  lfibViaTypeForEach([&](auto via) {
    via.forEach(lfib, [&](const typename decltype(via)::Row& row) {
      ++report.vias;
      if (row.key().viaType() != via.viaType) {
        report.problems.push_back(
            Problem{Kind::viaTypeMismatch, RouteKey(), LfibViaSetKey(), row.key()});
      } else if (!namedVias.contains(row.key())) {
        report.problems.push_back(Problem{Kind::viaUnused, RouteKey(), LfibViaSetKey(), row.key()});
      }
    });
  });
  std::sort(report.problems.begin(), report.problems.end(), problemLess);
  report.problems.erase(std::unique(report.problems.begin(), report.problems.end()),
                        report.problems.end());
  return report;
}

// Walks before a check that its writer keeps changing the LFIB under reports what every
// walk found.
constexpr int kMaxPasses = 6;

}  // namespace

std::vector<LfibIntegrityProblem> lfibRouteProblems(const LfibStatus& lfib, const RouteKey& key) {
  std::vector<Problem> out;
  const std::optional<LfibRouteView> view = lfibRouteView(lfib, key);
  if (view && !view->viaSetFound) {
    out.push_back(Problem{Kind::viaSetMissing, key, view->route.viaSetKey(), LfibViaKey()});
  }
  return out;
}

std::vector<LfibIntegrityProblem> lfibViaSetProblems(const LfibStatus& lfib,
                                                     const LfibViaSetKey& key) {
  std::vector<Problem> out;
  LfibViaSet set;
  viaSetProblems(lfib, key, set, out);
  return out;
}

LfibIntegrityReport lfibIntegrityCheck(const LfibStatus& lfib) {
  // A walk that races with the writer finds what the race left half-seen: a via set
  // written just before the route that names it, after the walk passed that route. Such
  // a finding does not survive another walk; a real one does. A walk during which no
  // table changed is exact.
  LfibIntegrityReport report;
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    const uint64_t before = lfib.tableVersions();
    LfibIntegrityReport walked = integrityPass(lfib);
    const bool quiet = lfib.tableVersions() == before;
    if (pass > 0 && !quiet) {
      std::vector<Problem> both;
      std::set_intersection(report.problems.begin(), report.problems.end(),
                            walked.problems.begin(), walked.problems.end(),
                            std::back_inserter(both), problemLess);
      walked.problems = std::move(both);
    }
    report = std::move(walked);
    if (quiet || report.problems.empty()) {
      break;
    }
  }
  return report;
}

// ---------------------------------------------------------------------------------------
// LfibHwStatus.

Kel::Ptr<LfibHwStatus> lfibHwStatusFactory() { return Kel::make<LfibHwStatus>(); }

// ---------------------------------------------------------------------------------------
// Factories.

Kel::Ptr<LfibDot1qTagToVlan> lfibDot1qTagToVlanFactory(const LfibDot1qTagToVlanKey& key) {
  return Kel::make<LfibDot1qTagToVlan>(key);
}

Kel::Ptr<LocalLfibInfo> localLfibInfoFactory() { return Kel::make<LocalLfibInfo>(); }

}  // namespace Mpls
