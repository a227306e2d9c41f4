// The elements of the MPLS label forwarding table (LFIB): the nine via types (each says
// where and how a labelled packet leaves), the via set (the vias of one type that a
// route uses, with an optional backup set), the route (an incoming label bound to a via
// set), their hardware-status records, the 802.1Q-tag-to-VLAN maps that VLAN-aware EVPN
// vias name, the local LFIB information entity, and the two entities that hold them in
// shared-memory tables: LfibStatus (the LFIB itself) and LfibHwStatus (what the hardware
// agent could not program).
//
// The LFIB is three layers that name each other by key: a route names a via set by
// LfibViaSetKey, a via set lists its vias by LfibViaKey, and each via lives in the
// collection of its via type.
//
// All elements are value types (Kel/Value.h): equality, ordering, hash and text form come
// from their field lists. Each element has key() and pondString(), the one-line text of
// dumps: "[<key's text form>] " followed by the element's data. The via set, the MPLS via
// and the IP lookup via have compact binary forms for the shared-memory tables (below);
// the other elements are stored as they are (trivially copyable).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/DumpContext.h"
#include "Kel/Entity.h"
#include "Kel/Enum.h"
#include "Kel/FixedArray.h"
#include "Kel/FlagSet.h"
#include "Kel/Range.h"
#include "Kel/Value.h"
#include "Mpls/LfibViaKey.h"
#include "Mpls/LfibViaSetKey.h"
#include "Pond/KelPond.h"
#include "Pond/MountGroup.h"
#include "types/Bridging/VlanId.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/IntfId.h"
#include "types/Netbase/IpGenAddr.h"
#include "types/Netbase/MplsLabelAction.h"
#include "types/Netbase/UnboundedMplsLabelOperation.h"
#include "types/Pond/Fib/FecId.h"

namespace Mpls {

// True for the via types whose via sets follow the EVPN rules (at most one via, routes
// with metric 0): 3 to 8, the IP lookup and VLAN vias included. False for every other
// value, those without a name too.
constexpr bool isEvpnViaType(LfibViaType viaType) noexcept {
  return viaType >= viaTypeIpLookup && viaType <= viaTypeEvpnVlanAwareFlood;
}

// The index of a via within a via set: a via set holds at most 128 vias.
KEL_RANGE(LfibViaIndexRange, "Mpls::LfibViaIndexRange", uint8_t, 0, 127);
// The index of a byte in the IP lookup via's VRF name buffer (a name and its zero byte).
KEL_RANGE(LfibVrfNameIndexRange, "Mpls::LfibVrfNameIndexRange", uint8_t, 0, 100);

// burnPrimaryVias: a marker the writer may set on a via set; stored, compared and
// printed, never acted on here.
KEL_FLAGS(LfibViaSetFlags, "Mpls::LfibViaSetFlags", (burnPrimaryVias, 0));

// The domain in which via set indices are counted for one source: (viaType, viaSetType).
class LfibViaSetKeyIndexDomain {
 public:
  KEL_VALUE(LfibViaSetKeyIndexDomain, "Mpls::LfibViaIndexAllocator::ViaSetKeyIndexDomain",
            (LfibViaType, viaType),
            (LfibViaSetType, viaSetType));
};

// ---------------------------------------------------------------------------------------
// Vias.

// Via type 1: swap, push or pop towards an IP next hop.
//
// Binary form: key, nextHop and labelAction as they are in memory (36 bytes), the label
// operation in its own binary form, then intf (8), payloadType (4), skipEgressAcl (1),
// ttlMode (4) and weight (4): 57 bytes plus the label operation's length.
class LfibMplsVia {
 public:
  KEL_VALUE(LfibMplsVia, "Mpls::LfibMplsVia",
            (LfibViaKey, key),
            (Netbase::IpGenAddr, nextHop),
            (Netbase::MplsLabelAction, labelAction),
            (Netbase::UnboundedMplsLabelOperation, labelStack),
            (Netbase::IntfId, intf),
            (PayloadType, payloadType),
            (bool, skipEgressAcl),
            (TtlMode, ttlMode),
            (uint32_t, weight));

  LfibMplsVia(const LfibViaKey& key, const Netbase::IpGenAddr& nextHop,
              Netbase::MplsLabelAction labelAction,
              const Netbase::UnboundedMplsLabelOperation& labelStack, bool skipEgressAcl)
      : key_(key),
        nextHop_(nextHop),
        labelAction_(labelAction),
        labelStack_(labelStack),
        skipEgressAcl_(skipEgressAcl) {}

  std::string pondString() const;

  static constexpr uint32_t kFixedLen = 57;
  // The largest record a shared table holds: one with a label stack of 64 labels.
  static constexpr uint32_t kMaxLen =
      kFixedLen + Netbase::UnboundedMplsLabelOperation::kBinaryHeadLen + 4 * 64;
  uint32_t serializeLen() const noexcept { return kFixedLen + labelStack_.serializeLen(); }
  uint32_t serialize(uint8_t* out) const;
  // Reads the record at `in` (`len` bytes available) into this via; returns its length.
  // Throws Kel::SizeError when the record runs past `len`.
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

// Via type 2: into a pseudowire.
class LfibPwVia {
 public:
  KEL_VALUE(LfibPwVia, "Mpls::LfibPwVia",
            (LfibViaKey, key),
            (Netbase::IntfId, legacyPwIntfId),
            (Netbase::IntfId, pwIntfId),
            (bool, controlWordPresent),
            (PwType, pwType),
            (bool, flowLabelPresent));

  LfibPwVia(const LfibViaKey& key, const Netbase::IntfId& intfId) : key_(key), pwIntfId_(intfId) {}

  std::string pondString() const;
};

using LfibVrfNameBuffer = Kel::FixedArray<uint8_t, 101, LfibVrfNameIndexRange>;

// Via type 3: pop and look the payload up in a VRF. The VRF name is kept as its bytes
// followed by one zero byte, so a name has at most 100 bytes.
//
// Binary form: the key (12 bytes), payloadType (4), then the name buffer in the fixed
// array's binary form (a 7-byte head and its bytes): 23 bytes plus the buffer's count.
class LfibIpLookupVia {
 public:
  KEL_VALUE(LfibIpLookupVia, "Mpls::LfibIpLookupVia",
            (LfibViaKey, key),
            (PayloadType, payloadType),
            (LfibVrfNameBuffer, vrfNameBuffer));
  KEL_ARRAY_ACCESSORS(LfibVrfNameBuffer, vrfNameBuffer)

  LfibIpLookupVia(const LfibViaKey& key, const L3::VrfName& vrfName, PayloadType payloadType);

  // Stores the name's bytes followed by one zero byte.
  void vrfNameIs(const L3::VrfName& name);
  // The bytes up to the first zero byte; an empty name when the buffer is empty. A buffer
  // of 101 bytes with no zero byte raises Kel::RangeException
  // "VrfName::value::bytes > VrfName::maxLength not allowed".
  L3::VrfName vrfName() const;

  std::string pondString() const;

  static constexpr uint32_t kFixedLen = 16;
  static constexpr uint32_t kMaxLen =
      kFixedLen + LfibVrfNameBuffer::kBinaryHeadLen + LfibVrfNameBuffer::capacity;
  uint32_t serializeLen() const noexcept { return kFixedLen + vrfNameBuffer_.serializeLen(); }
  uint32_t serialize(uint8_t* out) const;
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

// Via type 4: deliver into a VLAN.
class LfibVlanVia {
 public:
  KEL_VALUE(LfibVlanVia, "Mpls::LfibVlanVia",
            (LfibViaKey, key),
            (Bridging::VlanId, vlanId),
            (LfibFlag, flag));
  std::string pondString() const;
};

// The key of an 802.1Q-tag-to-VLAN map (LfibDot1qTagToVlan).
class LfibDot1qTagToVlanKey {
 public:
  KEL_VALUE(LfibDot1qTagToVlanKey, "Mpls::LfibDot1qTagToVlanKey",
            (LFib::Source, source),
            (uint32_t, index));
};

// Via type 5: VLAN-aware EVPN delivery through a tag-to-VLAN map.
class LfibEvpnVlanAwareVia {
 public:
  KEL_VALUE(LfibEvpnVlanAwareVia, "Mpls::LfibEvpnVlanAwareVia",
            (LfibViaKey, key),
            (LfibDot1qTagToVlanKey, dot1qTagToVlanKey),
            (LfibFlag, flag));
  std::string pondString() const;
};

// Via type 6: EVPN Ethernet-segment filtering (split horizon) on an interface.
class LfibEvpnEthernetSegmentFilterVia {
 public:
  KEL_VALUE(LfibEvpnEthernetSegmentFilterVia, "Mpls::LfibEvpnEthernetSegmentFilterVia",
            (LfibViaKey, key),
            (Netbase::IntfId, intfId));
  std::string pondString() const;
};

// Via type 7: EVPN flooding into a VLAN.
class LfibEvpnVlanFloodVia {
 public:
  KEL_VALUE(LfibEvpnVlanFloodVia, "Mpls::LfibEvpnVlanFloodVia",
            (LfibViaKey, key),
            (Bridging::VlanId, vlanId),
            (LfibFlag, flag));
  std::string pondString() const;
};

// Via type 8: VLAN-aware EVPN flooding through a tag-to-VLAN map.
class LfibEvpnVlanAwareFloodVia {
 public:
  KEL_VALUE(LfibEvpnVlanAwareFloodVia, "Mpls::LfibEvpnVlanAwareFloodVia",
            (LfibViaKey, key),
            (LfibDot1qTagToVlanKey, dot1qTagToVlanKey),
            (LfibFlag, flag));
  std::string pondString() const;
};

// Via type 10: an external FEC of the platform's forwarding tables.
class LfibExtFecVia {
 public:
  KEL_VALUE(LfibExtFecVia, "Mpls::LfibExtFecVia",
            (LfibViaKey, key),
            (Pond::Fib::FecId, fecId),
            (Netbase::MplsLabelAction, labelAction),
            (PayloadType, payloadType));
  std::string pondString() const;
};

// ---------------------------------------------------------------------------------------
// Via sets and routes.

using LfibViaKeyArray = Kel::FixedArray<LfibViaKey, 128, LfibViaIndexRange>;

// The vias of a route, all of the key's via type, in a sparse array of up to 128 slots
// (the fixed-array rules: the count is one more than the highest slot in use; an empty
// slot holds the empty via key).
//
// Binary form, host byte order, no padding but where shown:
//   0 key (16: source, index, viaType, viaSetType)   16 backupViaSetKey (16)
//   32 isUsableAsPrimaryVia (1)   33 padding (3, not written)   36 flags (4)
//   40 resetFailoverState (1)     41 padding (3, not written)   44 count (4)
//   48 the via keys of slots 0 to count-1 (12 each: source, viaType, index)
// 48 bytes for an empty set, 1584 for a full one.
class LfibViaSet {
 public:
  KEL_VALUE(LfibViaSet, "Mpls::LfibViaSet",
            (LfibViaSetKey, key),
            (LfibViaSetKey, backupViaSetKey),
            (bool, isUsableAsPrimaryVia),
            (LfibViaSetFlags, flags),
            (bool, resetFailoverState),
            (LfibViaKeyArray, viaKey));
  KEL_ARRAY_ACCESSORS(LfibViaKeyArray, viaKey)

  // An empty set.
  explicit LfibViaSet(const LfibViaSetKey& key) : key_(key) {}

  // "[<key>] <via type name>": a via set's dump line shows neither its backup key, its
  // flags nor its vias.
  std::string pondString() const;

  static constexpr uint32_t kHeadLen = 48;
  static constexpr uint32_t kViaKeyLen = 12;
  static constexpr uint32_t kMaxLen = kHeadLen + kViaKeyLen * LfibViaKeyArray::capacity;
  uint32_t serializeLen() const noexcept { return kHeadLen + kViaKeyLen * viaKey_.count(); }
  uint32_t serialize(uint8_t* out) const;
  // Reads the record at `in` (`len` bytes available); returns its length. A count above
  // 128 raises Kel::SizeError "expected size <= 128, instead got N. Buffer is at address:
  // ... with contents: ...", a record longer than `len` Kel::SizeError as well.
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

// An LFIB route: an incoming label bound to a via set. The metric must be 0 when the via
// set's via type is an EVPN one.
class LfibRoute {
 public:
  KEL_VALUE(LfibRoute, "Mpls::LfibRoute",
            (RouteKey, key),
            (LfibViaSetKey, viaSetKey),
            (LFib::Source, source),
            (FwdEqvClass, fec),
            (RouteMetric, metric));
  // "[<key>] <viaSetKey> <source> <fec> <metric>", each in its text form.
  std::string pondString() const;
};

// ---------------------------------------------------------------------------------------
// Hardware status.

KEL_ENUM(LfibViaSetHwStatus, "Mpls::LfibViaSetHwStatus",
         (viaSetUnprogrammed, 0),
         (viaSetUsingPrimaryVias, 1),
         (viaSetUsingBackupVias, 2));

KEL_ENUM(LfibHwProgrammingReturnCode, "Mpls::LfibHwProgrammingReturnCode",
         (unprogrammed, 0),
         (programmed, 1),
         (routeNotProgrammed, 2),
         (adjacencyNotProgrammed, 3),
         (conflict, 4));

// A route that is not (fully) programmed in hardware, and why.
class RouteInfo {
 public:
  KEL_VALUE(RouteInfo, "Mpls::RouteInfo",
            (RouteKey, key),
            (LfibHwProgrammingReturnCode, status));
  std::string pondString() const;
};

// The hardware state of a via set.
class LfibViaSetInfo {
 public:
  KEL_VALUE(LfibViaSetInfo, "Mpls::LfibViaSetInfo",
            (LfibViaSetKey, key),
            (LfibViaSetHwStatus, status));
  std::string pondString() const;
};

// ---------------------------------------------------------------------------------------
// 802.1Q-tag-to-VLAN maps.

// One (map, tag) entry of a tag-to-VLAN map in flat form, as the shared table holds it.
class LfibDot1qTagToVlanCompositeKey {
 public:
  KEL_VALUE(LfibDot1qTagToVlanCompositeKey, "Mpls::LfibDot1qTagToVlanCompositeKey",
            (LfibDot1qTagToVlanKey, dot1qTagToVlanKey),
            (Bridging::VlanId, dot1qTag));
};

class LfibDot1qTagToVlanComposite {
 public:
  KEL_VALUE(LfibDot1qTagToVlanComposite, "Mpls::LfibDot1qTagToVlanComposite",
            (LfibDot1qTagToVlanCompositeKey, key),
            (Bridging::VlanIdOrNone, localVlan));
  std::string pondString() const;
};

// A map from the 802.1Q tag of a VLAN-aware EVPN packet to the local VLAN, named by its
// key from LfibEvpnVlanAwareVia and LfibEvpnVlanAwareFloodVia.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
class LfibDot1qTagToVlan : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibDot1qTagToVlan>;
  using PtrConst = Kel::PtrConst<LfibDot1qTagToVlan>;

  class NotifieeConst : public Kel::NotifieeOf<LfibDot1qTagToVlan> {
   public:
    // A tag was added, changed or removed.
    virtual void onDot1qTagToVlanId(const Bridging::VlanId& tag) { (void)tag; }
  };

  explicit LfibDot1qTagToVlan(const LfibDot1qTagToVlanKey& key) : key_(key) {}
  const LfibDot1qTagToVlanKey& key() const noexcept { return key_; }

  // dot1qTagToVlanIdIs(tag, vlan) sends nothing when the tag already maps to that VLAN.
  KEL_MAP_ATTR(Bridging::VlanId, Bridging::VlanIdOrNone, dot1qTagToVlanId, Dot1qTagToVlanId)

 private:
  const LfibDot1qTagToVlanKey key_;
};

Kel::Ptr<LfibDot1qTagToVlan> lfibDot1qTagToVlanFactory(const LfibDot1qTagToVlanKey& key);

// ---------------------------------------------------------------------------------------
// Local LFIB information.

// systemLfibReady: whether the system's LFIB is ready; readers see each change once.
class LocalLfibInfo : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<LocalLfibInfo> {
   public:
    virtual void onSystemLfibReady() {}
  };

  KEL_ATTR(bool, systemLfibReady, SystemLfibReady, false)
};

Kel::Ptr<LocalLfibInfo> localLfibInfoFactory();

// ---------------------------------------------------------------------------------------
// The via types.

// Every via type with a collection, in one list: everything that walks or dispatches over
// via types (the collections and checks of LfibStatus, the writer, the tracking, the
// integrity check, mplsctl, the tests) is derived from it, through LfibVia and
// lfibViaTypeForEach / lfibViaTypeVisit below. Adding a via type is a change here (and
// the row type's declaration above).
//
// MPLS_LFIB_VIA_TYPES(V, x) expands V(x, Type, name, Name, Row, capacity, label) for each:
// Type is the LfibViaType enumerator without "viaType"; name and Name the collection's
// names; Row its row type; capacity the rows a writer reserves unless told otherwise;
// label the short name operators see.
#define MPLS_LFIB_VIA_TYPES(V, x)                                                          \
  V(x, MplsIp, mplsVia, MplsVia, LfibMplsVia, 4096, "mplsIp")                               \
  V(x, MplsPseudowire, pwVia, PwVia, LfibPwVia, 1024, "pseudowire")                        \
  V(x, IpLookup, ipLookupVia, IpLookupVia, LfibIpLookupVia, 1024, "ipLookup")               \
  V(x, Vlan, vlanVia, VlanVia, LfibVlanVia, 256, "vlan")                                   \
  V(x, EvpnVlanAware, evpnVlanAwareVia, EvpnVlanAwareVia, LfibEvpnVlanAwareVia, 256,        \
    "evpnVlanAware")                                                                       \
  V(x, EvpnEthernetSegment, evpnEthernetSegmentFilterVia, EvpnEthernetSegmentFilterVia,     \
    LfibEvpnEthernetSegmentFilterVia, 256, "evpnEthernetSegment")                          \
  V(x, EvpnVlanFlood, evpnVlanFloodVia, EvpnVlanFloodVia, LfibEvpnVlanFloodVia, 256,        \
    "evpnVlanFlood")                                                                       \
  V(x, EvpnVlanAwareFlood, evpnVlanAwareFloodVia, EvpnVlanAwareFloodVia,                    \
    LfibEvpnVlanAwareFloodVia, 256, "evpnVlanAwareFlood")                                  \
  V(x, ExternalFec, extFecVia, ExtFecVia, LfibExtFecVia, 1024, "externalFec")

// In a notifiee of an LfibStatus: every via collection's notification goes to
// handler(key), as in MPLS_LFIB_ON_EVERY_VIA(sm_->handleVia).
#define MPLS_LFIB_VIA_NOTIFIEE_(handler, Type, name, Name, Row, capacity, label) \
  void on##Name(const ::Mpls::LfibViaKey& key) override { handler(key); }
#define MPLS_LFIB_ON_EVERY_VIA(handler) MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_NOTIFIEE_, handler)

// ---------------------------------------------------------------------------------------
// The LFIB entity.

// The tables of an LfibStatus (see KEL_POND_TABLE_SET in Pond/KelPond.h): name, key, row,
// the check each change runs, and the rows a writer reserves unless told otherwise.
#define MPLS_LFIB_VIA_TABLE_(T, Type, name, Name, Row, capacity, label) \
  T(name, Name, LfibViaKey, Row, verifyViaType##Type, capacity)
#define MPLS_LFIB_STATUS_TABLES(T)                                                        \
  T(lfibRoute, LfibRoute, RouteKey, LfibRoute, handleRoute, 4096)                         \
  T(viaSet, ViaSet, LfibViaSetKey, LfibViaSet, handleViaSet, 4096)                        \
  MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_TABLE_, T)                                            \
  T(dot1qTagToVlanComposite, Dot1qTagToVlanComposite, LfibDot1qTagToVlanCompositeKey,     \
    LfibDot1qTagToVlanComposite, kelNoCheck, 1024)

// LfibStatus is the LFIB: every route, via set and via of one LFIB, each kind in a keyed
// collection, and the 802.1Q-tag-to-VLAN maps that the VLAN-aware EVPN vias name.
//
// Every collection but dot1qTagToVlanColl is a shared-memory table of the mount group
// given to mountGroupIs(), named after the collection ("lfibRoute", "viaSet", ...; the
// list is MPLS_LFIB_STATUS_TABLES). The group's role decides the entity's: in the writing
// process (the LFIB writer's agent) the collections are written through the accessors of
// KEL_POND_COLL (Pond/KelPond.h); in a reading process they are read-only and the group's
// processChanges() announces each changed key to the notifiees. Before mountGroupIs() the
// shared collections read empty and writing to them throws Pond::NotWriterError.
//
// dot1qTagToVlanColl is an ordinary entity collection, local to the process: the writer's
// agent fills it, LfibStatusProducerSm (Mpls/LfibStatusSm.h) flattens it into the table
// dot1qTagToVlanComposite, and LfibStatusConsumerSm rebuilds it in a reading process.
// Removing a map from it leaves dot1qTagToVlanComposite alone.
//
// Checks. Every Is, Commit and Del of a shared collection (1) changes the table, (2) runs
// the collection's check and (3) announces the key. A failed check throws
// Kel::InternalException ("Mpls/MplsLfib:<line> <signature> -- assertion failed(<expr>):
// <message>"); the change of step 1 stays, unannounced, until the key changes again.
//   - via collections: the key's via type must be the collection's (verifyViaType...):
//     "via key and via coll type mismatch";
//   - lfibRoute: a route whose via set key has an EVPN via type (isEvpnViaType) must have
//     metric 0: "EVPN lfib routes must have metric set to 0";
//   - viaSet: every slot up to the count holds a key of the set's via type (an empty slot
//     of a typed set does not): "Vias in a viaSet must always be homogeneous"; an EVPN set
//     holds at most one via key: "EVPN via sets must contain at most 1 via key".
// The checks never look across tables: a route may name a via set not stored (yet); the
// integrity check (lfibIntegrityCheck, below) does.
//
// Single-threaded: used on the reactor thread of the agent that owns it. Other processes
// see it only through the shared tables.
class LfibStatus : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibStatus>;
  using PtrConst = Kel::PtrConst<LfibStatus>;

  // onLfibRoute, onViaSet, on<Name> per via collection (onMplsVia, ...),
  // onDot1qTagToVlanComposite; onMountStatus (a table was opened, or opened again after
  // its group was replaced: readers); onMountGroup (mountGroupIs() attached the
  // collections to another group).
  class NotifieeConst : public Kel::NotifieeOf<LfibStatus> {
   public:
    KEL_POND_TABLE_NOTIFIEES(MPLS_LFIB_STATUS_TABLES)
    virtual void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey&) {}
  };

  // The collections, Sizing (one Pond::TableSizing per table: 4096 routes, via sets and
  // MPLS vias, 1024 pseudowire, IP lookup and external FEC vias and tag-to-VLAN entries,
  // 256 of each VLAN and EVPN via), mountGroupIs(group, sizing), mountGroup(),
  // tableForEach() and dumpTables(): see KEL_POND_TABLE_SET in Pond/KelPond.h.
  KEL_POND_TABLE_SET(MPLS_LFIB_STATUS_TABLES)

  // dot1qTagToVlanCollIs(key) returns the map of `key`, created empty when absent;
  // dot1qTagToVlanCollDel(key) returns the removed map, null when there was none.
  KEL_ENTITY_COLL_ATTR(LfibDot1qTagToVlanKey, LfibDot1qTagToVlan, dot1qTagToVlanColl,
                       Dot1qTagToVlanColl)

  // True for via types 3 to 8 (Mpls::isEvpnViaType).
  static bool isEvpnViaType(LfibViaType viaType) noexcept { return Mpls::isEvpnViaType(viaType); }

  // The checks (see above). Each passes or throws Kel::InternalException. Per via
  // collection: the via type its keys must have (viaTypeMplsIp_, ...) and its check
  // (verifyViaTypeMplsIp, ...).
#define MPLS_LFIB_VIA_CHECK_(x, Type, name, Name, Row, capacity, label) \
  static constexpr LfibViaType viaType##Type##_ = viaType##Type;       \
  void verifyViaType##Type(const LfibViaKey& key) const;
  MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_CHECK_, _)
#undef MPLS_LFIB_VIA_CHECK_
  // The route and via set as stored under `key`; an absent one passes.
  void handleRoute(const RouteKey& key) const;
  void handleViaSet(const LfibViaSetKey& key) const;

  // Each collection in the order lfibRoute, viaSet, mplsVia, extFecVia, pwVia,
  // ipLookupVia, vlanVia, evpnVlanAwareVia, evpnEthernetSegmentFilterVia,
  // evpnVlanFloodVia, evpnVlanAwareFloodVia, dot1qTagToVlanColl, dot1qTagToVlanComposite:
  // a header "<name>s #<count>" indented by `indent` blanks, then one line per element in
  // key order, indented by indent + 2: the element's pondString(), or for a tag-to-VLAN
  // map "[<key>]" and its " <tag>:<vlan>" pairs in tag order.
  void dumpState(Kel::DumpContext& context, int indent) const;

  // Calls f(key) for every via of every via collection, one collection after the other.
  template <class F>
  void viaKeyForEach(F&& f) const;

 private:
  void dumpTagToVlanMaps(Kel::DumpContext& context, int indent) const;
};

using LfibStatusSizing = LfibStatus::Sizing;

Kel::Ptr<LfibStatus> lfibStatusFactory();

// Whether a walk over the tables of `lfib` may hand each row to the handlers as it reads it.
// A reader's tables change only when its group's processChanges() runs, so its walks do,
// and a handler's lookup of the row just handed over costs no second read (Pond keeps a
// reader's last answer). On the writer's side the handlers may change the LFIB under the
// walk: walks take the keys first and read each row when its turn comes.
inline bool lfibWalkHandsRows(const LfibStatus& lfib) {
  const Kel::Ptr<Pond::MountGroup>& group = lfib.mountGroup();
  return group && group->role() == Pond::Role::reader;
}

// LfibVia<viaTypeX>: one via type of MPLS_LFIB_VIA_TYPES, its row type and its collection
// of an LfibStatus. LfibViaOf<Row> is the same, found by row type.
template <LfibViaType Type>
struct LfibVia;

#define MPLS_LFIB_VIA_TRAITS_(x, Type, name, Name, RowType, capacity, label_)                 \
  template <>                                                                               \
  struct LfibVia<viaType##Type> {                                                           \
    using Row = RowType;                                                                    \
    static constexpr LfibViaType viaType = viaType##Type;                                   \
    static constexpr std::string_view collection = #name;                                   \
    static constexpr std::string_view label = label_;                                       \
    /* The table; null while the LFIB has no mount group. */                                \
    static const ::Pond::PondMap<LfibViaKey, Row>* table(const LfibStatus& s) {             \
      return s.name##Table();                                                               \
    }                                                                                       \
    static uint32_t size(const LfibStatus& s) { return s.name##s(); }                       \
    /* Copies the via of `key` into `row` and returns true; false when there is none. */    \
    static bool find(const LfibStatus& s, const LfibViaKey& key, Row& row) {                \
      const auto* t = s.name##Table();                                                      \
      return t && t->find(key, row);                                                        \
    }                                                                                       \
    static bool contains(const LfibStatus& s, const LfibViaKey& key) {                      \
      const auto* t = s.name##Table();                                                      \
      return t && t->contains(key);                                                         \
    }                                                                                       \
    static void write(LfibStatus& s, const Row& via) { s.name##Is(via); }                   \
    static void erase(LfibStatus& s, const LfibViaKey& key) { s.name##Del(key); }           \
    static void eraseAll(LfibStatus& s) { s.name##DelAll(); }                               \
    template <class F>                                                                      \
    static void forEach(const LfibStatus& s, F&& f) {                                       \
      s.name##ForEach(std::forward<F>(f));                                                  \
    }                                                                                       \
  };                                                                                        \
  template <>                                                                               \
  struct LfibViaOfRow<RowType> {                                                            \
    using type = LfibVia<viaType##Type>;                                                    \
  };

template <class Row>
struct LfibViaOfRow;
MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_TRAITS_, _)
#undef MPLS_LFIB_VIA_TRAITS_

template <class Row>
using LfibViaOf = typename LfibViaOfRow<Row>::type;

// Calls f(LfibVia<T>{}) for every via type T, in the order of MPLS_LFIB_VIA_TYPES.
#define MPLS_LFIB_VIA_CALL_(f, Type, name, Name, Row, capacity, label) f(LfibVia<viaType##Type>{});
template <class F>
void lfibViaTypeForEach(F&& f) {
  MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_CALL_, f)
}
#undef MPLS_LFIB_VIA_CALL_

// Calls f(LfibVia<type>{}) and returns true; false, calling nothing, when `type` has no
// via collection (viaTypeMplsUnknown, viaTypeReserved, viaTypeMax, values without a name).
#define MPLS_LFIB_VIA_CASE_(f, Type, name, Name, Row, capacity, label) \
  case viaType##Type:                                                  \
    f(LfibVia<viaType##Type>{});                                       \
    return true;
template <class F>
bool lfibViaTypeVisit(LfibViaType type, F&& f) {
  switch (type) {
    MPLS_LFIB_VIA_TYPES(MPLS_LFIB_VIA_CASE_, f)
    default:
      return false;
  }
}
#undef MPLS_LFIB_VIA_CASE_

// Whether the LFIB holds a via under `key`, in the collection of its via type.
bool lfibViaStored(const LfibStatus& lfib, const LfibViaKey& key);

template <class F>
void LfibStatus::viaKeyForEach(F&& f) const {
  lfibViaTypeForEach([&](auto via) {
    via.forEach(*this, [&](const typename decltype(via)::Row& row) { f(row.key()); });
  });
}

// ---------------------------------------------------------------------------------------
// The integrity of an LFIB across its tables.

// What an integrity check found wrong: the kind, and the keys involved.
struct LfibIntegrityProblem {
  enum class Kind {
    viaSetMissing,    // `route` names `viaSet`, which the LFIB does not hold
    viaMissing,       // `viaSet` names `via`, which the collection of its via type lacks
    viaTypeMismatch,  // `via` has another via type than `viaSet` (which names it), or than
                      // the collection that holds it (`viaSet` is then the default key)
    viaSetUnused,     // no route names `viaSet`
    viaUnused,        // no via set names `via`
  };
  Kind kind;
  RouteKey route;
  LfibViaSetKey viaSet;
  LfibViaKey via;

  friend bool operator==(const LfibIntegrityProblem&, const LfibIntegrityProblem&) = default;
};

// The problems of one route: its via set missing (nothing when the route is absent). Read
// as lfibRouteView reads (Mpls/LfibRouteView.h): a via set that the writer replaced while
// it was looked up is no problem.
std::vector<LfibIntegrityProblem> lfibRouteProblems(const LfibStatus& lfib, const RouteKey& key);
// The problems of one via set: vias missing or of another via type, in slot order (nothing
// when the set is absent). Empty slots (the default via key) are no problem. A via is
// missing only when the set is found unchanged after the via was looked up.
std::vector<LfibIntegrityProblem> lfibViaSetProblems(const LfibStatus& lfib,
                                                     const LfibViaSetKey& key);

// The whole LFIB: every route's via set exists, every via set's vias exist with the set's
// via type, every via sits in the collection of its via type, and nothing is left that
// no route or via set names. Problems come sorted by kind, then by key, each once. A
// check that races with the LFIB's writer walks again (at most six times) until a walk
// sees no table change, and reports only what every walk found: a via set written just
// before its route, after the walk passed the route, is no problem.
struct LfibIntegrityReport {
  std::vector<LfibIntegrityProblem> problems;
  uint64_t routes = 0;
  uint64_t viaSets = 0;
  uint64_t vias = 0;
  bool consistent() const noexcept { return problems.empty(); }
};
LfibIntegrityReport lfibIntegrityCheck(const LfibStatus& lfib);

// ---------------------------------------------------------------------------------------
// The via index allocator.

// LfibViaIndexAllocator hands out the index part of new via keys and via set keys for one
// LFIB source. It keeps no list of keys in use: it counts upwards and asks lfibStatus
// whether a candidate is taken, so keys still published by an earlier writer (one that
// restarted) are stepped over, never handed out twice. There is no release: a key is free
// again once its via or via set has left lfibStatus and the counter comes round to it.
//
// Counters: viaKeyIndex holds the last via index handed out per via type, viaSetKeyIndex
// the last via set index per (viaType, viaSetType); a type or domain without an entry
// counts as 0, so the first key of a fresh allocator has index 1 and index 0 comes only
// after a counter wraps past 0xFFFFFFFF. Both are hash collections (KEL_MAP_ATTR): Is,
// Del (returns the value removed, 0 when there was none), DelAll, and a notification per
// change to NotifieeConst. A new allocator starts with empty counters and relies on the
// lookups to skip what is still published.
//
// Owned by the LFIB writer (one per source, created on first use); it holds a reference to
// lfibStatus, which must not be null.
//
// Single-threaded: call only from the reactor thread that owns lfibStatus.
class LfibViaIndexAllocator : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibViaIndexAllocator>;
  using ViaSetKeyIndexDomain = LfibViaSetKeyIndexDomain;

  class NotifieeConst : public Kel::NotifieeOf<LfibViaIndexAllocator> {
   public:
    virtual void onViaKeyIndex(LfibViaType viaType) { (void)viaType; }
    virtual void onViaSetKeyIndex(const ViaSetKeyIndexDomain& domain) { (void)domain; }
  };

  LfibViaIndexAllocator(LFib::Source source, LfibStatus::Ptr lfibStatus);

  LFib::Source source() const noexcept { return source_; }
  const LfibStatus::Ptr& lfibStatus() const noexcept { return lfibStatus_; }

  KEL_MAP_ATTR(LfibViaType, uint32_t, viaKeyIndex, ViaKeyIndex)
  KEL_MAP_ATTR(ViaSetKeyIndexDomain, uint32_t, viaSetKeyIndex, ViaSetKeyIndex)

  // Adds `delta` to the counter (modulo 2^32) and returns the new value.
  uint32_t viaKeyIndexInc(LfibViaType viaType, uint32_t delta);
  uint32_t viaSetKeyIndexInc(const ViaSetKeyIndexDomain& domain, uint32_t delta);

  // A via key (source, viaType, index) that lfibStatus does not hold. The counter moves
  // past every candidate tried, a taken one included. Via types 1, 2, 3 and 10 are looked
  // up in mplsVia, pwVia, ipLookupVia and extFecVia; a type above 11 gets the next index
  // unchecked. The process aborts for any other type (fatal assertions "Unknown via type"
  // for 0, "Unsupported via type" for 4 to 9, "Via type not supported" for 11: EVPN and
  // VLAN via keys are never made here) and when every index of the type is taken ("No via
  // keys left").
  LfibViaKey getViaKey(LfibViaType viaType);
  // A via set key (source, index, viaType, viaSetType) that lfibStatus's viaSet does not
  // hold, counted per (viaType, viaSetType); no via type is refused. A lookup that finds
  // the table corrupt goes to the table's corruption handler and counts as not taken. The
  // process aborts when every index of the domain is taken ("No via set keys left").
  LfibViaSetKey getViaSetKey(LfibViaType viaType, LfibViaSetType viaSetType);

 private:
  const LFib::Source source_;
  const LfibStatus::Ptr lfibStatus_;
};

Kel::Ptr<LfibViaIndexAllocator> lfibViaIndexAllocatorFactory(LFib::Source source,
                                                             const Kel::Ptr<LfibStatus>& lfibStatus);

// ---------------------------------------------------------------------------------------
// The LFIB's hardware status.

// The tables of an LfibHwStatus (see KEL_POND_TABLE_SET in Pond/KelPond.h).
#define MPLS_LFIB_HW_STATUS_TABLES(T)                                                  \
  T(unprogrammedRoute, UnprogrammedRoute, RouteKey, RouteInfo, kelNoCheck, 4096)       \
  T(viaSet, ViaSet, LfibViaSetKey, LfibViaSetInfo, kelNoCheck, 4096)

// LfibHwStatus lists the routes that the hardware agent could not program (and why) and
// the hardware state of via sets, in two shared-memory tables "unprogrammedRoute" and
// "viaSet" of the hardware agent's own mount group (not the LFIB writer's: the tables of
// one group have one writing process). No checks: each Is, Commit and Del changes the
// table and announces the key. Roles, notifications and mounting as for LfibStatus.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
class LfibHwStatus : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibHwStatus>;

  class NotifieeConst : public Kel::NotifieeOf<LfibHwStatus> {
   public:
    KEL_POND_TABLE_NOTIFIEES(MPLS_LFIB_HW_STATUS_TABLES)
  };

  KEL_POND_TABLE_SET(MPLS_LFIB_HW_STATUS_TABLES)
};

using LfibHwStatusSizing = LfibHwStatus::Sizing;

Kel::Ptr<LfibHwStatus> lfibHwStatusFactory();

// Rows stored as they are in the shared tables must be plain bytes.
static_assert(std::is_trivially_copyable_v<LfibPwVia>);
static_assert(std::is_trivially_copyable_v<LfibVlanVia>);
static_assert(std::is_trivially_copyable_v<LfibEvpnVlanAwareVia>);
static_assert(std::is_trivially_copyable_v<LfibEvpnEthernetSegmentFilterVia>);
static_assert(std::is_trivially_copyable_v<LfibEvpnVlanFloodVia>);
static_assert(std::is_trivially_copyable_v<LfibEvpnVlanAwareFloodVia>);
static_assert(std::is_trivially_copyable_v<LfibExtFecVia>);
static_assert(std::is_trivially_copyable_v<LfibRoute>);
static_assert(std::is_trivially_copyable_v<RouteInfo>);
static_assert(std::is_trivially_copyable_v<LfibViaSetInfo>);
static_assert(std::is_trivially_copyable_v<LfibDot1qTagToVlanComposite>);

}  // namespace Mpls
