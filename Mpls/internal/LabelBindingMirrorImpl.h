// The members of the label-binding producer and consumer (LabelBindingMirror.h). Included
// by the one file of each table set that instantiates them.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Trace.h"
#include "Kel/Value.h"
#include "Mpls/internal/LabelBindingMirror.h"

namespace Mpls::internal {

// What bringing one row in line did.
enum class RowChange { none, written, deleted };

// Brings the row of `key` in line: `row` written when given, the row deleted otherwise;
// nothing when the table agrees already. The table is the writer's: lookups are in place.
// Table, Is and Del are the table set's accessors of one table (MPLS_LBT_TABLE_).
template <auto Table, auto Is, auto Del, class Tables, class Key, class Row>
RowChange syncRow(Tables& tables, const Key& key, const Row* row) {
  const auto* table = (tables.*Table)();
  if (row) {
    Row old;
    if (table->find(key, old) && old == *row) {
      return RowChange::none;
    }
    (tables.*Is)(*row);
    return RowChange::written;
  }
  if (!table->contains(key)) {
    return RowChange::none;
  }
  (tables.*Del)(key);
  return RowChange::deleted;
}

#define MPLS_LBT_TABLE_(name) &Tables::name##Table, &Tables::name##Is, &Tables::name##Del

// Whether a reader's table holds a row under `key`; false while it is not open.
template <class Map, class Key>
bool hasRow(const Map* table, const Key& key) {
  return table && table->contains(key);
}

inline std::string fecText(const FwdEqvClass& fec) { return fec.prefix().stringValue(); }

// ---------------------------------------------------------------------------------------
// LabelBindingProducerSm.

template <class Tr>
LabelBindingProducerSm<Tr>::KelLocalLbt::KelLocalLbt(LabelBindingProducerSm* sm,
                                                     const LabelBindingTable::Ptr& table)
    : Nested(sm), sm_(sm) {
  this->notifierIs(table);
}

// A label's change, while its binding exists, changes the label's row alone: the FEC's
// own changes (binding added, time stamp, filter) come with the null label, and a removed
// binding names its labels with the binding gone.
template <class Tr>
void LabelBindingProducerSm<Tr>::KelLocalLbt::onChangeCounter() {
  const LabelBindingChange& change = this->notifier()->changeCounter();
  if (!change.label().isNull() && sm_->writing()) {
    if (const LabelBinding::Ptr binding = this->notifier()->binding(change.fec())) {
      sm_->syncLocalLabel(change.fec(), change.label(), binding.get());
      return;
    }
  }
  sm_->handleLocalChange(change.fec(), change.label());
}

template <class Tr>
LabelBindingProducerSm<Tr>::KelPeerLbt::KelPeerLbt(LabelBindingProducerSm* sm,
                                                   const LabelBindingTable::Ptr& table,
                                                   const RouterId& routerId)
    : Nested(sm), sm_(sm), routerId_(routerId) {
  this->notifierIs(table);
}

template <class Tr>
void LabelBindingProducerSm<Tr>::KelPeerLbt::onChangeCounter() {
  const LabelBindingChange& change = this->notifier()->changeCounter();
  if (!change.label().isNull() && sm_->writing()) {
    if (const LabelBinding::Ptr binding = this->notifier()->binding(change.fec())) {
      sm_->syncPeerLabel(Tr::peerIdOf(routerId_), change.fec(), change.label(), binding.get());
      return;
    }
  }
  sm_->handlePeerChange(routerId_, change.fec(), change.label());
}

template <class Tr>
LabelBindingProducerSm<Tr>::KelPeerLbtColl::KelPeerLbtColl(LabelBindingProducerSm* sm,
                                                           const LabelBindingTableColl::Ptr& coll)
    : Nested(sm), sm_(sm) {
  this->notifierIs(coll);
}

template <class Tr>
void LabelBindingProducerSm<Tr>::KelPeerLbtColl::onBindingTable(const RouterId& routerId) {
  sm_->handlePeerLbt(routerId);
}

template <class Tr>
LabelBindingProducerSm<Tr>::KelTables::KelTables(LabelBindingProducerSm* sm,
                                                 const typename Tables::Ptr& tables)
    : Kel::Nested<typename Tables::NotifieeConst>(sm), sm_(sm) {
  this->notifierIs(tables);
}

template <class Tr>
void LabelBindingProducerSm<Tr>::KelTables::onMountGroup() {
  sm_->handleMountGroup();
}

template <class Tr>
LabelBindingProducerSm<Tr>::LabelBindingProducerSm(const LabelBindingTable::Ptr& local,
                                                   const LabelBindingTableColl::Ptr& peers,
                                                   const typename Tables::Ptr& tables)
    : local_(local),
      peers_(peers),
      tables_(tables),
      kelLocalLbt_(this, local),
      kelPeerLbtColl_(this, peers),
      kelTables_(this, tables) {
  if (peers_) {
    for (const auto& [routerId, table] : peers_->bindingTableIter()) {
      peerLbtSetIs(routerId, this, table, routerId);
    }
  }
}

template <class Tr>
bool LabelBindingProducerSm<Tr>::writing() const noexcept {
  return initialized_ && tables_ && tables_->mountGroup() &&
         tables_->mountGroup()->role() == Pond::Role::writer;
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncLocalFilter(const FwdEqvClass& fec,
                                                 const LabelBinding* binding) {
  const bool filtered = local_->filteredFec(fec) && (!Tr::kFilterNeedsBinding || binding);
  const typename Tr::FecEntry row(fec);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(localLbtFilteredFec)>(*tables_, fec, filtered ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} setting filter", fecText(fec));
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} deleting filter", fecText(fec));
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncLocalLabel(const FwdEqvClass& fec, Netbase::MplsLabel label,
                                                const LabelBinding* binding) {
  const typename Tr::LocalLabelKey key(fec, label);
  const typename Tr::LocalLabelEntry row(key);
  const bool bound = binding && binding->mplsLabel(label);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(localLbtLabel)>(*tables_, key, bound ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} setting label: {}", fecText(fec),
              label.value());
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} deleting label: {}", fecText(fec),
              label.value());
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncLocalLastUpdate(const FwdEqvClass& fec,
                                                     const LabelBinding* binding) {
  const bool stamped = binding && binding->hasLastUpdate();
  const typename Tr::LocalLastUpdateEntry row(fec, stamped ? binding->lastUpdate() : 0.0);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(localLbtLastUpdate)>(*tables_, fec, stamped ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} setting lastUpdate: {}",
              fecText(fec), row.lastUpdate());
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handleLocalChange fec: {} deleting lastUpdate ", fecText(fec));
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handleLocalChange(const FwdEqvClass& fec,
                                                   Netbase::MplsLabel label) {
  if (!writing() || !local_) {
    return;
  }
  const LabelBinding::Ptr binding = local_->binding(fec);
  syncLocalFilter(fec, binding.get());
  if (!binding) {
    KEL_TRACE(Tr::producerTrace, 9, "handleLocalChange binding: {} does not exist", fecText(fec));
  }
  if (!label.isNull()) {
    syncLocalLabel(fec, label, binding.get());
  }
  syncLocalLastUpdate(fec, binding.get());
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncPeerFilter(const PeerId& peer, const FwdEqvClass& fec,
                                                const LabelBindingTable* table,
                                                const LabelBinding* binding) {
  const bool filtered = table && table->filteredFec(fec) && (!Tr::kFilterNeedsBinding || binding);
  const typename Tr::PeerFecKey key(peer, fec);
  const typename Tr::PeerFecEntry row(key);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(peerLbtFilteredFec)>(*tables_, key, filtered ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} setting filter",
              peer.stringValue(), fecText(fec));
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} {}", peer.stringValue(),
              fecText(fec), binding ? "deleting filter" : "deleting old filter");
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncPeerLabel(const PeerId& peer, const FwdEqvClass& fec,
                                               Netbase::MplsLabel label,
                                               const LabelBinding* binding) {
  const typename Tr::PeerLabelKey key(peer, fec, label);
  const typename Tr::PeerLabelEntry row(key);
  const bool bound = binding && binding->mplsLabel(label);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(peerLbtLabel)>(*tables_, key, bound ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} setting label: {}",
              peer.stringValue(), fecText(fec), label.value());
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} deleting label: {}",
              peer.stringValue(), fecText(fec), label.value());
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::syncPeerLastUpdate(const PeerId& peer, const FwdEqvClass& fec,
                                                    const LabelBinding* binding) {
  const bool stamped = binding && binding->hasLastUpdate();
  const typename Tr::PeerFecKey key(peer, fec);
  const typename Tr::PeerLastUpdateEntry row(key, stamped ? binding->lastUpdate() : 0.0);
  const RowChange change =
      syncRow<MPLS_LBT_TABLE_(peerLbtLastUpdate)>(*tables_, key, stamped ? &row : nullptr);
  if (change == RowChange::written) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} setting lastUpdate: {}",
              peer.stringValue(), fecText(fec), row.lastUpdate());
  } else if (change == RowChange::deleted) {
    KEL_TRACE(Tr::producerTrace, 8, "handlePeerChange peer: {} fec: {} deleting lastUpdate",
              peer.stringValue(), fecText(fec));
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handlePeerChange(const RouterId& routerId, const FwdEqvClass& fec,
                                                  Netbase::MplsLabel label) {
  if (!writing()) {
    return;
  }
  const PeerId peer = Tr::peerIdOf(routerId);
  const LabelBindingTable::Ptr table = peers_ ? peers_->bindingTable(routerId) : nullptr;
  const LabelBinding::Ptr binding = table ? table->binding(fec) : nullptr;
  syncPeerFilter(peer, fec, table.get(), binding.get());
  if (!label.isNull()) {
    syncPeerLabel(peer, fec, label, binding.get());
  }
  syncPeerLastUpdate(peer, fec, binding.get());
}

template <class Tr>
void LabelBindingProducerSm<Tr>::publishPeer(const RouterId& routerId,
                                             const LabelBindingTable& table) {
  const PeerId peer = Tr::peerIdOf(routerId);
  for (const auto& [fec, binding] : table.bindingIter()) {
    syncPeerFilter(peer, fec, &table, binding.get());
    syncPeerLastUpdate(peer, fec, binding.get());
    for (Netbase::MplsLabel label : binding->mplsLabelIter()) {
      syncPeerLabel(peer, fec, label, binding.get());
    }
  }
  for (const FwdEqvClass& fec : table.filteredFecIter()) {
    if (!table.binding(fec)) {
      syncPeerFilter(peer, fec, &table, nullptr);
    }
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handlePeerLbt(const RouterId& routerId) {
  const LabelBindingTable::Ptr table = peers_ ? peers_->bindingTable(routerId) : nullptr;
  KelPeerLbt* followed = peerLbtSet(routerId);
  if (followed && followed->notifier() == table) {
    return;
  }
  if (followed) {
    peerLbtSetDel(routerId);
    handlePeerDelete(routerId);
  }
  if (table) {
    peerLbtSetIs(routerId, this, table, routerId);
    if (writing()) {
      publishPeer(routerId, *table);
    }
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handlePeerDelete(const RouterId& routerId) {
  if (!writing()) {
    return;
  }
  const PeerId peer = Tr::peerIdOf(routerId);
  std::vector<typename Tr::PeerLabelKey> labels;
  std::vector<typename Tr::PeerFecKey> filters;
  std::vector<typename Tr::PeerFecKey> stamps;
  tables_->peerLbtLabelForEach([&](const auto& row) {
    if (Kel::fieldOfType<PeerId>(row.key()) == peer) {
      labels.push_back(row.key());
    }
  });
  tables_->peerLbtFilteredFecForEach([&](const auto& row) {
    if (Kel::fieldOfType<PeerId>(row.key()) == peer) {
      filters.push_back(row.key());
    }
  });
  tables_->peerLbtLastUpdateForEach([&](const auto& row) {
    if (Kel::fieldOfType<PeerId>(row.key()) == peer) {
      stamps.push_back(row.key());
    }
  });
  KEL_TRACE(Tr::producerTrace, 3,
            "handlePeerDelete peer: {} clearing peer: labels={}, filters={}, "
            "lastUpdate={}",
            peer.stringValue(), labels.size(), filters.size(), stamps.size());
  for (const auto& key : labels) {
    tables_->peerLbtLabelDel(key);
  }
  for (const auto& key : filters) {
    tables_->peerLbtFilteredFecDel(key);
  }
  for (const auto& key : stamps) {
    tables_->peerLbtLastUpdateDel(key);
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handleInitialized() {
  initialized_ = true;
  KEL_TRACE(Tr::producerTrace, 3, "handleInitialized");
  resynchronizeLocal();
  resynchronizePeers();
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handleMountGroup() {
  if (initialized_) {
    resynchronizeLocal();
    resynchronizePeers();
  }
}

// The start-up pass walks the rows in storage order, and checks each against the
// entities: a row that no binding backs (or whose time stamp differs) is handled as a
// change, which deletes (or rewrites) it; the others are counted. When as many rows are
// backed as the entities hold labels, time stamps and filters, every one of those has its
// row (a row backs one of them, and no two rows the same), and the entities need no walk
// of their own. Otherwise every binding and filter is published: its rows looked up, and
// written where missing.
template <class Tr>
void LabelBindingProducerSm<Tr>::resynchronizeLocal() {
  if (!writing() || !local_) {
    return;
  }
  std::vector<std::pair<FwdEqvClass, Netbase::MplsLabel>> stale;
  BackedRows stats;
  tables_->localLbtLabelForEach([&](const auto& row) {
    const FwdEqvClass& fec = row.key().fwdEqvClass();
    const LabelBinding::Ptr binding = local_->binding(fec);
    if (binding && binding->mplsLabel(row.key().label())) {
      ++stats.labels;
    } else {
      stale.emplace_back(fec, row.key().label());
      ++stats.staleLabels;
    }
  });
  tables_->localLbtFilteredFecForEach([&](const auto& row) {
    if (local_->filteredFec(row.key()) &&
        (!Tr::kFilterNeedsBinding || local_->binding(row.key()))) {
      ++stats.filters;
    } else {
      stale.emplace_back(row.key(), Netbase::MplsLabel::null());
      ++stats.staleFilters;
    }
  });
  tables_->localLbtLastUpdateForEach([&](const auto& row) {
    const LabelBinding::Ptr binding = local_->binding(row.key());
    if (binding && binding->hasLastUpdate()) {
      ++stats.stamps;  // rewritten below when it differs
      if (binding->lastUpdate() == row.lastUpdate()) {
        return;
      }
    } else {
      ++stats.staleStamps;
    }
    stale.emplace_back(row.key(), Netbase::MplsLabel::null());
  });
  KEL_TRACE(Tr::producerTrace, 3,
            "handleInitialized clearing local: labels={}, filters={}, "
            "lastUpdate={}",
            stats.staleLabels, stats.staleFilters, stats.staleStamps);
  for (const auto& [fec, label] : stale) {
    handleLocalChange(fec, label);
  }
  BackedRows held;
  countHeld(*local_, held);
  if (held.labels != stats.labels || held.stamps != stats.stamps) {
    for (const auto& [fec, binding] : local_->bindingIter()) {
      syncLocalFilter(fec, binding.get());
      syncLocalLastUpdate(fec, binding.get());
      for (Netbase::MplsLabel label : binding->mplsLabelIter()) {
        syncLocalLabel(fec, label, binding.get());
      }
    }
  }
  if (held.filters != stats.filters) {
    for (const FwdEqvClass& fec : local_->filteredFecIter()) {
      syncLocalFilter(fec, local_->binding(fec).get());
    }
  }
}

// As resynchronizeLocal(), over every peer at once; the rows of routers without a table go
// whole (handlePeerDelete).
template <class Tr>
void LabelBindingProducerSm<Tr>::resynchronizePeers() {
  if (!writing()) {
    return;
  }
  absl::flat_hash_set<RouterId, Kel::Hasher<RouterId>> gone;
  std::vector<std::pair<typename Tr::PeerFecKey, Netbase::MplsLabel>> stale;
  BackedRows stats;
  // Rows come in storage order, mostly router after router: the last table found is kept.
  PeerId lastPeer;
  LabelBindingTable::Ptr lastTable;
  auto tableOf = [&](const PeerId& peer) -> const LabelBindingTable* {
    if (!lastTable || !(peer == lastPeer)) {
      lastPeer = peer;
      lastTable = peers_ ? peers_->bindingTable(Tr::routerIdOf(peer)) : nullptr;
    }
    if (!lastTable) {
      gone.insert(Tr::routerIdOf(peer));
    }
    return lastTable.get();
  };
  tables_->peerLbtLabelForEach([&](const auto& row) {
    const auto& key = row.key();
    const PeerId& peer = Kel::fieldOfType<PeerId>(key);
    if (const LabelBindingTable* table = tableOf(peer)) {
      const LabelBinding::Ptr binding = table->binding(key.fwdEqvClass());
      if (binding && binding->mplsLabel(key.label())) {
        ++stats.labels;
      } else {
        stale.emplace_back(typename Tr::PeerFecKey(peer, key.fwdEqvClass()), key.label());
      }
    }
  });
  tables_->peerLbtFilteredFecForEach([&](const auto& row) {
    const auto& key = row.key();
    if (const LabelBindingTable* table = tableOf(Kel::fieldOfType<PeerId>(key))) {
      if (table->filteredFec(key.fwdEqvClass()) &&
          (!Tr::kFilterNeedsBinding || table->binding(key.fwdEqvClass()))) {
        ++stats.filters;
      } else {
        stale.emplace_back(key, Netbase::MplsLabel::null());
      }
    }
  });
  tables_->peerLbtLastUpdateForEach([&](const auto& row) {
    const auto& key = row.key();
    if (const LabelBindingTable* table = tableOf(Kel::fieldOfType<PeerId>(key))) {
      const LabelBinding::Ptr binding = table->binding(key.fwdEqvClass());
      if (binding && binding->hasLastUpdate()) {
        ++stats.stamps;
        if (binding->lastUpdate() == row.lastUpdate()) {
          return;
        }
      }
      stale.emplace_back(key, Netbase::MplsLabel::null());
    }
  });
  lastTable = nullptr;
  for (const RouterId& routerId : gone) {
    handlePeerDelete(routerId);
  }
  for (const auto& [key, label] : stale) {
    handlePeerChange(Tr::routerIdOf(Kel::fieldOfType<PeerId>(key)), key.fwdEqvClass(), label);
  }
  if (!peers_) {
    return;
  }
  BackedRows held;
  for (const auto& [routerId, table] : peers_->bindingTableIter()) {
    countHeld(*table, held);
  }
  if (held.labels != stats.labels || held.stamps != stats.stamps || held.filters != stats.filters) {
    for (const auto& [routerId, table] : peers_->bindingTableIter()) {
      publishPeer(routerId, *table);
    }
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::countHeld(const LabelBindingTable& table, BackedRows& held) {
  for (const auto& [fec, binding] : table.bindingIter()) {
    held.labels += binding->mplsLabels();
    held.stamps += binding->hasLastUpdate();
  }
  if (Tr::kFilterNeedsBinding) {
    for (const FwdEqvClass& fec : table.filteredFecIter()) {
      held.filters += table.binding(fec) != nullptr;
    }
  } else {
    held.filters += table.filteredFecs();
  }
}

template <class Tr>
void LabelBindingProducerSm<Tr>::handleDelete() {
  initialized_ = false;
  KEL_TRACE(Tr::producerTrace, 3, "handleDelete Set initialized to False");
  if (!tables_ || !tables_->mountGroup() || tables_->mountGroup()->role() != Pond::Role::writer) {
    return;
  }
  tables_->localLbtLabelDelAll();
  tables_->localLbtFilteredFecDelAll();
  tables_->localLbtLastUpdateDelAll();
  tables_->peerLbtLabelDelAll();
  tables_->peerLbtFilteredFecDelAll();
  tables_->peerLbtLastUpdateDelAll();
}

// ---------------------------------------------------------------------------------------
// LabelBindingConsumerSm.

template <class Tr>
LabelBindingConsumerSm<Tr>::KelTables::KelTables(LabelBindingConsumerSm* sm,
                                                 const typename Tables::Ptr& tables)
    : Kel::Nested<typename Tables::NotifieeConst>(sm), sm_(sm) {
  this->notifierIs(tables);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onLocalLbtLabel(const LocalLabelKey& key) {
  sm_->handleLocalLbtLabel(key);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onLocalLbtFilteredFec(const FwdEqvClass& fec) {
  sm_->handleLocalLbtFilteredFec(fec);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onLocalLbtLastUpdate(const FwdEqvClass& fec) {
  sm_->handleLocalLbtLastUpdate(fec);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onPeerLbtLabel(const PeerLabelKey& key) {
  sm_->handlePeerLbtLabel(key);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onPeerLbtFilteredFec(const PeerFecKey& key) {
  sm_->handlePeerLbtFilteredFec(key);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onPeerLbtLastUpdate(const PeerFecKey& key) {
  sm_->handlePeerLbtLastUpdate(key);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelTables::onMountGroup() {
  sm_->handleMountGroup();
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::KelMountGroup::onReady() {
  sm_->handleReady();
}

template <class Tr>
LabelBindingConsumerSm<Tr>::LabelBindingConsumerSm(const typename Tables::Ptr& tables,
                                                   const LabelBindingTable::Ptr& local,
                                                   const LabelBindingTableColl::Ptr& peers)
    : tables_(tables),
      local_(local),
      peers_(peers),
      kelMountGroup_(this),
      kelTables_(this, tables) {
  kelMountGroup_.notifierIs(tables_->mountGroup());
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleInitialized() {
  initialized_ = true;
  KEL_TRACE(Tr::consumerTrace, 3, "handleInitialized");
  resynchronize();
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleDelete() {
  initialized_ = false;
  KEL_TRACE(Tr::consumerTrace, 3, "handleDelete Set initialized to False");
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleMountGroup() {
  kelMountGroup_.notifierIs(tables_->mountGroup());
  if (initialized_) {
    resynchronize();
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleReady() {
  if (initialized_) {
    resynchronize();
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleLocalLbtLabel(const LocalLabelKey& key) {
  if (initialized_ && local_) {
    localLabelIs(key, hasRow(tables_->localLbtLabelTable(), key));
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::localLabelIs(const LocalLabelKey& key, bool present) {
  const FwdEqvClass& fec = key.fwdEqvClass();
  if (present) {
    local_->bindingIs(fec)->mplsLabelIs(key.label(), true);
  } else if (const LabelBinding::Ptr binding = local_->binding(fec)) {
    binding->mplsLabelDel(key.label());
    deleteUnusedBinding(*local_, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleLocalLbtLastUpdate(const FwdEqvClass& fec) {
  if (!initialized_ || !local_) {
    return;
  }
  const auto* table = tables_->localLbtLastUpdateTable();
  typename Tr::LocalLastUpdateEntry row;
  localLastUpdateIs(fec, table && table->find(fec, row) ? &row : nullptr);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::localLastUpdateIs(const FwdEqvClass& fec,
                                                   const typename Tr::LocalLastUpdateEntry* row) {
  if (row) {
    local_->bindingIs(fec)->lastUpdateIs(row->lastUpdate());
  } else if (const LabelBinding::Ptr binding = local_->binding(fec)) {
    binding->lastUpdateIs(0);
    deleteUnusedBinding(*local_, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handleLocalLbtFilteredFec(const FwdEqvClass& fec) {
  if (initialized_ && local_) {
    localFilterIs(fec, hasRow(tables_->localLbtFilteredFecTable(), fec));
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::localFilterIs(const FwdEqvClass& fec, bool present) {
  if (present) {
    if (Tr::kFilterNeedsBinding) {
      local_->bindingIs(fec);
    }
    local_->filteredFecIs(fec, true);
  } else {
    local_->filteredFecDel(fec);
    deleteUnusedBinding(*local_, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handlePeerLbtLabel(const PeerLabelKey& key) {
  if (initialized_ && peers_) {
    peerLabelIs(key, hasRow(tables_->peerLbtLabelTable(), key));
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::peerLabelIs(const PeerLabelKey& key, bool present) {
  const RouterId routerId = Tr::routerIdOf(Kel::fieldOfType<PeerId>(key));
  const FwdEqvClass& fec = key.fwdEqvClass();
  if (present) {
    peers_->bindingTableIs(routerId)->bindingIs(fec)->mplsLabelIs(key.label(), true);
  } else if (const LabelBindingTable::Ptr table = peers_->bindingTable(routerId)) {
    if (const LabelBinding::Ptr binding = table->binding(fec)) {
      binding->mplsLabelDel(key.label());
    }
    deleteUnusedPeerTable(routerId, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handlePeerLbtLastUpdate(const PeerFecKey& key) {
  if (!initialized_ || !peers_) {
    return;
  }
  const auto* table = tables_->peerLbtLastUpdateTable();
  typename Tr::PeerLastUpdateEntry row;
  peerLastUpdateIs(key, table && table->find(key, row) ? &row : nullptr);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::peerLastUpdateIs(const PeerFecKey& key,
                                                  const typename Tr::PeerLastUpdateEntry* row) {
  const RouterId routerId = Tr::routerIdOf(Kel::fieldOfType<PeerId>(key));
  const FwdEqvClass& fec = key.fwdEqvClass();
  if (row) {
    peers_->bindingTableIs(routerId)->bindingIs(fec)->lastUpdateIs(row->lastUpdate());
  } else if (const LabelBindingTable::Ptr table = peers_->bindingTable(routerId)) {
    if (const LabelBinding::Ptr binding = table->binding(fec)) {
      binding->lastUpdateIs(0);
    }
    deleteUnusedPeerTable(routerId, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::handlePeerLbtFilteredFec(const PeerFecKey& key) {
  if (initialized_ && peers_) {
    peerFilterIs(key, hasRow(tables_->peerLbtFilteredFecTable(), key));
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::peerFilterIs(const PeerFecKey& key, bool present) {
  const RouterId routerId = Tr::routerIdOf(Kel::fieldOfType<PeerId>(key));
  const FwdEqvClass& fec = key.fwdEqvClass();
  if (present) {
    const LabelBindingTable::Ptr table = peers_->bindingTableIs(routerId);
    if (Tr::kFilterNeedsBinding) {
      table->bindingIs(fec);
    }
    table->filteredFecIs(fec, true);
  } else if (const LabelBindingTable::Ptr table = peers_->bindingTable(routerId)) {
    table->filteredFecDel(fec);
    deleteUnusedPeerTable(routerId, fec);
  }
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::deleteUnusedBinding(LabelBindingTable& table,
                                                     const FwdEqvClass& fec) {
  const LabelBinding::Ptr binding = table.binding(fec);
  if (!binding || binding->mplsLabels() || binding->hasLastUpdate() ||
      (Tr::kFilterNeedsBinding && table.filteredFec(fec))) {
    return;
  }
  table.bindingDel(fec);
}

template <class Tr>
void LabelBindingConsumerSm<Tr>::deleteUnusedPeerTable(const RouterId& routerId,
                                                       const FwdEqvClass& fec) {
  const LabelBindingTable::Ptr table = peers_ ? peers_->bindingTable(routerId) : nullptr;
  if (!table) {
    return;
  }
  deleteUnusedBinding(*table, fec);
  if (!table->bindings() && !table->filteredFecs()) {
    peers_->bindingTableDel(routerId);
  }
}

// What the entities hold is checked against the tables first (keys first, work after:
// the handlers change the collections walked), then every row is walked.
template <class Tr>
void LabelBindingConsumerSm<Tr>::resynchronize() {
  const auto& group = tables_->mountGroup();
  if (!group || !group->ready()) {
    return;
  }
  if (local_) {
    std::vector<LocalLabelKey> labels;
    std::vector<FwdEqvClass> fecs;
    for (const auto& [fec, binding] : local_->bindingIter()) {
      fecs.push_back(fec);
      for (Netbase::MplsLabel label : binding->mplsLabelIter()) {
        labels.emplace_back(fec, label);
      }
    }
    std::vector<FwdEqvClass> filters = local_->filteredFecIter().keys();
    for (const auto& key : labels) {
      handleLocalLbtLabel(key);
    }
    for (const auto& fec : fecs) {
      handleLocalLbtLastUpdate(fec);
    }
    for (const auto& fec : filters) {
      handleLocalLbtFilteredFec(fec);
    }
  }
  if (peers_) {
    std::vector<PeerLabelKey> labels;
    std::vector<PeerFecKey> fecs;
    std::vector<PeerFecKey> filters;
    std::vector<RouterId> empty;
    for (const auto& [routerId, table] : peers_->bindingTableIter()) {
      const PeerId peer = Tr::peerIdOf(routerId);
      if (!table->bindings() && !table->filteredFecs()) {
        empty.push_back(routerId);
      }
      for (const auto& [fec, binding] : table->bindingIter()) {
        fecs.emplace_back(peer, fec);
        for (Netbase::MplsLabel label : binding->mplsLabelIter()) {
          labels.emplace_back(peer, fec, label);
        }
      }
      for (const FwdEqvClass& fec : table->filteredFecIter()) {
        filters.emplace_back(peer, fec);
      }
    }
    for (const auto& key : labels) {
      handlePeerLbtLabel(key);
    }
    for (const auto& key : fecs) {
      handlePeerLbtLastUpdate(key);
    }
    for (const auto& key : filters) {
      handlePeerLbtFilteredFec(key);
    }
    for (const RouterId& routerId : empty) {
      peers_->bindingTableDel(routerId);
    }
  }
  // The rows just read are there: no second lookup.
  if (local_) {
    tables_->localLbtLabelForEach([&](const auto& row) { localLabelIs(row.key(), true); });
    tables_->localLbtLastUpdateForEach(
        [&](const auto& row) { localLastUpdateIs(row.key(), &row); });
    tables_->localLbtFilteredFecForEach([&](const auto& row) { localFilterIs(row.key(), true); });
  }
  if (peers_) {
    tables_->peerLbtLabelForEach([&](const auto& row) { peerLabelIs(row.key(), true); });
    tables_->peerLbtLastUpdateForEach([&](const auto& row) { peerLastUpdateIs(row.key(), &row); });
    tables_->peerLbtFilteredFecForEach([&](const auto& row) { peerFilterIs(row.key(), true); });
  }
}

#undef MPLS_LBT_TABLE_

}  // namespace Mpls::internal
