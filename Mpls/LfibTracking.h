// The LFIB's change feed: what LfibTrackingSm (Mpls/LfibTrackingSm.h) records about the
// changes of an LfibStatus, and the index entities it keeps.
//
// LfibTrackingStatus is written only by its LfibTrackingSm and read by one consumer (a
// forwarding agent, LfibIpLookupSm, LfibL2EvpnSm):
//   - routeKeyBacklog, viaSetKeyBacklog: the route and via-set keys touched since the
//     consumer last looked, directly or through a via or via set they use. The state
//     machine only adds keys; the consumer removes those it has worked off (that is how
//     it acknowledges them). A key in the backlog may name an element that is gone: a
//     deletion is a change too.
//   - viaSetKeyToRouteKeySet: for every via set that some route uses, the routes that use
//     it. An entry never holds an empty set.
//   - routeVersion: a counter per existing route, raised by one each time the route, its
//     via set or one of its vias changes, deleted with the route. A consumer that remembers
//     a version can tell whether the route changed since.
// What is recorded is chosen by the state machine's LfibTrackingMode.
//
// The status is created by its hosting agent (lfibTrackingStatusFactory) and handed to
// the state machine, which holds it.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/FlagSet.h"
#include "Kel/OrdinalMap.h"
#include "Kel/Value.h"
#include "Mpls/LfibViaKey.h"
#include "Mpls/LfibViaSetKey.h"
#include "types/Mpls/MplsTypes.h"

namespace Mpls {

// What LfibTrackingSm records, three flags of one word:
//   backlogRoutes (bit 0)    touched route keys go to routeKeyBacklog;
//   backlogViaSets (bit 1)   touched via-set keys go to viaSetKeyBacklog;
//   shadowRouteKeys (bit 2)  routeVersion is kept per route.
// The reverse indexes are kept whatever the mode. LfibTrackingMode(7) turns all three on;
// an integer above 7 raises Kel::EnumSetRangeException.
// Text form: "Value('Mpls::LfibTrackingMode', ** {'backlogRoutes': True,
// 'backlogViaSets': False, 'shadowRouteKeys': True})".
KEL_FLAGS(LfibTrackingMode, "Mpls::LfibTrackingMode",
          (backlogRoutes, 0),
          (backlogViaSets, 1),
          (shadowRouteKeys, 2));

// A mode from its three flags.
constexpr LfibTrackingMode lfibTrackingMode(bool backlogRoutes, bool backlogViaSets,
                                            bool shadowRouteKeys) {
  return LfibTrackingMode((backlogRoutes ? 1u : 0u) | (backlogViaSets ? 2u : 0u) |
                          (shadowRouteKeys ? 4u : 0u));
}

// The version of one route: how many times it changed since it appeared (from 1).
// True when it differs from the default value (default key, version 0).
class LfibRouteVersion {
 public:
  KEL_VALUE(LfibRouteVersion, "Mpls::LfibRouteVersion",
            (RouteKey, key),
            (uint32_t, version));
  explicit operator bool() const { return !(*this == LfibRouteVersion()); }
};

// The routes that use one via set (LfibTrackingStatus::viaSetKeyToRouteKeySet).
class LfibViaSetKeyToRouteKeySet : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibViaSetKeyToRouteKeySet>;

  class NotifieeConst : public Kel::NotifieeOf<LfibViaSetKeyToRouteKeySet> {
   public:
    virtual void onRouteKey(const RouteKey& key) { (void)key; }
  };

  explicit LfibViaSetKeyToRouteKeySet(const LfibViaSetKey& viaSetKey) : viaSetKey_(viaSetKey) {}
  const LfibViaSetKey& viaSetKey() const noexcept { return viaSetKey_; }

  KEL_SET_ATTR(RouteKey, routeKey, RouteKey)

 private:
  const LfibViaSetKey viaSetKey_;
};

// The vias of one via set, as LfibTrackingSm last indexed it.
class LfibViaSetKeyToLfibViaKeySet : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibViaSetKeyToLfibViaKeySet>;

  class NotifieeConst : public Kel::NotifieeOf<LfibViaSetKeyToLfibViaKeySet> {
   public:
    virtual void onViaKey(const LfibViaKey& key) { (void)key; }
  };

  explicit LfibViaSetKeyToLfibViaKeySet(const LfibViaSetKey& viaSetKey) : viaSetKey_(viaSetKey) {}
  const LfibViaSetKey& viaSetKey() const noexcept { return viaSetKey_; }

  KEL_SET_ATTR(LfibViaKey, viaKey, ViaKey)

 private:
  const LfibViaSetKey viaSetKey_;
};

// The via sets that use one via, as LfibTrackingSm last indexed them.
class LfibViaKeyToLfibViaSetKeySet : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibViaKeyToLfibViaSetKeySet>;

  class NotifieeConst : public Kel::NotifieeOf<LfibViaKeyToLfibViaSetKeySet> {
   public:
    virtual void onViaSetKey(const LfibViaSetKey& key) { (void)key; }
  };

  explicit LfibViaKeyToLfibViaSetKeySet(const LfibViaKey& viaKey) : viaKey_(viaKey) {}
  const LfibViaKey& viaKey() const noexcept { return viaKey_; }

  KEL_SET_ATTR(LfibViaSetKey, viaSetKey, ViaSetKey)

 private:
  const LfibViaKey viaKey_;
};

// See the top of this file. Accessors (Kel/Collection.h):
//   routeKeyBacklog(k), routeKeyBacklogIs(k, true), routeKeyBacklogDel(k), ...DelAll()
//   viaSetKeyBacklog(k), viaSetKeyBacklogIs(k, true), viaSetKeyBacklogDel(k), ...DelAll()
//   routeVersion(k) (a default version when absent), routeVersionIs(v), routeVersionDel(k)
// Each change is announced to the notifiees, and only a change.
//
// viaSetKeyToRouteKeySet is kept as a plain set of route keys per via set, in dense pages
// (a few bytes per via set: most are used by one route). Its entity, the
// LfibViaSetKeyToRouteKeySet, is made when first asked for and kept in step with the entry
// from then on; when the entry goes, whoever still holds the entity sees it emptied.
//   viaSetKeyToRouteKeySet(k)     the entity (null when no route uses the via set)
//   viaSetKeyToRouteKeySets()     the number of entries
//   viaSetKeyToRouteKeySetIter()  (key, entity) of every entry (makes every entity)
//   viaSetKeyToRouteKeySetIs(k)   the entity, the entry created empty when absent
//   viaSetKeyToRouteKeySetDel(k)  removes the entry; ...DelAll() every entry
//   viaSetRouteKeys(k)            the entry's routes, without an entity (null when absent);
//                                 valid until the index next changes
//   viaSetRouteKeyIs(k, route)    adds a route to the entry (created when absent)
//   viaSetRouteKeyDel(k, route)   removes a route; an entry left empty goes
// onViaSetKeyToRouteKeySet(k) announces an entry that came or went.
class LfibTrackingStatus : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibTrackingStatus>;
  using PtrConst = Kel::PtrConst<LfibTrackingStatus>;

  class NotifieeConst : public Kel::NotifieeOf<LfibTrackingStatus> {
   public:
    virtual void onRouteKeyBacklog(const RouteKey& key) { (void)key; }
    virtual void onViaSetKeyBacklog(const LfibViaSetKey& key) { (void)key; }
    virtual void onViaSetKeyToRouteKeySet(const LfibViaSetKey& key) { (void)key; }
    virtual void onRouteVersion(const RouteKey& key) { (void)key; }
  };

  explicit LfibTrackingStatus(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  // Indexed by label and via-set index over the whole LFIB: kept in dense pages.
  KEL_DENSE_SET_ATTR(RouteKey, routeKeyBacklog, RouteKeyBacklog)
  KEL_DENSE_SET_ATTR(LfibViaSetKey, viaSetKeyBacklog, ViaSetKeyBacklog)
  KEL_DENSE_VALUE_COLL_ATTR(RouteKey, LfibRouteVersion, routeVersion, RouteVersion)

  LfibViaSetKeyToRouteKeySet::Ptr viaSetKeyToRouteKeySet(const LfibViaSetKey& viaSetKey) const;
  uint32_t viaSetKeyToRouteKeySets() const noexcept {
    return static_cast<uint32_t>(routeSets_.size());
  }
  std::vector<std::pair<LfibViaSetKey, LfibViaSetKeyToRouteKeySet::Ptr>>
  viaSetKeyToRouteKeySetIter() const;
  LfibViaSetKeyToRouteKeySet::Ptr viaSetKeyToRouteKeySetIs(const LfibViaSetKey& viaSetKey);
  void viaSetKeyToRouteKeySetDel(const LfibViaSetKey& viaSetKey);
  void viaSetKeyToRouteKeySetDelAll();
  const Kel::SetColl<RouteKey>* viaSetRouteKeys(const LfibViaSetKey& viaSetKey) const {
    return routeSets_.find(viaSetKey);
  }
  void viaSetRouteKeyIs(const LfibViaSetKey& viaSetKey, const RouteKey& routeKey);
  void viaSetRouteKeyDel(const LfibViaSetKey& viaSetKey, const RouteKey& routeKey);

 private:
  const std::string name_;
  Kel::OrdinalMap<LfibViaSetKey, Kel::SetColl<RouteKey>> routeSets_;
  // The entities handed out, by via set.
  mutable absl::flat_hash_map<LfibViaSetKey, LfibViaSetKeyToRouteKeySet::Ptr,
                              Kel::Hasher<LfibViaSetKey>>
      routeSetEntities_;
};

Kel::Ptr<LfibTrackingStatus> lfibTrackingStatusFactory(const std::string& name);

}  // namespace Mpls
