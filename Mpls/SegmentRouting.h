// Segment-routing state in shared memory: what an IGP agent (IS-IS, OSPF) learns and
// computes about segment routing, published for the agents that program labels from it.
//
// Rows (plain values, Kel/Value.h: equality, ordering, hash and text form come from their
// field lists):
//   PrefixSegment     a prefix segment (prefix SID) and the router that advertises it
//   AdjacencySegment  an adjacency segment (adjacency SID) and its neighbours
//   AreaSegment       an area segment (anycast SID of an IS-IS area) and its originators
//   GlobalBlock       a router's segment routing global block (SRGB)
//   SrRoute           a segment-routing route: a prefix and the FEC it resolves to
//
// Status holds them in seven Pond tables of the mount group "sr/status/<name>": srRoute,
// prefixSegment, globalBlock, v4AdjSegment, v6AdjSegment, v4AreaSegment, v6AreaSegment
// (MPLS_SR_STATUS_TABLES). The IGP agent writes them; any process mounts them for reading.
//
// Shared-memory size. PrefixSegment, GlobalBlock and SrRoute are stored as they are
// (trivially copyable, 16 to 64 bytes). AdjacencySegment and AreaSegment carry fixed-capacity
// inline arrays (512 neighbours, 64 originators), so that a row has a bounded size, but
// are stored as variable-length records (serialize/deserialize, below) that hold only the
// slots in use: a point-to-point adjacency costs a 32-byte record, not the 8 KiB of a full
// row. As fixed rows, the two adjacency tables alone would reserve 2 x 2048 x 8 KiB (about
// 34 MB) for rows that nearly always have one neighbour. Their record heaps are sized in
// SegmentRoutingTableInfo.h.
//
// Single-threaded: a Status is used on the thread of its mount group.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kel/Entity.h"
#include "Kel/FixedArray.h"
#include "Kel/FlagSet.h"
#include "Kel/Range.h"
#include "Kel/Value.h"
#include "Pond/KelPond.h"
#include "types/Mpls/LabelRange.h"
#include "types/Mpls/RouterId.h"
#include "types/Mpls/SegmentIdentifier.h"
#include "types/Netbase/IpGenPrefix.h"
#include "types/Netbase/MplsLabel.h"
#include "types/Pond/Fib/FecId.h"
#include "types/Routing/Isis/AreaId.h"

namespace Pond::SegmentRouting {

using SegmentIdentifier = ::Mpls::SegmentRouting::SegmentIdentifier;

// The index of a neighbour in an adjacency segment, of an originator in an area segment.
KEL_RANGE(AdjSegmentNbrIdx, "Pond::SegmentRouting::AdjSegmentNbrIdx", uint16_t, 0, 511);
KEL_RANGE(AreaSegOrigIndex, "Pond::SegmentRouting::AreaSegOrigIndex", uint8_t, 0, 63);

// A prefix segment: the SID that `rtrid` advertises for the prefix `key`, with the
// advertisement's flags (the Prefix-SID sub-TLV's R, N, P, E, V and L bits as the IGP
// encodes them), the IS-IS level (1 or 2; 0 for OSPF) and how the agent protects the path
// to the prefix: protectionMode (protectionModeDisabled: not at all) and the SRLG that a
// backup path avoids.
class PrefixSegment {
 public:
  KEL_VALUE(PrefixSegment, "Pond::SegmentRouting::PrefixSegment",
            (Netbase::IpGenPrefix, key),
            (SegmentIdentifier, sid),
            (::Mpls::RouterId, rtrid),
            (uint8_t, flags),
            (uint8_t, level),
            (uint8_t, protectionMode),
            (uint32_t, protectionSrlg));

  // The protection mode that turns protection off.
  static constexpr uint8_t protectionModeDisabled = 2;
  bool needProtection() const noexcept { return protectionMode_ != protectionModeDisabled; }

  // "[10.0.0.1/32] index 1 router 10.0.0.1:0 flags 0x40 level 2 protection 0 srlg 0"
  std::string pondString() const;
};

// An adjacency segment's key: its SID and the interface (source id) it leaves by.
class AdjacencySegmentKey {
 public:
  KEL_VALUE(AdjacencySegmentKey, "Pond::SegmentRouting::AdjacencySegmentKey",
            (SegmentIdentifier, sid),
            (uint32_t, srcId));
};

// One neighbour of an adjacency segment: its IS-IS system id (48 bits; an OSPF router id
// in the low 32) and the metric of the adjacency (24-bit wide metric, 16-bit OSPF cost).
class AdjSegmentNeighbor {
 public:
  KEL_VALUE(AdjSegmentNeighbor, "Pond::SegmentRouting::AdjSegmentNeighbor",
            (uint64_t, systemId),
            (uint32_t, metric));
};

using AdjSegmentNeighborArray = Kel::FixedArray<AdjSegmentNeighbor, 512, AdjSegmentNbrIdx>;

// An adjacency segment: its flags (the Adj-SID sub-TLV's F, B, V, L, S and P bits) and its
// neighbours, one on a point-to-point link, several on a LAN.
//
// Binary form, host byte order:
//   0 sid.value (4)   4 srcId (4)   8 sid.isValue (1)   9 flags (1)   10 padding (2)
//   12 count (4)      16 neighbours 0 to count-1 (12 each: systemId 8, metric 4)
// 28 bytes for one neighbour, 6160 for 512.
class AdjacencySegment {
 public:
  KEL_VALUE(AdjacencySegment, "Pond::SegmentRouting::AdjacencySegment",
            (AdjacencySegmentKey, key),
            (uint8_t, flags),
            (AdjSegmentNeighborArray, ngb));
  KEL_ARRAY_ACCESSORS(AdjSegmentNeighborArray, ngb)

  // "[<sid>/<srcId>] flags 0x30 neighbours 0000.0000.0002/10 ..."
  std::string pondString() const;

  static constexpr uint32_t kHeadLen = 16;
  static constexpr uint32_t kNeighborLen = 12;
  static constexpr uint32_t kMaxLen = kHeadLen + kNeighborLen * AdjSegmentNeighborArray::capacity;
  uint32_t serializeLen() const noexcept { return kHeadLen + kNeighborLen * ngb_.count(); }
  uint32_t serialize(uint8_t* out) const;
  // Reads the record at `in` (`len` bytes available); returns its length. A count above
  // 512 or a record longer than `len` raises Kel::SizeError.
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

// What an area segment is: for IPv6 or IPv4 prefixes, an absolute label (isValue) or an
// index, and whether this router originates it (isLocal). Bits 0, 1 and 2 of one word.
KEL_FLAGS(AreaSegmentFlags, "Pond::SegmentRouting::AreaSegmentFlags",
          (isIpv6, 0),
          (isValue, 1),
          (isLocal, 2));

using AreaSegmentOriginatorArray = Kel::FixedArray<::Mpls::RouterId, 64, AreaSegOrigIndex>;

// An area segment: the SID shared by the routers of the IS-IS area `key`, the FEC that
// traffic to it takes, and the routers that originate it.
//
// Binary form, host byte order:
//   0 key (14: 13 octets, length)   14 sid.isValue (1)   15 padding (1)   16 sid.value (4)
//   20 flags (4)   24 fecId (8)   32 count (4)
//   36 originators 0 to count-1 (6 each: router id 4, label space 2)
// 42 bytes for one originator, 420 for 64.
class AreaSegment {
 public:
  KEL_VALUE(AreaSegment, "Pond::SegmentRouting::AreaSegment",
            (Routing::Isis::AreaId, key),
            (SegmentIdentifier, sid),
            (AreaSegmentFlags, flags),
            (Pond::Fib::FecId, fecId),
            (AreaSegmentOriginatorArray, originator));
  KEL_ARRAY_ACCESSORS(AreaSegmentOriginatorArray, originator)

  // "[49.0001] index 5 ipv4 local fec 7 originators 10.0.0.1:0 ..."
  std::string pondString() const;

  static constexpr uint32_t kHeadLen = 36;
  static constexpr uint32_t kOriginatorLen = 6;
  static constexpr uint32_t kMaxLen =
      kHeadLen + kOriginatorLen * AreaSegmentOriginatorArray::capacity;
  uint32_t serializeLen() const noexcept { return kHeadLen + kOriginatorLen * originator_.count(); }
  uint32_t serialize(uint8_t* out) const;
  // As AdjacencySegment's; an area longer than 13 octets or flags with undefined bits
  // raise Kel::SizeError and Kel::EnumSetRangeException.
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

// A router's segment routing global block: the labels its index SIDs map into.
class GlobalBlock {
 public:
  KEL_VALUE(GlobalBlock, "Pond::SegmentRouting::GlobalBlock",
            (::Mpls::RouterId, key),
            (::Mpls::LabelRange, labelRange));

  // The label of `sid` at this router: an absolute SID's low 20 bits; for an index below
  // the block's size, base + index, where a result above 0x800000 raises
  // Kel::RangeException "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not
  // allowed"; for an index at or beyond the size, Netbase::MplsLabel::null() (no label).
  Netbase::MplsLabel mplsLabel(const SegmentIdentifier& sid) const;

  // "[10.0.0.1:0] 16000-23999"
  std::string pondString() const;
};

// A segment-routing route: the prefix, the FEC its traffic takes, the kind of route
// (routeType, as the IGP numbers them), its metric and preference, the VRF it was learnt
// in, whether its installation is held back while the network converges (microloop
// prevention), and whether it pops the label and looks the packet up (a local prefix).
class SrRoute {
 public:
  KEL_VALUE(SrRoute, "Pond::SegmentRouting::SrRoute",
            (Netbase::IpGenPrefix, prefix),
            (Pond::Fib::FecId, fecId),
            (uint8_t, routeType),
            (uint32_t, metricPref),
            (uint32_t, srcVrfId),
            (bool, deferredForMicroloopPrevention),
            (bool, popAndLookupRoute));

  const Netbase::IpGenPrefix& key() const noexcept { return prefix_; }

  // "[10.0.0.1/32] fec 12 type 1 metricPref 10 vrf 0 deferred pop-and-lookup"
  std::string pondString() const;
};

// The tables of a Status (see KEL_POND_TABLE_SET in Pond/KelPond.h): name, key, row, no
// check, and the rows a writer reserves. Types are named in full, for use anywhere.
#define MPLS_SR_STATUS_TABLES(T)                                                        \
  T(srRoute, SrRoute, ::Netbase::IpGenPrefix, ::Pond::SegmentRouting::SrRoute, kelNoCheck,  \
    10240)                                                                                \
  T(prefixSegment, PrefixSegment, ::Netbase::IpGenPrefix,                                 \
    ::Pond::SegmentRouting::PrefixSegment, kelNoCheck, 2048)                              \
  T(globalBlock, GlobalBlock, ::Mpls::RouterId, ::Pond::SegmentRouting::GlobalBlock,      \
    kelNoCheck, 1024)                                                                     \
  T(v4AdjSegment, V4AdjSegment, ::Pond::SegmentRouting::AdjacencySegmentKey,              \
    ::Pond::SegmentRouting::AdjacencySegment, kelNoCheck, 2048)                           \
  T(v6AdjSegment, V6AdjSegment, ::Pond::SegmentRouting::AdjacencySegmentKey,              \
    ::Pond::SegmentRouting::AdjacencySegment, kelNoCheck, 2048)                           \
  T(v4AreaSegment, V4AreaSegment, ::Routing::Isis::AreaId,                                \
    ::Pond::SegmentRouting::AreaSegment, kelNoCheck, 1024)                                \
  T(v6AreaSegment, V6AreaSegment, ::Routing::Isis::AreaId,                                \
    ::Pond::SegmentRouting::AreaSegment, kelNoCheck, 1024)

// The segment-routing state of one IGP instance, named `name`, in the shared-memory tables
// of the mount group statusGroupName(name). The group's role makes the entity the writer
// of every table or a reader of them: see KEL_POND_TABLE_SET for the operations
// (srRouteIs, prefixSegmentDel, v4AdjSegmentCommit, globalBlockDelAll, ...), Sizing,
// sizingFor(role), mountGroupIs() and dumpTables(). Before mountGroupIs() the tables read
// empty and writing throws Pond::NotWriterError. No checks: each change is announced to
// the notifiees (onSrRoute, onPrefixSegment, ...) in the writer, and by the group's
// processChanges() in a reader.
class Status : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<Status>;

  class NotifieeConst : public Kel::NotifieeOf<Status> {
   public:
    KEL_POND_TABLE_NOTIFIEES(MPLS_SR_STATUS_TABLES)
  };

  explicit Status(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  KEL_POND_TABLE_SET(MPLS_SR_STATUS_TABLES)

 private:
  std::string name_;
};

// "index 5", "label 24001": a SID as operators read it.
std::string sidString(const SegmentIdentifier& sid);
// "1921.6800.1002": the low 48 bits of an IS-IS system id, in three groups of four hex digits.
std::string systemIdString(uint64_t systemId);

// "sr/status/<name>". A name is 1 to 64 letters, digits, '_' and '-'; anything else raises
// Pond::SegmentError quoting it.
std::string statusGroupName(std::string_view name);

Kel::Ptr<Status> statusFactory(const std::string& name);

static_assert(std::is_trivially_copyable_v<PrefixSegment>);
static_assert(std::is_trivially_copyable_v<GlobalBlock>);
static_assert(std::is_trivially_copyable_v<SrRoute>);
static_assert(sizeof(Routing::Isis::AreaId) == 14);

}  // namespace Pond::SegmentRouting
