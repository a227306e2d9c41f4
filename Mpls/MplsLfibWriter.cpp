// The LFIB writer's input: the checks of a consolidated route.
//
// Agents match on the text of the unset-key assertion, and its place is part of that
// text: it stands at line 23 of this file. Add new code below verifyVia.
#include "Mpls/MplsLfibWriter.h"

#include "Kel/Exception.h"

namespace Mpls {

ConsolidatedLfibRoute::ConsolidatedLfibRoute(Kel::Strep text) {
  (void)text;
  KEL_ASSERT(!"No String constructor for ConsolidatedLfibRoute - has collection",
             "a consolidated route cannot be read from text");
}

// Every via of a consolidated route carries the unset key: via keys are assigned by the
// writer when it programs the route, never by the protocol that fills the route in.
//
// The check runs after the via has been inserted into its set, so a caller that catches
// the exception finds the via stored.
void ConsolidatedLfibRoute::verifyVia(const LfibViaKey& vk) const {
  KEL_ASSERT(vk == LfibViaKey(), "Vias in ConsolidatedLfibRoute should have an unset key only");
}

}  // namespace Mpls

// ---------------------------------------------------------------------------------------
// LfibWriter. (Its includes stand here to keep the line of verifyVia's assertion.)

#include <algorithm>
#include <bitset>
#include <tuple>
#include <vector>

#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("MplsLfibWriter");

// What the route write needs to know of one via type.
template <class V>
struct ViaTraits;

template <>
struct ViaTraits<LfibMplsVia> {
  static constexpr bool weighted = true;
  static const auto& vias(const ConsolidatedLfibRoute& r) { return r.mplsVia(); }
  static auto* table(const LfibStatus& s) { return s.mplsViaTable(); }
  static void write(LfibStatus& s, const LfibMplsVia& v) { s.mplsViaIs(v); }
  static uint32_t weight(const LfibMplsVia& v) { return v.weight(); }
};

template <>
struct ViaTraits<LfibPwVia> {
  static constexpr bool weighted = false;
  static const auto& vias(const ConsolidatedLfibRoute& r) { return r.pwVia(); }
  static auto* table(const LfibStatus& s) { return s.pwViaTable(); }
  static void write(LfibStatus& s, const LfibPwVia& v) { s.pwViaIs(v); }
  static uint32_t weight(const LfibPwVia&) { return 0; }
};

template <>
struct ViaTraits<LfibIpLookupVia> {
  static constexpr bool weighted = false;
  static const auto& vias(const ConsolidatedLfibRoute& r) { return r.ipLookupVia(); }
  static auto* table(const LfibStatus& s) { return s.ipLookupViaTable(); }
  static void write(LfibStatus& s, const LfibIpLookupVia& v) { s.ipLookupViaIs(v); }
  static uint32_t weight(const LfibIpLookupVia&) { return 0; }
};

template <>
struct ViaTraits<LfibExtFecVia> {
  static constexpr bool weighted = false;
  static const auto& vias(const ConsolidatedLfibRoute& r) { return r.extFecVia(); }
  static auto* table(const LfibStatus& s) { return s.extFecViaTable(); }
  static void write(LfibStatus& s, const LfibExtFecVia& v) { s.extFecViaIs(v); }
  static uint32_t weight(const LfibExtFecVia&) { return 0; }
};

template <class Table, class Key, class Row>
bool holds(const Table* table, const Key& key, Row& row) {
  return table && table->find(key, row);
}

// A via of the route being written, weight 1, and how many of the route's vias equal it.
template <class V>
struct WeightedVia {
  V via;
  uint32_t count;
};

// A via of the route's previous via set, key unset and weight 1, with the key and the
// weight it is stored under and its slot in that set.
template <class V>
struct OldVia {
  V via;
  LfibViaKey key;
  uint32_t storedWeight = 0;
  uint32_t slot = 0;
};

template <class V>
struct ViaScratch {
  std::vector<WeightedVia<V>> vias;
  std::vector<OldVia<V>> oldVias;
};

}  // namespace

struct LfibWriter::Scratch {
  bool busy = false;
  LfibViaSet oldViaSet;
  LfibViaSet viaSet;
  // The slots of oldViaSet whose key the new via set keeps.
  std::bitset<LfibViaKeyArray::capacity> reusedSlots;
  std::tuple<ViaScratch<LfibMplsVia>, ViaScratch<LfibPwVia>, ViaScratch<LfibIpLookupVia>,
             ViaScratch<LfibExtFecVia>>
      perType;

  template <class V>
  ViaScratch<V>& of() {
    return std::get<ViaScratch<V>>(perType);
  }
};

class LfibWriter::ScratchLease {
 public:
  explicit ScratchLease(Scratch& mine)
      : scratch_(mine.busy ? *(own_ = std::make_unique<Scratch>()) : mine) {
    scratch_.busy = true;
  }
  ~ScratchLease() { scratch_.busy = false; }
  ScratchLease(const ScratchLease&) = delete;
  ScratchLease& operator=(const ScratchLease&) = delete;
  Scratch& operator*() const noexcept { return scratch_; }

 private:
  std::unique_ptr<Scratch> own_;
  Scratch& scratch_;
};

LfibWriter::LfibWriter(LfibStatus::Ptr lfib)
    : lfib_(std::move(lfib)), scratch_(std::make_unique<Scratch>()) {
  inPlaceAdjacencyUpdateSupportedIs(false);
  handleInitialized();
}

LfibWriter::~LfibWriter() = default;

void LfibWriter::handleInitialized() { inPlaceAdjacencyUpdateSupportedIs(true); }

LfibViaIndexAllocator::Ptr LfibWriter::indexAllocator(LFib::Source source) {
  if (const LfibViaIndexAllocator::Ptr& existing = indexAllocatorInternal(source)) {
    return existing;
  }
  LfibViaIndexAllocator::Ptr allocator = lfibViaIndexAllocatorFactory(source, lfib_);
  indexAllocatorInternalIs(source, allocator);
  return allocator;
}

void LfibWriter::viaWeightIs(LfibMplsVia& via, uint32_t weight) const {
  KEL_TRACE(trace, 9, "viaWeightIs mplsvia. wt {}", weight);
  via.weightIs(weight);
}

void LfibWriter::viaWeightIs(LfibPwVia&, uint32_t) const {
  KEL_TRACE(trace, 9, "viaWeightIs default");
}

void LfibWriter::viaWeightIs(LfibIpLookupVia&, uint32_t) const {
  KEL_TRACE(trace, 9, "viaWeightIs default");
}

void LfibWriter::viaWeightIs(LfibExtFecVia&, uint32_t) const {
  KEL_TRACE(trace, 9, "viaWeightIs default");
}

void LfibWriter::lfibRouteIs(const ConsolidatedLfibRoute& route) {
  KEL_ASSERT(route.viaType() != viaTypeMplsUnknown_ && route.viaType() != viaTypeMax_,
             "invalid viaType");
  switch (route.viaType()) {
    case viaTypeMplsIp:
      lfibRouteIsHelper<LfibMplsVia>(route);
      return;
    case viaTypeMplsPseudowire:
      lfibRouteIsHelper<LfibPwVia>(route);
      return;
    case viaTypeIpLookup:
      lfibRouteIsHelper<LfibIpLookupVia>(route);
      return;
    case viaTypeExternalFec:
      lfibRouteIsHelper<LfibExtFecVia>(route);
      return;
    default:
      KEL_ASSERT(false, "viaType not yet supported");
  }
}

template <class V>
void LfibWriter::lfibRouteIsHelper(const ConsolidatedLfibRoute& route) {
  using Traits = ViaTraits<V>;
  KEL_TRACE(trace, 8, "lfibRouteIs routeKey: {} viaType: {}", route.key(), route.viaType());
  LfibStatus& lfib = *lfib_;
  ScratchLease lease(*scratch_);
  Scratch& s = *lease;
  ViaScratch<V>& scratch = s.template of<V>();
  const bool inPlace = inPlaceAdjacencyUpdateSupported();

  // The route as it stands, its via set and its vias of this type.
  const LfibRoute oldRoute = lfib.lfibRoute(route.key());
  const bool rewrite = !(oldRoute == LfibRoute());
  const LfibViaSetKey oldViaSetKey = oldRoute.viaSetKey();
  std::vector<OldVia<V>>& oldVias = scratch.oldVias;
  oldVias.clear();
  s.reusedSlots.reset();
  uint32_t oldSlots = 0;
  if (rewrite) {
    KEL_TRACE(trace, 8, "{}: found old lfib route", __func__);
    const LfibViaSet* oldViaSet =
        holds(lfib.viaSetTable(), oldViaSetKey, s.oldViaSet) ? &s.oldViaSet : nullptr;
    if (!oldViaSet) {
      KEL_TRACE(trace, 0, "{}: via set {} of route {} is missing", __func__, oldViaSetKey,
                route.key());
    }
    KEL_FATAL_ASSERT(!!oldViaSet);
    oldSlots = oldViaSet->viaKeys();
    for (uint32_t slot = 0; slot < oldSlots; ++slot) {
      const LfibViaKey& key = oldViaSet->viaKey(slot);
      if (key.viaType() != route.viaType()) {
        continue;  // never matched: deleted at the end
      }
      OldVia<V>& old = oldVias.emplace_back();
      const V* via = holds(Traits::table(lfib), key, old.via) ? &old.via : nullptr;
      if (!via) {
        KEL_TRACE(trace, 0, "{}: via {} of via set {} is missing", __func__, key, oldViaSetKey);
      }
      KEL_FATAL_ASSERT(!!via);
      old.key = key;
      old.storedWeight = Traits::weight(old.via);
      old.slot = slot;
      old.via.keyIs(LfibViaKey());
      viaWeightIs(old.via, 1);
    }
    // Equal vias keep their slot order: the last one of them is the one kept.
    if (oldVias.size() > 1) {
      std::stable_sort(oldVias.begin(), oldVias.end(),
                       [](const OldVia<V>& a, const OldVia<V>& b) { return a.via < b.via; });
    }
  }

  // Equal vias, weights disregarded, become one via counting them; ascending value order.
  std::vector<WeightedVia<V>>& vias = scratch.vias;
  vias.clear();
  for (const V& via : Traits::vias(route)) {
    WeightedVia<V>& w = vias.emplace_back(WeightedVia<V>{via, 1});
    viaWeightIs(w.via, 1);
  }
  if (trace.enabled(9)) {
    for (size_t i = 0; i < vias.size(); ++i) {
      uint32_t reached = 1;
      for (size_t j = 0; j < i; ++j) {
        reached += vias[j].via == vias[i].via;
      }
      KEL_TRACE(trace, 9, "{} add via with wt {} - {}", __func__, reached, vias[i].via);
    }
  }
  if (vias.size() > 1) {
    std::sort(vias.begin(), vias.end(),
              [](const WeightedVia<V>& a, const WeightedVia<V>& b) { return a.via < b.via; });
    size_t kept = 0;
    for (size_t i = 1; i < vias.size(); ++i) {
      if (vias[i].via == vias[kept].via) {
        ++vias[kept].count;
      } else if (++kept != i) {
        vias[kept] = std::move(vias[i]);
      }
    }
    vias.resize(kept + 1);
  }

  LfibViaIndexAllocator::Ptr allocator = indexAllocator(route.source());
  const bool keepViaSetKey = inPlace && rewrite && oldViaSetKey.source() == route.source() &&
                             oldViaSetKey.viaType() == route.viaType() &&
                             oldViaSetKey.viaSetType() == route.viaSetType();
  const LfibViaSetKey viaSetKey =
      keepViaSetKey ? oldViaSetKey : allocator->getViaSetKey(route.viaType(), route.viaSetType());
  LfibViaSet& viaSet = s.viaSet;
  viaSet = LfibViaSet(viaSetKey);

  size_t next = 0;  // into oldVias: both lists are in ascending order
  uint32_t index = 0;
  for (WeightedVia<V>& w : vias) {
    const OldVia<V>* match = nullptr;
    if (inPlace) {
      for (; next < oldVias.size(); ++next) {
        const int order = Kel::valueCompare(oldVias[next].via, w.via);
        if (order > 0) {
          break;
        }
        if (order == 0) {
          match = &oldVias[next];  // of equal ones, the last
        }
      }
    }
    LfibViaKey key;
    bool changed = true;
    if (match && match->key.source() == route.source()) {
      key = match->key;
      s.reusedSlots.set(match->slot);
      changed = Traits::weighted && match->storedWeight != w.count;
    } else {
      // A fresh key: the allocator found nothing stored under it.
      key = allocator->getViaKey(route.viaType());
    }
    w.via.keyIs(key);
    viaWeightIs(w.via, w.count);
    if (changed) {
      Traits::write(lfib, w.via);
    }
    viaSet.viaKeyIs(index, key);
    if (index == LfibViaKeyArray::capacity - 1) {
      KEL_TRACE(trace, 0, "{} Reached via index limit ({}), ignoring extra vias", __func__, index);
      break;
    }
    ++index;
  }

  if (!rewrite || !(viaSet == s.oldViaSet)) {
    lfib.viaSetIs(viaSet);
  }
  const LfibRoute newRoute(route.key(), viaSetKey, route.source(), route.fec(), route.metric());
  if (!(newRoute == oldRoute)) {
    lfib.lfibRouteIs(newRoute);
  }
  // Without an old route this deletes the default key: nothing is stored under it.
  if (!(oldViaSetKey == viaSetKey)) {
    lfib.viaSetDel(oldViaSetKey);
  }
  for (uint32_t slot = 0; slot < oldSlots; ++slot) {
    if (!s.reusedSlots.test(slot)) {
      lfibViaDel(s.oldViaSet.viaKey(slot));
    }
  }
}

void LfibWriter::lfibRouteDel(const RouteKey& key) {
  KEL_TRACE(trace, 8, "lfibRouteDel routeKey: {}", key);
  LfibStatus& lfib = *lfib_;
  const LfibRoute route = lfib.lfibRoute(key);
  if (route == LfibRoute()) {
    return;
  }
  lfib.lfibRouteDel(key);
  const LfibViaSet viaSet = lfib.viaSet(route.viaSetKey());
  lfib.viaSetDel(route.viaSetKey());
  for (const LfibViaKey& via : viaSet.viaKey()) {
    lfibViaDel(via);
  }
}

void LfibWriter::lfibViaDel(const LfibViaKey& key) {
  KEL_ASSERT(key.viaType() != viaTypeMplsUnknown_ && key.viaType() != viaTypeMax_,
             "invalid viaType");
  LfibStatus& lfib = *lfib_;
  switch (key.viaType()) {
    case viaTypeMplsIp:
      lfib.mplsViaDel(key);
      return;
    case viaTypeMplsPseudowire:
      lfib.pwViaDel(key);
      return;
    case viaTypeIpLookup:
      lfib.ipLookupViaDel(key);
      return;
    case viaTypeVlan:
      lfib.vlanViaDel(key);
      return;
    case viaTypeEvpnVlanAware:
      lfib.evpnVlanAwareViaDel(key);
      return;
    case viaTypeEvpnEthernetSegment:
      lfib.evpnEthernetSegmentFilterViaDel(key);
      return;
    case viaTypeEvpnVlanFlood:
      lfib.evpnVlanFloodViaDel(key);
      return;
    case viaTypeEvpnVlanAwareFlood:
      lfib.evpnVlanAwareFloodViaDel(key);
      return;
    case viaTypeExternalFec:
      lfib.extFecViaDel(key);
      return;
    default:
      KEL_ASSERT(false, "viaType not yet supported");
  }
}

void LfibWriter::lfibRouteDelAll() {
  KEL_TRACE(trace, 8, "lfibRouteDelAll");
  LfibStatus& lfib = *lfib_;
  lfib.lfibRouteDelAll();
  lfib.viaSetDelAll();
  lfib.mplsViaDelAll();
  lfib.pwViaDelAll();
  lfib.extFecViaDelAll();
}

Kel::Ptr<LfibWriter> lfibWriterFactory(const Kel::Ptr<LfibStatus>& lfib) {
  return Kel::make<LfibWriter>(lfib);
}

}  // namespace Mpls
