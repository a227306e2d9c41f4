#include "Mpls/LabelManagerSm.h"

#include <algorithm>
#include <vector>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("LabelManagerSm");

const Kel::String kDynamic("dynamic");

template <class Range>
std::vector<Kel::String> keysOf(const Range& range) {
  std::vector<Kel::String> out;
  for (const auto& [k, v] : range) {
    out.push_back(k);
  }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Reactors

LabelManagerSm::KelMplsConfig::KelMplsConfig(LabelManagerSm* sm, const Config::Ptr& config)
    : Nested(sm), sm_(sm) {
  notifierIs(config);
}

void LabelManagerSm::KelMplsConfig::onLabelRange(const Kel::String& name) {
  sm_->handleLabelRange(name);
}

void LabelManagerSm::KelMplsConfig::onMplsEnabled() { sm_->checkClearLabelRanges(); }

LabelManagerSm::KelLabelRequestDir::KelLabelRequestDir(LabelManagerSm* sm,
                                                       const Kel::Dir::Ptr& dir)
    : Nested(sm), sm_(sm) {
  notifierIs(dir);
}

void LabelManagerSm::KelLabelRequestDir::onEntityPtr(const Kel::String& name) {
  sm_->handleLabelRequestDir(name);
}

LabelManagerSm::KelClient::KelClient(LabelManagerSm* sm, const LabelManagerClient::Ptr& client)
    : sm_(sm) {
  notifierIs(client);
}

void LabelManagerSm::KelClient::onRequest(const Kel::String& id) {
  sm_->handleLabelRequest(notifier()->name(), id);
}

LabelManagerSm::KelClientRequest::KelClientRequest(LabelManagerSm* sm,
                                                   const ClientLabelRequest::Ptr& request)
    : sm_(sm), request_(request) {
  notifierIs(request);
}

void LabelManagerSm::KelClientRequest::onRequest(const Kel::String& id) {
  if (const LabelManagerClient::Ptr client = sm_->client(request_->name())) {
    // KelClient hears of it and answers.
    if (request_->request(id)) {
      client->requestIs(id, request_);
    } else {
      client->requestDel(id);
    }
  }
}

LabelManagerSm::KelDrAllocStatus::KelDrAllocStatus(LabelManagerSm* sm,
                                                   const Corekit::NumAllocatorStatus::Ptr& status)
    : Nested(sm), sm_(sm) {
  notifierIs(status);
}

void LabelManagerSm::KelDrAllocStatus::onRangeExhausted() { sm_->handleRangeExhausted(); }

// ---------------------------------------------------------------------------------------
// LabelManagerSm

LabelManagerSm::LabelManagerSm(const Corekit::TimerWheel::Ptr& timerWheel,
                               const Statehub::EntityManager::Ptr& entityManager,
                               const Kel::Dir::Ptr& labelRequestDir,
                               const Config::Ptr& mplsConfig, const Api::Status::Ptr& status,
                               const Kel::Clock::Ptr& clock)
    : timerWheel_(timerWheel),
      entityManager_(entityManager),
      labelRequestDir_(labelRequestDir),
      mplsConfig_(mplsConfig),
      status_(status),
      clock_(clock),
      drAllocConfig_(Corekit::numAllocatorConfigFactory()),
      drAllocStatus_(Corekit::numAllocatorStatusFactory()),
      kelMplsConfig_(this, mplsConfig),
      kelLabelRequestDir_(this, labelRequestDir),
      kelDrAllocStatus_(this, drAllocStatus_) {
  KEL_ASSERT(labelRequestDir_ && mplsConfig_ && status_ && clock_,
             "the label manager needs its directory, configuration, status and clock");
}

LabelRange LabelManagerSm::configRange() const {
  const LabelRange* configured = mplsConfig_->labelRangeIter().find(kDynamic);
  if (!configured || configured->empty()) {
    return LabelRange(defaultRangeBase, defaultRangeSize);
  }
  return *configured;
}

Netbase::MplsLabel LabelManagerSm::blockStart(uint64_t idx) const {
  // The label's own check refuses a start above its range (a larger one than 32 bits
  // hold stays above it).
  const uint64_t start = (idx << blockShift) + configRangeBase();
  return Netbase::MplsLabel(static_cast<uint32_t>(std::min<uint64_t>(start, UINT32_MAX)));
}

bool LabelManagerSm::blockIsValid(const LabelBlock& block) const {
  const uint64_t start = block.blockStart().value();
  return start >= configRangeBase() && start + blockSize <= configRangeMax();
}

bool LabelManagerSm::rangeExhausted() const {
  return !allocValid_ || !drAlloc_ || drAllocStatus_->rangeExhausted();
}

void LabelManagerSm::drAllocIs() {
  drAlloc_ = Corekit::numAllocatorFactory(drAllocConfig_, drAllocStatus_, clock_);
}

void LabelManagerSm::drAllocDel() { drAlloc_ = nullptr; }

void LabelManagerSm::clearAllocations() {
  status_->labelBlockAllocationDelAll();
  for (const auto& [name, info] : clientInfoIter()) {
    info->blockIndexDelAll();
  }
}

void LabelManagerSm::handleInitialized() {
  initialized_ = true;
  if (!mplsConfig_->mplsEnabled()) {
    KEL_TRACE(trace, 3, "mpls disabled: withdrawing every label block");
    drAllocDel();
    allocValid_ = false;
    clearAllocations();
    return;
  }
  restarting_ = true;
  drAllocConfig_->rangeIs(Corekit::NumRange());
  handleLabelRange();
  restarting_ = false;
}

void LabelManagerSm::handleLabelRange(const Kel::String& name) {
  if (name == kDynamic) {
    handleLabelRange();
  }
}

void LabelManagerSm::handleLabelRange() {
  if (!initialized_ || !mplsConfig_->mplsEnabled()) {
    return;
  }
  allocValid_ = false;
  const LabelRange range = configRange();
  const uint64_t base = range.base().value();
  if (const uint64_t blocks = blocksIn(range); blocks > 0) {
    KEL_TRACE(trace, 3, "allocate {} blocks.", blocks);
    const Corekit::NumRange numbers(0, static_cast<uint32_t>(blocks - 1));
    drAllocConfig_->expiryTimeIs(allocatorExpiryTime);
    if (drAlloc_ && status_->dynamicLabelRange().base() == range.base()) {
      // The same base: the blocks handed out stay where they are. A longer or shorter range
      // takes an allocator of its own size, holding the numbers that still fit; the blocks
      // beyond it are answered anew by allocateLabelBlock ("is no longer valid.").
      if (!(drAlloc_->range() == numbers)) {
        drAllocConfig_->rangeIs(numbers);
        drAllocIs();
        for (const auto& [name, info] : clientInfoIter()) {
          for (const Kel::String& id : keysOf(info->blockIndexIter())) {
            const uint32_t idx = info->blockIndex(id);
            if (!numbers.contains(idx) || !drAlloc_->reserveNumber(idx)) {
              info->blockIndexDel(id);
            }
          }
        }
      }
    } else {
      drAllocConfig_->rangeIs(numbers);
      drAllocDel();
      drAllocIs();
      if (restarting_) {
        if (!syncAllocations()) {
          KEL_TRACE(trace, 1, "reset allocator");
          drAllocDel();
          drAllocIs();
          clearAllocations();
        }
      } else {
        clearAllocations();
      }
    }
    allocValid_ = true;
  } else {
    KEL_TRACE(trace, 1, "range base {} size {} holds no block of {} labels", base, range.size(),
              blockSize);
    drAllocDel();
    clearAllocations();
    clientInfoDelAll();
  }
  status_->dynamicLabelRangeIs(range);
  handleLabelRequestDir();
  handleLabelManagerClient();
  handleLabelRequest();
}

bool LabelManagerSm::syncAllocations() {
  const uint64_t idxMax = drAlloc_->range().last();
  for (const auto& [client, allocation] : status_->labelBlockAllocationIter()) {
    KEL_TRACE(trace, 3, "sync client {} with Statehub (restart)", client);
    const LabelManagerClientInfo::Ptr info = clientInfoIs(client);
    for (const auto& [id, block] : allocation->blockIter()) {
      const uint32_t start = block.blockStart().value();
      const int64_t idx = blockIdx(start);
      const uint64_t idxStart = idx < 0 ? 0 : (uint64_t(idx) << blockShift) + configRangeBase();
      if (idx < 0 || uint64_t(idx) > idxMax || idxStart != start) {
        KEL_TRACE(trace, 1,
                  "Statehub status is inconsistent for client {}, idx: {}, idx max: {}, "
                  "iter->blockStart(): {}, blockStart( idx ): {}",
                  client, idx, idxMax, start, idxStart);
        return false;
      }
      if (drAlloc_->isAllocated(idx)) {
        KEL_TRACE(trace, 1, "error: idx already used for client {} request {} idx {}", client,
                  id, idx);
        return false;
      }
      drAlloc_->reserveNumber(idx);
      info->blockIndexIs(id, static_cast<uint32_t>(idx));
      KEL_TRACE(trace, 5, "{} uses block {} for request {}, block start: {}", client, idx, id,
                start);
    }
  }
  return true;
}

void LabelManagerSm::allocateLabelBlock(const Kel::String& client, const Kel::String& id) {
  const LabelBlockAllocation::Ptr allocation = status_->labelBlockAllocation(client);
  if (!allocation) {
    return;  // handleLabelManagerClient() makes it, then answers every request
  }
  const LabelManagerClientInfo::Ptr info = clientInfoIs(client);
  if (allocation->blockHas(id)) {
    const LabelBlock block = allocation->block(id);
    if (!blockIsValid(block)) {
      KEL_TRACE(trace, 3, "alloc {} block for ID {} is no longer valid.", client, id);
      if (info->blockIndexHas(id)) {
        const uint32_t idx = info->blockIndexDel(id);
        if (drAlloc_ && drAlloc_->isAllocated(idx)) {
          drAlloc_->releaseNumber(idx);
        }
      }
      allocation->blockDel(id);
    } else {
      const uint64_t start = block.blockStart().value();
      const uint64_t end = start + blockSize;
      KEL_FATAL_ASSERT(start < end, "start < end");
      KEL_FATAL_ASSERT(start >= configRangeBase(), "start >= configRangeBase()");
      KEL_FATAL_ASSERT(end <= configRangeMax(), "end <= configRangeMax()");
      KEL_TRACE(trace, 7, "client: {}, ID: {} already fulfilled", client, id);
      return;
    }
  }
  if (rangeExhausted()) {
    KEL_TRACE(trace, 3, "client: {}, ID: {}, range exhausted: could not be fulfilled.", client,
              id);
    requestBacklog_ = true;
    return;
  }
  const int64_t idx = drAlloc_->getNumber();
  KEL_FATAL_ASSERT(idx >= 0, "idx >= 0");
  info->blockIndexIs(id, static_cast<uint32_t>(idx));
  allocation->blockIs(id, LabelBlock(blockStart(static_cast<uint64_t>(idx))));
  KEL_TRACE(trace, 3, "cltInfo {} {} was added, index: {}", client, id, idx);
}

void LabelManagerSm::removeLabelBlock(const Kel::String& client, const Kel::String& id) {
  const LabelManagerClientInfo::Ptr info = clientInfo(client);
  const LabelBlockAllocation::Ptr allocation = status_->labelBlockAllocation(client);
  if (info && info->blockIndexHas(id)) {
    const uint32_t idx = info->blockIndexDel(id);
    if (drAlloc_ && drAlloc_->isAllocated(idx)) {
      drAlloc_->releaseNumber(idx);
    }
    if (allocation) {
      allocation->blockDel(id);
    }
    KEL_TRACE(trace, 3, "client: {} {} was removed, index: {}", client, id, idx);
  } else if (allocation && allocation->blockHas(id)) {
    allocation->blockDel(id);
    KEL_TRACE(trace, 3, "client: {} {} was removed (not allocated)", client, id);
  }
}

void LabelManagerSm::handleLabelRequest(const Kel::String& client, const Kel::String& id) {
  const LabelManagerClient::Ptr c = this->client(client);
  if (c && c->requestHas(id)) {
    allocateLabelBlock(client, id);
  } else {
    removeLabelBlock(client, id);
  }
}

void LabelManagerSm::handleLabelRequest() {
  for (const Kel::String& name : keysOf(clientIter())) {
    if (const LabelManagerClient::Ptr c = client(name)) {
      for (const Kel::String& id : keysOf(c->requestIter())) {
        handleLabelRequest(name, id);
      }
    }
  }
}

void LabelManagerSm::handleLabelRequestDir(const Kel::String& name) {
  const Kel::Ptr<Kel::Entity> entry = labelRequestDir_->entityPtr(name);
  const ClientLabelRequest::Ptr request =
      entry ? Kel::Ptr<ClientLabelRequest>(dynamic_cast<ClientLabelRequest*>(entry.get()))
            : nullptr;
  if (entry && !request) {
    KEL_TRACE(trace, 1, "ignoring directory entry {}: not a client label request", name);
  }
  if (request) {
    LabelManagerClient::Ptr c = client(name);
    if (!c) {
      KEL_TRACE(trace, 3, "client added: {}", name);
      c = clientIs(name);
      pendingClientMountIs(name, true);
    }
    const KelClientRequest* reactor = clientRequest(name);
    if (!reactor || reactor->request() != request) {
      KEL_TRACE(trace, 5, "creating client request, client: {}", name);
      clientRequestIs(name, this, request);
    }
    // The client's requests as its entity holds them now; KelClient, once there, answers.
    for (const Kel::String& id : keysOf(c->requestIter())) {
      if (!request->request(id)) {
        c->requestDel(id);
      }
    }
    for (const Kel::String& id : request->requestIter()) {
      c->requestIs(id, request);
    }
    handleLabelManagerClient(name);
    return;
  }
  if (pendingClientMount(name) && client(name)) {
    // Its request entity has not been read yet: the removal waits for it.
    KEL_TRACE(trace, 3, "defer pending client removal: {}", name);
    return;
  }
  if (clientRequest(name)) {
    KEL_TRACE(trace, 5, "deleting client request, client: {}", name);
    clientRequestDel(name);
  }
  if (client(name)) {
    clientDel(name);
    KEL_TRACE(trace, 3, "client removed: {}", name);
    handleLabelManagerClient(name);
  }
}

void LabelManagerSm::handleLabelRequestDir() {
  for (const Kel::String& name : keysOf(labelRequestDir_->entityPtrIter())) {
    handleLabelRequestDir(name);
  }
  for (const Kel::String& name : keysOf(clientIter())) {
    if (!labelRequestDir_->entityPtrHas(name)) {
      handleLabelRequestDir(name);
    }
  }
}

void LabelManagerSm::handleLabelManagerClient(const Kel::String& name) {
  if (const LabelManagerClient::Ptr c = client(name)) {
    const LabelBlockAllocation::Ptr allocation = status_->labelBlockAllocationIs(name);
    const LabelManagerClientInfo::Ptr info = clientInfoIs(name);
    pendingClientMountDel(name);
    if (!kelClient(name)) {
      kelClientIs(name, this, c);
    }
    for (const Kel::String& id : keysOf(c->requestIter())) {
      handleLabelRequest(name, id);
    }
    // Blocks held for requests that are gone.
    for (const Kel::String& id : keysOf(info->blockIndexIter())) {
      handleLabelRequest(name, id);
    }
    for (const Kel::String& id : keysOf(allocation->blockIter())) {
      handleLabelRequest(name, id);
    }
    return;
  }
  kelClientDel(name);
  if (const LabelManagerClientInfo::Ptr info = clientInfo(name)) {
    for (const Kel::String& id : keysOf(info->blockIndexIter())) {
      removeLabelBlock(name, id);
    }
  }
  status_->labelBlockAllocationDel(name);
  clientInfoDel(name);
  pendingClientMountDel(name);
}

void LabelManagerSm::handleLabelManagerClient() {
  // Clients the label manager follows, and those it holds blocks for: a client that went
  // away while the agent was down gives its blocks back here.
  std::vector<Kel::String> names = keysOf(clientIter());
  for (const std::vector<Kel::String>& more :
       {keysOf(clientInfoIter()), keysOf(status_->labelBlockAllocationIter())}) {
    names.insert(names.end(), more.begin(), more.end());
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  for (const Kel::String& name : names) {
    handleLabelManagerClient(name);
  }
}

void LabelManagerSm::handleRangeExhausted() {
  if (!rangeExhausted() && requestBacklog_) {
    requestBacklog_ = false;
    handleLabelRequest();
  }
}

LabelManagerSm::Ptr labelManagerSmFactory(const Corekit::TimerWheel::Ptr& timerWheel,
                                          const Statehub::EntityManager::Ptr& entityManager,
                                          const Kel::Dir::Ptr& labelRequestDir,
                                          const Config::Ptr& mplsConfig,
                                          const Api::Status::Ptr& status,
                                          const Kel::Clock::Ptr& clock) {
  auto sm = Kel::make<LabelManagerSm>(timerWheel, entityManager, labelRequestDir, mplsConfig,
                                      status, clock);
  sm->handleInitialized();
  return sm;
}

}  // namespace Mpls
