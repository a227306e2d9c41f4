#include "Mpls/LdpLibSm.h"

#include <utility>
#include <vector>

#include "Mpls/internal/LabelBindingMirrorImpl.h"

namespace Ldp::LdpPond {

Kel::TraceFacility LdpLibTraits::producerTrace("LdpLibProducerSm");
Kel::TraceFacility LdpLibTraits::consumerTrace("LdpLibConsumerSm");

namespace {

Kel::TraceFacility advertisementTrace("LdpLibAdvertisementSm");

using Mpls::internal::RowChange;

template <class Tables>
bool writable(const Kel::Ptr<Tables>& tables) {
  return tables && tables->mountGroup() && tables->mountGroup()->role() == Pond::Role::writer;
}

template <class Tables>
bool readable(const Kel::Ptr<Tables>& tables) {
  return tables && tables->mountGroup() && tables->mountGroup()->ready();
}

// The row {peer, fec} of localLbtAdvertisedTo in `tables`, written or deleted.
template <class Entry, class Tables>
void syncAdvertisedTo(Tables& tables, const Ldp::LdpIdentifier& peer, const Mpls::FwdEqvClass& fec,
                      bool advertised) {
  using Key = std::remove_cvref_t<decltype(std::declval<Entry>().key())>;
  const Key key(peer, fec);
  const Entry row(key);
  const RowChange change =
      Mpls::internal::syncRow<&Tables::localLbtAdvertisedToTable, &Tables::localLbtAdvertisedToIs,
                              &Tables::localLbtAdvertisedToDel>(tables, key,
                                                                advertised ? &row : nullptr);
  if (change != RowChange::none) {
    KEL_TRACE(advertisementTrace, 8, "handleAdvertisedTo fec: {} peer: {} {}",
              Mpls::internal::fecText(fec), peer.stringValue(),
              change == RowChange::written ? "setting advertisedTo" : "deleting advertisedTo");
  }
}

// The (fec, peer) of every localLbtAdvertisedTo row of `tables`.
template <class Tables>
void collectAdvertisedTo(const Kel::Ptr<Tables>& tables,
                         std::vector<std::pair<Mpls::FwdEqvClass, LdpIdentifier>>& out) {
  if (tables) {
    tables->localLbtAdvertisedToForEach([&](const auto& row) {
      out.emplace_back(row.key().fwdEqvClass(), row.key().ldpIdentifier());
    });
  }
}

}  // namespace

Kel::Ptr<LdpLibProducerSm> ldpLibProducerSmFactory(
    const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl, const LdpLabelBindingTable::Ptr& tables) {
  return Kel::make<LdpLibProducerSm>(localLbt, peerLbtColl, tables);
}

Kel::Ptr<LdpLibConsumerSm> ldpLibConsumerSmFactory(
    const LdpLabelBindingTable::Ptr& tables, const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl) {
  return Kel::make<LdpLibConsumerSm>(tables, localLbt, peerLbtColl);
}

// ---------------------------------------------------------------------------------------
// LdpLibAdvertisementProducerSm.

LdpLibAdvertisementProducerSm::KelAdvertisementColl::KelAdvertisementColl(
    LdpLibAdvertisementProducerSm* sm, const LabelAdvertisementColl::Ptr& coll)
    : Nested(sm), sm_(sm) {
  notifierIs(coll);
}

void LdpLibAdvertisementProducerSm::KelAdvertisementColl::onAdvertisedTo(
    const Mpls::FwdEqvClass& fec) {
  sm_->handleAdvertisedToColl(fec);
}

LdpLibAdvertisementProducerSm::KelAdvertisedTo::KelAdvertisedTo(LdpLibAdvertisementProducerSm* sm,
                                                                const LdpIdentifierSet::Ptr& set)
    : Nested(sm), sm_(sm) {
  notifierIs(set);
}

void LdpLibAdvertisementProducerSm::KelAdvertisedTo::onIdentifier(const LdpIdentifier& peer) {
  sm_->handleAdvertisedTo(notifier()->fec(), peer);
}

LdpLibAdvertisementProducerSm::LdpLibAdvertisementProducerSm(
    const LabelAdvertisementColl::Ptr& advertisements, const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables)
    : advertisements_(advertisements),
      ldpTables_(ldpTables),
      commonTables_(commonTables),
      kelAdvertisementColl_(this, advertisements) {
  for (const auto& [fec, set] : advertisements_->advertisedToIter()) {
    advertisedToSetIs(fec, this, set);
  }
}

void LdpLibAdvertisementProducerSm::handleAdvertisedTo(const Mpls::FwdEqvClass& fec,
                                                       const LdpIdentifier& peer) {
  if (!initialized_) {
    return;
  }
  const LdpIdentifierSet::Ptr set = advertisements_->advertisedTo(fec);
  const bool advertised = set && set->identifier(peer);
  if (writable(ldpTables_)) {
    syncAdvertisedTo<LdpIdentifierFecEntry>(*ldpTables_, peer, fec, advertised);
  }
  if (writable(commonTables_)) {
    syncAdvertisedTo<CommonLibPond::LdpIdentifierFecEntry>(*commonTables_, peer, fec, advertised);
  }
}

void LdpLibAdvertisementProducerSm::handleAdvertisedToColl(const Mpls::FwdEqvClass& fec) {
  const LdpIdentifierSet::Ptr set = advertisements_->advertisedTo(fec);
  if (KelAdvertisedTo* followed = advertisedToSet(fec); followed && followed->notifier() != set) {
    const std::vector<LdpIdentifier> old = followed->notifier()->identifierIter().keys();
    advertisedToSetDel(fec);
    for (const LdpIdentifier& peer : old) {
      handleAdvertisedTo(fec, peer);
    }
  }
  if (!set) {
    return;
  }
  if (!advertisedToSet(fec)) {
    advertisedToSetIs(fec, this, set);
  }
  for (const LdpIdentifier& peer : set->identifierIter()) {
    handleAdvertisedTo(fec, peer);
  }
}

void LdpLibAdvertisementProducerSm::handleInitialized() {
  initialized_ = true;
  std::vector<std::pair<Mpls::FwdEqvClass, LdpIdentifier>> rows;
  collectAdvertisedTo(ldpTables_, rows);
  collectAdvertisedTo(commonTables_, rows);
  KEL_TRACE(advertisementTrace, 3, "handleInitialized rows: {}", rows.size());
  for (const auto& [fec, peer] : rows) {
    handleAdvertisedTo(fec, peer);
  }
  for (const auto& [fec, set] : advertisements_->advertisedToIter()) {
    for (const LdpIdentifier& peer : set->identifierIter()) {
      handleAdvertisedTo(fec, peer);
    }
  }
}

void LdpLibAdvertisementProducerSm::handleDelete() {
  initialized_ = false;
  KEL_TRACE(advertisementTrace, 3, "handleDelete Set initialized to False");
  if (writable(ldpTables_)) {
    ldpTables_->localLbtAdvertisedToDelAll();
  }
  if (writable(commonTables_)) {
    commonTables_->localLbtAdvertisedToDelAll();
  }
}

Kel::Ptr<LdpLibAdvertisementProducerSm> ldpLibAdvertisementProducerSmFactory(
    const LabelAdvertisementColl::Ptr& advertisements, const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables) {
  return Kel::make<LdpLibAdvertisementProducerSm>(advertisements, ldpTables, commonTables);
}

// ---------------------------------------------------------------------------------------
// LdpLibAdvertisementConsumerSm.

LdpLibAdvertisementConsumerSm::KelLdpTables::KelLdpTables(LdpLibAdvertisementConsumerSm* sm,
                                                          const LdpLabelBindingTable::Ptr& tables)
    : Nested(sm), sm_(sm) {
  notifierIs(tables);
}

void LdpLibAdvertisementConsumerSm::KelLdpTables::onLocalLbtAdvertisedTo(
    const LdpIdentifierFecKey& key) {
  sm_->handleLbtAdvertisedTo(key);
}

void LdpLibAdvertisementConsumerSm::KelLdpTables::onMountGroup() { sm_->handleMountGroup(); }

LdpLibAdvertisementConsumerSm::KelCommonTables::KelCommonTables(
    LdpLibAdvertisementConsumerSm* sm, const CommonLibPond::LabelBindingTable::Ptr& tables)
    : Nested(sm), sm_(sm) {
  notifierIs(tables);
}

void LdpLibAdvertisementConsumerSm::KelCommonTables::onLocalLbtAdvertisedTo(
    const CommonLibPond::LdpIdentifierFecKey& key) {
  sm_->handleCommonLbtAdvertisedTo(key);
}

void LdpLibAdvertisementConsumerSm::KelCommonTables::onMountGroup() { sm_->handleMountGroup(); }

void LdpLibAdvertisementConsumerSm::KelMountGroup::onReady() { sm_->handleMountGroup(); }

LdpLibAdvertisementConsumerSm::LdpLibAdvertisementConsumerSm(
    const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables,
    const LabelAdvertisementColl::Ptr& advertisements)
    : ldpTables_(ldpTables),
      commonTables_(commonTables),
      advertisements_(advertisements),
      kelLdpGroup_(this),
      kelCommonGroup_(this),
      kelLdpTables_(this, ldpTables),
      kelCommonTables_(this, commonTables) {
  kelLdpGroup_.notifierIs(ldpTables_ ? ldpTables_->mountGroup() : nullptr);
  kelCommonGroup_.notifierIs(commonTables_ ? commonTables_->mountGroup() : nullptr);
}

void LdpLibAdvertisementConsumerSm::handleAdvertisedTo(const Mpls::FwdEqvClass& fec,
                                                       const LdpIdentifier& peer) {
  if (!initialized_) {
    return;
  }
  const bool advertised =
      (ldpTables_ && Mpls::internal::hasRow(ldpTables_->localLbtAdvertisedToTable(),
                                            LdpIdentifierFecKey(peer, fec))) ||
      (commonTables_ && Mpls::internal::hasRow(commonTables_->localLbtAdvertisedToTable(),
                                               CommonLibPond::LdpIdentifierFecKey(peer, fec)));
  if (advertised) {
    advertisements_->advertisedToIs(fec)->identifierIs(peer, true);
  } else if (const LdpIdentifierSet::Ptr set = advertisements_->advertisedTo(fec)) {
    set->identifierDel(peer);
    if (!set->identifiers()) {
      advertisements_->advertisedToDel(fec);
    }
  }
}

void LdpLibAdvertisementConsumerSm::handleLbtAdvertisedTo(const LdpIdentifierFecKey& key) {
  handleAdvertisedTo(key.fwdEqvClass(), key.ldpIdentifier());
}

void LdpLibAdvertisementConsumerSm::handleCommonLbtAdvertisedTo(
    const CommonLibPond::LdpIdentifierFecKey& key) {
  handleAdvertisedTo(key.fwdEqvClass(), key.ldpIdentifier());
}

void LdpLibAdvertisementConsumerSm::handleInitialized() {
  initialized_ = true;
  KEL_TRACE(advertisementTrace, 3, "handleInitialized");
  handleMountGroup();
}

void LdpLibAdvertisementConsumerSm::handleDelete() {
  initialized_ = false;
  KEL_TRACE(advertisementTrace, 3, "handleDelete Set initialized to False");
}

// A table set without a group is left out; one whose group is not ready yet holds the
// pass back, since its rows cannot be told from rows gone; so does having no group at all.
void LdpLibAdvertisementConsumerSm::handleMountGroup() {
  kelLdpGroup_.notifierIs(ldpTables_ ? ldpTables_->mountGroup() : nullptr);
  kelCommonGroup_.notifierIs(commonTables_ ? commonTables_->mountGroup() : nullptr);
  if (!initialized_ || (!readable(ldpTables_) && !readable(commonTables_)) ||
      (ldpTables_ && ldpTables_->mountGroup() && !readable(ldpTables_)) ||
      (commonTables_ && commonTables_->mountGroup() && !readable(commonTables_))) {
    return;
  }
  std::vector<std::pair<Mpls::FwdEqvClass, LdpIdentifier>> entries;
  for (const auto& [fec, set] : advertisements_->advertisedToIter()) {
    for (const LdpIdentifier& peer : set->identifierIter()) {
      entries.emplace_back(fec, peer);
    }
  }
  collectAdvertisedTo(ldpTables_, entries);
  collectAdvertisedTo(commonTables_, entries);
  for (const auto& [fec, peer] : entries) {
    handleAdvertisedTo(fec, peer);
  }
}

Kel::Ptr<LdpLibAdvertisementConsumerSm> ldpLibAdvertisementConsumerSmFactory(
    const LdpLabelBindingTable::Ptr& ldpTables,
    const CommonLibPond::LabelBindingTable::Ptr& commonTables,
    const LabelAdvertisementColl::Ptr& advertisements) {
  return Kel::make<LdpLibAdvertisementConsumerSm>(ldpTables, commonTables, advertisements);
}

}  // namespace Ldp::LdpPond

template class Mpls::internal::LabelBindingProducerSm<Ldp::LdpPond::LdpLibTraits>;
template class Mpls::internal::LabelBindingConsumerSm<Ldp::LdpPond::LdpLibTraits>;
