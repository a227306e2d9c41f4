#include "Mpls/MplsRouteConfigMergerSm.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("RouteConfigMergerSm");

}  // namespace

namespace KivaCode::RouteConfigMergerSm {

// ---------------------------------------------------------------------------------------
// RouteScanSm

RouteScanSm::RouteScanSm(::Mpls::RouteConfigMergerSm* merger, const Kel::String& name,
                         const RouteConfigInput::PtrConst& input, const char* taskName,
                         bool dirStream)
    : merger_(merger),
      name_(name),
      input_(input.get()),
      dirStream_(dirStream),
      task_(merger->kivaControl(), taskName, [this] { return scanSlice(); }) {
  notifierIs(input);
  version_ = input_->routeVersion();
}

RouteScanSm::~RouteScanSm() = default;

void RouteScanSm::start() {
  bookmarkValid_ = false;
  codefEnabled_ = true;
  version_ = input_->routeVersion();
  scanningIs(true);
  task_.schedule();
}

void RouteScanSm::scanningIs(bool scanning) {
  if (scanning_ != scanning) {
    scanning_ = scanning;
    merger_->scanCountIs(dirStream_, scanning ? 1 : -1);
  }
}

void RouteScanSm::versionCheck() const {
  if (version_ != input_->routeVersion()) [[unlikely]] {
    Kel::internal::fatalAssertionFailed(
        KEL_SOURCE_PATH(), __LINE__, __PRETTY_FUNCTION__, "version() == en()->routeColl().version()",
        fmt::format("version: {} != {}", version_, input_->routeVersion()));
  }
}

void RouteScanSm::handleRoute(const RouteKeyAndMetric& key) {
  version_ = input_->routeVersion();
  if (!codefEnabled_) {
    return;
  }
  if (scanning_ && (!bookmarkValid_ || inputScanBookmark_ < key)) {
    return;  // the scan delivers it when it gets there
  }
  deliver(key, route(key));
}

bool RouteScanSm::scanSlice() {
  versionCheck();
  const auto& routes = input_->routeIter();
  auto it = bookmarkValid_ ? routes.after(inputScanBookmark_) : routes.begin();
  uint64_t n = 0;
  while (it != routes.end()) {
    // The bookmark moves first: a change of this key made while it is delivered is then
    // delivered after it, not lost.
    inputScanBookmark_ = it->first;
    bookmarkValid_ = true;
    const uint64_t version = input_->routeVersion();
    deliver(inputScanBookmark_, &it->second);
    ++n;
    // A change of the input made by the delivery invalidates the iterator.
    it = input_->routeVersion() == version ? std::next(it) : routes.after(inputScanBookmark_);
    if (it != routes.end() && merger_->kivaControl_->shouldYield()) {
      KEL_TRACE(trace, 7, "{} {} yielding after {} iterations ({} remaining)", task_.name(), name_,
                n, std::distance(it, routes.end()));
      return true;
    }
  }
  doneGen_ = dirStream_ ? merger_->inputSmScanState_->dirConfigStreamCodefGeneration()
                        : merger_->inputSmScanState_->cliConfigStreamCodefGeneration();
  scanningIs(false);
  return false;
}

void RouteScanSm::doDeleteAll() {
  versionCheck();
  task_.cancel();
  std::vector<RouteKeyAndMetric> delivered;
  for (const auto& [key, route] : input_->routeIter()) {
    if (scanning_ && (!bookmarkValid_ || inputScanBookmark_ < key)) {
      break;
    }
    delivered.push_back(key);
  }
  codefEnabled_ = false;
  scanningIs(false);
  for (const RouteKeyAndMetric& key : delivered) {
    deliver(key, nullptr);
  }
}

RouteSm2::RouteSm2(::Mpls::RouteConfigMergerSm* merger, const RouteConfigInput::PtrConst& input)
    : RouteScanSm(merger, input->name(), input, "Mpls::RouteConfigMergerSm-RouteSm2InputScanTask",
                  false) {
  merger->kelChildIs(this);
  if (merger->isZombie()) {
    kelDoZombieReactors(true);
  }
}

RouteSm2::~RouteSm2() { merger_->kelChildDel(this); }

void RouteSm2::deliver(const RouteKeyAndMetric& key, const Route* route) {
  merger_->eventToCliConfigStream(key, route);
}

RouteSm1::RouteSm1(EntityPtrSm0* parent, const Kel::String& name,
                   const RouteConfigInput::PtrConst& input)
    : RouteScanSm(parent->merger_, name, input, "Mpls::RouteConfigMergerSm-RouteSm1InputScanTask",
                  true),
      parent_(parent) {}

void RouteSm1::deliver(const RouteKeyAndMetric& key, const Route* route) {
  parent_->onChildEvent(*this, key, route);
}

// ---------------------------------------------------------------------------------------
// EntityPtrSm0

EntityPtrSm0::EntityPtrSm0(::Mpls::RouteConfigMergerSm* merger, const Kel::Ptr<const Kel::Dir>& dir)
    : merger_(merger),
      routeSm1_(merger),
      task_(merger->kivaControl(), "Mpls::RouteConfigMergerSm-EntityPtrSm0InputScanTask",
            [this] { return scanSlice(); }) {
  merger->kelChildIs(this);
  if (merger->isZombie()) {
    kelDoZombieReactors(true);
  }
  notifierIs(dir);
  version_ = dir->entityPtrVersion();
}

EntityPtrSm0::~EntityPtrSm0() { merger_->kelChildDel(this); }

void EntityPtrSm0::start() {
  bookmarkValid_ = false;
  codefEnabled_ = true;
  version_ = notifier()->entityPtrVersion();
  scanningIs(true);
  task_.schedule();
}

void EntityPtrSm0::scanningIs(bool scanning) {
  if (scanning_ != scanning) {
    scanning_ = scanning;
    merger_->scanCountIs(true, scanning ? 1 : -1);
  }
}

void EntityPtrSm0::onEntityPtr(const Kel::String& name) {
  version_ = notifier()->entityPtrVersion();
  if (!codefEnabled_) {
    return;
  }
  if (scanning_ && (!bookmarkValid_ || inputScanBookmark_ < name)) {
    return;
  }
  handleEntityPtr(name);
}

RouteSm1* EntityPtrSm0::routeSm1Is(const Kel::String& name,
                                   const RouteConfigInput::PtrConst& input) {
  return routeSm1_.emplace(name, this, name, input);
}

void EntityPtrSm0::handleEntityPtr(const Kel::String& name) {
  const Kel::Ptr<Kel::Entity> entity = notifier()->entityPtr(name);
  RouteSm1* child = routeSm1(name);
  if (child && entity.get() == static_cast<const Kel::Entity*>(child->en().get())) {
    return;
  }
  if (child) {
    KEL_TRACE(trace, 5, "input {} removed", name);
    child->doDeleteAll();
    routeSm1Del(name);
    merger_->mergedConfigRouteOutputInputDel(name);
  }
  if (!entity) {
    return;
  }
  const auto* input = dynamic_cast<const RouteConfigInput*>(entity.get());
  KEL_FATAL_ASSERT(input,
                   "dynamic cast to type ::Mpls::RouteConfigInput::RawPtrConst from "
                   "Kel::Entity::PtrConst failed. ");
  KEL_TRACE(trace, 5, "input {} added", name);
  merger_->mergedConfigRouteOutputInputIs(name, true);
  routeSm1Is(name, RouteConfigInput::PtrConst(input))->start();
}

void EntityPtrSm0::onChildEvent(const RouteSm1& child, const RouteKeyAndMetric& key,
                                const Route* route) {
  merger_->eventToDirConfigStream(child.name(), key, route);
}

bool EntityPtrSm0::scanSlice() {
  const Kel::Dir& dir = *notifier();
  if (version_ != dir.entityPtrVersion()) [[unlikely]] {
    Kel::internal::fatalAssertionFailed(
        KEL_SOURCE_PATH(), __LINE__, __PRETTY_FUNCTION__,
        "version() == en()->entityPtrColl().version()",
        fmt::format("version: {} != {}", version_, dir.entityPtrVersion()));
  }
  const auto& entries = dir.entityPtrIter();
  auto it = bookmarkValid_ ? entries.after(inputScanBookmark_) : entries.begin();
  uint64_t n = 0;
  while (it != entries.end()) {
    inputScanBookmark_ = it->first;
    bookmarkValid_ = true;
    handleEntityPtr(inputScanBookmark_);
    ++n;
    it = entries.after(inputScanBookmark_);
    if (it != entries.end() && merger_->kivaControl_->shouldYield()) {
      KEL_TRACE(trace, 7, "{} yielding after {} iterations ({} remaining)", task_.name(), n,
                std::distance(it, entries.end()));
      return true;
    }
  }
  doneGen_ = merger_->inputSmScanState_->dirConfigStreamCodefGeneration();
  scanningIs(false);
  return false;
}

void EntityPtrSm0::doDeleteAll() {
  task_.cancel();
  codefEnabled_ = false;
  scanningIs(false);
  std::vector<Kel::String> names;
  for (const auto& [name, child] : routeSm1_) {
    names.push_back(name);
  }
  for (const Kel::String& name : names) {
    routeSm1(name)->doDeleteAll();
    routeSm1Del(name);
    merger_->mergedConfigRouteOutputInputDel(name);
  }
}

}  // namespace KivaCode::RouteConfigMergerSm

// ---------------------------------------------------------------------------------------
// RouteConfigMergerSm

using KivaCode::RouteConfigMergerSm::EntityPtrSm0;
using KivaCode::RouteConfigMergerSm::InputSmScanState;
using KivaCode::RouteConfigMergerSm::OutputState;
using KivaCode::RouteConfigMergerSm::RouteSm2;

const RouteConfigMergerSm::Source* RouteConfigMergerSm::GroupByCollectionValueType0::coll(
    const Kel::String& name) const {
  for (const Source* member : members_) {
    if (member->name() == name) {
      return member;
    }
  }
  return nullptr;
}

void RouteConfigMergerSm::GroupByCollectionValueType0::collIs(const Source& source) {
  if (std::find(members_.begin(), members_.end(), &source) == members_.end()) {
    members_.push_back(&source);
  }
}

void RouteConfigMergerSm::GroupByCollectionValueType0::collDel(const Kel::String& name) {
  auto it = std::find_if(members_.begin(), members_.end(),
                         [&](const Source* member) { return member->name() == name; });
  if (it != members_.end()) {
    members_.erase(it);
  }
}

RouteConfigMergerSm::RouteConfigMergerSm(const RouteConfig::Ptr& routeConfig,
                                         const Kel::Ptr<const Kel::Dir>& configDir,
                                         const RouteConfigInput::PtrConst& cliConfig,
                                         const Kiva::SmControl::Ptr& control)
    : routeConfig_(routeConfig), configDir_(configDir), cliConfig_(cliConfig), control_(control) {
  KEL_ASSERT(routeConfig_ && configDir_ && cliConfig_ && control_,
             "the merger needs its output, directory, command-line input and control");
}

RouteConfigMergerSm::~RouteConfigMergerSm() {
  // The scans go first: their tasks hold the control.
  entityPtrSm0_.reset();
  routeSm2_.reset();
}

const RouteConfigMergerSm::GroupByCollectionValueType0* RouteConfigMergerSm::groupByAttr0(
    const RouteKeyAndMetric& key) const {
  auto it = groupByAttr0_.find(key);
  return it == groupByAttr0_.end() ? nullptr : &it->second;
}

RouteConfigMergerSm::GroupByCollectionValueType0& RouteConfigMergerSm::groupByAttr0Is(
    const RouteKeyAndMetric& key) {
  return groupByAttr0_[key];
}

void RouteConfigMergerSm::groupByAttr0Del(const RouteKeyAndMetric& key) {
  groupByAttr0_.erase(key);
}

void RouteConfigMergerSm::inputSmScanStateIs() {
  if (!inputSmScanState_) {
    inputSmScanState_ = Kel::make<InputSmScanState>();
  }
}

void RouteConfigMergerSm::outputStateIs() {
  if (!outputState_) {
    outputState_ = Kel::make<OutputState>();
  }
}

void RouteConfigMergerSm::routeSm2Is() {
  routeSm2_ = std::make_unique<RouteSm2>(this, cliConfig_);
  mergedConfigRouteOutputInputIs(cliConfig_->name(), true);
}

void RouteConfigMergerSm::routeSm2Del() {
  if (routeSm2_) {
    mergedConfigRouteOutputInputDel(routeSm2_->name());
    routeSm2_.reset();
  }
}

void RouteConfigMergerSm::entityPtrSm0Is() {
  entityPtrSm0_ = std::make_unique<EntityPtrSm0>(this, configDir_);
}

void RouteConfigMergerSm::entityPtrSm0Del() { entityPtrSm0_.reset(); }

void RouteConfigMergerSm::handleInitialized() {
  KEL_TRACE(trace, 5, "void Mpls::RouteConfigMergerSm::handleInitialized()");
  KEL_ASSERT(!initialized(), "the merger is initialized once");
  kivaControlIs(control_);
  initializedIs(true);
  mergedConfigRouteOutputReconcilingIs(routeConfig_->routes() > 0);
  KEL_TRACE(trace, 5, " Reconciling mergedConfigRouteOutput: {}", mergedConfigRouteOutputReconciling());
  inputSmScanStateIs();
  outputStateIs();
  inputSmScanState_->cliConfigStreamCodefGenerationInc();
  inputSmScanState_->dirConfigStreamCodefGenerationInc();
  routeSm2Is();
  entityPtrSm0Is();
  routeSm2_->start();
  entityPtrSm0_->start();
}

bool RouteConfigMergerSm::idle() const noexcept {
  return cliScans_ == 0 && dirScans_ == 0 && !reconcilePending_;
}

void RouteConfigMergerSm::scanCountIs(bool dirStream, int delta) {
  uint32_t& count = dirStream ? dirScans_ : cliScans_;
  count = static_cast<uint32_t>(static_cast<int>(count) + delta);
  const bool wasIdle = inputSmScanState_->idle();
  inputSmScanState_->routeSm2Is(cliScans_ > 0);
  inputSmScanState_->entityPtrSm0Is(dirScans_ > 0);
  inputSmScanState_->idleIs(cliScans_ == 0 && dirScans_ == 0);
  if (inputSmScanState_->idle() && !wasIdle && routeSm2_ && routeSm2_->codefEnabled() && entityPtrSm0_ &&
      entityPtrSm0_->codefEnabled()) {
    handleMergedConfigRouteOutputInput();
  }
}

void RouteConfigMergerSm::doDeleteAll() {
  if (routeSm2_) {
    routeSm2_->doDeleteAll();
  }
  if (entityPtrSm0_) {
    entityPtrSm0_->doDeleteAll();
  }
  routeSm2Del();
  entityPtrSm0Del();
  if (reconcileTask_) {
    reconcileTask_->cancel();
  }
  reconcilePending_ = false;
}

const RouteConfigMergerSm::Source* RouteConfigMergerSm::source(const Kel::String& name) const {
  if (routeSm2_ && name == routeSm2_->name()) {
    return routeSm2_.get();
  }
  return entityPtrSm0_ ? entityPtrSm0_->routeSm1(name) : nullptr;
}

void RouteConfigMergerSm::eventToCliConfigStream(const RouteKeyAndMetric& routeKey,
                                                 const Route* entry) {
  KEL_TRACE(trace, 9, "from( cliConfig.route[] ): name={} routeKey={} present={}",
            cliConfig_->name(), routeKey, entry != nullptr);
  eventToPipeline0(cliConfig_->name(), routeKey, entry);
}

void RouteConfigMergerSm::eventToDirConfigStream(const Kel::String& name,
                                                 const RouteKeyAndMetric& routeKey,
                                                 const Route* entry) {
  KEL_TRACE(trace, 9,
            "from( configDir.entityPtr< InputConfig >[].route[] ): name={} routeKey={} "
            "present={}",
            name, routeKey, entry != nullptr);
  eventToPipeline0(name, routeKey, entry);
}

void RouteConfigMergerSm::eventToPipeline0(const Kel::String& name,
                                           const RouteKeyAndMetric& routeKey,
                                           const Route* entry) {
  KEL_TRACE(trace, 9, "merge( cliConfigStream, dirConfigStream ): name={} routeKey={}", name,
            routeKey);
  const Source* src = source(name);
  KEL_FATAL_ASSERT(src, "an event from a source that the merger does not follow");
  pipeline0(*src, routeKey, entry);
}

void RouteConfigMergerSm::pipeline0(const Source& source, const RouteKeyAndMetric& routeKey,
                                    const Route* entry) {
  const Route* member = nullptr;
  if (entry) {
    KEL_TRACE(trace, 8, "Inserting value {} into groupby collection with key {}", *entry,
              routeKey);
    GroupByCollectionValueType0& group = groupByAttr0Is(routeKey);
    group.collIs(source);
    if (group.colls() == 1) {
      member = entry;
    }
  } else {
    auto it = groupByAttr0_.find(routeKey);
    if (it != groupByAttr0_.end()) {
      KEL_TRACE(trace, 8, "Deleting key {} from groupby collection with key {}", source.name(),
                routeKey);
      it->second.collDel(source.name());
      switch (it->second.colls()) {
        case 0:
          groupByAttr0_.erase(it);
          break;
        case 1:
          member = it->second.collIter().front()->route(routeKey);
          KEL_FATAL_ASSERT(member, "the one member of a group lacks the group's key");
          break;
        default:
          break;
      }
    }
  }
  if (mergedConfigRouteOutputReconciling()) {
    mergedConfigRouteOutputSeenIs(MergedConfigRouteOutputKeyType(routeKey), true);
  }
  if (member) {
    const Route* const* _v3_ = &member;
    const RouteKeyAndMetric& _k2_ = routeKey;
    KEL_FATAL_ASSERT(( *( _v3_ ) )->key() == _k2_);
    KEL_TRACE(trace, 8, "into( mergedConfig.route[ routeKey ] ): inserting k1={}, value={}",
              routeKey, *member);
    routeConfig_->routeIs(*member);
  } else {
    KEL_TRACE(trace, 8, "into( mergedConfig.route[ routeKey ] ): deleting k1={}", routeKey);
    routeConfig_->routeDel(routeKey);
  }
}

void RouteConfigMergerSm::handleMergedConfigRouteOutputInput() {
  KEL_TRACE(trace, 5, " Input scans for mergedConfigRouteOutput complete");
  if (!mergedConfigRouteOutputReconciling()) {
    KEL_TRACE(trace, 5, " .. not reconciling.");
    outputReadyIs();
  } else if (!reconcilePending_) {
    reconcileBookmarkValid_ = false;
    reconcilePending_ = true;
    if (!reconcileTask_) {
      reconcileTask_ = std::make_unique<Kiva::Task>(
          kivaControl_, "Mpls::RouteConfigMergerSm-MergedConfigRouteOutputReconcileTask",
          [this] { return reconcileSlice(); });
    }
    reconcileTask_->schedule();
  }
}

bool RouteConfigMergerSm::reconcileSlice() {
  const auto& routes = routeConfig_->routeIter();
  auto it = reconcileBookmarkValid_ ? routes.after(reconcileBookmark_) : routes.begin();
  while (it != routes.end()) {
    reconcileBookmark_ = it->first;
    reconcileBookmarkValid_ = true;
    if (mergedConfigRouteOutputSeen_.erase(MergedConfigRouteOutputKeyType(reconcileBookmark_))) {
      ++it;
    } else {
      KEL_TRACE(trace, 5, " .. removing stale k1={}", reconcileBookmark_);
      routeConfig_->routeDel(reconcileBookmark_);
      it = routes.after(reconcileBookmark_);
    }
    if (it != routes.end() && kivaControl_->shouldYield()) {
      return true;
    }
  }
  mergedConfigRouteOutputSeenDelAll();
  mergedConfigRouteOutputReconcilingIs(false);
  reconcilePending_ = false;
  outputReadyIs();
  return false;
}

void RouteConfigMergerSm::outputReadyIs() {
  outputState_->mergedConfigRouteOutputReadyIs(true);
  routeConfig_->readyIs(true);
}

RouteConfigMergerSm::Ptr routeConfigMergerSmFactory(const RouteConfig::Ptr& routeConfig,
                                                    const Kel::Ptr<const Kel::Dir>& configDir,
                                                    const RouteConfigInput::PtrConst& cliConfig,
                                                    const Kiva::SmControl::Ptr& control) {
  auto sm = Kel::make<RouteConfigMergerSm>(routeConfig, configDir, cliConfig, control);
  sm->handleInitialized();
  return sm;
}

}  // namespace Mpls
