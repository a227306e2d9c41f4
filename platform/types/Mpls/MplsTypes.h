// The platform's MPLS types that the LFIB carries by value: the protocol sources, the via
// and via-set types, payload types, TTL modes, pseudowire types, via flags, the route
// key, the forwarding equivalence class and the route metric.
#pragma once

#include <cstdint>

#include "Kel/Enum.h"
#include "Kel/Range.h"
#include "Kel/Value.h"
#include "types/Netbase/IpGenPrefix.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

namespace LFib {

// The protocol or agent that owns an LFIB entry. At most 16 sources: adjacency indices
// keep the source in their top 4 bits.
KEL_ENUM(Source, "Mpls::LFib::Source",
         (sourceUnknown, 0),
         (sourceStatic, 1),
         (sourceLdp, 2),
         (sourceRsvp, 3),
         (sourceBgpLu, 4),
         (sourceIsisSr, 5),
         (sourceOspfSr, 6),
         (sourceBgp, 7),
         (sourceEvpn, 8),
         (sourceMldp, 9),
         (sourcePseudowire, 10),
         (sourceVrfLabel, 11),
         (sourceSrTe, 12),
         (sourceTiLfa, 13));

}  // namespace LFib

// Which via collection of the LFIB a via lives in. Value 9 has no via table.
KEL_ENUM(LfibViaType, "Mpls::LfibViaType",
         (viaTypeMplsUnknown, 0),
         (viaTypeMplsIp, 1),
         (viaTypeMplsPseudowire, 2),
         (viaTypeIpLookup, 3),
         (viaTypeVlan, 4),
         (viaTypeEvpnVlanAware, 5),
         (viaTypeEvpnEthernetSegment, 6),
         (viaTypeEvpnVlanFlood, 7),
         (viaTypeEvpnVlanAwareFlood, 8),
         (viaTypeReserved, 9),
         (viaTypeExternalFec, 10),
         (viaTypeMax, 11));

// The kind of a via set: how its vias share the traffic.
KEL_ENUM(LfibViaSetType, "Mpls::LfibViaSetType",
         (viaSetTypeDefault, 0),   // as the forwarding agent decides
         (viaSetTypeEcmp, 1),      // equal-cost multipath
         (viaSetTypeUcmp, 2),      // weighted multipath (via weights)
         (viaSetTypeBackup, 3));   // the backup set of a protected set

// What the packet carries below the label once it is popped.
KEL_ENUM(PayloadType, "Mpls::PayloadType",
         (payloadTypeMpls, 0),
         (payloadTypeIpv4, 1),
         (payloadTypeIpv6, 2),
         (payloadTypeAutoDecide, 3),  // IPv4 or IPv6, from the first nibble of the payload
         (payloadTypeEthernet, 4));

// How a label switching router sets the TTL of the packet it sends (RFC 3443).
KEL_ENUM(TtlMode, "Mpls::TtlMode",
         (ttlModeUniform, 0),  // the TTL continues from the incoming label or header
         (ttlModePipe, 1));    // the TTL of the tunnel is independent of the payload's

// Pseudowire types (RFC 4446).
KEL_ENUM(PwType, "Mpls::PwType",
         (pwTypeNone, 0),
         (pwTypeEthernetTagged, 4),  // Ethernet tagged mode
         (pwTypeEthernet, 5));       // Ethernet raw mode

// Per-via flags of the layer-2 (VLAN and EVPN) vias.
KEL_ENUM(LfibFlag, "Mpls::LfibFlag",
         (lfibFlagNone, 0),
         (lfibFlagControlWord, 1),   // packets carry a control word after the label
         (lfibFlagDot1qXlate, 2));   // the 802.1Q tag is translated on decapsulation

// The key of an LFIB route: the incoming (top) label.
class RouteKey {
 public:
  KEL_VALUE(RouteKey, "Mpls::RouteKey", (Netbase::MplsLabel, label));
  // Labels are handed out in blocks, in sequence.
  KEL_HASH_ORDINAL(label)
  Netbase::MplsLabel topLabel() const noexcept { return label_; }
};

KEL_ENUM(FecType, "Mpls::FecType",
         (fecTypeNone, 0),     // no FEC (static routes, EVPN)
         (fecTypePrefix, 1));  // an IP prefix (LDP, segment routing)

// A forwarding equivalence class: the traffic a label stands for.
class FwdEqvClass {
 public:
  KEL_VALUE(FwdEqvClass, "Mpls::FwdEqvClass", (FecType, fecType), (Netbase::IpGenPrefix, prefix));
  explicit FwdEqvClass(const Netbase::IpGenPrefix& p) : fecType_(fecTypePrefix), prefix_(p) {}
};

KEL_RANGE(RouteMetric, "Mpls::RouteMetric", uint8_t, 0, 255);

}  // namespace Mpls
