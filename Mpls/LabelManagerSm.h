// LabelManagerSm: hands out blocks of 16384 MPLS labels from the dynamic label range to
// the client agents that ask for them through the state database.
//
// A client publishes an Mpls::ClientLabelRequest named after itself in the label-request
// directory; each request identifier in it asks for one block. The label manager answers
// in the MPLS status (Mpls::Api::Status): labelBlockAllocation[client].block[id] is the
// block's first label. A block's number (its offset from the range's base, in blocks)
// comes from a Corekit::NumAllocator, lowest free first; a released number cools for one
// second before it is handed out again while another is free.
//
// The range is the configuration's labelRange["dynamic"], or labels 100000 to 362143 (16
// blocks) when it is absent or empty; it is cut at the largest label, 0xFFFFF, and a tail
// shorter than a block is never handed out. A range too small for one block hands out
// nothing and withdraws every block. A range moved to another base withdraws every block
// and answers every request anew; a range of the same base keeps the blocks that still
// fit and re-answers those that do not ("is no longer valid.").
//
// Restart. Only the published status survives the agent: at start-up (handleInitialized)
// the allocator is rebuilt from the blocks published there (syncAllocations), so every
// client keeps exactly its block. A published block off a block boundary or outside the
// range, or two requests on one block, cannot be taken over: the allocator is reset
// ("reset allocator"), every published block withdrawn and every request answered anew.
// The agent must build the label manager once the directory's entries and the
// configuration present at start-up are mounted: a client missing from the directory
// then has gone, and its blocks are taken back.
//
// Exhaustion. A request that finds no free block stays unanswered (requestBacklog) and is
// answered when the allocator reports a free number again (handleRangeExhausted).
//
// mplsEnabled false in the configuration withdraws every block and answers nothing until
// it is set again.
//
// Failures. A block number the allocator hands out negative, a kept block outside the
// range: fatal assertions. A block start above the label space raises the label's range
// exception.
//
// Single-threaded: runs on the reactor thread of the MPLS agent, which owns it and the
// entities it is given.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "Corekit/NumAllocator.h"
#include "Corekit/TimerWheel.h"
#include "Kel/Clock.h"
#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Statehub/EntityManager.h"
#include "types/Mpls/ClientLabelRequest.h"
#include "types/Mpls/MplsApiStatus.h"
#include "types/Mpls/MplsConfig.h"

namespace Mpls {

// The label manager's view of one client: its current requests, each with the client's
// request entity.
class LabelManagerClient : public Kel::Entity {
 public:
  KEL_ENTITY(LabelManagerClient, "Mpls::LabelManagerClient");
  using Ptr = Kel::Ptr<LabelManagerClient>;
  class NotifieeConst : public Kel::NotifieeOf<LabelManagerClient> {
   public:
    virtual void onRequest(const Kel::String& id) { (void)id; }
  };
  explicit LabelManagerClient(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_MAP_ATTR(Kel::String, ClientLabelRequest::Ptr, request, Request)

 private:
  Kel::String name_;
};

// The block numbers a client holds, by request identifier.
class LabelManagerClientInfo : public Kel::Entity {
 public:
  KEL_ENTITY(LabelManagerClientInfo, "Mpls::LabelManagerClientInfo");
  using Ptr = Kel::Ptr<LabelManagerClientInfo>;
  class NotifieeConst : public Kel::NotifieeOf<LabelManagerClientInfo> {
   public:
    virtual void onBlockIndex(const Kel::String& id) { (void)id; }
  };
  explicit LabelManagerClientInfo(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_MAP_ATTR(Kel::String, uint32_t, blockIndex, BlockIndex)

 private:
  Kel::String name_;
};

class LabelManagerSm : public Kel::Reactor {
 public:
  KEL_ENTITY(LabelManagerSm, "Mpls::LabelManagerSm");
  using Ptr = Kel::Ptr<LabelManagerSm>;
  class NotifieeConst : public Kel::NotifieeOf<LabelManagerSm> {
   public:
    virtual void onClient(const Kel::String& name) { (void)name; }
    virtual void onClientInfo(const Kel::String& name) { (void)name; }
    virtual void onPendingClientMount(const Kel::String& name) { (void)name; }
  };

  static constexpr uint32_t blockSize = LabelBlock::size;
  static constexpr uint32_t blockShift = 14;
  static_assert(blockSize == 1u << blockShift);
  static constexpr uint32_t maxLabel = Netbase::MplsLabel::max;
  static constexpr uint32_t defaultRangeBase = 100000;
  static constexpr uint32_t defaultRangeSize = 262144;
  static constexpr double allocatorExpiryTime = 1.0;

  // The configuration: a change of labelRange["dynamic"] re-runs handleLabelRange(); a
  // change of mplsEnabled, checkClearLabelRanges().
  class KelMplsConfig : public Kel::Nested<Config::NotifieeConst> {
   public:
    KelMplsConfig(LabelManagerSm* sm, const Config::Ptr& config);
    void onLabelRange(const Kel::String& name) override;
    void onMplsEnabled() override;

   private:
    LabelManagerSm* sm_;
  };
  // The request directory: an entry added or removed.
  class KelLabelRequestDir : public Kel::Nested<Kel::Dir::NotifieeConst> {
   public:
    KelLabelRequestDir(LabelManagerSm* sm, const Kel::Dir::Ptr& dir);
    void onEntityPtr(const Kel::String& name) override;

   private:
    LabelManagerSm* sm_;
  };
  // One client's current requests.
  class KelClient : public LabelManagerClient::NotifieeConst {
   public:
    KelClient(LabelManagerSm* sm, const LabelManagerClient::Ptr& client);
    void onRequest(const Kel::String& id) override;

   private:
    LabelManagerSm* sm_;
  };
  // One client's request entity, copied into its LabelManagerClient.
  class KelClientRequest : public ClientLabelRequest::NotifieeConst {
   public:
    KelClientRequest(LabelManagerSm* sm, const ClientLabelRequest::Ptr& request);
    void onRequest(const Kel::String& id) override;
    const ClientLabelRequest::Ptr& request() const noexcept { return request_; }

   private:
    LabelManagerSm* sm_;
    ClientLabelRequest::Ptr request_;
  };
  // The allocator's exhaustion.
  class KelDrAllocStatus : public Kel::Nested<Corekit::NumAllocatorStatus::NotifieeConst> {
   public:
    KelDrAllocStatus(LabelManagerSm* sm, const Corekit::NumAllocatorStatus::Ptr& status);
    void onRangeExhausted() override;

   private:
    LabelManagerSm* sm_;
  };

  // Use labelManagerSmFactory().
  LabelManagerSm(const Corekit::TimerWheel::Ptr& timerWheel,
                 const Statehub::EntityManager::Ptr& entityManager,
                 const Kel::Dir::Ptr& labelRequestDir, const Config::Ptr& mplsConfig,
                 const Api::Status::Ptr& status, const Kel::Clock::Ptr& clock);

  const Kel::Dir::Ptr& labelRequestDir() const noexcept { return labelRequestDir_; }
  const Config::Ptr& mplsConfig() const noexcept { return mplsConfig_; }
  const Api::Status::Ptr& status() const noexcept { return status_; }
  const Kel::Clock::Ptr& clock() const noexcept { return clock_; }
  const Corekit::TimerWheel::Ptr& timerWheel() const noexcept { return timerWheel_; }
  const Statehub::EntityManager::Ptr& entityManager() const noexcept { return entityManager_; }
  const Corekit::NumAllocatorConfig::Ptr& drAllocConfig() const noexcept { return drAllocConfig_; }
  const Corekit::NumAllocatorStatus::Ptr& drAllocStatus() const noexcept { return drAllocStatus_; }
  // Null while the range holds no block.
  const Corekit::NumAllocator::Ptr& drAlloc() const noexcept { return drAlloc_; }
  bool restarting() const noexcept { return restarting_; }
  bool initialized() const noexcept { return initialized_; }
  bool allocValid() const noexcept { return allocValid_; }
  bool requestBacklog() const noexcept { return requestBacklog_; }

  KEL_ENTITY_COLL_ATTR(Kel::String, LabelManagerClient, client, Client)
  KEL_ENTITY_COLL_ATTR(Kel::String, LabelManagerClientInfo, clientInfo, ClientInfo)
  KEL_MAP_ATTR(Kel::String, bool, pendingClientMount, PendingClientMount)
  KEL_REACTOR_COLL(Kel::String, KelClient, kelClient)
  KEL_REACTOR_COLL(Kel::String, KelClientRequest, clientRequest)

  // The "dynamic" range of the configuration, or the default one when it is absent or
  // empty.
  LabelRange configRange() const;
  uint32_t configRangeBase() const { return configRange().base().value(); }
  uint32_t configRangeSize() const { return configRange().size(); }
  uint64_t configRangeMax() const { return uint64_t{configRangeBase()} + configRangeSize(); }
  // How many whole blocks `range` holds once cut at the largest label: what a label
  // manager on that range hands out.
  static uint64_t blocksIn(const LabelRange& range) {
    const uint64_t base = range.base().value();
    const uint64_t end = std::min<uint64_t>(base + range.size(), maxLabel);
    return end > base ? (end - base) >> blockShift : 0;
  }
  // The block number of the block that starts at `label` (labels below the base give a
  // negative number).
  int64_t blockIdx(uint32_t label) const {
    return (int64_t{label} - int64_t{configRangeBase()}) >> blockShift;
  }
  // The first label of block `idx`; the label's range exception above 0x800000.
  Netbase::MplsLabel blockStart(uint64_t idx) const;
  bool blockIsValid(const LabelBlock& block) const;
  bool rangeExhausted() const;

  void handleInitialized();
  void checkClearLabelRanges() { handleInitialized(); }
  void handleLabelRange(const Kel::String& name);
  void handleLabelRange();
  void handleLabelRequestDir(const Kel::String& name);
  void handleLabelRequestDir();
  void handleLabelManagerClient(const Kel::String& name);
  void handleLabelManagerClient();
  void handleLabelRequest(const Kel::String& client, const Kel::String& id);
  void handleLabelRequest();
  void handleRangeExhausted();

  void allocateLabelBlock(const Kel::String& client, const Kel::String& id);
  void removeLabelBlock(const Kel::String& client, const Kel::String& id);
  // Takes over the blocks published in the status; false when they cannot all be.
  bool syncAllocations();

 private:
  void drAllocIs();
  void drAllocDel();
  // Withdraws every published block and forgets every block number.
  void clearAllocations();

  Corekit::TimerWheel::Ptr timerWheel_;
  Statehub::EntityManager::Ptr entityManager_;
  Kel::Dir::Ptr labelRequestDir_;
  Config::Ptr mplsConfig_;
  Api::Status::Ptr status_;
  Kel::Clock::Ptr clock_;
  Corekit::NumAllocatorConfig::Ptr drAllocConfig_;
  Corekit::NumAllocatorStatus::Ptr drAllocStatus_;
  Corekit::NumAllocator::Ptr drAlloc_;
  bool restarting_ = false;
  bool initialized_ = false;
  bool allocValid_ = false;
  bool requestBacklog_ = false;
  KelMplsConfig kelMplsConfig_;
  KelLabelRequestDir kelLabelRequestDir_;
  KelDrAllocStatus kelDrAllocStatus_;
};

// A started label manager (see above).
LabelManagerSm::Ptr labelManagerSmFactory(const Corekit::TimerWheel::Ptr& timerWheel,
                                          const Statehub::EntityManager::Ptr& entityManager,
                                          const Kel::Dir::Ptr& labelRequestDir,
                                          const Config::Ptr& mplsConfig,
                                          const Api::Status::Ptr& status,
                                          const Kel::Clock::Ptr& clock);
inline LabelManagerSm::Ptr LabelManagerSmIs(const Corekit::TimerWheel::Ptr& timerWheel,
                                            const Statehub::EntityManager::Ptr& entityManager,
                                            const Kel::Dir::Ptr& labelRequestDir,
                                            const Config::Ptr& mplsConfig,
                                            const Api::Status::Ptr& status,
                                            const Kel::Clock::Ptr& clock) {
  return labelManagerSmFactory(timerWheel, entityManager, labelRequestDir, mplsConfig, status,
                               clock);
}

}  // namespace Mpls
