#include "Mpls/LfibIndexAllocator.h"

#include <utility>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace MplsHelper {

namespace {

Kel::TraceFacility trace("LfibIndexAllocator");

using Mpls::LfibViaType;

static_assert(LfibGenAdjIdxAllocator::sourceBits + LfibGenAdjIdxAllocator::sourceShift == 64);
static_assert(LfibGenAdjIdxAllocator::indexMask ==
              (uint64_t{1} << LfibGenAdjIdxAllocator::sourceShift) - 1);

// The via collections whose vias a source numbers from adjacency indices (see the header).
constexpr bool probed(Mpls::LFib::Source source, LfibViaType type) noexcept {
  return source == Mpls::LFib::sourceEvpn || type == Mpls::viaTypeMplsIp ||
         type == Mpls::viaTypeMplsPseudowire || type == Mpls::viaTypeIpLookup ||
         type == Mpls::viaTypeExternalFec;
}

}  // namespace

LfibGenAdjIdxAllocator::LfibGenAdjIdxAllocator(Mpls::LfibStatus::PtrConst lfib)
    : lfib_(std::move(lfib)) {}

bool LfibGenAdjIdxAllocator::inUse(Source source, uint64_t candidate) const {
  bool used = false;
  Mpls::lfibViaTypeForEach([&](auto via) {
    if (!used && probed(source, via.viaType)) {
      const Mpls::LfibViaKey key(source, via.viaType, static_cast<uint32_t>(candidate));
      used = via.contains(*lfib_, key);
    }
  });
  return used;
}

uint64_t LfibGenAdjIdxAllocator::getAdjacencyIndex(Source source) {
  KEL_FATAL_ASSERT(static_cast<uint32_t>(source) < (1u << sourceBits) &&
                   "Source does not fit in the adjacency index");
  const uint64_t sourcePart = static_cast<uint64_t>(source) << sourceShift;
  uint64_t counter = adjIndex(source);
  uint64_t candidate = sourcePart | (counter & indexMask);
  while (inUse(source, candidate)) {
    // Past the top of the 60 bits, candidate + 1 carries into the source bits; the mask
    // takes it back to 0.
    counter = candidate + 1;
    candidate = sourcePart | (counter & indexMask);
  }
  useAdjacencyIndex(source, candidate);
  KEL_TRACE(trace, 7, "allocate adj index 0x{:x}", candidate);
  return candidate;
}

void LfibGenAdjIdxAllocator::useAdjacencyIndex(Source source, uint64_t index) {
  KEL_TRACE(trace, 8, "source: {}, use idx: {}", source, index);
  const uint64_t counterPart = index & indexMask;
  if (adjIndexHas(source) && counterPart < adjIndex(source)) {
    KEL_TRACE(trace, 3, "index already used");
  }
  adjIndexIs(source, (index + 1) & indexMask);
}

Kel::Ptr<LfibGenAdjIdxAllocator> lfibGenAdjIdxAllocatorFactory(
    const Mpls::LfibStatus::PtrConst& lfib) {
  return Kel::make<LfibGenAdjIdxAllocator>(lfib);
}

uint64_t SrTunnelIdxAllocator::tunnelIdxInc(uint64_t delta) {
  const uint64_t idx = tunnelIdx() + delta;
  tunnelIdxIs(idx);
  return idx;
}

Kel::Ptr<SrTunnelIdxAllocator> srTunnelIdxAllocatorFactory() {
  return Kel::make<SrTunnelIdxAllocator>();
}

}  // namespace MplsHelper
