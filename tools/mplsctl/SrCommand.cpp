// mplsctl sr: publishes segment-routing files into a Pond::SegmentRouting::Status and
// shows what one holds.
//
// A segment-routing file has one fact per line; `#` starts a comment, blank lines are
// ignored, numbers are decimal or 0x-hex:
//
//   block ROUTER-ID BASE SIZE
//   prefix PREFIX SID router ROUTER-ID [flags N] [level N] [protection-mode N] [srlg N]
//   adjacency v4|v6 SID SRC-ID [flags N] [neighbor SYSTEM-ID METRIC]...
//   area v4|v6 AREA SID [local] [fec N] [originator ROUTER-ID]...
//   route PREFIX fec N [type N] [metric-pref N] [vrf-id N] [deferred] [pop-and-lookup]
//
//   SID := index N | label LABEL;  ROUTER-ID := A.B.C.D[:SPACE];  SYSTEM-ID := xxxx.xxxx.xxxx
#include "tools/mplsctl/SrCommand.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "Kel/Quote.h"
#include "Mpls/SegmentRouting.h"
#include "Mpls/SegmentRoutingTableInfo.h"
#include "Pond/Exception.h"
#include "Pond/MountGroup.h"
#include "Pond/UndoLog.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/LineFile.h"
#include "tools/mplsctl/TableSetMount.h"

namespace Mplsctl {

namespace {

namespace Sr = Pond::SegmentRouting;
using Sr::SegmentIdentifier;

constexpr const char* kFileKind = "segment-routing file";
constexpr const char* kKind = "segment-routing tables";

// ---------------------------------------------------------------------------------------
// Reading a file.

// The words of one line, and the errors that point into it.
class Line : public LineParser {
 public:
  using LineParser::LineParser;

  // A decimal or 0x-hex number in [min, max].
  uint64_t number(std::string_view what, uint64_t min, uint64_t max) {
    const Token t = next(what);
    std::string_view digits = t.text;
    int base = 10;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
      digits.remove_prefix(2);
      base = 16;
    }
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (digits.empty() || end != digits.data() + digits.size() ||
        (ec != std::errc() && ec != std::errc::result_out_of_range)) {
      expected(what);
    }
    if (ec == std::errc::result_out_of_range || value < min || value > max) {
      fail(t.column, fmt::format("{} {} out of range {}..{}", what, Kel::quoted(t.text), min, max));
    }
    take();
    return value;
  }
  template <class T>
  T numberOf(std::string_view what, uint64_t max = std::numeric_limits<T>::max()) {
    return static_cast<T>(number(what, 0, max));
  }

  // index N | label LABEL
  SegmentIdentifier sid() {
    if (takeIf("index")) {
      return SegmentIdentifier::index(numberOf<uint32_t>("an index"));
    }
    if (takeIf("label")) {
      return SegmentIdentifier::absolute(numberOf<uint32_t>("a label", Netbase::MplsLabel::max));
    }
    expected("'index' or 'label'");
  }
  // A.B.C.D:SPACE, or A.B.C.D for label space 0.
  Mpls::RouterId routerId() {
    const Token t = next("a router id");
    std::optional<Mpls::RouterId> id = Mpls::RouterId::parse(t.text);
    if (!id && t.text.find(':') == std::string_view::npos) {
      id = Mpls::RouterId::parse(std::string(t.text) + ":0");
    }
    if (!id) {
      expected("a router id (A.B.C.D or A.B.C.D:SPACE)");
    }
    take();
    return *id;
  }
  Netbase::IpGenPrefix prefix() {
    const Token t = next("an IP prefix");
    try {
      Netbase::IpGenPrefix p(t.text);
      take();
      return p;
    } catch (const Kel::Exception& e) {
      fail(t.column, e.what());
    }
  }
  Routing::Isis::AreaId area() {
    const Token t = next("an IS-IS area");
    std::optional<Routing::Isis::AreaId> a = Routing::Isis::AreaId::parse(t.text);
    if (!a || a->empty()) {
      expected("an IS-IS area (1 to 13 octets in hex, such as 49.0001)");
    }
    take();
    return *a;
  }
  // xxxx.xxxx.xxxx
  uint64_t systemId() {
    const Token t = next("a system id");
    uint64_t id = 0;
    const bool ok = t.text.size() == 14 && t.text[4] == '.' && t.text[9] == '.' &&
                    std::all_of(t.text.begin(), t.text.end(), [&](char c) {
                      if (c == '.') {
                        return true;
                      }
                      uint8_t d = 0;
                      if (std::from_chars(&c, &c + 1, d, 16).ec != std::errc()) {
                        return false;
                      }
                      id = id << 4 | d;
                      return true;
                    });
    if (!ok) {
      expected("a system id (xxxx.xxxx.xxxx)");
    }
    take();
    return id;
  }
  // v4 | v6: true for v6.
  bool v6() {
    if (takeIf("v4")) {
      return false;
    }
    if (takeIf("v6")) {
      return true;
    }
    expected("'v4' or 'v6'");
  }
  // Takes an option's keyword, which may be given once.
  bool option(std::string_view word) {
    if (!peekIs(word)) {
      return false;
    }
    if (!seen_.insert(word).second) {
      fail(peek().column, fmt::format("'{}' given twice", word));
    }
    take();
    return true;
  }

 private:
  std::set<std::string_view> seen_;
};

// Everything a file says, one list of rows per table, in file order.
#define SR_FACTS_ROWS_(name, Name, K, T, check, capacity) std::vector<T> name;
struct Facts {
  MPLS_SR_STATUS_TABLES(SR_FACTS_ROWS_)
};
#undef SR_FACTS_ROWS_

Sr::GlobalBlock parseBlock(Line& l) {
  const Mpls::RouterId router = l.routerId();
  const auto base = l.numberOf<uint32_t>("a base label", Netbase::MplsLabel::max);
  const uint64_t room = uint64_t{Netbase::MplsLabel::max} + 1 - base;
  const auto size = static_cast<uint32_t>(l.number("a block size", 1, room));
  return Sr::GlobalBlock(router, Mpls::LabelRange(base, size));
}

Sr::PrefixSegment parsePrefix(Line& l) {
  Sr::PrefixSegment p;
  p.keyIs(l.prefix());
  p.sidIs(l.sid());
  if (!l.takeIf("router")) {
    l.expected("'router'");
  }
  p.rtridIs(l.routerId());
  while (!l.atEnd()) {
    if (l.option("flags")) {
      p.flagsIs(l.numberOf<uint8_t>("flags"));
    } else if (l.option("level")) {
      p.levelIs(l.numberOf<uint8_t>("a level", 2));
    } else if (l.option("protection-mode")) {
      p.protectionModeIs(l.numberOf<uint8_t>("a protection mode"));
    } else if (l.option("srlg")) {
      p.protectionSrlgIs(l.numberOf<uint32_t>("an SRLG"));
    } else {
      l.expected("'flags', 'level', 'protection-mode', 'srlg' or end of line");
    }
  }
  return p;
}

Sr::AdjacencySegment parseAdjacency(Line& l) {
  Sr::AdjacencySegment a;
  const SegmentIdentifier sid = l.sid();
  a.keyIs(Sr::AdjacencySegmentKey(sid, l.numberOf<uint32_t>("a source id")));
  while (!l.atEnd()) {
    if (l.option("flags")) {
      a.flagsIs(l.numberOf<uint8_t>("flags"));
    } else if (l.takeIf("neighbor")) {
      if (a.ngbs() == Sr::AdjSegmentNeighborArray::capacity) {
        l.fail(l.peek().column, fmt::format("more than {} neighbours",
                                            Sr::AdjSegmentNeighborArray::capacity));
      }
      const uint64_t systemId = l.systemId();
      a.ngbIs(a.ngbs(), Sr::AdjSegmentNeighbor(systemId, l.numberOf<uint32_t>("a metric")));
    } else {
      l.expected("'flags', 'neighbor' or end of line");
    }
  }
  return a;
}

Sr::AreaSegment parseArea(Line& l, bool v6) {
  Sr::AreaSegment a;
  a.keyIs(l.area());
  a.sidIs(l.sid());
  Sr::AreaSegmentFlags flags;
  flags.isIpv6Is(v6);
  flags.isValueIs(a.sid().isValue());
  while (!l.atEnd()) {
    if (l.option("local")) {
      flags.isLocalIs(true);
    } else if (l.option("fec")) {
      a.fecIdIs(l.numberOf<uint64_t>("a FEC id"));
    } else if (l.takeIf("originator")) {
      if (a.originators() == Sr::AreaSegmentOriginatorArray::capacity) {
        l.fail(l.peek().column, fmt::format("more than {} originators",
                                            Sr::AreaSegmentOriginatorArray::capacity));
      }
      a.originatorIs(a.originators(), l.routerId());
    } else {
      l.expected("'local', 'fec', 'originator' or end of line");
    }
  }
  a.flagsIs(flags);
  return a;
}

Sr::SrRoute parseRoute(Line& l) {
  Sr::SrRoute r;
  r.prefixIs(l.prefix());
  if (!l.takeIf("fec")) {
    l.expected("'fec'");
  }
  r.fecIdIs(l.numberOf<uint64_t>("a FEC id"));
  while (!l.atEnd()) {
    if (l.option("type")) {
      r.routeTypeIs(l.numberOf<uint8_t>("a route type"));
    } else if (l.option("metric-pref")) {
      r.metricPrefIs(l.numberOf<uint32_t>("a metric"));
    } else if (l.option("vrf-id")) {
      r.srcVrfIdIs(l.numberOf<uint32_t>("a VRF id"));
    } else if (l.option("deferred")) {
      r.deferredForMicroloopPreventionIs(true);
    } else if (l.option("pop-and-lookup")) {
      r.popAndLookupRouteIs(true);
    } else {
      l.expected("'type', 'metric-pref', 'vrf-id', 'deferred', 'pop-and-lookup' or end of line");
    }
  }
  return r;
}

class FileParser {
 public:
  void line(Line& l) {
    const Token kind = l.take();
    const uint32_t keyColumn = l.atEnd() ? kind.column : l.peek().column;
    if (kind.text == "block") {
      add(facts_.globalBlock, blocks_, parseBlock(l), l, keyColumn, "a global block of");
    } else if (kind.text == "prefix") {
      add(facts_.prefixSegment, prefixes_, parsePrefix(l), l, keyColumn, "prefix");
    } else if (kind.text == "adjacency") {
      const bool v6 = l.v6();
      const uint32_t at = l.atEnd() ? keyColumn : l.peek().column;
      add(v6 ? facts_.v6AdjSegment : facts_.v4AdjSegment, v6 ? v6Adjacencies_ : v4Adjacencies_,
          parseAdjacency(l), l, at, "adjacency");
    } else if (kind.text == "area") {
      const bool v6 = l.v6();
      const uint32_t at = l.atEnd() ? keyColumn : l.peek().column;
      add(v6 ? facts_.v6AreaSegment : facts_.v4AreaSegment, v6 ? v6Areas_ : v4Areas_,
          parseArea(l, v6), l, at, "area");
    } else if (kind.text == "route") {
      add(facts_.srRoute, routes_, parseRoute(l), l, keyColumn, "route");
    } else {
      l.fail(kind.column, fmt::format("expected 'block', 'prefix', 'adjacency', 'area' or "
                                      "'route', found {}",
                                      Kel::quoted(kind.text)));
    }
  }

  Facts facts() && { return std::move(facts_); }

 private:
  // Adds `row`, refusing a key that an earlier line gave.
  template <class Row, class Key>
  void add(std::vector<Row>& rows, std::map<Key, uint32_t>& lines, const Row& row, const Line& l,
           uint32_t column, std::string_view what) {
    auto [it, added] = lines.emplace(row.key(), l.line());
    if (!added) {
      l.fail(column, fmt::format("{} {} is already given on line {}", what, keyText(row.key()),
                                 it->second));
    }
    rows.push_back(row);
  }
  static std::string keyText(const Netbase::IpGenPrefix& p) { return p.stringValue(); }
  static std::string keyText(const Mpls::RouterId& r) { return r.stringValue(); }
  static std::string keyText(const Routing::Isis::AreaId& a) { return a.stringValue(); }
  static std::string keyText(const Sr::AdjacencySegmentKey& k) {
    return fmt::format("{} {}", Sr::sidString(k.sid()), k.srcId());
  }

  Facts facts_;
  std::map<Mpls::RouterId, uint32_t> blocks_;
  std::map<Netbase::IpGenPrefix, uint32_t> prefixes_;
  std::map<Netbase::IpGenPrefix, uint32_t> routes_;
  std::map<Sr::AdjacencySegmentKey, uint32_t> v4Adjacencies_;
  std::map<Sr::AdjacencySegmentKey, uint32_t> v6Adjacencies_;
  std::map<Routing::Isis::AreaId, uint32_t> v4Areas_;
  std::map<Routing::Isis::AreaId, uint32_t> v6Areas_;
};

Facts readFacts(const std::string& path) {
  return parseLineFile(path, kFileKind, [](std::string_view text, const std::string& name) {
    FileParser parser;
    forEachLine<Line>(text, name, kFileKind, [&](Line& l) { parser.line(l); });
    return std::move(parser).facts();
  });
}

// ---------------------------------------------------------------------------------------
// Writing.

struct Tally {
  uint64_t written = 0;
  uint64_t unchanged = 0;
  uint64_t deleted = 0;
};

// Makes `table` hold `rows` and nothing else, through the entity's own operations.
template <class K, class T, class Is, class Del>
void replaceRows(const Pond::PondMap<K, T>& table, const std::vector<T>& rows, Is is, Del del,
                 Tally& tally) {
  std::set<K> keep;
  for (const T& row : rows) {
    keep.insert(row.key());
  }
  std::vector<K> stale;
  table.forEach([&](const T& row) {
    if (!keep.contains(row.key())) {
      stale.push_back(row.key());
    }
  });
  for (const K& key : stale) {
    del(key);
  }
  tally.deleted += stale.size();
  for (const T& row : rows) {
    T old;
    if (table.find(row.key(), old) && old == row) {
      ++tally.unchanged;
    } else {
      is(row);
      ++tally.written;
    }
  }
}

#define SR_REPLACE_(name, Name, K, T, check, capacity)                                         \
  replaceRows(*status.name##Table(), facts.name, [&](const T& r) { status.name##Is(r); }, \
              [&](const K& k) { status.name##Del(k); }, tally);
void publishFacts(Sr::Status& status, const Facts& facts, Tally& tally) {
  MPLS_SR_STATUS_TABLES(SR_REPLACE_)
}
#undef SR_REPLACE_

std::string groupOf(const std::string& table) {
  try {
    return Sr::statusGroupName(table);
  } catch (const Pond::SegmentError& e) {
    throw CommandError(e.what());
  }
}

// ---------------------------------------------------------------------------------------
// Reading.

// Rows of a table, in key order.
template <class K, class T>
std::vector<T> sortedRows(const Pond::PondMap<K, T>* table) {
  std::vector<T> rows;
  if (table) {
    table->forEach([&](const T& row) { rows.push_back(row); });
  }
  std::sort(rows.begin(), rows.end(), [](const T& a, const T& b) { return a.key() < b.key(); });
  return rows;
}

// The label a prefix segment resolves to at its advertising router: none without the
// router's global block (an absolute SID needs none), for an index beyond the block or a
// result beyond the label space.
std::optional<uint32_t> prefixLabel(const Sr::Status& status, const Sr::PrefixSegment& p) {
  Sr::GlobalBlock block;
  if (!p.sid().isValue() && !status.globalBlockTable()->find(p.rtrid(), block)) {
    return std::nullopt;
  }
  try {
    const Netbase::MplsLabel label = block.mplsLabel(p.sid());
    return label.isLabel() ? std::optional<uint32_t>(label.value()) : std::nullopt;
  } catch (const Kel::RangeException&) {
    return std::nullopt;
  }
}

nlohmann::json sidJson(const SegmentIdentifier& sid) {
  return {{sid.isValue() ? "label" : "index", sid.value()}};
}

// Everything the tables hold, as `show` prints it.
struct View {
  std::vector<Sr::GlobalBlock> blocks;
  std::vector<Sr::PrefixSegment> prefixes;
  std::vector<std::pair<const char*, Sr::AdjacencySegment>> adjacencies;
  std::vector<std::pair<const char*, Sr::AreaSegment>> areas;
  std::vector<Sr::SrRoute> routes;
};

View viewOf(const Sr::Status& s) {
  View v{sortedRows(s.globalBlockTable()), sortedRows(s.prefixSegmentTable()), {}, {},
         sortedRows(s.srRouteTable())};
  for (const auto& [family, table] : {std::pair{"v4", s.v4AdjSegmentTable()},
                                      std::pair{"v6", s.v6AdjSegmentTable()}}) {
    for (const Sr::AdjacencySegment& a : sortedRows(table)) {
      v.adjacencies.emplace_back(family, a);
    }
  }
  for (const auto& [family, table] : {std::pair{"v4", s.v4AreaSegmentTable()},
                                      std::pair{"v6", s.v6AreaSegmentTable()}}) {
    for (const Sr::AreaSegment& a : sortedRows(table)) {
      v.areas.emplace_back(family, a);
    }
  }
  return v;
}

std::string blockText(const Mpls::LabelRange& r) {
  return r.size() == 0 ? "empty"
                       : fmt::format("{}-{}", r.base().value(),
                                     uint64_t{r.base().value()} + r.size() - 1);
}

void printJson(const Sr::Status& s, const View& v) {
  nlohmann::json out = {{"table", s.name()}};
  auto& blocks = out["globalBlocks"] = nlohmann::json::array();
  for (const Sr::GlobalBlock& b : v.blocks) {
    blocks.push_back({{"router", b.key().stringValue()},
                      {"base", b.labelRange().base().value()},
                      {"size", b.labelRange().size()}});
  }
  auto& prefixes = out["prefixSegments"] = nlohmann::json::array();
  for (const Sr::PrefixSegment& p : v.prefixes) {
    const std::optional<uint32_t> label = prefixLabel(s, p);
    prefixes.push_back({{"prefix", p.key().stringValue()},
                        {"sid", sidJson(p.sid())},
                        {"router", p.rtrid().stringValue()},
                        {"label", label ? nlohmann::json(*label) : nlohmann::json(nullptr)},
                        {"flags", p.flags()},
                        {"level", p.level()},
                        {"protectionMode", p.protectionMode()},
                        {"protectionSrlg", p.protectionSrlg()},
                        {"needProtection", p.needProtection()}});
  }
  auto& adjacencies = out["adjacencySegments"] = nlohmann::json::array();
  for (const auto& [family, a] : v.adjacencies) {
    nlohmann::json neighbors = nlohmann::json::array();
    for (const Sr::AdjSegmentNeighbor& n : a.ngb()) {
      neighbors.push_back({{"systemId", Sr::systemIdString(n.systemId())}, {"metric", n.metric()}});
    }
    adjacencies.push_back({{"family", family},
                           {"sid", sidJson(a.key().sid())},
                           {"srcId", a.key().srcId()},
                           {"flags", a.flags()},
                           {"neighbors", neighbors}});
  }
  auto& areas = out["areaSegments"] = nlohmann::json::array();
  for (const auto& [family, a] : v.areas) {
    nlohmann::json originators = nlohmann::json::array();
    for (const Mpls::RouterId& r : a.originator()) {
      originators.push_back(r.stringValue());
    }
    areas.push_back({{"family", family},
                     {"area", a.key().stringValue()},
                     {"sid", sidJson(a.sid())},
                     {"local", a.flags().isLocal()},
                     {"fecId", a.fecId().value()},
                     {"originators", originators}});
  }
  auto& routes = out["routes"] = nlohmann::json::array();
  for (const Sr::SrRoute& r : v.routes) {
    routes.push_back({{"prefix", r.prefix().stringValue()},
                      {"fecId", r.fecId().value()},
                      {"routeType", r.routeType()},
                      {"metricPref", r.metricPref()},
                      {"srcVrfId", r.srcVrfId()},
                      {"deferredForMicroloopPrevention", r.deferredForMicroloopPrevention()},
                      {"popAndLookupRoute", r.popAndLookupRoute()}});
  }
  std::printf("%s\n", out.dump(2).c_str());
}

void printText(const Sr::Status& s, const View& v) {
  fmt::print("global blocks #{}\n", v.blocks.size());
  for (const Sr::GlobalBlock& b : v.blocks) {
    fmt::print("  {:<21} {}\n", b.key().stringValue(), blockText(b.labelRange()));
  }
  fmt::print("prefix segments #{}\n", v.prefixes.size());
  for (const Sr::PrefixSegment& p : v.prefixes) {
    const std::optional<uint32_t> label = prefixLabel(s, p);
    fmt::print("  {:<20} {:<16} router {:<21} label {:<7} flags {:#04x} level {} {}\n",
               p.key().stringValue(), Sr::sidString(p.sid()), p.rtrid().stringValue(),
               label ? std::to_string(*label) : "none", p.flags(), p.level(),
               p.needProtection() ? fmt::format("protected (mode {}, srlg {})", p.protectionMode(),
                                                p.protectionSrlg())
                                  : "unprotected");
  }
  fmt::print("adjacency segments #{}\n", v.adjacencies.size());
  for (const auto& [family, a] : v.adjacencies) {
    std::string neighbors;
    for (const Sr::AdjSegmentNeighbor& n : a.ngb()) {
      neighbors += fmt::format(" {} metric {}", Sr::systemIdString(n.systemId()), n.metric());
    }
    fmt::print("  {} {} src {} flags {:#04x} neighbors{}\n", family, Sr::sidString(a.key().sid()),
               a.key().srcId(), a.flags(), neighbors.empty() ? " none" : neighbors);
  }
  fmt::print("area segments #{}\n", v.areas.size());
  for (const auto& [family, a] : v.areas) {
    std::string originators;
    for (const Mpls::RouterId& r : a.originator()) {
      originators += " " + r.stringValue();
    }
    fmt::print("  {} {} {}{} fec {} originators{}\n", family, a.key().stringValue(),
               Sr::sidString(a.sid()), a.flags().isLocal() ? " local" : "", a.fecId().value(),
               originators.empty() ? " none" : originators);
  }
  fmt::print("routes #{}\n", v.routes.size());
  for (const Sr::SrRoute& r : v.routes) {
    fmt::print("  {:<20} fec {} type {} metric-pref {} vrf-id {}{}{}\n", r.prefix().stringValue(),
               r.fecId().value(), r.routeType(), r.metricPref(), r.srcVrfId(),
               r.deferredForMicroloopPrevention() ? " deferred" : "",
               r.popAndLookupRoute() ? " pop-and-lookup" : "");
  }
}

}  // namespace

int runSrPublish(const SrOptions& options) {
  const std::string group = groupOf(options.table);
  const Facts facts = readFacts(options.file);
  Kel::Ptr<Pond::MountGroup> writer;
  try {
    writer = Pond::MountGroup::writer(group);
  } catch (const Pond::WriterExistsError& e) {
    throw CommandError(fmt::format("segment-routing tables '{}' have a live writer process: {}",
                                   options.table, e.what()));
  }
  Sr::Status::Ptr status = Sr::statusFactory(options.table);
  try {
    status->mountGroupIs(writer,
                         existingSizing(group, Sr::TableInfo::srStatusInfo(Pond::Role::writer)));
  } catch (const Pond::SegmentError& e) {
    throw CommandError(fmt::format("{}: nothing published ('mplsctl sr clear --table {}' removes "
                                   "the tables)",
                                   e.what(), options.table));
  }
  Tally tally;
  {
    // A write a table refuses (full) takes the whole file back.
    Pond::UndoLog undo(writer);
    try {
      publishFacts(*status, facts, tally);
    } catch (const std::exception& e) {
      undo.rollback();
      writer->publish();
      throw CommandError(fmt::format("{}: nothing published", e.what()));
    }
  }
  writer->publish();
  std::printf(
      "segment routing '%s': %zu global blocks, %zu prefix segments, %zu adjacency segments, "
      "%zu area segments, %zu routes (%llu rows written, %llu unchanged, %llu deleted)\n",
      options.table.c_str(), facts.globalBlock.size(), facts.prefixSegment.size(),
      facts.v4AdjSegment.size() + facts.v6AdjSegment.size(),
      facts.v4AreaSegment.size() + facts.v6AreaSegment.size(), facts.srRoute.size(),
      static_cast<unsigned long long>(tally.written),
      static_cast<unsigned long long>(tally.unchanged),
      static_cast<unsigned long long>(tally.deleted));
  return 0;
}

int runSrShow(const SrOptions& options) {
  const std::string group = groupOf(options.table);
  Sr::Status::Ptr status = Sr::statusFactory(options.table);
  mountTableSetReader(*status, group, kKind, options.table,
                      fmt::format("mplsctl sr clear --table {}", options.table),
                      KelPond::Changes::ignored);
  size_t damaged = 0;
  status->tableCorruptionHandlerIs([&](const std::string& text) {
    if (++damaged <= 20) {
      std::fprintf(stderr, "mplsctl: segment-routing tables '%s' are damaged: %s\n",
                   options.table.c_str(), text.c_str());
    }
  });
  const View view = viewOf(*status);
  if (options.json) {
    printJson(*status, view);
  } else {
    printText(*status, view);
  }
  return damaged ? 1 : 0;
}

int runSrClear(const SrOptions& options) {
  const std::string group = groupOf(options.table);
  const size_t removed = removeTableSets({group}, kKind, options.table);
  std::printf("segment routing '%s': removed %zu shared-memory segments\n", options.table.c_str(),
              removed);
  return 0;
}

void addSrCommands(CLI::App& app, std::function<int()>& run) {
  auto options = std::make_shared<SrOptions>();
  CLI::App* sr = app.add_subcommand(
      "sr", "Segment-routing tables: prefix, adjacency and area segments, global blocks, routes");
  sr->require_subcommand(1);
  auto command = [&](const char* name, const char* help, int (*runCommand)(const SrOptions&)) {
    CLI::App* c = sr->add_subcommand(name, help);
    c->add_option("--table", options->table,
                  "Name of the table set (its mount group is sr/status/NAME)")
        ->default_val("default");
    c->callback([&run, options, runCommand] { run = [options, runCommand] { return runCommand(*options); }; });
    return c;
  };
  CLI::App* publish = command(
      "publish",
      "Publish the facts of a segment-routing file as the tables' one writer, replacing what "
      "was published (rows the file lacks are deleted); a file with an error publishes nothing",
      &runSrPublish);
  publish->add_option("FILE", options->file, "Segment-routing file, one fact per line; - for "
                                             "standard input")
      ->required();
  publish->footer(
      "One fact per line ('#' comments):\n"
      "  block ROUTER-ID BASE SIZE\n"
      "  prefix PREFIX SID router ROUTER-ID [flags N] [level N] [protection-mode N] [srlg N]\n"
      "  adjacency v4|v6 SID SRC-ID [flags N] [neighbor SYSTEM-ID METRIC]...\n"
      "  area v4|v6 AREA SID [local] [fec N] [originator ROUTER-ID]...\n"
      "  route PREFIX fec N [type N] [metric-pref N] [vrf-id N] [deferred] [pop-and-lookup]\n"
      "SID is 'index N' or 'label N'; ROUTER-ID 10.0.0.1 or 10.0.0.1:0; SYSTEM-ID "
      "1921.6800.1002; AREA 49.0001");
  CLI::App* show = command(
      "show",
      "Print the global blocks, the prefix segments with the label each resolves to, the "
      "adjacency and area segments and the routes",
      &runSrShow);
  show->add_flag("--json", options->json, "Print JSON");
  command("clear", "Remove the tables' shared-memory segments", &runSrClear);
}

}  // namespace Mplsctl
