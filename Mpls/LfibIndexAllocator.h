// Two allocators of 64-bit identifiers for protocol agents outside this library:
//
//   - LfibGenAdjIdxAllocator: adjacency (via) indices per LFIB source, stepping over the
//     indices that the LFIB already uses;
//   - SrTunnelIdxAllocator: segment-routing tunnel indices from one counter.
//
// Neither keeps a free list: both count upwards, and a released identifier comes back
// only when its counter wraps round to it.
//
// Single-threaded: call only from the reactor thread of the agent that owns the allocator
// (and, for LfibGenAdjIdxAllocator, the LFIB it reads).
//
// Traces go to the facility "LfibIndexAllocator": level 3 "index already used", level 7
// "allocate adj index 0x<hex>", level 8 "source: <source>, use idx: <decimal>".
#pragma once

#include <cstdint>

#include "Kel/Attribute.h"
#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Mpls/MplsLfib.h"
#include "types/Mpls/MplsTypes.h"

namespace MplsHelper {

// LfibGenAdjIdxAllocator hands out adjacency indices, one counter per LFIB source. An
// adjacency index is (source << sourceShift) | (counter & indexMask): the top 4 bits name
// the source, the low 60 bits count, so the indices of two sources never collide and a
// counter wraps within its 60 bits without touching the source bits.
//
// An index in use. An adjacency index names, for each via collection probed, the via of
// the source with index (adjacency index & 0xFFFFFFFF): a via key carries its source in
// a field of its own and a 32-bit index, which is what an agent keeps of the adjacency
// index when it makes the via's key. A candidate is in use when any probed collection of
// the LFIB holds that via:
//   - every source but EVPN: mplsVia, pwVia, ipLookupVia and extFecVia, the collections
//     whose vias any protocol may number from adjacency indices;
//   - EVPN (source value 8) also owns the VLAN and EVPN vias (vlanVia, evpnVlanAwareVia,
//     evpnEthernetSegmentFilterVia, evpnVlanFloodVia, evpnVlanAwareFloodVia), which the
//     writer's via index allocator never numbers and the EVPN agent numbers from here:
//     for EVPN every via collection is probed. Other sources write no VLAN or EVPN vias,
//     so theirs are not looked at.
// The vias of other sources never count. An LFIB without tables holds nothing.
//
// The search ends. Each candidate found in use stands for a distinct via of the source
// (within any run of fewer than 2^32 candidates), so a search makes at most one probe
// more than the probed collections hold vias of the source; their capacities are fixed
// and far below 2^32. No assertion guards a full wrap: it cannot happen.
//
// Owned by the agent that asked for it; holds a reference to the LFIB, which must not be
// null, and never writes it.
class LfibGenAdjIdxAllocator : public Kel::Entity {
 public:
  KEL_ENTITY(LfibGenAdjIdxAllocator, "MplsHelper::LfibGenAdjIdxAllocator");
  using Ptr = Kel::Ptr<LfibGenAdjIdxAllocator>;
  using Source = Mpls::LFib::Source;

  class NotifieeConst : public Kel::NotifieeOf<LfibGenAdjIdxAllocator> {
   public:
    virtual void onAdjIndex(Source source) { (void)source; }
  };

  static constexpr uint32_t sourceBits = 4;
  static constexpr uint32_t sourceShift = 60;
  static constexpr uint64_t indexMask = 0x0FFFFFFFFFFFFFFF;

  explicit LfibGenAdjIdxAllocator(Mpls::LfibStatus::PtrConst lfib);

  const Mpls::LfibStatus::PtrConst& lfib() const noexcept { return lfib_; }

  // The next candidate counter per source (its low 60 bits); a source without an entry
  // counts from 0. Is, Del, DelAll, and a notification per change.
  KEL_MAP_ATTR(Source, uint64_t, adjIndex, AdjIndex)

  // A fresh adjacency index of `source`: the first candidate from adjIndex(source) on
  // that the LFIB does not use (see above), recorded with useAdjacencyIndex. The process
  // aborts when the source does not fit in sourceBits (fatal assertion "Source does not
  // fit in the adjacency index"); every named source does.
  uint64_t getAdjacencyIndex(Source source);

  // Records that `index` is taken: adjIndex(source) becomes (index + 1) & indexMask, so
  // the next candidate follows it, even when that moves the counter back. Only the low
  // 60 bits of `index` count; its source bits are not checked. Traces "index already
  // used" when the counter has already passed the index (the source has an entry and
  // index & indexMask is below it): the index was handed out or recorded before, or the
  // counter wrapped past it. An agent re-learning its indices after a restart calls this
  // for each.
  void useAdjacencyIndex(Source source, uint64_t index);

  // Does nothing: a released index comes back only when the counter wraps round to it.
  void releaseAdjacencyIndex(Source source, uint64_t index) const noexcept {
    (void)source;
    (void)index;
  }

  // Sets adjIndex(source) to 1: index 0 of the source is not handed out until the
  // counter wraps.
  void resetAdjacencyIndex(Source source) { adjIndexIs(source, 1); }

 private:
  bool inUse(Source source, uint64_t candidate) const;

  const Mpls::LfibStatus::PtrConst lfib_;
};

Kel::Ptr<LfibGenAdjIdxAllocator> lfibGenAdjIdxAllocatorFactory(
    const Mpls::LfibStatus::PtrConst& lfib);

// SrTunnelIdxAllocator hands out segment-routing tunnel indices from tunnelIdx, the last
// index handed out (0 at construction, so the first index is 1). It consults nothing:
// restoring the counter after a restart is the agent's job (setIdx).
class SrTunnelIdxAllocator : public Kel::Entity {
 public:
  KEL_ENTITY(SrTunnelIdxAllocator, "MplsHelper::SrTunnelIdxAllocator");
  using Ptr = Kel::Ptr<SrTunnelIdxAllocator>;

  class NotifieeConst : public Kel::NotifieeOf<SrTunnelIdxAllocator> {
   public:
    virtual void onTunnelIdx() {}
  };

  // tunnelIdxIs(v) sends nothing when v is already stored.
  KEL_ATTR(uint64_t, tunnelIdx, TunnelIdx, 0)

  // Adds `delta` to tunnelIdx (modulo 2^64) and returns the new value.
  uint64_t tunnelIdxInc(uint64_t delta);

  // The next tunnel index: tunnelIdx + 1, which becomes tunnelIdx.
  uint64_t getIdx() { return tunnelIdxInc(1); }
  // Restores the counter: the next getIdx() returns v + 1.
  void setIdx(uint64_t v) { tunnelIdxIs(v); }
};

Kel::Ptr<SrTunnelIdxAllocator> srTunnelIdxAllocatorFactory();

}  // namespace MplsHelper
