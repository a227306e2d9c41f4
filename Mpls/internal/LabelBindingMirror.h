// The producer and consumer of a label-binding table set: the producer mirrors a router's
// label bindings (a local Mpls::LabelBindingTable and the peers' tables in an
// Mpls::LabelBindingTableColl) into the seven shared-memory tables of a table set; the
// consumer rebuilds the entities from those tables in another process.
//
// The common set (CommonLibPond) and the LDP set (Ldp::LdpPond) have tables of the same
// names and shapes; they differ in their key types, in how a peer is named, and in the
// filter rule. A traits class Tr says which:
//
//   Tr::Tables                the table-set entity (its tables localLbtLabel,
//                             localLbtFilteredFec, localLbtLastUpdate, peerLbtLabel,
//                             peerLbtFilteredFec, peerLbtLastUpdate)
//   Tr::PeerId                how peer rows name a router (Mpls::RouterId, Ldp::LdpIdentifier)
//   Tr::LocalLabelKey {fec, label}, Tr::LocalLabelEntry, Tr::FecEntry,
//   Tr::LocalLastUpdateEntry {fec, lastUpdate}, Tr::PeerLabelKey {peer, fec, label},
//   Tr::PeerLabelEntry, Tr::PeerFecKey {peer, fec}, Tr::PeerFecEntry,
//   Tr::PeerLastUpdateEntry {peerFecKey, lastUpdate}
//   Tr::peerIdOf(routerId), Tr::routerIdOf(peerId)
//   Tr::kFilterNeedsBinding   true: a filter row stands for a filtered FEC that has a
//                             binding (the producer deletes it when the binding goes, the
//                             consumer creates the binding for it and keeps the binding
//                             while it is filtered); false: filters and bindings are
//                             independent
//   Tr::producerTrace, Tr::consumerTrace   the trace facilities (Kel::TraceFacility)
//
// The named reactors (CommonLibPond::CommonLibProducerSm, Ldp::LdpPond::LdpLibProducerSm,
// ...) are these templates under their own names; the members are defined in
// Mpls/internal/LabelBindingMirrorImpl.h and instantiated once per set.
#pragma once

#include <cstdint>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Pond/MountGroup.h"
#include "types/Mpls/LabelBindingTable.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Mpls/RouterId.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls::internal {

// Writes the table set from the entities.
//
// Each change of the local table names a FEC and a label (its change counter, see
// types/Mpls/LabelBindingTable.h), and handleLocalChange(fec, label) brings the rows of
// that FEC and label in line: the filter row, the label row and the time-stamp row. (A
// label's own change, its binding still there, can only have changed the label's row:
// the reactor brings that one alone in line.) The peers' tables likewise, each through a
// nested reactor of peerLbtSet, keyed by router id, that follows the collection. A row is
// written only when it differs from what the table holds, and deleted only when present:
// nothing reaches the readers for a change that leaves the rows as they are.
//
// Inert until handleInitialized(), which the caller runs once the table set is mounted on
// a writer group. Without a writer group nothing is written; when the table set moves to
// another group, the start-up pass runs again on its tables.
template <class Tr>
class LabelBindingProducerSm : public Kel::Reactor {
 public:
  using Tables = typename Tr::Tables;
  using PeerId = typename Tr::PeerId;

  // Follows the change counter of the local table.
  class KelLocalLbt : public Kel::Nested<LabelBindingTable::NotifieeConst> {
   public:
    KelLocalLbt(LabelBindingProducerSm* sm, const LabelBindingTable::Ptr& table);
    void onChangeCounter() override;

   private:
    LabelBindingProducerSm* sm_;
  };

  // Follows the change counter of one peer's table.
  class KelPeerLbt : public Kel::Nested<LabelBindingTable::NotifieeConst> {
   public:
    KelPeerLbt(LabelBindingProducerSm* sm, const LabelBindingTable::Ptr& table,
               const RouterId& routerId);
    const RouterId& routerId() const noexcept { return routerId_; }
    void onChangeCounter() override;

   private:
    LabelBindingProducerSm* sm_;
    RouterId routerId_;
  };

  // Follows the peers' tables coming and going.
  class KelPeerLbtColl : public Kel::Nested<LabelBindingTableColl::NotifieeConst> {
   public:
    KelPeerLbtColl(LabelBindingProducerSm* sm, const LabelBindingTableColl::Ptr& coll);
    void onBindingTable(const RouterId& routerId) override;

   private:
    LabelBindingProducerSm* sm_;
  };

  // Follows the table set moving to another mount group.
  class KelTables : public Kel::Nested<typename Tables::NotifieeConst> {
   public:
    KelTables(LabelBindingProducerSm* sm, const typename Tables::Ptr& tables);
    void onMountGroup() override;

   private:
    LabelBindingProducerSm* sm_;
  };

  // Follows `local`, `peers` and every table of `peers` (either may be null: that side is
  // then left alone), writes `tables`. Writes nothing before handleInitialized().
  LabelBindingProducerSm(const LabelBindingTable::Ptr& local,
                         const LabelBindingTableColl::Ptr& peers,
                         const typename Tables::Ptr& tables);

  const LabelBindingTable::Ptr& localLbt() const noexcept { return local_; }
  const LabelBindingTableColl::Ptr& peerLbtColl() const noexcept { return peers_; }
  const typename Tables::Ptr& tables() const noexcept { return tables_; }
  bool initialized() const noexcept { return initialized_; }

  // The nested reactors of the peers' tables, by router id.
  KEL_REACTOR_COLL(RouterId, KelPeerLbt, peerLbtSet)

  // Sets `initialized`, then brings every row in line with the entities: the rows that
  // no binding backs any more (left by an earlier writer) are deleted, with
  // handleLocalChange / handlePeerChange for each and handlePeerDelete for the routers
  // that have no table; then what the entities hold and the tables lack is written (the
  // rows are walked once in storage order; the entities only when the tables lack
  // something). Traces "clearing local: labels=N, filters=N, lastUpdate=N".
  void handleInitialized();
  // Clears `initialized` ("Set initialized to False") and deletes every row of the six
  // tables it writes.
  void handleDelete();

  // Brings the rows of (fec, label) of the local table in line (nothing before
  // handleInitialized()):
  //   1. the filter row of fec: written while the table filters fec (Tr::kFilterNeedsBinding:
  //      and has a binding for it), deleted otherwise;
  //   2. the label row {fec, label}: written while binding[fec] holds the label (nothing
  //      for the null label, which names the FEC alone);
  //   3. the time-stamp row of fec: written with binding[fec]'s lastUpdate while it has
  //      one (not 0, not infinity), deleted otherwise or when the binding is gone.
  void handleLocalChange(const FwdEqvClass& fec, Netbase::MplsLabel label);
  // The same for the table of peer `routerId` in the collection; all three rows are
  // deleted when the peer has no table.
  void handlePeerChange(const RouterId& routerId, const FwdEqvClass& fec, Netbase::MplsLabel label);
  // The collection's entry `routerId` changed: a new table is followed and published, a
  // removed one is no longer followed and its rows go (handlePeerDelete).
  void handlePeerLbt(const RouterId& routerId);
  // Deletes every peer row whose key names `routerId` (a walk of the three peer tables).
  // Traces "clearing peer: labels=N, filters=N, lastUpdate=N".
  void handlePeerDelete(const RouterId& routerId);
  // The table set moved to another mount group: the start-up pass again, on its tables.
  void handleMountGroup();

 private:
  bool writing() const noexcept;
  void syncLocalFilter(const FwdEqvClass& fec, const LabelBinding* binding);
  void syncLocalLabel(const FwdEqvClass& fec, Netbase::MplsLabel label,
                      const LabelBinding* binding);
  void syncLocalLastUpdate(const FwdEqvClass& fec, const LabelBinding* binding);
  void syncPeerFilter(const PeerId& peer, const FwdEqvClass& fec, const LabelBindingTable* table,
                      const LabelBinding* binding);
  void syncPeerLabel(const PeerId& peer, const FwdEqvClass& fec, Netbase::MplsLabel label,
                     const LabelBinding* binding);
  void syncPeerLastUpdate(const PeerId& peer, const FwdEqvClass& fec, const LabelBinding* binding);
  // Every row of one peer's table.
  void publishPeer(const RouterId& routerId, const LabelBindingTable& table);
  // Rows of the start-up pass: backed by the entities, and not.
  struct BackedRows {
    size_t labels = 0;
    size_t filters = 0;
    size_t stamps = 0;
    size_t staleLabels = 0;
    size_t staleFilters = 0;
    size_t staleStamps = 0;
  };
  // Adds what `table` holds that has rows: labels, time stamps, published filters.
  static void countHeld(const LabelBindingTable& table, BackedRows& held);
  void resynchronizeLocal();
  void resynchronizePeers();

  LabelBindingTable::Ptr local_;
  LabelBindingTableColl::Ptr peers_;
  typename Tables::Ptr tables_;
  bool initialized_ = false;
  KelLocalLbt kelLocalLbt_;
  KelPeerLbtColl kelPeerLbtColl_;
  KelTables kelTables_;
};

// Rebuilds the entities from the table set: the local table, and the peers' tables in a
// collection, each created when its first row arrives and removed with its last.
//
// One handler per table brings the one binding a row belongs to in line with the row:
// present, the row sets a label, a filter or a time stamp (creating the binding, and the
// peer's table); absent, it clears it, then deleteUnusedBinding() / deleteUnusedPeerTable()
// remove what is left empty. The handlers are idempotent.
//
// Row notifications come from the mount group's processChanges(). Rows already present
// when a table opens come with none: handleInitialized(), which the caller runs once (the
// group need not be ready yet), makes a full pass, and the consumer makes one again
// whenever the group turns ready and whenever the table set moves to another group. A
// full pass first takes back from the entities what the tables no longer hold (a writer
// that replaced its segments, or rows removed while the group was away), then walks every
// row. Inert until handleInitialized().
template <class Tr>
class LabelBindingConsumerSm : public Kel::Reactor {
 public:
  using Tables = typename Tr::Tables;
  using PeerId = typename Tr::PeerId;
  using LocalLabelKey = typename Tr::LocalLabelKey;
  using PeerLabelKey = typename Tr::PeerLabelKey;
  using PeerFecKey = typename Tr::PeerFecKey;

  // Follows the rows of the six binding tables and the table set's mount group.
  class KelTables : public Kel::Nested<typename Tables::NotifieeConst> {
   public:
    KelTables(LabelBindingConsumerSm* sm, const typename Tables::Ptr& tables);
    void onLocalLbtLabel(const LocalLabelKey& key) override;
    void onLocalLbtFilteredFec(const FwdEqvClass& fec) override;
    void onLocalLbtLastUpdate(const FwdEqvClass& fec) override;
    void onPeerLbtLabel(const PeerLabelKey& key) override;
    void onPeerLbtFilteredFec(const PeerFecKey& key) override;
    void onPeerLbtLastUpdate(const PeerFecKey& key) override;
    void onMountGroup() override;

   private:
    LabelBindingConsumerSm* sm_;
  };

  // Follows the `ready` attribute of the mount group.
  class KelMountGroup : public Kel::Nested<Pond::MountGroup::NotifieeConst> {
   public:
    explicit KelMountGroup(LabelBindingConsumerSm* sm) : Nested(sm), sm_(sm) {}
    void onReady() override;

   private:
    LabelBindingConsumerSm* sm_;
  };

  // Reads `tables` (not null), writes `local` and `peers` (either may be null: its rows
  // are then ignored).
  LabelBindingConsumerSm(const typename Tables::Ptr& tables, const LabelBindingTable::Ptr& local,
                         const LabelBindingTableColl::Ptr& peers);

  const typename Tables::Ptr& tables() const noexcept { return tables_; }
  const LabelBindingTable::Ptr& localLbt() const noexcept { return local_; }
  const LabelBindingTableColl::Ptr& peerLbtColl() const noexcept { return peers_; }
  bool initialized() const noexcept { return initialized_; }

  // Sets `initialized`, then makes a full pass when the group is ready.
  void handleInitialized();
  // Clears `initialized`: the rebuilt entities stay as they are.
  void handleDelete();

  // key.label in binding[key.fec] of the local table: set while the row exists (the
  // binding created), removed otherwise (then deleteUnusedBinding).
  void handleLocalLbtLabel(const LocalLabelKey& key);
  // binding[fec].lastUpdate: the row's time stamp (the binding created), or reset to 0
  // when the row is gone (then deleteUnusedBinding).
  void handleLocalLbtLastUpdate(const FwdEqvClass& fec);
  // The local table's filteredFec[fec] (Tr::kFilterNeedsBinding: the binding created for
  // it, and deleteUnusedBinding once it goes).
  void handleLocalLbtFilteredFec(const FwdEqvClass& fec);
  // The same in the table of the key's router, created on demand; after a removal
  // deleteUnusedPeerTable().
  void handlePeerLbtLabel(const PeerLabelKey& key);
  void handlePeerLbtLastUpdate(const PeerFecKey& key);
  void handlePeerLbtFilteredFec(const PeerFecKey& key);
  // Removes binding[fec] from `table` when it holds no label and no time stamp
  // (Tr::kFilterNeedsBinding: and the table does not filter fec).
  void deleteUnusedBinding(LabelBindingTable& table, const FwdEqvClass& fec);
  // deleteUnusedBinding() in the table of `routerId`, then removes the table when it has
  // neither binding nor filter left.
  void deleteUnusedPeerTable(const RouterId& routerId, const FwdEqvClass& fec);

  // The table set moved to another mount group: follow it, and make a full pass.
  void handleMountGroup();
  // The group's `ready` changed: a full pass once it is ready.
  void handleReady();

 private:
  void resynchronize();
  // The handlers' work, the row known: present (or its time stamp) or not.
  void localLabelIs(const LocalLabelKey& key, bool present);
  void localLastUpdateIs(const FwdEqvClass& fec, const typename Tr::LocalLastUpdateEntry* row);
  void localFilterIs(const FwdEqvClass& fec, bool present);
  void peerLabelIs(const PeerLabelKey& key, bool present);
  void peerLastUpdateIs(const PeerFecKey& key, const typename Tr::PeerLastUpdateEntry* row);
  void peerFilterIs(const PeerFecKey& key, bool present);

  typename Tables::Ptr tables_;
  LabelBindingTable::Ptr local_;
  LabelBindingTableColl::Ptr peers_;
  bool initialized_ = false;
  KelMountGroup kelMountGroup_;
  KelTables kelTables_;
};

}  // namespace Mpls::internal
