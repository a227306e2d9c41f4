// Multipoint LDP opaque values: the parser and printer of show commands.
//
// mLDP names a point-to-multipoint LSP by its root address and an opaque value (RFC 6388
// §2.3). An opaque value is one TLV: a 1-octet Type, a 2-octet Length (network order) and
// Length octets of Value. MldpOpaqueValTlvParser takes the raw octets of one opaque value,
// recognises its type and renders it as text, on one line or as a summary wrapped at 44
// columns. It never fails: octets it does not recognise, or whose Length is not the one
// of their type, print as a hex dump.
//
// The supported types (all multi-octet numbers in network order; offsets from the start
// of the TLV):
//
//   1    generic LSP identifier (RFC 6388)      3: LSP ID (4)                    Length 4
//   3/4  transit IPv4/IPv6 source (RFC 6826)    3: source, then group            8 / 32
//   5/6  transit IPv4/IPv6 bidir (RFC 6826)     3: mask length (1), RP, group    9 / 33
//   7    recursive (RFC 6512)                   3: a P2MP FEC element            > 3
//   8    VPN recursive (RFC 6512)               3: RD (8); 11: a P2MP FEC element > 11
//   9/10 transit VPNv4/VPNv6 bidir (RFC 7246)   as bidir, then the RD (8)        17 / 41
//   250/251 transit VPNv4/VPNv6 source (7246)   as source, then the RD (8)       16 / 40
//
// Texts (one-line mode; summary mode puts each part on a line of its own before the
// re-flow): "LSP ID: 42", "S: 10.0.0.1 G: 232.1.1.1", "RP: 10.0.0.1/32 G: 225.1.1.1",
// "... RD: 65000:100", and for the recursive types "Rec: {Root: 10.0.0.1, <inner>} " and
// "Rec: {RD: 65000:100, Root: 10.0.0.1, <inner>} ", where <inner> is the text of the
// inner opaque value. A malformed FEC element inside a recursive value prints one of
// "bad fec type ", "bad rootIp length ", "bad family " or "bad opaque length " in place
// of the whole "Rec: {...}". At most maxRecursionDepth() recursive values print nested in
// each other; a deeper one prints "nested deeper than 16 levels " in its place.
//
// The hex dump shows the first maxDisplayStrLen() (128) octets: on one line as " x05 x00
// x08 ..." (each octet " x%02x"), in summary mode as "\x05\x00\x08..." (each octet
// "\x%02x"), ten octets to a line so that a line fits the summary's columns.
//
// Summary re-flow: the lines of the summary text are joined by one blank while the output
// line stays within summaryColumnWidth() (44) characters; a line that does not fit starts
// a new output line indented by one blank ("\n "). A single line longer than that (an
// IPv6 source with its label) is never broken.
//
// Single-threaded: a parser and its records are used on one thread. Records are views
// onto the parser's octets and live no longer than the parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Enum.h"
#include "Kel/Value.h"
#include "types/L3/RouteDistinguisher.h"
#include "types/Netbase/IpGenAddr.h"

namespace Mpls {

KEL_ENUM(MldpOpaqueValueTypeEnum, "Mpls::MldpOpaqueValueTypeEnum", (mldpReservedOpaqueType, 0),
         (mldpGenericLspIdentifier, 1), (mldpTransitV4Src, 3), (mldpTransitV6Src, 4),
         (mldpTransitV4Bidir, 5), (mldpTransitV6Bidir, 6), (mldpRecursiveOpaque, 7),
         (mldpVpnRecursiveOpaque, 8), (mldpTransitVpnV4Bidir, 9), (mldpTransitVpnV6Bidir, 10),
         (mldpTransitVpnV4Src, 250), (mldpTransitVpnV6Src, 251), (mldpExtendedOpaqueType, 255));

// The display constants of opaque values; all instances are equal.
class MldpOpaqueValueConstants {
 public:
  KEL_VALUE_BASE(MldpOpaqueValueConstants, "Mpls::MldpOpaqueValueConstants");
  KEL_VALUE_STREP_CTOR(MldpOpaqueValueConstants)

  // Octets shown by the hex dump of an unsupported value.
  static constexpr uint32_t maxDisplayStrLen() noexcept { return 128; }
  // Width of the summary re-flow.
  static constexpr uint32_t summaryColumnWidth() noexcept { return 44; }
  // Recursive opaque values printed nested in each other.
  static constexpr uint32_t maxRecursionDepth() noexcept { return 16; }
};

// The header of an opaque value TLV, read from the start of some octets.
class MldpOpaqueTlvU8Hdr {
 public:
  static constexpr size_t kSize = 3;

  explicit MldpOpaqueTlvU8Hdr(std::string_view octets) noexcept : octets_(octets) {}

  // Whether the octets hold a whole header; type() and length() are 0 when they do not.
  bool valid() const noexcept { return octets_.size() >= kSize; }
  uint8_t type() const noexcept;
  // The Length field, in host order.
  uint16_t length() const noexcept;
  // Length plus the header.
  uint32_t totalLength() const noexcept { return length() + uint32_t{kSize}; }
  // The first totalLength() octets, or all there are when they are fewer.
  std::string_view getTlvString() const noexcept { return octets_.substr(0, totalLength()); }

 private:
  std::string_view octets_;
};

// The fixed part of the P2MP FEC element (RFC 6388 §2.2) that a recursive opaque value
// carries: Type (6), Address Family (1 IPv4, 2 IPv6), Address Length. The root address,
// a 2-octet opaque length and the inner opaque value follow it.
class MldpFecTlvP2mpElementHdr {
 public:
  KEL_VALUE(MldpFecTlvP2mpElementHdr, "Mpls::MldpFecTlvP2mpElementHdr", (uint8_t, type),
            (uint16_t, familyNbo), (uint8_t, rootIpLenOctets));

  static constexpr size_t kSize = 4;
  static constexpr uint8_t kP2mpType = 6;
  static constexpr uint16_t kFamilyIpv4 = 1;
  static constexpr uint16_t kFamilyIpv6 = 2;

  // Reads the first kSize octets; octets that are missing read as 0. familyNbo keeps the
  // family's two octets as they are on the wire.
  static MldpFecTlvP2mpElementHdr fromOctets(std::string_view octets) noexcept;
  // The address family in host order.
  uint16_t family() const noexcept;
};

// One opaque value seen as one record type: a view onto octets that must outlive it
// (those of the parser that fills it). The accessors of each record read the fixed
// offsets of its layout, give 0 for octets the view does not hold, and mean something
// only when the record is valid(): its Type is the record's, its Length is the one of its
// type and the octets are exactly one TLV of that Length. A default record views nothing.
class MldpOpaqueValTlv {
 public:
  MldpOpaqueValTlv() = default;
  explicit MldpOpaqueValTlv(std::string_view tlv) noexcept : tlv_(tlv) {}

  std::string_view octets() const noexcept { return tlv_; }
  // True for a record that views no octets (a parser slot left empty).
  bool empty() const noexcept { return tlv_.empty(); }
  MldpOpaqueTlvU8Hdr hdr() const noexcept { return MldpOpaqueTlvU8Hdr(tlv_); }

 protected:
  bool hasTypeAndLength(uint8_t type, uint16_t length) const noexcept;
  bool hasTypeAndLengthAbove(uint8_t type, uint16_t length) const noexcept;
  uint8_t u8At(size_t offset) const noexcept;
  uint32_t u32At(size_t offset) const noexcept;
  Netbase::IpGenAddr addrAt(size_t offset, Netbase::AddressFamily af) const noexcept;
  L3::RouteDistinguisher rdAt(size_t offset) const noexcept;

  std::string_view tlv_;
};

// Every record's stringValue(summary, json) renders the record in summary mode when
// `summary` is true and `json` false, and on one line otherwise; it aborts the process
// (fatal assertion "valid()") when the record is not valid().

class MldpOpaqueValGenTlv : public MldpOpaqueValTlv {
 public:
  using MldpOpaqueValTlv::MldpOpaqueValTlv;
  static constexpr uint16_t kLength = 4;

  bool valid() const noexcept { return hasTypeAndLength(mldpGenericLspIdentifier, kLength); }
  uint32_t lspId() const noexcept { return u32At(3); }
  // "LSP ID: 42"; summary "LSP ID: 42\n".
  std::string stringValue(bool summary, bool json) const;
};

// The transit records of in-band signalling (RFC 6826, RFC 7246): [mask length (1)],
// source or RP, group, [route distinguisher (8)].
template <MldpOpaqueValueTypeEnum kType, Netbase::AddressFamily kAf, bool kBidir, bool kVpn>
class MldpOpaqueValTransitTlv : public MldpOpaqueValTlv {
 public:
  using MldpOpaqueValTlv::MldpOpaqueValTlv;
  static constexpr size_t kAddrLen = kAf == Netbase::afIpv4 ? 4 : 16;
  static constexpr uint16_t kLength = (kBidir ? 1 : 0) + 2 * kAddrLen + (kVpn ? 8 : 0);

  bool valid() const noexcept { return hasTypeAndLength(kType, kLength); }
  Netbase::IpGenAddr source() const noexcept requires(!kBidir) { return addrAt(3, kAf); }
  uint8_t maskLen() const noexcept requires(kBidir) { return u8At(3); }
  Netbase::IpGenAddr rp() const noexcept requires(kBidir) { return addrAt(4, kAf); }
  Netbase::IpGenAddr group() const noexcept { return addrAt(kGroupOffset, kAf); }
  L3::RouteDistinguisher rd() const noexcept requires(kVpn) {
    return rdAt(kGroupOffset + kAddrLen);
  }
  // "S: src G: grp" / "RP: rp/mask G: grp", then " RD: rd" for the VPN forms; summary mode
  // puts each part on a line of its own.
  std::string stringValue(bool summary, bool json) const;

 private:
  static constexpr size_t kGroupOffset = 3 + (kBidir ? 1 : 0) + kAddrLen;
};

class MldpOpaqueValTransitV4SrcTlv
    : public MldpOpaqueValTransitTlv<mldpTransitV4Src, Netbase::afIpv4, false, false> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitV6SrcTlv
    : public MldpOpaqueValTransitTlv<mldpTransitV6Src, Netbase::afIpv6, false, false> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitV4BidirTlv
    : public MldpOpaqueValTransitTlv<mldpTransitV4Bidir, Netbase::afIpv4, true, false> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitV6BidirTlv
    : public MldpOpaqueValTransitTlv<mldpTransitV6Bidir, Netbase::afIpv6, true, false> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitVpnV4BidirTlv
    : public MldpOpaqueValTransitTlv<mldpTransitVpnV4Bidir, Netbase::afIpv4, true, true> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitVpnV6BidirTlv
    : public MldpOpaqueValTransitTlv<mldpTransitVpnV6Bidir, Netbase::afIpv6, true, true> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitVpnV4SrcTlv
    : public MldpOpaqueValTransitTlv<mldpTransitVpnV4Src, Netbase::afIpv4, false, true> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};
class MldpOpaqueValTransitVpnV6SrcTlv
    : public MldpOpaqueValTransitTlv<mldpTransitVpnV6Src, Netbase::afIpv6, false, true> {
 public:
  using MldpOpaqueValTransitTlv::MldpOpaqueValTransitTlv;
};

// What the two recursive records share: the P2MP FEC element at kFecOffset, whose root
// address and inner opaque value they print.
class MldpOpaqueValRecursiveTlvBase : public MldpOpaqueValTlv {
 public:
  using MldpOpaqueValTlv::MldpOpaqueValTlv;

 protected:
  // The FEC element's header at `fecOffset`.
  MldpFecTlvP2mpElementHdr fecElementHdrAt(size_t fecOffset) const noexcept;
  // "Rec: {" + `prefix` + "Root: <root>, " + the inner value's text + "} " (one-line
  // mode), or one of the messages of a malformed FEC element; `depth` is the number of
  // recursive values this one is nested in.
  std::string stringValueBase(bool summary, bool json, uint32_t depth, size_t fecOffset,
                              std::string_view prefix) const;
  // The text of the inner opaque value `oVal` at `depth`, by a parser of its own.
  static std::string parseNextTlv(std::string_view oVal, bool summary, bool json, uint32_t depth);
};

class MldpOpaqueValRecursiveTlv : public MldpOpaqueValRecursiveTlvBase {
 public:
  using MldpOpaqueValRecursiveTlvBase::MldpOpaqueValRecursiveTlvBase;
  static constexpr size_t kFecOffset = 3;

  bool valid() const noexcept { return hasTypeAndLengthAbove(mldpRecursiveOpaque, 3); }
  MldpFecTlvP2mpElementHdr fecElementHdr() const noexcept { return fecElementHdrAt(kFecOffset); }
  std::string stringValue(bool summary, bool json) const { return stringValue(summary, json, 0); }
  std::string stringValue(bool summary, bool json, uint32_t depth) const;
};

class MldpOpaqueValVpnRecursiveTlv : public MldpOpaqueValRecursiveTlvBase {
 public:
  using MldpOpaqueValRecursiveTlvBase::MldpOpaqueValRecursiveTlvBase;
  static constexpr size_t kFecOffset = 11;

  bool valid() const noexcept { return hasTypeAndLengthAbove(mldpVpnRecursiveOpaque, 11); }
  L3::RouteDistinguisher rd() const noexcept { return rdAt(3); }
  MldpFecTlvP2mpElementHdr fecElementHdr() const noexcept { return fecElementHdrAt(kFecOffset); }
  std::string stringValue(bool summary, bool json) const { return stringValue(summary, json, 0); }
  std::string stringValue(bool summary, bool json, uint32_t depth) const;
};

// Any octets at all; printed as a hex dump of at most maxDisplayStrLen() octets. Always
// valid.
class MldpOpaqueValUnsupportedTlv : public MldpOpaqueValTlv {
 public:
  using MldpOpaqueValTlv::MldpOpaqueValTlv;

  bool valid() const noexcept { return true; }
  std::string stringValue(bool summary, bool json) const;
};

// Parses one opaque value and prints it. handleInitialized() parses (the factory calls
// it): when the Type and Length describe exactly the input, the slot of the Type's record
// views the input; the unsupported slot always does. getOpaqueString() prints the first
// filled and valid typed slot, else the unsupported one.
class MldpOpaqueValTlvParser : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<MldpOpaqueValTlvParser>;
  class NotifieeConst : public Kel::NotifieeOf<MldpOpaqueValTlvParser> {
   public:
    virtual void onInitialized() {}
  };

  // Keeps a copy of the octets; parses nothing yet. (A string literal with zero octets in
  // it must be given with its length: std::string_view("\x01\x00", 2).)
  explicit MldpOpaqueValTlvParser(std::string_view oVal) : oVal_(oVal) {}

  const std::string& oVal() const noexcept { return oVal_; }
  // Set by handleInitialized().
  KEL_ATTR(bool, initialized, Initialized, false)

  // Parses the octets into the record slots (again, if called again).
  void handleInitialized();

  // The text of the opaque value: summary mode (re-flowed) when `summary` is true and
  // `json` false, one line otherwise. Throws Kel::InternalException when called before
  // handleInitialized().
  std::string getOpaqueString(bool summary, bool json) const;

  const MldpOpaqueValGenTlv& mldpOpaqueValGenTlv() const noexcept { return gen_; }
  const MldpOpaqueValTransitV4SrcTlv& mldpOpaqueValTransitV4SrcTlv() const noexcept {
    return v4Src_;
  }
  const MldpOpaqueValTransitV6SrcTlv& mldpOpaqueValTransitV6SrcTlv() const noexcept {
    return v6Src_;
  }
  const MldpOpaqueValTransitV4BidirTlv& mldpOpaqueValTransitV4BidirTlv() const noexcept {
    return v4Bidir_;
  }
  const MldpOpaqueValTransitV6BidirTlv& mldpOpaqueValTransitV6BidirTlv() const noexcept {
    return v6Bidir_;
  }
  const MldpOpaqueValTransitVpnV4BidirTlv& mldpOpaqueValTransitVpnV4BidirTlv() const noexcept {
    return vpnV4Bidir_;
  }
  const MldpOpaqueValTransitVpnV6BidirTlv& mldpOpaqueValTransitVpnV6BidirTlv() const noexcept {
    return vpnV6Bidir_;
  }
  const MldpOpaqueValTransitVpnV4SrcTlv& mldpOpaqueValTransitVpnV4SrcTlv() const noexcept {
    return vpnV4Src_;
  }
  const MldpOpaqueValTransitVpnV6SrcTlv& mldpOpaqueValTransitVpnV6SrcTlv() const noexcept {
    return vpnV6Src_;
  }
  const MldpOpaqueValRecursiveTlv& mldpOpaqueValRecursiveTlv() const noexcept { return recursive_; }
  const MldpOpaqueValVpnRecursiveTlv& mldpOpaqueValVpnRecursiveTlv() const noexcept {
    return vpnRecursive_;
  }
  const MldpOpaqueValUnsupportedTlv& mldpOpaqueValUnsupportedTlv() const noexcept {
    return unsupported_;
  }

  // Joins the lines of a summary text as getOpaqueString() does.
  static std::string reflow(std::string_view text);

 private:
  friend class MldpOpaqueValRecursiveTlvBase;
  // The text before the re-flow, for a value nested in `depth` recursive values.
  std::string render(bool summary, bool json, uint32_t depth) const;

  std::string oVal_;
  MldpOpaqueValGenTlv gen_;
  MldpOpaqueValTransitV4SrcTlv v4Src_;
  MldpOpaqueValTransitV6SrcTlv v6Src_;
  MldpOpaqueValTransitV4BidirTlv v4Bidir_;
  MldpOpaqueValTransitV6BidirTlv v6Bidir_;
  MldpOpaqueValTransitVpnV4BidirTlv vpnV4Bidir_;
  MldpOpaqueValTransitVpnV6BidirTlv vpnV6Bidir_;
  MldpOpaqueValTransitVpnV4SrcTlv vpnV4Src_;
  MldpOpaqueValTransitVpnV6SrcTlv vpnV6Src_;
  MldpOpaqueValRecursiveTlv recursive_;
  MldpOpaqueValVpnRecursiveTlv vpnRecursive_;
  MldpOpaqueValUnsupportedTlv unsupported_;
};

// A parser of `oVal`, parsed.
MldpOpaqueValTlvParser::Ptr mldpOpaqueValTlvParserFactory(std::string_view oVal);

}  // namespace Mpls
