#include "Mpls/LfibStatusSm.h"

#include <utility>
#include <vector>

#include "Kel/Exception.h"

namespace Mpls {

namespace {

std::vector<Bridging::VlanId> tagsOf(const LfibDot1qTagToVlan& map) {
  std::vector<Bridging::VlanId> tags;
  for (const auto& [tag, vlan] : map.dot1qTagToVlanIdIter()) {
    tags.push_back(tag);
  }
  return tags;
}

// Keys first, work after: the handlers change the collections being walked.
std::vector<LfibDot1qTagToVlanCompositeKey> compositeKeysOf(const LfibStatus& status) {
  std::vector<LfibDot1qTagToVlanCompositeKey> keys;
  status.dot1qTagToVlanCompositeForEach(
      [&](const LfibDot1qTagToVlanComposite& row) { keys.push_back(row.key()); });
  return keys;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// LfibStatusProducerSm.

LfibStatusProducerSm::KelLfibStatus::KelLfibStatus(LfibStatusProducerSm* sm,
                                                   const LfibStatus::Ptr& lfibStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(lfibStatus);
}

void LfibStatusProducerSm::KelLfibStatus::onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) {
  if (LfibDot1qTagToVlan::Ptr map = notifier()->dot1qTagToVlanColl(key)) {
    sm_->dot1qTagToVlanCollIs(map);
  } else {
    sm_->dot1qTagToVlanCollDel(key);
  }
}

void LfibStatusProducerSm::KelLfibStatus::onMountGroup() { sm_->handleMountGroup(); }

LfibStatusProducerSm::KelDot1qTagToVlanColl::KelDot1qTagToVlanColl(
    LfibStatusProducerSm* sm, const LfibDot1qTagToVlan::PtrConst& map)
    : Nested(sm), sm_(sm) {
  notifierIs(map);
}

void LfibStatusProducerSm::KelDot1qTagToVlanColl::onDot1qTagToVlanId(const Bridging::VlanId& tag) {
  // The handler may drop this reactor: nothing of it is used afterwards.
  sm_->handleDot1qTagToVlan(notifier()->key(), tag);
}

LfibStatusProducerSm::LfibStatusProducerSm(const LfibStatus::Ptr& lfibStatus)
    : lfibStatus_(lfibStatus), kelLfibStatus_(this, lfibStatus) {
  std::vector<LfibDot1qTagToVlan::Ptr> maps;
  for (const auto& [key, map] : lfibStatus_->dot1qTagToVlanCollIter()) {
    maps.push_back(map);
  }
  for (const auto& map : maps) {
    dot1qTagToVlanCollIs(map);
  }
  handleInitialized();
}

LfibStatusProducerSm::KelDot1qTagToVlanColl* LfibStatusProducerSm::dot1qTagToVlanCollIs(
    const LfibDot1qTagToVlan::PtrConst& map) {
  const LfibDot1qTagToVlanKey key = map->key();
  if (KelDot1qTagToVlanColl* existing = dot1qTagToVlanColl_.find(key)) {
    if (existing->notifier() == map) {
      return existing;
    }
    dot1qTagToVlanCollDel(key);
  }
  dot1qTagToVlanColl_.emplace(key, this, map);
  handleDot1qTagToVlanColl(key, map);
  return dot1qTagToVlanColl_.find(key);
}

void LfibStatusProducerSm::dot1qTagToVlanCollDel(const LfibDot1qTagToVlanKey& key) {
  KelDot1qTagToVlanColl* reactor = dot1qTagToVlanColl_.find(key);
  if (!reactor) {
    return;
  }
  std::vector<Bridging::VlanId> tags = tagsOf(*reactor->notifier());
  dot1qTagToVlanColl_.erase(key);
  for (Bridging::VlanId tag : tags) {
    handleDot1qTagToVlan(key, tag);
  }
}

void LfibStatusProducerSm::dot1qTagToVlanCollDelAll() {
  std::vector<LfibDot1qTagToVlanKey> keys;
  for (const auto& [key, reactor] : dot1qTagToVlanColl_) {
    keys.push_back(key);
  }
  for (const auto& key : keys) {
    dot1qTagToVlanCollDel(key);
  }
}

void LfibStatusProducerSm::lfibStatusDel() {
  dot1qTagToVlanColl_.clear();
  kelLfibStatus_.notifierIs(nullptr);
  lfibStatus_ = nullptr;
}

void LfibStatusProducerSm::handleInitialized() {
  initialized_ = true;
  resynchronize();
}

void LfibStatusProducerSm::handleMountGroup() {
  if (initialized_) {
    resynchronize();
  }
}

void LfibStatusProducerSm::resynchronize() {
  if (!lfibStatus_) {
    return;
  }
  for (const auto& key : compositeKeysOf(*lfibStatus_)) {
    handleDot1qTagToVlan(key.dot1qTagToVlanKey(), key.dot1qTag());
  }
  std::vector<LfibDot1qTagToVlan::Ptr> maps;
  for (const auto& [key, map] : lfibStatus_->dot1qTagToVlanCollIter()) {
    maps.push_back(map);
  }
  for (const auto& map : maps) {
    handleDot1qTagToVlanColl(map->key(), map);
  }
}

void LfibStatusProducerSm::handleDot1qTagToVlan(LfibDot1qTagToVlanKey key, Bridging::VlanId tag) {
  if (!initialized_ || !lfibStatus_ || !lfibStatus_->mountGroup()) {
    return;
  }
  const LfibDot1qTagToVlanCompositeKey compositeKey(key, tag);
  LfibDot1qTagToVlan::Ptr map = lfibStatus_->dot1qTagToVlanColl(key);
  const Bridging::VlanIdOrNone vlan = map ? map->dot1qTagToVlanId(tag) : Bridging::VlanIdOrNone();
  if (!vlan.isNone()) {
    lfibStatus_->dot1qTagToVlanCompositeIs(LfibDot1qTagToVlanComposite(compositeKey, vlan));
  } else {
    lfibStatus_->dot1qTagToVlanCompositeDel(compositeKey);
  }
}

void LfibStatusProducerSm::handleDot1qTagToVlanColl(LfibDot1qTagToVlanKey key,
                                                    LfibDot1qTagToVlan::PtrConst map) {
  for (Bridging::VlanId tag : tagsOf(*map)) {
    handleDot1qTagToVlan(key, tag);
  }
}

Kel::Ptr<LfibStatusProducerSm> lfibStatusProducerSmFactory(const LfibStatus::Ptr& lfibStatus) {
  return Kel::make<LfibStatusProducerSm>(lfibStatus);
}

// ---------------------------------------------------------------------------------------
// LfibStatusConsumerSm.

LfibStatusConsumerSm::KelLfibStatus::KelLfibStatus(LfibStatusConsumerSm* sm,
                                                   const LfibStatus::Ptr& lfibStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(lfibStatus);
}

void LfibStatusConsumerSm::KelLfibStatus::onDot1qTagToVlanComposite(
    const LfibDot1qTagToVlanCompositeKey& key) {
  sm_->handleDot1qTagToVlanComposite(key);
}

void LfibStatusConsumerSm::KelLfibStatus::onMountGroup() { sm_->handleMountGroup(); }

void LfibStatusConsumerSm::KelMountGroup::onReady() { sm_->handleDot1qTagToVlanComposites(); }

LfibStatusConsumerSm::LfibStatusConsumerSm(const LfibStatus::Ptr& lfibStatus)
    : lfibStatus_(lfibStatus), kelMountGroup_(this), kelLfibStatus_(this, lfibStatus) {
  mountGroupIs(lfibStatus_->mountGroup());
  handleInitialized();
}

void LfibStatusConsumerSm::mountGroupIs(const Kel::Ptr<Pond::MountGroup>& group) {
  kelMountGroup_.notifierIs(group);
}

void LfibStatusConsumerSm::lfibStatusDel() {
  kelMountGroup_.notifierIs(nullptr);
  kelLfibStatus_.notifierIs(nullptr);
  lfibStatus_ = nullptr;
}

void LfibStatusConsumerSm::handleInitialized() {
  KEL_FATAL_ASSERT(!lfibStatus()->dot1qTagToVlanColls() &&
                   "This sm should not have been created with a filled dot1qTagToVlanColl");
  initialized_ = true;
  handleDot1qTagToVlanComposites();
}

void LfibStatusConsumerSm::handleDot1qTagToVlanComposites() {
  if (!lfibStatus_) {
    return;
  }
  for (const auto& key : compositeKeysOf(*lfibStatus_)) {
    handleDot1qTagToVlanComposite(key);
  }
}

void LfibStatusConsumerSm::handleDot1qTagToVlanComposite(LfibDot1qTagToVlanCompositeKey key) {
  if (!initialized_ || !lfibStatus_) {
    return;
  }
  LfibDot1qTagToVlanComposite row;
  const auto* table = lfibStatus_->dot1qTagToVlanCompositeTable();
  if (table && table->find(key, row)) {
    lfibStatus_->dot1qTagToVlanCollIs(key.dot1qTagToVlanKey())
        ->dot1qTagToVlanIdIs(key.dot1qTag(), row.localVlan());
    return;
  }
  if (LfibDot1qTagToVlan::Ptr map = lfibStatus_->dot1qTagToVlanColl(key.dot1qTagToVlanKey())) {
    map->dot1qTagToVlanIdDel(key.dot1qTag());
    if (!map->dot1qTagToVlanIds()) {
      lfibStatus_->dot1qTagToVlanCollDel(key.dot1qTagToVlanKey());
    }
  }
}

void LfibStatusConsumerSm::handleMountGroup() {
  if (!lfibStatus_) {
    return;
  }
  mountGroupIs(lfibStatus_->mountGroup());
  if (!initialized_) {
    return;
  }
  // The new group's rows came with no notification, and the old group's are gone.
  std::vector<LfibDot1qTagToVlanCompositeKey> mirrored;
  for (const auto& [key, map] : lfibStatus_->dot1qTagToVlanCollIter()) {
    for (Bridging::VlanId tag : tagsOf(*map)) {
      mirrored.emplace_back(key, tag);
    }
  }
  for (const auto& key : mirrored) {
    handleDot1qTagToVlanComposite(key);
  }
  handleDot1qTagToVlanComposites();
}

Kel::Ptr<LfibStatusConsumerSm> lfibStatusConsumerSmFactory(const LfibStatus::Ptr& lfibStatus) {
  return Kel::make<LfibStatusConsumerSm>(lfibStatus);
}

}  // namespace Mpls
