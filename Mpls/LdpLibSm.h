// The publication of the LDP agent's label bindings in Ldp::LdpPond::LdpLabelBindingTable
// (Mpls/LdpLibPond.h), and of its advertisements in both label-binding table sets:
//
//   LdpLibProducerSm               local and peer binding entities -> LDP tables
//   LdpLibConsumerSm               LDP tables -> local and peer binding entities
//   LdpLibAdvertisementProducerSm  Ldp::LabelAdvertisementColl -> localLbtAdvertisedTo of
//                                  the LDP and the common tables
//   LdpLibAdvertisementConsumerSm  localLbtAdvertisedTo of both -> Ldp::LabelAdvertisementColl
//
// The binding producer and consumer are those of Mpls/internal/LabelBindingMirror.h, with
// peers named by their LDP identifier (the LSR id and label space of the Mpls::RouterId)
// and a filter published only for a FEC that has a binding: a filtered FEC without one
// has no filter row, and the consumer keeps a filtered binding even when it has neither
// label nor time stamp.
//
// Start-up as in Mpls/CommonLibSm.h: the factories mount nothing and start nothing; the
// caller mounts the tables and runs handleInitialized() (producers once the tables are on
// writer groups; consumers once, after which they follow their groups' `ready`). Every
// reactor is inert until then. One process writes each table set: the binding producer
// and the advertisement producer of one agent share it, each writing its own tables.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Trace.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/LdpLibPond.h"
#include "Mpls/internal/LabelBindingMirror.h"
#include "Pond/MountGroup.h"
#include "types/Ldp/LabelAdvertisementColl.h"
#include "types/Mpls/LabelBindingTable.h"

namespace Ldp::LdpPond {

// The shapes of the LDP table set (see Mpls/internal/LabelBindingMirror.h).
struct LdpLibTraits {
  using Tables = LdpLabelBindingTable;
  using PeerId = Ldp::LdpIdentifier;
  using LocalLabelKey = LdpLocalLbtLabelKey;
  using LocalLabelEntry = LdpLocalLbtLabelEntry;
  using FecEntry = LdpFecEntry;
  using LocalLastUpdateEntry = LdpLocalLbtLastUpdateEntry;
  using PeerLabelKey = LdpPeerLbtLabelKey;
  using PeerLabelEntry = LdpPeerLbtLabelEntry;
  using PeerFecKey = LdpIdentifierFecKey;
  using PeerFecEntry = LdpIdentifierFecEntry;
  using PeerLastUpdateEntry = LdpPeerLbtLastUpdateEntry;
  static constexpr bool kFilterNeedsBinding = true;
  static Ldp::LdpIdentifier peerIdOf(const Mpls::RouterId& routerId) {
    return Ldp::LdpIdentifier(routerId);
  }
  static Mpls::RouterId routerIdOf(const Ldp::LdpIdentifier& peer) { return peer.routerId(); }
  static Kel::TraceFacility producerTrace;
  static Kel::TraceFacility consumerTrace;
};

}  // namespace Ldp::LdpPond

extern template class Mpls::internal::LabelBindingProducerSm<Ldp::LdpPond::LdpLibTraits>;
extern template class Mpls::internal::LabelBindingConsumerSm<Ldp::LdpPond::LdpLibTraits>;

namespace Ldp::LdpPond {

// Reads the local Mpls::LabelBindingTable and the peers' Mpls::LabelBindingTableColl,
// writes the six binding tables of the LDP set. See Mpls::internal::LabelBindingProducerSm.
class LdpLibProducerSm : public Mpls::internal::LabelBindingProducerSm<LdpLibTraits> {
 public:
  using Ptr = Kel::Ptr<LdpLibProducerSm>;
  using LabelBindingProducerSm::LabelBindingProducerSm;
};

Kel::Ptr<LdpLibProducerSm> ldpLibProducerSmFactory(
    const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl, const LdpLabelBindingTable::Ptr& tables);

// Reads the six binding tables of the LDP set, writes the local Mpls::LabelBindingTable
// and the peers' Mpls::LabelBindingTableColl. See Mpls::internal::LabelBindingConsumerSm.
class LdpLibConsumerSm : public Mpls::internal::LabelBindingConsumerSm<LdpLibTraits> {
 public:
  using Ptr = Kel::Ptr<LdpLibConsumerSm>;
  using LabelBindingConsumerSm::LabelBindingConsumerSm;
};

Kel::Ptr<LdpLibConsumerSm> ldpLibConsumerSmFactory(
    const LdpLabelBindingTable::Ptr& tables, const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl);

// Publishes to which peers each local binding was advertised: the row {peer, fec} of
// localLbtAdvertisedTo, in the LDP tables and in the common tables (either may be null),
// exists while advertisedTo[fec] holds the peer. Each FEC's identifier set is followed by
// a nested reactor of advertisedToSet.
class LdpLibAdvertisementProducerSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LdpLibAdvertisementProducerSm>;

  // Follows the FECs of the collection.
  class KelAdvertisementColl : public Kel::Nested<LabelAdvertisementColl::NotifieeConst> {
   public:
    KelAdvertisementColl(LdpLibAdvertisementProducerSm* sm,
                         const LabelAdvertisementColl::Ptr& coll);
    void onAdvertisedTo(const Mpls::FwdEqvClass& fec) override;

   private:
    LdpLibAdvertisementProducerSm* sm_;
  };

  // Follows the peers of one FEC.
  class KelAdvertisedTo : public Kel::Nested<LdpIdentifierSet::NotifieeConst> {
   public:
    KelAdvertisedTo(LdpLibAdvertisementProducerSm* sm, const LdpIdentifierSet::Ptr& set);
    void onIdentifier(const LdpIdentifier& peer) override;

   private:
    LdpLibAdvertisementProducerSm* sm_;
  };

  LdpLibAdvertisementProducerSm(const LabelAdvertisementColl::Ptr& advertisements,
                                const LdpLabelBindingTable::Ptr& ldpTables,
                                const CommonLibPond::LabelBindingTable::Ptr& commonTables);

  const LabelAdvertisementColl::Ptr& advertisements() const noexcept { return advertisements_; }
  bool initialized() const noexcept { return initialized_; }

  KEL_REACTOR_COLL(Mpls::FwdEqvClass, KelAdvertisedTo, advertisedToSet)

  // Sets `initialized`; deletes the rows no advertisement backs (left by an earlier
  // writer), then publishes every FEC.
  void handleInitialized();
  // Clears `initialized` and deletes every localLbtAdvertisedTo row of both table sets.
  void handleDelete();
  // Writes the row {peer, fec} while advertisedTo[fec] holds peer, deletes it otherwise
  // (in each table set mounted on a writer group).
  void handleAdvertisedTo(const Mpls::FwdEqvClass& fec, const LdpIdentifier& peer);
  // The collection's entry `fec` changed: handleAdvertisedTo() for every peer of its set,
  // and of the set it replaced or that was removed.
  void handleAdvertisedToColl(const Mpls::FwdEqvClass& fec);

 private:
  LabelAdvertisementColl::Ptr advertisements_;
  LdpLabelBindingTable::Ptr ldpTables_;
  CommonLibPond::LabelBindingTable::Ptr commonTables_;
  bool initialized_ = false;
  KelAdvertisementColl kelAdvertisementColl_;
};

Kel::Ptr<LdpLibAdvertisementProducerSm> ldpLibAdvertisementProducerSmFactory(
    const LabelAdvertisementColl::Ptr& advertisements, const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables);

// Rebuilds Ldp::LabelAdvertisementColl from the localLbtAdvertisedTo rows of the LDP and
// the common tables (either may be null): advertisedTo[fec] holds peer while either table
// has the row {peer, fec}; a FEC's set is created with its first peer and removed with its
// last. Full passes as LabelBindingConsumerSm makes them, once both groups are ready.
class LdpLibAdvertisementConsumerSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LdpLibAdvertisementConsumerSm>;

  class KelLdpTables : public Kel::Nested<LdpLabelBindingTable::NotifieeConst> {
   public:
    KelLdpTables(LdpLibAdvertisementConsumerSm* sm, const LdpLabelBindingTable::Ptr& tables);
    void onLocalLbtAdvertisedTo(const LdpIdentifierFecKey& key) override;
    void onMountGroup() override;

   private:
    LdpLibAdvertisementConsumerSm* sm_;
  };

  class KelCommonTables : public Kel::Nested<CommonLibPond::LabelBindingTable::NotifieeConst> {
   public:
    KelCommonTables(LdpLibAdvertisementConsumerSm* sm,
                    const CommonLibPond::LabelBindingTable::Ptr& tables);
    void onLocalLbtAdvertisedTo(const CommonLibPond::LdpIdentifierFecKey& key) override;
    void onMountGroup() override;

   private:
    LdpLibAdvertisementConsumerSm* sm_;
  };

  // Follows the `ready` of one group.
  class KelMountGroup : public Kel::Nested<Pond::MountGroup::NotifieeConst> {
   public:
    explicit KelMountGroup(LdpLibAdvertisementConsumerSm* sm) : Nested(sm), sm_(sm) {}
    void onReady() override;

   private:
    LdpLibAdvertisementConsumerSm* sm_;
  };

  LdpLibAdvertisementConsumerSm(const LdpLabelBindingTable::Ptr& ldpTables,
                                const CommonLibPond::LabelBindingTable::Ptr& commonTables,
                                const LabelAdvertisementColl::Ptr& advertisements);

  const LabelAdvertisementColl::Ptr& advertisements() const noexcept { return advertisements_; }
  bool initialized() const noexcept { return initialized_; }

  // Sets `initialized`, then makes a full pass once the groups are ready.
  void handleInitialized();
  // Clears `initialized`; the rebuilt collection stays.
  void handleDelete();
  // Brings advertisedTo[key.fwdEqvClass] in line for key.ldpIdentifier.
  void handleLbtAdvertisedTo(const LdpIdentifierFecKey& key);
  void handleCommonLbtAdvertisedTo(const CommonLibPond::LdpIdentifierFecKey& key);
  // A table set moved to another group, or a group's `ready` changed: follow the groups,
  // and make a full pass when they are ready.
  void handleMountGroup();

 private:
  void handleAdvertisedTo(const Mpls::FwdEqvClass& fec, const LdpIdentifier& peer);

  LdpLabelBindingTable::Ptr ldpTables_;
  CommonLibPond::LabelBindingTable::Ptr commonTables_;
  LabelAdvertisementColl::Ptr advertisements_;
  bool initialized_ = false;
  KelMountGroup kelLdpGroup_;
  KelMountGroup kelCommonGroup_;
  KelLdpTables kelLdpTables_;
  KelCommonTables kelCommonTables_;
};

Kel::Ptr<LdpLibAdvertisementConsumerSm> ldpLibAdvertisementConsumerSmFactory(
    const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables,
    const LabelAdvertisementColl::Ptr& advertisements);

}  // namespace Ldp::LdpPond
