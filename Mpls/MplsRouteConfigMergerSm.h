// RouteConfigMergerSm: merges the static MPLS route configuration of several sources into
// one output, as one pipeline of a reactive rule:
//
//   cliConfigStream = from( cliConfig.route[] ):            every route of the command-line
//                                                           input, tagged with its name
//   dirConfigStream = from( configDir.entityPtr< InputConfig >[].route[] ):
//                                                           every route of every input in
//                                                           the directory, tagged with the
//                                                           entry's name
//   merge( cliConfigStream, dirConfigStream ):              both feed eventToPipeline0
//   group by routeKey into groupByAttr0
//   into( mergedConfig.route[ routeKey ] )                  a group of exactly one member
//                                                           gives the output that member's
//                                                           route; any other group, none
//
// So a key that exactly one source configures is in the output with that source's route;
// a key that two or more sources configure, identically or not, is withdrawn until all but
// one give it up. The result does not depend on the order in which sources report.
//
// Scans. Each input is read by a scan machine (KivaCode::RouteConfigMergerSm below):
// RouteSm2 over the command-line input, EntityPtrSm0 over the directory, and one RouteSm1
// per directory entry, created by EntityPtrSm0. A scan walks its collection in key order
// from its bookmark (the last key it delivered) and runs as a Kiva::Task on the control
// that the host hands in: after every key it asks shouldYield(), and when told to it keeps
// its bookmark and comes back in a later slice, so that a scan of a million routes does not
// hold the reactor thread. Every key is delivered exactly once, however the inputs change
// between slices: a change at or before a scan's bookmark goes straight to the pipeline,
// a change after it is left to the scan, which reads the input as it is when it gets there.
// A scan machine follows the version of its collection at every change it hears of; a
// version that moved without a change heard (a quiesced collection) is a fatal assertion.
//
// Start-up and restart. handleInitialized() starts the scans. When the output already holds
// routes (left by an earlier incarnation of the agent), the merger reconciles: it records
// every key that the scans deliver (mergedConfigRouteOutputSeen), leaves the output's
// other routes alone while the scans run, and once every scan of both streams is complete
// removes them, walking the output in slices too. A route rewritten with the value it
// already has announces nothing, so a restart on unchanged inputs changes nothing a reader
// of the output can see but the removal of stale routes, and for a key that two sources
// configure, one flap: it is written when the scan of the first source reaches it and
// withdrawn when the second's does, as the rule is evaluated key by key. The output's
// `ready` is set only at the end of all that (and never cleared), even when there is no
// input at all: with a control on an event loop, a few loop iterations after start-up;
// without one, once the host has run the control's pending slices (runPending()).
//
// Directory entries. A new entry gets a RouteSm1 and its own scan. A removed entry (or one
// replaced by another entity) runs doDeleteAll on its RouteSm1, which feeds a deletion for
// every key it delivered; a replacing entity is then scanned afresh. An entry that is not a
// Mpls::RouteConfigInput is a fatal assertion ("dynamic cast to type
// ::Mpls::RouteConfigInput::RawPtrConst from Kel::Entity::PtrConst failed. "). Source
// names are the command-line input's own name and the entry names; an entry named like
// the command-line input is taken for it.
//
// Ownership and threads. The host owns the merger (Kel::Ptr) and the entities it is given;
// the merger holds them, and the control, for its life. Destruction stops the scans and
// leaves the output as it is. Single-threaded: the reactor thread of the agent, which also
// runs the control's slices.
#pragma once

#include <cstdint>
#include <memory>

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/inlined_vector.h>

#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Kiva/SmControl.h"
#include "types/Mpls/RouteConfig.h"

namespace Mpls {

class RouteConfigMergerSm;

namespace KivaCode::RouteConfigMergerSm {

// Which scans run and in which generation of each stream. A stream's generation moves at
// each (re)start of its scans; a scan machine's doneGen is the generation in which it
// last completed.
class InputSmScanState : public Kel::Entity {
 public:
  KEL_ENTITY(InputSmScanState, "Mpls::KivaCode::RouteConfigMergerSm::InputSmScanState");
  using Ptr = Kel::Ptr<InputSmScanState>;
  class NotifieeConst : public Kel::NotifieeOf<InputSmScanState> {
   public:
    virtual void onCliConfigStreamCodefGeneration() {}
    virtual void onDirConfigStreamCodefGeneration() {}
    virtual void onIdle() {}
    virtual void onRouteSm2() {}
    virtual void onEntityPtrSm0() {}
  };
  KEL_ATTR(uint64_t, cliConfigStreamCodefGeneration, CliConfigStreamCodefGeneration)
  KEL_ATTR(uint64_t, dirConfigStreamCodefGeneration, DirConfigStreamCodefGeneration)
  // No scan of either stream is pending.
  KEL_ATTR(bool, idle, Idle, false)
  // The command-line scan is pending.
  KEL_ATTR(bool, routeSm2, RouteSm2, false)
  // The directory scan, or the scan of one of its entries, is pending.
  KEL_ATTR(bool, entityPtrSm0, EntityPtrSm0, false)
  void cliConfigStreamCodefGenerationInc() {
    cliConfigStreamCodefGenerationIs(cliConfigStreamCodefGeneration() + 1);
  }
  void dirConfigStreamCodefGenerationInc() {
    dirConfigStreamCodefGenerationIs(dirConfigStreamCodefGeneration() + 1);
  }
};

class OutputState : public Kel::Entity {
 public:
  KEL_ENTITY(OutputState, "Mpls::KivaCode::RouteConfigMergerSm::OutputState");
  using Ptr = Kel::Ptr<OutputState>;
  class NotifieeConst : public Kel::NotifieeOf<OutputState> {
   public:
    virtual void onMergedConfigRouteOutputReady() {}
  };
  KEL_ATTR(bool, mergedConfigRouteOutputReady, MergedConfigRouteOutputReady, false)
};

// The scan of one input's routes, and the source that the input is to the pipeline: a
// group member reads its route through it (route(key)).
class RouteScanSm : public RouteConfigInput::NotifieeConst {
 public:
  RouteScanSm(::Mpls::RouteConfigMergerSm* merger, const Kel::String& name,
              const RouteConfigInput::PtrConst& input, const char* taskName, bool dirStream);
  ~RouteScanSm() override;

  const Kel::String& name() const noexcept { return name_; }
  RouteConfigInput::PtrConst en() const noexcept { return notifier(); }
  // The input's route of `key`, null when it has none.
  const Route* route(const RouteKeyAndMetric& key) const { return input_->routeIter().find(key); }
  // The last key delivered by the scan; meaningless before its first key.
  const RouteKeyAndMetric& inputScanBookmark() const noexcept { return inputScanBookmark_; }
  // The version of the input's route collection at the last change heard of.
  uint64_t version() const noexcept { return version_; }
  bool codefEnabled() const noexcept { return codefEnabled_; }
  uint64_t doneGen() const noexcept { return doneGen_; }
  bool scanning() const noexcept { return scanning_; }
  const Kiva::Task& task() const noexcept { return task_; }

  // Starts a full scan (scheduled on the control; nothing is delivered here).
  void start();
  // A change of the input at `key`: delivered now when the scan has passed it.
  void handleRoute(const RouteKeyAndMetric& key);
  // Feeds a deletion for every key delivered so far and stops: the input is gone.
  void doDeleteAll();

  void onRoute(const RouteKeyAndMetric& key) override { handleRoute(key); }

 protected:
  virtual void deliver(const RouteKeyAndMetric& key, const Route* route) = 0;
  ::Mpls::RouteConfigMergerSm* merger_;

 private:
  bool scanSlice();
  void scanningIs(bool scanning);
  void versionCheck() const;

  Kel::String name_;
  const RouteConfigInput* input_;
  RouteKeyAndMetric inputScanBookmark_;
  bool bookmarkValid_ = false;
  uint64_t version_ = 0;
  bool codefEnabled_ = false;
  uint64_t doneGen_ = 0;
  bool scanning_ = false;
  bool dirStream_;
  Kiva::Task task_;
};

// The command-line input's scan ("Mpls::RouteConfigMergerSm-RouteSm2InputScanTask").
class RouteSm2 final : public RouteScanSm {
 public:
  RouteSm2(::Mpls::RouteConfigMergerSm* merger, const RouteConfigInput::PtrConst& input);
  ~RouteSm2() override;

 protected:
  void deliver(const RouteKeyAndMetric& key, const Route* route) override;
};

class EntityPtrSm0;

// One directory entry's scan ("Mpls::RouteConfigMergerSm-RouteSm1InputScanTask"); it
// reports to its parent (onChildEvent).
class RouteSm1 final : public RouteScanSm {
 public:
  RouteSm1(EntityPtrSm0* parent, const Kel::String& name, const RouteConfigInput::PtrConst& input);

 protected:
  void deliver(const RouteKeyAndMetric& key, const Route* route) override;

 private:
  EntityPtrSm0* parent_;
};

// The directory's scan ("Mpls::RouteConfigMergerSm-EntityPtrSm0InputScanTask"): one
// RouteSm1 per entry, created as the scan or a change reaches the entry's name.
class EntityPtrSm0 final : public Kel::Dir::NotifieeConst {
 public:
  EntityPtrSm0(::Mpls::RouteConfigMergerSm* merger, const Kel::Ptr<const Kel::Dir>& dir);
  ~EntityPtrSm0() override;

  Kel::Ptr<const Kel::Dir> en() const noexcept { return notifier(); }
  const Kel::String& inputScanBookmark() const noexcept { return inputScanBookmark_; }
  uint64_t version() const noexcept { return version_; }
  bool codefEnabled() const noexcept { return codefEnabled_; }
  uint64_t doneGen() const noexcept { return doneGen_; }
  // The scan of the directory itself is pending (its entries' scans are their own).
  bool scanning() const noexcept { return scanning_; }
  const Kiva::Task& task() const noexcept { return task_; }

  // The entries' scans, by entry name.
  RouteSm1* routeSm1(const Kel::String& name) const { return routeSm1_.find(name); }
  uint32_t routeSm1s() const noexcept { return static_cast<uint32_t>(routeSm1_.size()); }
  const Kel::ReactorColl<Kel::String, RouteSm1>& routeSm1Iter() const noexcept {
    return routeSm1_;
  }
  RouteSm1* routeSm1Is(const Kel::String& name, const RouteConfigInput::PtrConst& input);
  void routeSm1Del(const Kel::String& name) { routeSm1_.erase(name); }

  void start();
  // The entry `name` added, removed or replaced.
  void handleEntityPtr(const Kel::String& name);
  void onChildEvent(const RouteSm1& child, const RouteKeyAndMetric& key, const Route* route);
  void doDeleteAll();

  void onEntityPtr(const Kel::String& name) override;

 private:
  friend class RouteSm1;
  bool scanSlice();
  void scanningIs(bool scanning);

  ::Mpls::RouteConfigMergerSm* merger_;
  Kel::String inputScanBookmark_;
  bool bookmarkValid_ = false;
  uint64_t version_ = 0;
  bool codefEnabled_ = false;
  uint64_t doneGen_ = 0;
  bool scanning_ = false;
  Kel::ReactorColl<Kel::String, RouteSm1> routeSm1_;
  Kiva::Task task_;
};

}  // namespace KivaCode::RouteConfigMergerSm

class RouteConfigMergerSm : public Kel::Reactor {
 public:
  KEL_ENTITY(RouteConfigMergerSm, "Mpls::RouteConfigMergerSm");
  using Ptr = Kel::Ptr<RouteConfigMergerSm>;
  // One output key, as the reconciliation records it.
  class MergedConfigRouteOutputKeyType {
   public:
    KEL_VALUE(MergedConfigRouteOutputKeyType,
              "Mpls::RouteConfigMergerSm::MergedConfigRouteOutputKeyType",
              (RouteKeyAndMetric, routeKey));
  };
  class NotifieeConst : public Kel::NotifieeOf<RouteConfigMergerSm> {
   public:
    virtual void onMergedConfigRouteOutputInput(const Kel::String& name) { (void)name; }
    virtual void onMergedConfigRouteOutputReconciling() {}
    virtual void onInitialized() {}
  };

  using Source = KivaCode::RouteConfigMergerSm::RouteScanSm;

  // The sources that configure one route key, by name. A member's route is read through
  // its source's input when it is needed (the input keeps its routes in a B-tree, whose
  // elements move, so no pointer into it is kept). A group exists only while it has a
  // member.
  class GroupByCollectionValueType0 {
   public:
    // The member source `name` (its route of the group's key: coll(name)->route(key)),
    // null when it is no member.
    const Source* coll(const Kel::String& name) const;
    uint32_t colls() const noexcept { return static_cast<uint32_t>(members_.size()); }
    // Adds `source` (nothing when it is a member already).
    void collIs(const Source& source);
    void collDel(const Kel::String& name);
    void collDelAll() noexcept { members_.clear(); }
    // The member sources, in the order they joined.
    const auto& collIter() const noexcept { return members_; }

   private:
    absl::InlinedVector<const Source*, 1> members_;
  };

  // Use routeConfigMergerSmFactory().
  RouteConfigMergerSm(const RouteConfig::Ptr& routeConfig, const Kel::Ptr<const Kel::Dir>& configDir,
                      const RouteConfigInput::PtrConst& cliConfig,
                      const Kiva::SmControl::Ptr& control);
  ~RouteConfigMergerSm() override;

  // mergedConfig of the rule.
  const RouteConfig::Ptr& routeConfig() const noexcept { return routeConfig_; }
  const Kel::Ptr<const Kel::Dir>& configDir() const noexcept { return configDir_; }
  const RouteConfigInput::PtrConst& cliConfig() const noexcept { return cliConfig_; }
  // Null before handleInitialized.
  const Kiva::SmControl::Ptr& kivaControl() const noexcept { return kivaControl_; }
  void kivaControlIs(const Kiva::SmControl::Ptr& control) { kivaControl_ = control; }

  KEL_ATTR(bool, initialized, Initialized, false)
  KEL_ATTR(bool, mergedConfigRouteOutputReconciling, MergedConfigRouteOutputReconciling, false)
  // The output keys delivered since start-up, while reconciling. Changes are not announced.
  bool mergedConfigRouteOutputSeen(const MergedConfigRouteOutputKeyType& key) const {
    return mergedConfigRouteOutputSeen_.contains(key);
  }
  uint32_t mergedConfigRouteOutputSeens() const noexcept {
    return static_cast<uint32_t>(mergedConfigRouteOutputSeen_.size());
  }
  void mergedConfigRouteOutputSeenIs(const MergedConfigRouteOutputKeyType& key, bool seen) {
    seen ? (void)mergedConfigRouteOutputSeen_.insert(key) : mergedConfigRouteOutputSeenDel(key);
  }
  void mergedConfigRouteOutputSeenDel(const MergedConfigRouteOutputKeyType& key) {
    mergedConfigRouteOutputSeen_.erase(key);
  }
  void mergedConfigRouteOutputSeenDelAll() { mergedConfigRouteOutputSeen_.clear(); }
  // The names of the sources feeding the output.
  KEL_SET_ATTR(Kel::String, mergedConfigRouteOutputInput, MergedConfigRouteOutputInput)

  // The group of `key`, null when no source configures it.
  const GroupByCollectionValueType0* groupByAttr0(const RouteKeyAndMetric& key) const;
  uint32_t groupByAttr0s() const noexcept { return static_cast<uint32_t>(groupByAttr0_.size()); }
  GroupByCollectionValueType0& groupByAttr0Is(const RouteKeyAndMetric& key);
  void groupByAttr0Del(const RouteKeyAndMetric& key);
  void groupByAttr0DelAll() { groupByAttr0_.clear(); }

  const KivaCode::RouteConfigMergerSm::InputSmScanState::Ptr& inputSmScanState() const noexcept {
    return inputSmScanState_;
  }
  void inputSmScanStateIs();
  void inputSmScanStateDel() { inputSmScanState_ = nullptr; }
  const KivaCode::RouteConfigMergerSm::OutputState::Ptr& outputState() const noexcept {
    return outputState_;
  }
  void outputStateIs();
  void outputStateDel() { outputState_ = nullptr; }
  // Null before handleInitialized and after doDeleteAll.
  KivaCode::RouteConfigMergerSm::RouteSm2* routeSm2() const noexcept { return routeSm2_.get(); }
  void routeSm2Is();
  void routeSm2Del();
  KivaCode::RouteConfigMergerSm::EntityPtrSm0* entityPtrSm0() const noexcept {
    return entityPtrSm0_.get();
  }
  void entityPtrSm0Is();
  void entityPtrSm0Del();

  // Installs the control, decides whether to reconcile and starts the scans. Once only.
  void handleInitialized();
  // No scan pending, nor the removal of stale routes that follows the scans at a restart.
  bool idle() const noexcept;
  // Stops every scan, feeding a deletion for every key delivered: the merged routes leave
  // the output. The merger does nothing more afterwards.
  void doDeleteAll();

  // The streams and the pipeline. `entry` is the source's route of `routeKey`, null when
  // the source has deleted it; it is read during the call only. `name` must be a source's
  // name (fatal assertion otherwise).
  void eventToCliConfigStream(const RouteKeyAndMetric& routeKey, const Route* entry);
  void eventToDirConfigStream(const Kel::String& name, const RouteKeyAndMetric& routeKey,
                              const Route* entry);
  void eventToPipeline0(const Kel::String& name, const RouteKeyAndMetric& routeKey,
                        const Route* entry);
  // Both streams' scans are complete: declares the output ready or, when reconciling,
  // starts the removal of the output's routes that no scan delivered, itself a task of the
  // control ("Mpls::RouteConfigMergerSm-MergedConfigRouteOutputReconcileTask") that walks
  // the output in slices; the output is declared ready when it is done.
  void handleMergedConfigRouteOutputInput();

 private:
  friend class KivaCode::RouteConfigMergerSm::RouteScanSm;
  friend class KivaCode::RouteConfigMergerSm::EntityPtrSm0;
  void pipeline0(const Source& source, const RouteKeyAndMetric& routeKey, const Route* entry);
  bool reconcileSlice();
  void outputReadyIs();
  const Source* source(const Kel::String& name) const;
  // A scan of the command-line (or directory) stream started or finished.
  void scanCountIs(bool dirStream, int delta);

  RouteConfig::Ptr routeConfig_;
  Kel::Ptr<const Kel::Dir> configDir_;
  RouteConfigInput::PtrConst cliConfig_;
  Kiva::SmControl::Ptr control_;
  Kiva::SmControl::Ptr kivaControl_;
  // The key order of RouteKeyAndMetric (label, then metric), compared as one integer.
  struct KeyLess {
    static uint64_t packed(const RouteKeyAndMetric& k) noexcept {
      return uint64_t{k.routeKey().topLabel().value()} << 8 | k.metric().value();
    }
    bool operator()(const RouteKeyAndMetric& a, const RouteKeyAndMetric& b) const noexcept {
      return packed(a) < packed(b);
    }
    bool operator()(const MergedConfigRouteOutputKeyType& a,
                    const MergedConfigRouteOutputKeyType& b) const noexcept {
      return packed(a.routeKey()) < packed(b.routeKey());
    }
  };
  // In key order, as the scans deliver keys: each scan fills them from one end to the other
  // rather than touching a random cache line per key, and they never stall to rehash.
  absl::btree_map<RouteKeyAndMetric, GroupByCollectionValueType0, KeyLess> groupByAttr0_;
  absl::btree_set<MergedConfigRouteOutputKeyType, KeyLess> mergedConfigRouteOutputSeen_;
  KivaCode::RouteConfigMergerSm::InputSmScanState::Ptr inputSmScanState_;
  KivaCode::RouteConfigMergerSm::OutputState::Ptr outputState_;
  uint32_t cliScans_ = 0;
  uint32_t dirScans_ = 0;
  std::unique_ptr<KivaCode::RouteConfigMergerSm::RouteSm2> routeSm2_;
  std::unique_ptr<KivaCode::RouteConfigMergerSm::EntityPtrSm0> entityPtrSm0_;
  std::unique_ptr<Kiva::Task> reconcileTask_;
  RouteKeyAndMetric reconcileBookmark_;
  bool reconcileBookmarkValid_ = false;
  bool reconcilePending_ = false;
};

// A merger of `cliConfig` and the inputs of `configDir` into `routeConfig`, started
// (handleInitialized) on `control`.
RouteConfigMergerSm::Ptr routeConfigMergerSmFactory(const RouteConfig::Ptr& routeConfig,
                                                    const Kel::Ptr<const Kel::Dir>& configDir,
                                                    const RouteConfigInput::PtrConst& cliConfig,
                                                    const Kiva::SmControl::Ptr& control);
inline RouteConfigMergerSm::Ptr RouteConfigMergerSmIs(const RouteConfig::Ptr& routeConfig,
                                                      const Kel::Ptr<const Kel::Dir>& configDir,
                                                      const RouteConfigInput::PtrConst& cliConfig,
                                                      const Kiva::SmControl::Ptr& control) {
  return routeConfigMergerSmFactory(routeConfig, configDir, cliConfig, control);
}

}  // namespace Mpls
