// The publication of the LFIB's 802.1Q-tag-to-VLAN maps.
//
// Routes, via sets and vias of an LfibStatus live in shared-memory tables that readers
// map as they are. The tag-to-VLAN maps do not: dot1qTagToVlanColl is a nested collection
// (maps of tag -> VLAN), local to the writing process. LfibStatusProducerSm, in the writer,
// flattens it into the shared table dot1qTagToVlanComposite, one row per (map key, tag)
// with the map's VLAN; LfibStatusConsumerSm, in a reader, rebuilds dot1qTagToVlanColl of
// its LfibStatus from that table. A tag mapped to VLAN 0 is never published, and an empty
// map never appears in a reader.
//
// Both are reactors created by the hosting agent through their factories and owned by it;
// each holds its LfibStatus. They start with one full pass (handleInitialized) and then
// follow notifications; every handler does nothing until that pass has begun.
//
// Single-threaded: used on the reactor thread of the agent that owns the LfibStatus.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"

namespace Mpls {

// Keeps lfibStatus.dot1qTagToVlanComposite equal to the flattened dot1qTagToVlanColl of a
// writer-role LfibStatus, VLAN 0 entries left out. The nested collection is the truth: a
// row is written or deleted from it alone, never from what the table holds.
//
// Start: the table may hold rows of an earlier run (the writer restarted). The first pass
// deletes every row that the nested collection no longer backs, then writes every entry.
//
// One nested reactor (KelDot1qTagToVlanColl) per map in lfibStatus follows the map's
// entries. When a map leaves lfibStatus its reactor is dropped and the rows of the map's
// tags are deleted. Destroying the producer leaves the table as it is: readers keep the
// last published rows.
//
// The rows go to the table of lfibStatus's current mount group, which must be a writer
// group. Without a group nothing is written; when lfibStatus moves to another group the
// first pass runs again on the new table.
class LfibStatusProducerSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LfibStatusProducerSm>;

  // Follows the maps of lfibStatus: each added map gets a nested reactor, each removed
  // one loses it.
  class KelLfibStatus : public Kel::Nested<LfibStatus::NotifieeConst> {
   public:
    KelLfibStatus(LfibStatusProducerSm* sm, const LfibStatus::Ptr& lfibStatus);
    void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) override;
    void onMountGroup() override;

   private:
    LfibStatusProducerSm* sm_;
  };

  // Follows the entries of one map.
  class KelDot1qTagToVlanColl : public Kel::Nested<LfibDot1qTagToVlan::NotifieeConst> {
   public:
    KelDot1qTagToVlanColl(LfibStatusProducerSm* sm, const LfibDot1qTagToVlan::PtrConst& map);
    void onDot1qTagToVlanId(const Bridging::VlanId& tag) override;

   private:
    LfibStatusProducerSm* sm_;
  };

  // Creates a nested reactor for every map already in lfibStatus, then runs
  // handleInitialized().
  explicit LfibStatusProducerSm(const LfibStatus::Ptr& lfibStatus);

  // Null after lfibStatusDel().
  const LfibStatus::Ptr& lfibStatus() const noexcept { return lfibStatus_; }
  bool initialized() const noexcept { return initialized_; }

  // The nested reactor of a map; null when there is none.
  KelDot1qTagToVlanColl* dot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) const {
    return dot1qTagToVlanColl_.find(key);
  }
  uint32_t dot1qTagToVlanColls() const noexcept {
    return static_cast<uint32_t>(dot1qTagToVlanColl_.size());
  }
  // Follows `map` (replacing the reactor of another map under the same key, whose rows are
  // brought in line first) and publishes its entries. Returns the reactor.
  KelDot1qTagToVlanColl* dot1qTagToVlanCollIs(const LfibDot1qTagToVlan::PtrConst& map);
  // Stops following the map of `key` and brings the rows of its tags in line with
  // lfibStatus (deleted when the map is gone from it). An unknown key does nothing.
  void dot1qTagToVlanCollDel(const LfibDot1qTagToVlanKey& key);
  void dot1qTagToVlanCollDelAll();
  // Stops following lfibStatus and all its maps, leaving the table as it is.
  void lfibStatusDel();

  // Sets `initialized`, brings every row of the table in line (deleting the stale ones),
  // then publishes every map.
  void handleInitialized();
  // Writes the row {key, tag} when lfibStatus has the map `key` with a non-zero VLAN for
  // `tag`; deletes it otherwise.
  void handleDot1qTagToVlan(LfibDot1qTagToVlanKey key, Bridging::VlanId tag);
  // handleDot1qTagToVlan(key, tag) for every tag of `map`.
  void handleDot1qTagToVlanColl(LfibDot1qTagToVlanKey key, LfibDot1qTagToVlan::PtrConst map);
  // lfibStatus moved to another mount group: the first pass again, on its table.
  void handleMountGroup();

 private:
  void resynchronize();

  LfibStatus::Ptr lfibStatus_;
  bool initialized_ = false;
  Kel::ReactorColl<LfibDot1qTagToVlanKey, KelDot1qTagToVlanColl> dot1qTagToVlanColl_{this};
  KelLfibStatus kelLfibStatus_;
};

Kel::Ptr<LfibStatusProducerSm> lfibStatusProducerSmFactory(const LfibStatus::Ptr& lfibStatus);

// Rebuilds the dot1qTagToVlanColl of a reader-role LfibStatus from the rows of its
// dot1qTagToVlanComposite table and keeps it in step: a row adds or changes one tag of
// one map (creating the map), a row gone removes the tag, and the map with it when it was
// the last one.
//
// Row notifications come from the group's processChanges(). Rows already present when a
// table opens come with no notification: the consumer makes a full pass whenever the
// mount group's `ready` changes, and whenever lfibStatus moves to another mount group
// (it then also drops what the new group's table does not hold). The passes are
// idempotent. Destroying the consumer leaves the rebuilt maps in lfibStatus.
//
// It must be created on an LfibStatus whose dot1qTagToVlanColl is empty: otherwise the
// process aborts (a fatal assertion), since nothing else may fill that collection.
class LfibStatusConsumerSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LfibStatusConsumerSm>;

  // Follows the rows of dot1qTagToVlanComposite and the mount group of lfibStatus.
  class KelLfibStatus : public Kel::Nested<LfibStatus::NotifieeConst> {
   public:
    KelLfibStatus(LfibStatusConsumerSm* sm, const LfibStatus::Ptr& lfibStatus);
    void onDot1qTagToVlanComposite(const LfibDot1qTagToVlanCompositeKey& key) override;
    void onMountGroup() override;

   private:
    LfibStatusConsumerSm* sm_;
  };

  // Follows the `ready` attribute of the mount group.
  class KelMountGroup : public Kel::Nested<Pond::MountGroup::NotifieeConst> {
   public:
    explicit KelMountGroup(LfibStatusConsumerSm* sm) : Nested(sm), sm_(sm) {}
    void onReady() override;

   private:
    LfibStatusConsumerSm* sm_;
  };

  // Watches lfibStatus and its mount group, then runs handleInitialized().
  explicit LfibStatusConsumerSm(const LfibStatus::Ptr& lfibStatus);

  // Null after lfibStatusDel().
  const LfibStatus::Ptr& lfibStatus() const noexcept { return lfibStatus_; }
  // The group whose `ready` is followed; null when none.
  Kel::PtrConst<Pond::MountGroup> mountGroup() const { return kelMountGroup_.notifier(); }
  bool initialized() const noexcept { return initialized_; }

  void mountGroupIs(const Kel::Ptr<Pond::MountGroup>& group);
  void mountGroupDel() { mountGroupIs(nullptr); }
  // Stops following lfibStatus and its group; the rebuilt maps stay.
  void lfibStatusDel();

  // Aborts unless lfibStatus's dot1qTagToVlanColl is empty; sets `initialized`, then
  // handleDot1qTagToVlanComposites().
  void handleInitialized();
  // handleDot1qTagToVlanComposite() for every row of the table.
  void handleDot1qTagToVlanComposites();
  // Brings the tag key.dot1qTag of the map key.dot1qTagToVlanKey in line with the row of
  // `key`: set to the row's VLAN (the map created when absent), or removed when there is
  // no row (the map too, once empty). Nothing when there is neither row nor map.
  void handleDot1qTagToVlanComposite(LfibDot1qTagToVlanCompositeKey key);
  // lfibStatus moved to another mount group: follow it and rebuild from its table.
  void handleMountGroup();

 private:
  LfibStatus::Ptr lfibStatus_;
  bool initialized_ = false;
  KelMountGroup kelMountGroup_;
  KelLfibStatus kelLfibStatus_;
};

Kel::Ptr<LfibStatusConsumerSm> lfibStatusConsumerSmFactory(const LfibStatus::Ptr& lfibStatus);

}  // namespace Mpls
