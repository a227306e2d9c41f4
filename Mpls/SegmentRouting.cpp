#include "Mpls/SegmentRouting.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "Kel/Binary.h"
#include "Kel/Quote.h"
#include "Pond/Exception.h"

namespace Pond::SegmentRouting {

// ---------------------------------------------------------------------------------------
// Labels.

Netbase::MplsLabel GlobalBlock::mplsLabel(const SegmentIdentifier& sid) const {
  if (sid.isValue()) {
    return Netbase::MplsLabel(sid.value() & Netbase::MplsLabel::max);
  }
  if (sid.value() >= labelRange_.size()) {
    return Netbase::MplsLabel::null();
  }
  // The base is at most 0xFFFFF and the index below 2^32: no overflow in 64 bits, and the
  // label's own check refuses what lies beyond its type.
  return Netbase::MplsLabel(uint64_t{labelRange_.base().value()} + sid.value());
}

// ---------------------------------------------------------------------------------------
// Text.

std::string sidString(const SegmentIdentifier& sid) {
  return fmt::format("{} {}", sid.isValue() ? "label" : "index", sid.value());
}

std::string systemIdString(uint64_t systemId) {
  return fmt::format("{:04x}.{:04x}.{:04x}", (systemId >> 32) & 0xffff, (systemId >> 16) & 0xffff,
                     systemId & 0xffff);
}

std::string PrefixSegment::pondString() const {
  return fmt::format("[{}] {} router {} flags {:#x} level {} protection {} srlg {}",
                     key_.stringValue(), sidString(sid_), rtrid_.stringValue(), flags_, level_,
                     protectionMode_, protectionSrlg_);
}

std::string AdjacencySegment::pondString() const {
  std::string line =
      fmt::format("[{}/{}] flags {:#x} neighbours", sidString(key_.sid()), key_.srcId(), flags_);
  for (const AdjSegmentNeighbor& n : ngb_) {
    line += fmt::format(" {}/{}", systemIdString(n.systemId()), n.metric());
  }
  return line;
}

std::string AreaSegment::pondString() const {
  std::string line = fmt::format("[{}] {} {}{} fec {} originators", key_.stringValue(),
                                 sidString(sid_), flags_.isIpv6() ? "ipv6" : "ipv4",
                                 flags_.isLocal() ? " local" : "", fecId_.value());
  for (const ::Mpls::RouterId& r : originator_) {
    line += " " + r.stringValue();
  }
  return line;
}

std::string GlobalBlock::pondString() const {
  if (labelRange_.size() == 0) {
    return fmt::format("[{}] empty", key_.stringValue());
  }
  return fmt::format("[{}] {}-{}", key_.stringValue(), labelRange_.base().value(),
                     uint64_t{labelRange_.base().value()} + labelRange_.size() - 1);
}

std::string SrRoute::pondString() const {
  return fmt::format("[{}] fec {} type {} metricPref {} vrf {}{}{}", prefix_.stringValue(),
                     fecId_.value(), routeType_, metricPref_, srcVrfId_,
                     deferredForMicroloopPrevention_ ? " deferred" : "",
                     popAndLookupRoute_ ? " pop-and-lookup" : "");
}

// ---------------------------------------------------------------------------------------
// Binary forms.

namespace {

// The count of a record's array at `at`, checked against the array's capacity and the
// bytes available; returns the record's length.
uint32_t recordLen(const uint8_t* in, size_t len, uint32_t headLen, uint32_t at,
                   uint32_t capacity, uint32_t entryLen) {
  Kel::requireLength(in, len, headLen);
  uint32_t count;
  std::memcpy(&count, in + at, sizeof(count));
  if (count > capacity) {
    Kel::throwSizeExceeded(capacity, count, in, len);
  }
  const uint32_t need = headLen + entryLen * count;
  Kel::requireLength(in, len, need);
  return need;
}

}  // namespace

uint32_t AdjacencySegment::serialize(uint8_t* out) const {
  Kel::ByteWriter w(out);
  w.put(key_.sid().value());
  w.put(key_.srcId());
  w.put(static_cast<uint8_t>(key_.sid().isValue()));
  w.put(flags_);
  w.put(uint16_t{0});
  w.put(ngb_.count());
  for (const AdjSegmentNeighbor& n : ngb_) {
    w.put(n.systemId());
    w.put(n.metric());
  }
  return static_cast<uint32_t>(w.position());
}

uint32_t AdjacencySegment::deserializeLen(const uint8_t* in, size_t len) {
  return recordLen(in, len, kHeadLen, 12, AdjSegmentNeighborArray::capacity, kNeighborLen);
}

uint32_t AdjacencySegment::deserialize(const uint8_t* in, size_t len) {
  const uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  const uint32_t sid = r.get<uint32_t>();
  const uint32_t srcId = r.get<uint32_t>();
  const bool isValue = r.get<uint8_t>() != 0;
  key_ = AdjacencySegmentKey(SegmentIdentifier(sid, isValue), srcId);
  flags_ = r.get<uint8_t>();
  r.skip(2);
  const uint32_t count = r.get<uint32_t>();
  ngb_.delAll();
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t systemId = r.get<uint64_t>();
    ngb_.set(i, AdjSegmentNeighbor(systemId, r.get<uint32_t>()));
  }
  return need;
}

uint32_t AreaSegment::serialize(uint8_t* out) const {
  Kel::ByteWriter w(out);
  w.put(key_);
  w.put(static_cast<uint8_t>(sid_.isValue()));
  w.put(uint8_t{0});
  w.put(sid_.value());
  w.put(flags_.value());
  w.put(fecId_.value());
  w.put(originator_.count());
  for (const ::Mpls::RouterId& o : originator_) {
    w.put(o.rtrIdValue());
    w.put(o.lblSpaceValue());
  }
  return static_cast<uint32_t>(w.position());
}

uint32_t AreaSegment::deserializeLen(const uint8_t* in, size_t len) {
  return recordLen(in, len, kHeadLen, 32, AreaSegmentOriginatorArray::capacity, kOriginatorLen);
}

uint32_t AreaSegment::deserialize(const uint8_t* in, size_t len) {
  const uint32_t need = deserializeLen(in, len);
  Kel::ByteReader r(in, need);
  Routing::Isis::AreaId::Octets octets;
  std::memcpy(octets.data(), r.cursor(), octets.size());
  r.skip(octets.size());
  const uint8_t areaLen = r.get<uint8_t>();
  if (areaLen > Routing::Isis::AreaId::maxLength) {
    throw Kel::SizeError(fmt::format("an IS-IS area of {} octets; at most {}", areaLen,
                                     Routing::Isis::AreaId::maxLength));
  }
  const bool isValue = r.get<uint8_t>() != 0;
  r.skip(1);
  const uint32_t sid = r.get<uint32_t>();
  const AreaSegmentFlags flags(r.get<uint32_t>());  // refuses undefined bits
  // Rebuilt from its octets, the key has zeros past its length whatever the record held.
  key_ = areaLen ? Routing::Isis::AreaId(std::span<const uint8_t>(octets.data(), areaLen))
                 : Routing::Isis::AreaId();
  sid_ = SegmentIdentifier(sid, isValue);
  flags_ = flags;
  fecId_ = Pond::Fib::FecId(r.get<uint64_t>());
  const uint32_t count = r.get<uint32_t>();
  originator_.delAll();
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t id = r.get<uint32_t>();
    originator_.set(i, ::Mpls::RouterId(id, r.get<uint16_t>()));
  }
  return need;
}

// ---------------------------------------------------------------------------------------
// The table set.

std::string statusGroupName(std::string_view name) {
  const bool ok = !name.empty() && name.size() <= 64 &&
                  std::all_of(name.begin(), name.end(), [](char c) {
                    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '_' || c == '-';
                  });
  if (!ok) {
    throw Pond::SegmentError(fmt::format(
        "invalid segment-routing table set name {}: use 1 to 64 letters, digits, '_' and '-'",
        Kel::quoted(name)));
  }
  return fmt::format("sr/status/{}", name);
}

Kel::Ptr<Status> statusFactory(const std::string& name) {
  statusGroupName(name);
  return Kel::make<Status>(name);
}

}  // namespace Pond::SegmentRouting
