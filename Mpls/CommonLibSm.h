// The publication of a router's label bindings in CommonLibPond::LabelBindingTable
// (Mpls/CommonLibPond.h): CommonLibProducerSm writes the tables from the entities in the
// agent that owns them, CommonLibConsumerSm rebuilds the entities from the tables in
// another process. The logic is that of Mpls/internal/LabelBindingMirror.h, shared with the
// LDP tables (Mpls/LdpLibSm.h); here filters and bindings are independent: a filtered FEC
// has its filter row whether or not it has a binding.
//
// Start-up. Neither factory mounts anything or starts the reactor: the caller mounts the
// table set (mountGroupIs) and runs handleInitialized():
//   - producer: once the tables are on a writer group. Its first pass deletes the rows an
//     earlier writer left that no binding backs, and writes what is missing;
//   - consumer: once, after creating it; the tables' group need not be ready. The consumer
//     follows the group's `ready` and makes its full pass whenever the group turns ready
//     (or the tables move to another group), taking back from the entities what the
//     tables no longer hold. Row changes reach it through the group's processChanges().
//
// The producer writes six of the seven tables; localLbtAdvertisedTo is
// LdpLibAdvertisementProducerSm's (Mpls/LdpLibSm.h).
#pragma once

#include "Kel/Trace.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/internal/LabelBindingMirror.h"
#include "types/Mpls/LabelBindingTable.h"

namespace CommonLibPond {

// The shapes of the common table set (see Mpls/internal/LabelBindingMirror.h).
struct CommonLibTraits {
  using Tables = LabelBindingTable;
  using PeerId = Mpls::RouterId;
  using LocalLabelKey = LocalLbtLabelKey;
  using LocalLabelEntry = LocalLbtLabelEntry;
  using FecEntry = CommonLibPond::FecEntry;
  using LocalLastUpdateEntry = LocalLbtLastUpdateEntry;
  using PeerLabelKey = PeerLbtLabelKey;
  using PeerLabelEntry = PeerLbtLabelEntry;
  using PeerFecKey = RouterIdFecKey;
  using PeerFecEntry = RouterIdFecEntry;
  using PeerLastUpdateEntry = PeerLbtLastUpdateEntry;
  static constexpr bool kFilterNeedsBinding = false;
  static Mpls::RouterId peerIdOf(const Mpls::RouterId& routerId) { return routerId; }
  static Mpls::RouterId routerIdOf(const Mpls::RouterId& peer) { return peer; }
  static Kel::TraceFacility producerTrace;
  static Kel::TraceFacility consumerTrace;
};

}  // namespace CommonLibPond

extern template class Mpls::internal::LabelBindingProducerSm<CommonLibPond::CommonLibTraits>;
extern template class Mpls::internal::LabelBindingConsumerSm<CommonLibPond::CommonLibTraits>;

namespace CommonLibPond {

// Reads the local Mpls::LabelBindingTable and the peers' Mpls::LabelBindingTableColl,
// writes the six binding tables. handleLocalChange(fec, label), handlePeerChange(routerId,
// fec, label), handlePeerDelete(routerId), handleInitialized(), handleDelete(): see
// Mpls::internal::LabelBindingProducerSm.
class CommonLibProducerSm : public Mpls::internal::LabelBindingProducerSm<CommonLibTraits> {
 public:
  using Ptr = Kel::Ptr<CommonLibProducerSm>;
  using LabelBindingProducerSm::LabelBindingProducerSm;
};

Kel::Ptr<CommonLibProducerSm> commonLibProducerSmFactory(
    const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl, const LabelBindingTable::Ptr& tables);

// Reads the six binding tables, writes the local Mpls::LabelBindingTable and the peers'
// Mpls::LabelBindingTableColl. handleLocalLbtLabel(key), handleLocalLbtLastUpdate(fec),
// handleLocalLbtFilteredFec(fec), handlePeerLbtLabel(key), handlePeerLbtLastUpdate(key),
// handlePeerLbtFilteredFec(key), deleteUnusedBinding(table, fec),
// deleteUnusedPeerTable(routerId, fec), handleInitialized(), handleDelete(): see
// Mpls::internal::LabelBindingConsumerSm.
class CommonLibConsumerSm : public Mpls::internal::LabelBindingConsumerSm<CommonLibTraits> {
 public:
  using Ptr = Kel::Ptr<CommonLibConsumerSm>;
  using LabelBindingConsumerSm::LabelBindingConsumerSm;
};

Kel::Ptr<CommonLibConsumerSm> commonLibConsumerSmFactory(
    const LabelBindingTable::Ptr& tables, const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl);

}  // namespace CommonLibPond
