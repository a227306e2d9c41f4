// LfibTrackingSm: follows an LfibStatus and records, in an LfibTrackingStatus
// (Mpls/LfibTracking.h), which routes and via sets were touched, directly or through a
// via they depend on, and a version per route.
//
// Two reverse indexes make a via's change reach the routes that forward through it: via
// -> via sets that use it (kept here, with its mirror via set -> vias) and via set ->
// routes that use it (kept in the tracking status, for the consumer too). Both via indexes
// are exact mirrors, and no index entry is left with an empty set.
//
// What changes do:
//   - a route: its index entry follows the route's via set; its key goes to the route
//     backlog (a deletion too); its version is raised by one, or deleted with the route;
//   - a via set: its vias are indexed anew; its key goes to the via-set backlog, and every
//     route that uses it is touched (backlog, version + 1);
//   - a via (any of the via collections): every via set that uses it is touched as above.
//     A via no via set uses touches nothing.
// The LfibTrackingMode decides which of the backlogs and the versions are written; the
// indexes are kept in every mode. A route or via set rewritten with the mapping it
// already had leaves its index entries as they are.
//
// Roles. On the writer's own LfibStatus the notifications arrive synchronously as the
// writer changes it. On a reader-role LfibStatus they come from its mount group's
// processChanges(); rows already present when a table opens come with none, so the state
// machine makes a pass over all vias, via sets and routes whenever the group becomes
// ready. When the LfibStatus moves to another mount group, the state machine follows the
// new group and brings everything it knows in line with the new tables.
//
// Lifecycle. Created by the hosting agent through lfibTrackingSmFactory() (or
// LfibTrackingSmIs(), which returns the one already there), which starts it
// (handleInitialized: one full pass); the agent owns it and it holds both entities. The
// tracking status must be empty then. handleDel() ends the tracking when the LFIB goes
// away. Destroying the state machine leaves the tracking status as it is.
//
// Failures. A state the machine cannot be in (a handler before initialization, an index
// entry missing where another names it, a tracking status not empty at the start) is a
// fatal assertion: the process aborts.
//
// Single-threaded: used on the reactor thread of the agent that owns the LfibStatus.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include <absl/container/flat_hash_map.h>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/OrdinalMap.h"
#include "Kel/Value.h"
#include "Mpls/LfibTracking.h"
#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"

namespace Mpls {

class LfibTrackingSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LfibTrackingSm>;

  // Routes, via sets, vias of every kind, and the mount group of the LFIB status.
  class KelLfibStatus : public Kel::Nested<LfibStatus::NotifieeConst> {
   public:
    KelLfibStatus(LfibTrackingSm* sm, const LfibStatus::PtrConst& lfibStatus);
    void onLfibRoute(const RouteKey& key) override;
    void onViaSet(const LfibViaSetKey& key) override;
    MPLS_LFIB_ON_EVERY_VIA(sm_->handleVia)
    void onMountGroup() override;

   private:
    LfibTrackingSm* sm_;
  };

  // The `ready` attribute of the LFIB status's mount group.
  class KelMountGroup : public Kel::Nested<Pond::MountGroup::NotifieeConst> {
   public:
    explicit KelMountGroup(LfibTrackingSm* sm) : Nested(sm), sm_(sm) {}
    void onReady() override;

   private:
    LfibTrackingSm* sm_;
  };

  // Watches lfibStatus and its mount group, then runs handleInitialized().
  LfibTrackingSm(const LfibStatus::PtrConst& lfibStatus,
                 const LfibTrackingStatus::Ptr& lfibTrackingStatus, LfibTrackingMode trackingMode,
                 std::string smTraceName);

  // Null after handleDel().
  const LfibStatus::PtrConst& lfibStatus() const noexcept { return lfibStatus_; }
  const LfibTrackingStatus::Ptr& lfibTrackingStatus() const noexcept {
    return lfibTrackingStatus_;
  }
  LfibTrackingMode trackingMode() const noexcept { return trackingMode_; }
  const std::string& smTraceName() const noexcept { return smTraceName_; }
  // The group whose `ready` is followed; null when the LFIB status has none.
  Kel::PtrConst<Pond::MountGroup> mountGroup() const { return kelMountGroup_.notifier(); }
  bool initialized() const noexcept { return initialized_; }

  // The indexes. A key that is not indexed gives the default via-set key, respectively
  // null. The index is kept in dense arrays (labels and via indexes are handed out in
  // sequence); the entity of an entry is made when first asked for, and kept in step with
  // the entry from then on: when the entry goes, whoever still holds it sees it emptied.
  LfibViaSetKey routeKeyToViaSetKey(const RouteKey& routeKey) const;
  uint32_t routeKeyToViaSetKeys() const noexcept {
    return static_cast<uint32_t>(routeKeyToViaSetKey_.size());
  }
  LfibViaSetKeyToLfibViaKeySet::Ptr viaSetKeyToViaKeySet(const LfibViaSetKey& viaSetKey) const;
  uint32_t viaSetKeyToViaKeySets() const noexcept {
    return static_cast<uint32_t>(viaSetKeyToViaKeySet_.size());
  }
  LfibViaKeyToLfibViaSetKeySet::Ptr viaKeyToViaSetKeySet(const LfibViaKey& viaKey) const;
  uint32_t viaKeyToViaSetKeySets() const noexcept {
    return static_cast<uint32_t>(viaKeyToViaSetKeySet_.size());
  }

  // Follows `group`'s `ready` (null: none). Once initialized, a group other than the one
  // followed so far brings the indexes, backlogs and versions in line with what the LFIB
  // status holds now: known routes and via sets are visited again (those gone are
  // deleted), then every via, via set and route.
  void mountGroupIs(const Kel::Ptr<Pond::MountGroup>& group);

  // Aborts unless the tracking status is empty; sets `initialized`, then handleViaSets()
  // and handleLfibRoutes().
  void handleInitialized();
  // The LFIB status goes away: stops following it, forgets the indexes and empties the
  // tracking status (backlogs, route sets, versions). `initialized` is cleared: no
  // handler may run afterwards.
  void handleDel();

  // The handlers. Each aborts unless initialized.
  void handleLfibRoute(const RouteKey& routeKey);
  void handleViaSet(const LfibViaSetKey& viaSetKey);
  void handleVia(const LfibViaKey& viaKey);
  // handleVia() for every via of every via collection, handleViaSet() for every via set,
  // handleLfibRoute() for every route of the LFIB status.
  void handleVias();
  void handleViaSets();
  void handleLfibRoutes();

  // The index operations. delRouteKeyViaSetKeyMapping aborts when the route's via set has
  // no entry in viaSetKeyToRouteKeySet; delViaSetKeyViaKeyMapping when one of the set's
  // vias has none in viaKeyToViaSetKeySet. Deleting what is not indexed does nothing.
  void addRouteKeyViaSetKeyMapping(const RouteKey& routeKey, const LfibViaSetKey& viaSetKey);
  void delRouteKeyViaSetKeyMapping(const RouteKey& routeKey);
  void addViaSetKeyViaKeyMapping(const LfibViaSetKey& viaSetKey, const LfibViaKey& viaKey);
  void delViaSetKeyViaKeyMapping(const LfibViaSetKey& viaSetKey);

  // The backlog operations, each subject to the mode (see the top of this file).
  void addRouteKeyBacklog(const RouteKey& routeKey);
  void addViaSetKeyBacklog(const LfibViaSetKey& viaSetKey);
  // The route's version + 1 (from 0 when it has none).
  void updateRouteKeyShadow(const RouteKey& routeKey);
  void delRouteKeyShadow(const RouteKey& routeKey);
  // maybeAddBacklogByViaSetKey() for every via set that uses the via.
  void maybeAddBacklogByViaKey(const LfibViaKey& viaKey);
  // The via set to its backlog; every route that uses it to the route backlog, version + 1.
  void maybeAddBacklogByViaSetKey(const LfibViaSetKey& viaSetKey);

 private:
  // The handlers, given the row as read (see lfibWalkHandsRows).
  void handleLfibRoute(const RouteKey& routeKey, const LfibRoute& route);
  void handleViaSet(const LfibViaSetKey& viaSetKey, const LfibViaSet& viaSet);
  void indexViaSet(const LfibViaSetKey& viaSetKey, const LfibViaSet& viaSet);
  void resynchronize();

  LfibStatus::PtrConst lfibStatus_;
  LfibTrackingStatus::Ptr lfibTrackingStatus_;
  const LfibTrackingMode trackingMode_;
  const std::string smTraceName_;
  bool initialized_ = false;
  // Counts handleLfibRoute() calls, so that one can tell it was re-entered.
  uint64_t routePasses_ = 0;
  Kel::OrdinalMap<RouteKey, LfibViaSetKey> routeKeyToViaSetKey_;
  // The vias of one via set, in the order indexed: two inline (most via sets have one or
  // two), more on the heap. A via set has at most LfibViaKeyArray::capacity vias, so a
  // linear search is short.
  class ViaKeyList {
   public:
    ViaKeyList() noexcept {}
    ViaKeyList(const ViaKeyList& other) {
      for (const LfibViaKey& viaKey : other) {
        insert(viaKey);
      }
    }
    ViaKeyList(ViaKeyList&& other) noexcept { take(other); }
    ViaKeyList& operator=(ViaKeyList other) noexcept {
      release();
      take(other);
      return *this;
    }
    ~ViaKeyList() { release(); }

    bool insert(const LfibViaKey& viaKey);
    bool contains(const LfibViaKey& viaKey) const {
      return std::find(begin(), end(), viaKey) != end();
    }
    size_t size() const noexcept { return size_; }
    const LfibViaKey* begin() const noexcept { return size_ > kInline ? heap_.keys : inline_; }
    const LfibViaKey* end() const noexcept { return begin() + size_; }

   private:
    static constexpr uint32_t kInline = 2;
    void release() noexcept {
      if (size_ > kInline) {
        delete[] heap_.keys;
      }
      size_ = 0;
    }
    void take(ViaKeyList& other) noexcept {
      std::memcpy(static_cast<void*>(this), &other, sizeof(ViaKeyList));
      other.size_ = 0;
    }
    union {
      LfibViaKey inline_[kInline];
      struct {
        LfibViaKey* keys;
        uint32_t capacity;
      } heap_;
    };
    uint32_t size_ = 0;
  };
  static_assert(sizeof(LfibViaKey) * 2 >= sizeof(LfibViaKey*) + sizeof(uint32_t));

  Kel::OrdinalMap<LfibViaSetKey, ViaKeyList> viaSetKeyToViaKeySet_;
  Kel::OrdinalMap<LfibViaKey, Kel::SetColl<LfibViaSetKey>> viaKeyToViaSetKeySet_;
  // The entities handed out for index entries (see the accessors).
  mutable absl::flat_hash_map<LfibViaSetKey, LfibViaSetKeyToLfibViaKeySet::Ptr,
                              Kel::Hasher<LfibViaSetKey>>
      viaSetEntities_;
  mutable absl::flat_hash_map<LfibViaKey, LfibViaKeyToLfibViaSetKeySet::Ptr,
                              Kel::Hasher<LfibViaKey>>
      viaEntities_;
  KelMountGroup kelMountGroup_;
  KelLfibStatus kelLfibStatus_;
};

// A started LfibTrackingSm (see above).
Kel::Ptr<LfibTrackingSm> lfibTrackingSmFactory(const LfibStatus::PtrConst& lfibStatus,
                                               const LfibTrackingStatus::Ptr& lfibTrackingStatus,
                                               LfibTrackingMode trackingMode,
                                               const std::string& smTraceName);

// The create-or-return form: the live LfibTrackingSm that already follows lfibStatus with
// the same tracking status, mode and trace name, or else a new one as from the factory.
Kel::Ptr<LfibTrackingSm> LfibTrackingSmIs(const LfibStatus::PtrConst& lfibStatus,
                                          const LfibTrackingStatus::Ptr& lfibTrackingStatus,
                                          LfibTrackingMode trackingMode,
                                          const std::string& smTraceName);

}  // namespace Mpls
