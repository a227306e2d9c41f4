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
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "Kel/Hash.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("MplsLfibWriter");

// Whether vias of row type V carry a weight (of those the writer programs, MPLS vias do).
template <class V>
constexpr bool kWeighted = requires(const V& v) { v.weight(); };

template <class V>
uint32_t storedWeight(const V& via) {
  if constexpr (kWeighted<V>) {
    return via.weight();
  } else {
    return 0;
  }
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

struct ViaScratchBase {
  virtual ~ViaScratchBase() = default;
};

template <class V>
struct ViaScratch : ViaScratchBase {
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
  // The working lists of each via type the writer programs, made on first use.
  std::unique_ptr<ViaScratchBase> perType[viaTypeMax + 1];

  template <class V>
  ViaScratch<V>& of() {
    std::unique_ptr<ViaScratchBase>& lists = perType[LfibViaOf<V>::viaType];
    if (!lists) {
      lists = std::make_unique<ViaScratch<V>>();
    }
    return static_cast<ViaScratch<V>&>(*lists);
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

// Follows one source's producer state for the writer.
class LfibWriter::ProducerGrFollower : public LfibProducerGrState::NotifieeConst {
 public:
  ProducerGrFollower(LfibWriter* writer, const Kel::Ptr<LfibProducerGrState>& state)
      : writer_(writer) {
    notifierIs(state);
  }
  void onInputReady() override {
    if (notifier()->inputReady()) {
      const LFib::Source source = notifier()->source();
      const Orphans removed = writer_->lfibOrphanDelAll(source);
      KEL_TRACE(trace, 5, "producer of {} ready: {} via sets and {} vias no route used deleted",
                source, removed.viaSets, removed.vias);
    }
  }

 private:
  LfibWriter* writer_;
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
  bool programmed = false;
  lfibViaTypeVisit(route.viaType(), [&](auto via) {
    using V = typename decltype(via)::Row;
    if constexpr (ConsolidatedLfibRoute::carries<V>) {
      lfibRouteIsHelper<V>(route);
      programmed = true;
    }
  });
  if (!programmed) {
    KEL_ASSERT(false, "viaType not yet supported");
  }
}

// One route write over vias of type V, in phases: read the old route, its via set and vias;
// weigh the new vias; place them (keys, and the vias that changed); commit the via set
// and the route and delete what they no longer name. Only reading happens before the
// vias are placed: an LFIB that lacks what it names aborts with nothing written.
template <class V>
struct LfibWriter::RouteWrite {
  using Via = LfibViaOf<V>;

  RouteWrite(LfibWriter& w, const ConsolidatedLfibRoute& r, Scratch& scratch)
      : writer(w),
        route(r),
        s(scratch),
        lists(scratch.template of<V>()),
        lfib(*w.lfib_),
        inPlace(w.inPlaceAdjacencyUpdateSupported()) {}

  LfibWriter& writer;
  const ConsolidatedLfibRoute& route;
  Scratch& s;
  ViaScratch<V>& lists;
  LfibStatus& lfib;
  const bool inPlace;
  LfibRoute oldRoute;
  bool rewrite = false;
  uint32_t oldSlots = 0;

  // The route as it stands and, when there is one, its via set (null when the LFIB lacks
  // it: the caller aborts).
  [[gnu::always_inline]] const LfibViaSet* readOldRoute() {
    oldRoute = lfib.lfibRoute(route.key());
    rewrite = !(oldRoute == LfibRoute());
    lists.oldVias.clear();
    s.reusedSlots.reset();
    oldSlots = 0;
    if (!rewrite) {
      return nullptr;
    }
    KEL_TRACE(trace, 8, "{}: found old lfib route", "lfibRouteIsHelper");
    const auto* viaSets = lfib.viaSetTable();
    if (!viaSets || !viaSets->find(oldRoute.viaSetKey(), s.oldViaSet)) {
      KEL_TRACE(trace, 0, "{}: via set {} of route {} is missing", "lfibRouteIsHelper",
                oldRoute.viaSetKey(), route.key());
      return nullptr;
    }
    oldSlots = s.oldViaSet.viaKeys();
    return &s.oldViaSet;
  }

  // The old via set's vias of this type in ascending value order (key unset, weight 1),
  // each with its stored key, weight and slot; false when the LFIB lacks one of them (the
  // caller aborts).
  [[gnu::always_inline]] bool readOldVias() {
    for (uint32_t slot = 0; slot < oldSlots; ++slot) {
      const LfibViaKey& key = s.oldViaSet.viaKey(slot);
      if (key.viaType() != route.viaType()) {
        continue;  // never matched: deleted at the end
      }
      OldVia<V>& old = lists.oldVias.emplace_back();
      if (!Via::find(lfib, key, old.via)) {
        KEL_TRACE(trace, 0, "{}: via {} of via set {} is missing", "lfibRouteIsHelper", key,
                  oldRoute.viaSetKey());
        return false;
      }
      old.key = key;
      old.storedWeight = storedWeight(old.via);
      old.slot = slot;
      old.via.keyIs(LfibViaKey());
      writer.viaWeightIs(old.via, 1);
    }
    // Equal vias keep their slot order: the last one of them is the one kept.
    if (lists.oldVias.size() > 1) {
      std::stable_sort(lists.oldVias.begin(), lists.oldVias.end(),
                       [](const OldVia<V>& a, const OldVia<V>& b) { return a.via < b.via; });
    }
    return true;
  }

  // The route's vias, equal ones (weights disregarded) merged into one that counts them,
  // in ascending value order.
  [[gnu::always_inline]] void weigh() {
    std::vector<WeightedVia<V>>& vias = lists.vias;
    vias.clear();
    for (const V& via : route.template viasOf<V>()) {
      WeightedVia<V>& w = vias.emplace_back(WeightedVia<V>{via, 1});
      writer.viaWeightIs(w.via, 1);
    }
    if (trace.enabled(9)) {
      for (size_t i = 0; i < vias.size(); ++i) {
        uint32_t reached = 1;
        for (size_t j = 0; j < i; ++j) {
          reached += vias[j].via == vias[i].via;
        }
        KEL_TRACE(trace, 9, "{} add via with wt {} - {}", "lfibRouteIsHelper", reached,
                  vias[i].via);
      }
    }
    if (vias.size() <= 1) {
      return;
    }
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

  // The via set key (the old one when it fits) and the key of every via: an old via equal
  // to it keeps its key, the others get fresh ones. Writes the vias that changed and fills
  // s.viaSet with their keys, at most 128.
  [[gnu::always_inline]] void placeVias(LfibViaIndexAllocator& allocator) {
    const LfibViaSetKey oldViaSetKey = oldRoute.viaSetKey();
    const bool keepViaSetKey = inPlace && rewrite && oldViaSetKey.source() == route.source() &&
                               oldViaSetKey.viaType() == route.viaType() &&
                               oldViaSetKey.viaSetType() == route.viaSetType();
    s.viaSet = LfibViaSet(keepViaSetKey ? oldViaSetKey
                                        : allocator.getViaSetKey(route.viaType(),
                                                                 route.viaSetType()));
    const std::vector<OldVia<V>>& oldVias = lists.oldVias;
    size_t next = 0;  // into oldVias: both lists are in ascending order
    uint32_t index = 0;
    for (WeightedVia<V>& w : lists.vias) {
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
        changed = kWeighted<V> && match->storedWeight != w.count;
      } else {
        // A fresh key: the allocator found nothing stored under it.
        key = allocator.getViaKey(route.viaType());
      }
      w.via.keyIs(key);
      writer.viaWeightIs(w.via, w.count);
      if (changed) {
        Via::write(lfib, w.via);
      }
      s.viaSet.viaKeyIs(index, key);
      if (index == LfibViaKeyArray::capacity - 1) {
        KEL_TRACE(trace, 0, "{} Reached via index limit ({}), ignoring extra vias",
                  "lfibRouteIsHelper", index);
        break;
      }
      ++index;
    }
  }

  // The via set and the route where they changed, then what the old ones named and the
  // new ones do not: the old via set, the old vias not reused.
  [[gnu::always_inline]] void commit() {
    const LfibViaSetKey oldViaSetKey = oldRoute.viaSetKey();
    if (!rewrite || !(s.viaSet == s.oldViaSet)) {
      lfib.viaSetIs(s.viaSet);
    }
    const LfibRoute newRoute(route.key(), s.viaSet.key(), route.source(), route.fec(),
                             route.metric());
    if (!(newRoute == oldRoute)) {
      lfib.lfibRouteIs(newRoute);
    }
    // Without an old route this deletes the default key: nothing is stored under it.
    if (!(oldViaSetKey == s.viaSet.key())) {
      lfib.viaSetDel(oldViaSetKey);
    }
    for (uint32_t slot = 0; slot < oldSlots; ++slot) {
      if (!s.reusedSlots.test(slot)) {
        writer.lfibViaDel(s.oldViaSet.viaKey(slot));
      }
    }
  }
};

template <class V>
void LfibWriter::lfibRouteIsHelper(const ConsolidatedLfibRoute& route) {
  KEL_TRACE(trace, 8, "lfibRouteIs routeKey: {} viaType: {}", route.key(), route.viaType());
  ScratchLease lease(*scratch_);
  RouteWrite<V> write(*this, route, *lease);
  if (const LfibViaSet* oldViaSet = write.readOldRoute(); write.rewrite) {
    KEL_FATAL_ASSERT(!!oldViaSet);
    const bool via = write.readOldVias();
    KEL_FATAL_ASSERT(!!via);
  }
  write.weigh();
  write.placeVias(*indexAllocator(route.source()));
  write.commit();
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
  if (!lfibViaTypeVisit(key.viaType(), [&](auto via) { via.erase(*lfib_, key); })) {
    KEL_ASSERT(false, "viaType not yet supported");
  }
}

void LfibWriter::lfibRouteDelAll() {
  KEL_TRACE(trace, 8, "lfibRouteDelAll");
  LfibStatus& lfib = *lfib_;
  lfib.lfibRouteDelAll();
  lfib.viaSetDelAll();
  // The via types written through lfibRouteIs but the IP lookup vias, which stay.
  lfibViaTypeForEach([&](auto via) {
    using V = typename decltype(via)::Row;
    if constexpr (ConsolidatedLfibRoute::carries<V> && via.viaType != viaTypeIpLookup) {
      via.eraseAll(lfib);
    }
  });
}

LfibWriter::Orphans LfibWriter::lfibOrphanDelAll(LFib::Source source) {
  LfibStatus& lfib = *lfib_;
  Orphans removed;
  // Sized for what the tables hold: a million routes and their vias go in without a rehash.
  absl::flat_hash_set<LfibViaSetKey, Kel::Hasher<LfibViaSetKey>> namedSets;
  namedSets.reserve(lfib.lfibRoutes());
  lfib.lfibRouteForEach([&](const LfibRoute& route) { namedSets.insert(route.viaSetKey()); });
  std::vector<LfibViaSetKey> unusedSets;
  absl::flat_hash_set<LfibViaKey, Kel::Hasher<LfibViaKey>> namedVias;
  size_t vias = 0;
  lfibViaTypeForEach([&](auto via) {
    if constexpr (ConsolidatedLfibRoute::carries<typename decltype(via)::Row>) {
      vias += via.size(lfib);
    }
  });
  namedVias.reserve(vias);
  lfib.viaSetForEach([&](const LfibViaSet& set) {
    if (set.key().source() == source && !namedSets.contains(set.key())) {
      unusedSets.push_back(set.key());
    } else {
      namedVias.insert(set.viaKey().begin(), set.viaKey().end());
    }
  });
  // Via sets first: a reader never finds a via set whose via is gone.
  for (const LfibViaSetKey& key : unusedSets) {
    KEL_TRACE(trace, 8, "lfibOrphanDelAll viaSetKey: {}", key);
    lfib.viaSetDel(key);
    ++removed.viaSets;
  }
  lfibViaTypeForEach([&](auto via) {
    using V = typename decltype(via)::Row;
    if constexpr (ConsolidatedLfibRoute::carries<V>) {
      std::vector<LfibViaKey> unused;
      via.forEach(lfib, [&](const V& row) {
        if (row.key().source() == source && !namedVias.contains(row.key())) {
          unused.push_back(row.key());
        }
      });
      for (const LfibViaKey& key : unused) {
        KEL_TRACE(trace, 8, "lfibOrphanDelAll viaKey: {}", key);
        via.erase(lfib, key);
        ++removed.vias;
      }
    }
  });
  return removed;
}

void LfibWriter::producerGrStateIs(const Kel::Ptr<LfibProducerGrState>& state) {
  const LFib::Source source = state->source();
  std::erase_if(producerGrFollowers_,
                [&](const auto& f) { return f->notifier()->source() == source; });
  producerGrFollowers_.push_back(std::make_unique<ProducerGrFollower>(this, state));
  if (state->inputReady()) {
    producerGrFollowers_.back()->onInputReady();
  }
}

Kel::Ptr<LfibWriter> lfibWriterFactory(const Kel::Ptr<LfibStatus>& lfib) {
  return Kel::make<LfibWriter>(lfib);
}

}  // namespace Mpls
