#include "Mpls/MldpOpaqueValue.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "Kel/Exception.h"

namespace Mpls {

namespace {

using Netbase::IpGenAddr;

bool summaryMode(bool summary, bool json) { return summary && !json; }

template <class Record>
bool usable(const Record& r) {
  return !r.empty() && r.valid();
}

}  // namespace

uint8_t MldpOpaqueTlvU8Hdr::type() const noexcept {
  return valid() ? static_cast<uint8_t>(octets_[0]) : 0;
}

uint16_t MldpOpaqueTlvU8Hdr::length() const noexcept {
  if (!valid()) {
    return 0;
  }
  return static_cast<uint16_t>((static_cast<uint8_t>(octets_[1]) << 8) |
                               static_cast<uint8_t>(octets_[2]));
}

MldpFecTlvP2mpElementHdr MldpFecTlvP2mpElementHdr::fromOctets(std::string_view octets) noexcept {
  uint8_t o[kSize] = {};
  std::copy_n(octets.begin(), std::min(octets.size(), kSize), o);
  // familyNbo holds the wire's two octets in memory order, as an overlay of the wire would.
  uint16_t familyNbo;
  static_assert(sizeof familyNbo == 2);
  std::memcpy(&familyNbo, o + 1, 2);
  return MldpFecTlvP2mpElementHdr(o[0], familyNbo, o[3]);
}

uint16_t MldpFecTlvP2mpElementHdr::family() const noexcept {
  uint8_t o[2];
  std::memcpy(o, &familyNbo_, 2);
  return static_cast<uint16_t>((o[0] << 8) | o[1]);
}

// ---------------------------------------------------------------------------------------
// Records.

bool MldpOpaqueValTlv::hasTypeAndLength(uint8_t type, uint16_t length) const noexcept {
  const MldpOpaqueTlvU8Hdr h = hdr();
  return h.valid() && h.type() == type && h.length() == length && tlv_.size() == h.totalLength();
}

bool MldpOpaqueValTlv::hasTypeAndLengthAbove(uint8_t type, uint16_t length) const noexcept {
  const MldpOpaqueTlvU8Hdr h = hdr();
  return h.valid() && h.type() == type && h.length() > length && tlv_.size() == h.totalLength();
}

uint8_t MldpOpaqueValTlv::u8At(size_t offset) const noexcept {
  return offset < tlv_.size() ? static_cast<uint8_t>(tlv_[offset]) : 0;
}

uint32_t MldpOpaqueValTlv::u32At(size_t offset) const noexcept {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) {
    v = (v << 8) | u8At(offset + i);
  }
  return v;
}

IpGenAddr MldpOpaqueValTlv::addrAt(size_t offset, Netbase::AddressFamily af) const noexcept {
  IpGenAddr::Bytes bytes{};
  const size_t len = af == Netbase::afIpv4 ? 4 : 16;
  for (size_t i = 0; i < len; ++i) {
    bytes[i] = u8At(offset + i);
  }
  return IpGenAddr::fromBytes(af, bytes);
}

L3::RouteDistinguisher MldpOpaqueValTlv::rdAt(size_t offset) const noexcept {
  L3::RouteDistinguisher::Bytes bytes{};
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = u8At(offset + i);
  }
  return L3::RouteDistinguisher::fromBytes(bytes);
}

std::string MldpOpaqueValGenTlv::stringValue(bool summary, bool json) const {
  KEL_FATAL_ASSERT(valid());
  return fmt::format("LSP ID: {}{}", lspId(), summaryMode(summary, json) ? "\n" : "");
}

template <MldpOpaqueValueTypeEnum kType, Netbase::AddressFamily kAf, bool kBidir, bool kVpn>
std::string MldpOpaqueValTransitTlv<kType, kAf, kBidir, kVpn>::stringValue(bool summary,
                                                                           bool json) const {
  KEL_FATAL_ASSERT(valid());
  const bool lines = summaryMode(summary, json);
  const char* sep = lines ? "\n" : " ";
  std::string out;
  if constexpr (kBidir) {
    out = fmt::format("RP: {}/{}{}", rp().stringValue(), unsigned{maskLen()}, sep);
  } else {
    out = fmt::format("S: {}{}", source().stringValue(), sep);
  }
  out += "G: ";
  out += group().stringValue();
  if constexpr (kVpn) {
    out += sep;
    out += "RD: ";
    out += rd().stringValue();
  }
  if (lines) {
    out += '\n';
  }
  return out;
}

template std::string MldpOpaqueValTransitTlv<mldpTransitV4Src, Netbase::afIpv4, false,
                                             false>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitV6Src, Netbase::afIpv6, false,
                                             false>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitV4Bidir, Netbase::afIpv4, true,
                                             false>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitV6Bidir, Netbase::afIpv6, true,
                                             false>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitVpnV4Bidir, Netbase::afIpv4, true,
                                             true>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitVpnV6Bidir, Netbase::afIpv6, true,
                                             true>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitVpnV4Src, Netbase::afIpv4, false,
                                             true>::stringValue(bool, bool) const;
template std::string MldpOpaqueValTransitTlv<mldpTransitVpnV6Src, Netbase::afIpv6, false,
                                             true>::stringValue(bool, bool) const;

MldpFecTlvP2mpElementHdr MldpOpaqueValRecursiveTlvBase::fecElementHdrAt(
    size_t fecOffset) const noexcept {
  return MldpFecTlvP2mpElementHdr::fromOctets(tlv_.substr(std::min(fecOffset, tlv_.size())));
}

std::string MldpOpaqueValRecursiveTlvBase::stringValueBase(bool summary, bool json, uint32_t depth,
                                                           size_t fecOffset,
                                                           std::string_view prefix) const {
  constexpr uint32_t maxDepth = MldpOpaqueValueConstants::maxRecursionDepth();
  if (depth >= maxDepth) {
    // Each level costs a parser and a copy of what it holds: stop well before the stack
    // or the time could matter.
    return fmt::format("nested deeper than {} levels ", maxDepth);
  }
  const MldpFecTlvP2mpElementHdr fec = fecElementHdrAt(fecOffset);
  if (fec.type() != MldpFecTlvP2mpElementHdr::kP2mpType) {
    return "bad fec type ";
  }
  Netbase::AddressFamily af;
  if (fec.family() == MldpFecTlvP2mpElementHdr::kFamilyIpv4) {
    af = Netbase::afIpv4;
  } else if (fec.family() == MldpFecTlvP2mpElementHdr::kFamilyIpv6) {
    af = Netbase::afIpv6;
  } else {
    return "bad family ";
  }
  const size_t rootLen = fec.rootIpLenOctets();
  if (rootLen > (af == Netbase::afIpv4 ? 4u : 16u)) {
    return "bad rootIp length ";
  }
  // The root address, the opaque length and exactly that many octets end the TLV.
  const size_t rootOffset = fecOffset + MldpFecTlvP2mpElementHdr::kSize;
  const size_t lengthOffset = rootOffset + rootLen;
  if (lengthOffset + 2 > tlv_.size()) {
    return "bad opaque length ";
  }
  const size_t opaqueLen = (size_t{u8At(lengthOffset)} << 8) | u8At(lengthOffset + 1);
  const size_t innerOffset = lengthOffset + 2;
  if (tlv_.size() - innerOffset != opaqueLen) {
    return "bad opaque length ";
  }
  IpGenAddr::Bytes root{};  // a shorter root is zero-padded
  for (size_t i = 0; i < rootLen; ++i) {
    root[i] = u8At(rootOffset + i);
  }

  const bool lines = summaryMode(summary, json);
  std::string out = "Rec: {";
  out += prefix;
  out += "Root: ";
  out += IpGenAddr::fromBytes(af, root).stringValue();
  out += lines ? ",\n" : ", ";
  std::string inner = parseNextTlv(tlv_.substr(innerOffset), summary, json, depth + 1);
  if (!lines && !inner.empty() && inner.front() == ' ') {
    out.pop_back();  // a one-line hex dump brings its own blank
  }
  out += inner;
  out += lines ? "}\n" : "} ";
  return out;
}

std::string MldpOpaqueValRecursiveTlvBase::parseNextTlv(std::string_view oVal, bool summary,
                                                        bool json, uint32_t depth) {
  MldpOpaqueValTlvParser parser(oVal);
  parser.handleInitialized();
  return parser.render(summary, json, depth);
}

std::string MldpOpaqueValRecursiveTlv::stringValue(bool summary, bool json, uint32_t depth) const {
  KEL_FATAL_ASSERT(valid());
  return stringValueBase(summary, json, depth, kFecOffset, {});
}

std::string MldpOpaqueValVpnRecursiveTlv::stringValue(bool summary, bool json,
                                                      uint32_t depth) const {
  KEL_FATAL_ASSERT(valid());
  const std::string prefix =
      fmt::format("RD: {},{}", rd().stringValue(), summaryMode(summary, json) ? "\n" : " ");
  return stringValueBase(summary, json, depth, kFecOffset, prefix);
}

std::string MldpOpaqueValUnsupportedTlv::stringValue(bool summary, bool json) const {
  KEL_FATAL_ASSERT(valid());
  static constexpr char kHex[] = "0123456789abcdef";
  constexpr size_t perLine = 10;  // 40 columns, within the summary's width
  const bool lines = summaryMode(summary, json);
  const size_t n = std::min<size_t>(tlv_.size(), MldpOpaqueValueConstants::maxDisplayStrLen());
  std::string out;
  out.reserve(n * 4 + n / perLine + 1);
  for (size_t i = 0; i < n; ++i) {
    const auto octet = static_cast<uint8_t>(tlv_[i]);
    out += lines ? '\\' : ' ';
    out += 'x';
    out += kHex[octet >> 4];
    out += kHex[octet & 0xf];
    if (lines && ((i + 1) % perLine == 0 || i + 1 == n)) {
      out += '\n';
    }
  }
  return out;
}

// ---------------------------------------------------------------------------------------
// The parser.

void MldpOpaqueValTlvParser::handleInitialized() {
  // Set before the slots are filled: a notifiee of `initialized` must not render from its
  // handler.
  initializedIs(true);
  gen_ = {};
  v4Src_ = {};
  v6Src_ = {};
  v4Bidir_ = {};
  v6Bidir_ = {};
  vpnV4Bidir_ = {};
  vpnV6Bidir_ = {};
  vpnV4Src_ = {};
  vpnV6Src_ = {};
  recursive_ = {};
  vpnRecursive_ = {};
  const std::string_view in(oVal_);
  const MldpOpaqueTlvU8Hdr hdr(in);
  if (hdr.valid() && hdr.totalLength() == in.size()) {
    switch (hdr.type()) {
      case mldpGenericLspIdentifier:
        gen_ = MldpOpaqueValGenTlv(in);
        break;
      case mldpTransitV4Src:
        v4Src_ = MldpOpaqueValTransitV4SrcTlv(in);
        break;
      case mldpTransitV6Src:
        v6Src_ = MldpOpaqueValTransitV6SrcTlv(in);
        break;
      case mldpTransitV4Bidir:
        v4Bidir_ = MldpOpaqueValTransitV4BidirTlv(in);
        break;
      case mldpTransitV6Bidir:
        v6Bidir_ = MldpOpaqueValTransitV6BidirTlv(in);
        break;
      case mldpRecursiveOpaque:
        recursive_ = MldpOpaqueValRecursiveTlv(in);
        break;
      case mldpVpnRecursiveOpaque:
        vpnRecursive_ = MldpOpaqueValVpnRecursiveTlv(in);
        break;
      case mldpTransitVpnV4Bidir:
        vpnV4Bidir_ = MldpOpaqueValTransitVpnV4BidirTlv(in);
        break;
      case mldpTransitVpnV6Bidir:
        vpnV6Bidir_ = MldpOpaqueValTransitVpnV6BidirTlv(in);
        break;
      case mldpTransitVpnV4Src:
        vpnV4Src_ = MldpOpaqueValTransitVpnV4SrcTlv(in);
        break;
      case mldpTransitVpnV6Src:
        vpnV6Src_ = MldpOpaqueValTransitVpnV6SrcTlv(in);
        break;
      default:
        break;
    }
  }
  unsupported_ = MldpOpaqueValUnsupportedTlv(in);
}

std::string MldpOpaqueValTlvParser::render(bool summary, bool json, uint32_t depth) const {
  KEL_ASSERT(initialized_, "opaque value not parsed yet: call handleInitialized()");
  if (usable(gen_)) {
    return gen_.stringValue(summary, json);
  }
  if (usable(v4Src_)) {
    return v4Src_.stringValue(summary, json);
  }
  if (usable(v6Src_)) {
    return v6Src_.stringValue(summary, json);
  }
  if (usable(v4Bidir_)) {
    return v4Bidir_.stringValue(summary, json);
  }
  if (usable(v6Bidir_)) {
    return v6Bidir_.stringValue(summary, json);
  }
  if (usable(vpnV4Bidir_)) {
    return vpnV4Bidir_.stringValue(summary, json);
  }
  if (usable(vpnV6Bidir_)) {
    return vpnV6Bidir_.stringValue(summary, json);
  }
  if (usable(vpnV4Src_)) {
    return vpnV4Src_.stringValue(summary, json);
  }
  if (usable(vpnV6Src_)) {
    return vpnV6Src_.stringValue(summary, json);
  }
  if (usable(recursive_)) {
    return recursive_.stringValue(summary, json, depth);
  }
  if (usable(vpnRecursive_)) {
    return vpnRecursive_.stringValue(summary, json, depth);
  }
  return unsupported_.stringValue(summary, json);
}

std::string MldpOpaqueValTlvParser::getOpaqueString(bool summary, bool json) const {
  std::string text = render(summary, json, 0);
  return summaryMode(summary, json) ? reflow(text) : text;
}

std::string MldpOpaqueValTlvParser::reflow(std::string_view text) {
  constexpr size_t width = MldpOpaqueValueConstants::summaryColumnWidth();
  std::string out;
  out.reserve(text.size() + 16);
  size_t column = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) {
      end = text.size();
    }
    const std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    if (line.empty()) {
      continue;
    }
    if (out.empty()) {
      column = line.size();
    } else if (column + 1 + line.size() <= width) {
      out += ' ';
      column += 1 + line.size();
    } else {
      out += "\n ";
      column = 1 + line.size();
    }
    out += line;
  }
  return out;
}

MldpOpaqueValTlvParser::Ptr mldpOpaqueValTlvParserFactory(std::string_view oVal) {
  auto parser = Kel::make<MldpOpaqueValTlvParser>(oVal);
  parser->handleInitialized();
  return parser;
}

}  // namespace Mpls
