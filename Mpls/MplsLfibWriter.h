// Mpls::ConsolidatedLfibRoute: everything a protocol wants programmed for one MPLS route,
// in one value: the route key, the owning source, the FEC, the metric, the via type and
// via-set type, and the full set of vias. It carries no via keys and no via-set key: the
// LFIB writer assigns those when it turns the route into a route, a via set and vias.
//
// The vias are four sets, one per via type the writer handles (mplsVia, pwVia,
// ipLookupVia, extFecVia), each keyed by the whole via value, the weight of an MPLS via
// included; only the set that matches viaType is written. Every via must have the unset
// (default) key: adding one with a key set raises Kel::InternalException "... --
// assertion failed(vk == LfibViaKey()): Vias in ConsolidatedLfibRoute should have an
// unset key only" after the via has been inserted (callers that catch it find it stored).
//
// Mpls::LfibWriter: the facade through which a protocol agent programs the LFIB (below).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "Kel/ValueSet.h"
#include "Mpls/LfibSourceGrState.h"
#include "Mpls/MplsLfib.h"

namespace Mpls {

class ConsolidatedLfibRoute {
 public:
  using MplsViaSet = Kel::ValueSet<LfibMplsVia>;
  using PwViaSet = Kel::ValueSet<LfibPwVia>;
  using IpLookupViaSet = Kel::ValueSet<LfibIpLookupVia>;
  using ExtFecViaSet = Kel::ValueSet<LfibExtFecVia>;

  KEL_VALUE_BASE(ConsolidatedLfibRoute, "Mpls::ConsolidatedLfibRoute",
                 (RouteKey, key),
                 (LFib::Source, source),
                 (FwdEqvClass, fec),
                 (RouteMetric, metric),
                 (LfibViaType, viaType),
                 (LfibViaSetType, viaSetType),
                 (MplsViaSet, mplsVia),
                 (PwViaSet, pwVia),
                 (IpLookupViaSet, ipLookupVia),
                 (ExtFecViaSet, extFecVia));

  // viaSetType starts at its zero value, the via sets empty.
  ConsolidatedLfibRoute(const RouteKey& key, LFib::Source source, const FwdEqvClass& fec,
                        RouteMetric metric, LfibViaType viaType)
      : key_(key), source_(source), fec_(fec), metric_(metric), viaType_(viaType) {}

  // A consolidated route has collections and cannot be read from text: this raises
  // Kel::InternalException.
  explicit ConsolidatedLfibRoute(Kel::Strep text);

  void keyIs(const RouteKey& v) { key_ = v; }
  void sourceIs(LFib::Source v) { source_ = v; }
  void fecIs(const FwdEqvClass& v) { fec_ = v; }
  void metricIs(RouteMetric v) { metric_ = v; }
  void viaTypeIs(LfibViaType v) { viaType_ = v; }
  void viaSetTypeIs(LfibViaSetType v) { viaSetType_ = v; }

  // Per via set X: XIs(via) inserts a copy unless an equal via is present and returns the
  // stored via (then checks its key, see above); XDel(via) removes the equal via, if any;
  // XDelAll() empties the set; XHas(via) tells whether an equal via is present; Xs() is
  // the count; X() (the getter) iterates.
#define MPLS_CONSOLIDATED_VIA_SET(ViaT, name, Name)                         \
  const ViaT& name##Is(const ViaT& via) {                                   \
    auto [stored, inserted] = name##_.insert(via);                          \
    if (inserted) {                                                         \
      handle##Name(stored);                                                 \
    }                                                                       \
    return stored;                                                          \
  }                                                                         \
  void name##Del(const ViaT& via) { name##_.erase(via); }                   \
  void name##DelAll() { name##_.clear(); }                                  \
  bool name##Has(const ViaT& via) const { return name##_.contains(via); }  \
  uint32_t name##s() const { return static_cast<uint32_t>(name##_.size()); } \
  void handle##Name(const ViaT& via) const { verifyVia(via.key()); }

  MPLS_CONSOLIDATED_VIA_SET(LfibMplsVia, mplsVia, MplsVia)
  MPLS_CONSOLIDATED_VIA_SET(LfibPwVia, pwVia, PwVia)
  MPLS_CONSOLIDATED_VIA_SET(LfibIpLookupVia, ipLookupVia, IpLookupVia)
  MPLS_CONSOLIDATED_VIA_SET(LfibExtFecVia, extFecVia, ExtFecVia)
#undef MPLS_CONSOLIDATED_VIA_SET

  // Raises Kel::InternalException unless `vk` is the unset via key.
  void verifyVia(const LfibViaKey& vk) const;

  // Whether the route has a via set for vias of row type V: the via types the writer
  // programs (LfibMplsVia, LfibPwVia, LfibIpLookupVia, LfibExtFecVia).
  template <class V>
  static constexpr bool carries = Kel::hasFieldOfType<Kel::ValueSet<V>, ConsolidatedLfibRoute>();
  // That via set.
  template <class V>
    requires carries<V>
  const Kel::ValueSet<V>& viasOf() const {
    return Kel::fieldOfType<Kel::ValueSet<V>>(*this);
  }

  // True exactly when the route differs from a default-constructed one.
  explicit operator bool() const { return !(*this == ConsolidatedLfibRoute()); }
};

// LfibWriter turns one ConsolidatedLfibRoute at a time into the three layers of an
// LfibStatus: vias (in the collection of the route's via type), one via set naming them,
// and the route naming the via set. Each route owns its via set and its vias; nothing is
// shared between routes. Keys come from one LfibViaIndexAllocator per source
// (indexAllocator), created on first use.
//
// Write order. lfibRouteIs writes the vias, then the via set, then the route, then deletes
// the old via set and the old vias no longer named; lfibRouteDel deletes the route, then
// its via set, then its vias. A reader of the LFIB, in this process or through the shared
// tables, never finds a route whose via set is missing or a via set whose via is missing.
//
// Rewrites. With inPlaceAdjacencyUpdateSupported (true once constructed), a rewritten route
// keeps its via set key when source, via type and via set type are unchanged, and each via
// equal to one of the old via set (weights disregarded) keeps that via's key when source
// and via type are unchanged. Only what differs is written: rewriting a route with what it
// already holds writes nothing and takes no key. With it false, every write takes fresh
// keys and deletes all the old ones.
//
// Weights. Vias of the route that are equal once weights are disregarded become one via;
// an LfibMplsVia gets the number of them as its weight (the weight given is ignored), the
// other via types have no weight. The vias go into the via set in ascending value order
// (operator< of the via, key unset and weight 1): the layout does not depend on the order
// in which the vias were added. A via set holds at most 128 vias (indices 0 to 127): the
// vias beyond the 128th in that order are dropped, with a trace line.
//
// Failures. A via type the writer does not handle raises Kel::InternalException before
// anything is read or written ("invalid viaType" for viaTypeMplsUnknown and viaTypeMax,
// "viaType not yet supported" for the VLAN and EVPN types and anything else). An LFIB that
// does not hold what its routes and via sets name is beyond repair: the process aborts
// (fatal assertions "!!oldViaSet" and "!!via"). Exceptions of LfibStatus (its checks, a
// full table) propagate; what was written before stays.
//
// Traces go to the facility "MplsLfibWriter": level 0 when vias are dropped beyond 128 or
// before a fatal assertion, level 8 for each route written or deleted, level 9 per via.
//
// Owned by the protocol agent that creates it with lfibWriterFactory; it holds its
// LfibStatus (a writer-role one) and its allocators for its whole life. Single-threaded:
// call only from the reactor thread that owns the LfibStatus. Notifiees of the LfibStatus
// may call back into the writer while it writes.
class LfibWriter : public Kel::Entity {
  template <class V>
  struct RouteWrite;

 public:
  using Ptr = Kel::Ptr<LfibWriter>;

  class NotifieeConst : public Kel::NotifieeOf<LfibWriter> {
   public:
    virtual void onIndexAllocatorInternal(LFib::Source source) { (void)source; }
    virtual void onInPlaceAdjacencyUpdateSupported() {}
  };

  static constexpr LfibViaType viaTypeMplsUnknown_ = viaTypeMplsUnknown;
  static constexpr LfibViaType viaTypeMax_ = viaTypeMax;

  // inPlaceAdjacencyUpdateSupported is false, then handleInitialized() sets it.
  explicit LfibWriter(LfibStatus::Ptr lfib);
  ~LfibWriter() override;

  const LfibStatus::Ptr& lfib() const noexcept { return lfib_; }

  KEL_MAP_ATTR(LFib::Source, LfibViaIndexAllocator::Ptr, indexAllocatorInternal,
               IndexAllocatorInternal)
  KEL_ATTR(bool, inPlaceAdjacencyUpdateSupported, InPlaceAdjacencyUpdateSupported, false)

  // Sets inPlaceAdjacencyUpdateSupported.
  void handleInitialized();

  // Writes or rewrites the route (see above). Only the via collection of route.viaType()
  // is read.
  void lfibRouteIs(const ConsolidatedLfibRoute& route);
  // Deletes the route, its via set and its vias; an absent route is no error.
  void lfibRouteDel(const RouteKey& key);
  // Deletes the via from the collection of key.viaType(); an absent via is no error.
  // Raises Kel::InternalException "invalid viaType" for viaTypeMplsUnknown and viaTypeMax,
  // "viaType not yet supported" for the value without a via table and unknown values.
  void lfibViaDel(const LfibViaKey& key);
  // Empties lfibRoute, viaSet, mplsVia, pwVia and extFecVia. The IP lookup, VLAN and EVPN
  // vias stay, and so do the allocators' counters.
  void lfibRouteDelAll();

  // Orphans: the via sets of `source` that no route names, and the vias of `source` (of
  // the via types lfibRouteIs writes) that no via set names. A writer that stops between
  // the steps of a write leaves them: new vias and a via set not yet named, or an old via
  // set and vias not yet deleted. Nothing else makes them. lfibOrphanDelAll deletes the via
  // sets, then the vias (readers never find a via set whose via is gone), and says how
  // many. Call it once the source's routes have all been written (re-written) after a
  // restart: a write in progress has not yet named what it wrote.
  struct Orphans {
    uint32_t viaSets = 0;
    uint32_t vias = 0;
  };
  Orphans lfibOrphanDelAll(LFib::Source source);
  // Follows the LFIB producer's graceful-restart state of state->source(): each time its
  // inputReady becomes true (the producer has written its complete set of routes since it
  // started; at once when it already is), the writer deletes the source's orphans. One
  // state per source: a second one of the source replaces the first.
  void producerGrStateIs(const Kel::Ptr<LfibProducerGrState>& state);

  // The allocator of `source`, created when there is none.
  LfibViaIndexAllocator::Ptr indexAllocator(LFib::Source source);

  // Sets the weight of an LfibMplsVia; the other via types have none.
  void viaWeightIs(LfibMplsVia& via, uint32_t weight) const;
  void viaWeightIs(LfibPwVia& via, uint32_t weight) const;
  void viaWeightIs(LfibIpLookupVia& via, uint32_t weight) const;
  void viaWeightIs(LfibExtFecVia& via, uint32_t weight) const;

 private:
  struct Scratch;
  class ScratchLease;
  class ProducerGrFollower;

  // The write of one route over vias of row type V, in four phases (see the .cpp).
  template <class V>
  void lfibRouteIsHelper(const ConsolidatedLfibRoute& route);

  const LfibStatus::Ptr lfib_;
  // Working space of lfibRouteIs, reused from call to call so that a route costs no
  // allocation; a nested call (from a notifiee) gets a space of its own.
  std::unique_ptr<Scratch> scratch_;
  std::vector<std::unique_ptr<ProducerGrFollower>> producerGrFollowers_;
};

Kel::Ptr<LfibWriter> lfibWriterFactory(const Kel::Ptr<LfibStatus>& lfib);

}  // namespace Mpls
