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
#pragma once

#include <cstdint>

#include "Kel/Value.h"
#include "Kel/ValueSet.h"
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

  // True exactly when the route differs from a default-constructed one.
  explicit operator bool() const { return !(*this == ConsolidatedLfibRoute()); }
};

}  // namespace Mpls
