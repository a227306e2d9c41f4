#include "tools/mplsctl/RouteFile.h"

#include <absl/strings/str_join.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "Kel/Exception.h"
#include "Kel/Quote.h"

namespace Mplsctl {

namespace {

using namespace Mpls;
using Hop = RouteList::Hop;

constexpr uint32_t kMaxStackLabels = 16;
constexpr uint32_t kMaxWeight = 255;
constexpr uint32_t kMaxVias = 128;

// From this size on, the second half of a file is parsed on a thread of its own.
constexpr size_t kThreadedBytes = size_t{256} << 10;

struct SourceName {
  LFib::Source source;
  const char* name;
};
constexpr SourceName kSources[] = {
    {LFib::sourceStatic, "static"},         {LFib::sourceLdp, "ldp"},
    {LFib::sourceRsvp, "rsvp"},             {LFib::sourceBgpLu, "bgp-lu"},
    {LFib::sourceIsisSr, "isis-sr"},        {LFib::sourceOspfSr, "ospf-sr"},
    {LFib::sourceBgp, "bgp"},               {LFib::sourceEvpn, "evpn"},
    {LFib::sourceMldp, "mldp"},             {LFib::sourcePseudowire, "pseudowire"},
    {LFib::sourceVrfLabel, "vrf-label"},    {LFib::sourceSrTe, "sr-te"},
    {LFib::sourceTiLfa, "ti-lfa"},
};

// What one line says, its storage reused from line to line.
struct RouteLine {
  uint32_t label = 0;
  // The action: the words after the incoming label.
  LfibViaType viaType = viaTypeMplsIp;
  Netbase::MplsLabelAction labelAction = Netbase::labelActionPop;
  Netbase::MplsLabelStack stack;
  std::optional<LfibIpLookupVia> lookup;
  std::optional<Netbase::IntfId> pseudowire;
  // The rest of the line: the vias (of a swap, push or pop route) and the options.
  std::vector<Hop> hops;
  std::optional<LFib::Source> source;
  std::optional<uint32_t> metric;
  uint32_t metricColumn = 0;

  void clear() {
    viaType = viaTypeMplsIp;
    labelAction = Netbase::labelActionPop;
    stack.clear();
    lookup.reset();
    pseudowire.reset();
    hops.clear();
    source.reset();
    metric.reset();
    metricColumn = 0;
  }
};

// LABEL ('/' LABEL)*, after `after`, into `stack`.
void labelStack(LineParser& p, std::string_view after, Netbase::MplsLabelStack& stack) {
  auto what = [&] { return fmt::format("a label after {}", Kel::quoted(after)); };
  if (p.atEnd()) {
    p.expected(what());
  }
  const Token t = p.peek();
  size_t pos = 0;
  while (true) {
    size_t slash = t.text.find('/', pos);
    std::string_view part = t.text.substr(pos, slash == std::string_view::npos ? slash : slash - pos);
    const uint32_t column = t.column + static_cast<uint32_t>(pos);
    uint32_t value = 0;
    auto [ptr, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
    if (part.empty() || (ec != std::errc() && ec != std::errc::result_out_of_range) ||
        ptr != part.data() + part.size()) {
      p.fail(column, fmt::format("expected {}, found {}",
                                 stack.empty() ? what() : "a label after '/'",
                                 Kel::quoted(part.empty() ? t.text : part)));
    }
    if (ec == std::errc::result_out_of_range || value > Netbase::MplsLabel::max) {
      p.fail(column, fmt::format("label {} out of range 0..{}", Kel::quoted(part), Netbase::MplsLabel::max));
    }
    if (stack.size() == kMaxStackLabels) {
      p.fail(column, fmt::format("label stack {} has more than {} labels", Kel::quoted(t.text),
                               kMaxStackLabels));
    }
    stack.push_back(Netbase::MplsLabel(value));
    if (slash == std::string_view::npos) {
      break;
    }
    pos = slash + 1;
  }
  p.take();
}

// The order of a route's vias: by next hop, then interface.
bool hopLess(const Hop& a, const Hop& b) {
  return a.address != b.address ? a.address < b.address : a.intf < b.intf;
}

// "[vrf NAME] (ipv4|ipv6|auto)", after "pop lookup".
LfibIpLookupVia parseLookup(LineParser& p) {
  L3::VrfName vrf = L3::VrfName::defaultVrf();
  const bool vrfGiven = p.peekIs("vrf");
  if (vrfGiven) {
    p.take();
    if (!p.atEnd() && p.peek().text.size() > L3::VrfName::maxLength()) {
      p.fail(p.peek().column, fmt::format("VRF name {} longer than {} bytes",
                                          Kel::quoted(p.peek().text), L3::VrfName::maxLength()));
    }
    vrf = p.parsed<L3::VrfName>("a VRF name after 'vrf'");
  }
  PayloadType payload = payloadTypeIpv4;
  if (p.peekIs("ipv4")) {
    payload = payloadTypeIpv4;
  } else if (p.peekIs("ipv6")) {
    payload = payloadTypeIpv6;
  } else if (p.peekIs("auto")) {
    payload = payloadTypeAutoDecide;
  } else {
    p.expected(vrfGiven ? "'ipv4', 'ipv6' or 'auto' after the VRF name"
                        : "'vrf', 'ipv4', 'ipv6' or 'auto' after 'lookup'");
  }
  p.take();
  return LfibIpLookupVia(LfibViaKey(), vrf, payload);
}

void parseAction(LineParser& p, RouteLine& r) {
  if (p.atEnd()) {
    p.expected("'swap', 'push', 'pop' or 'pseudowire'");
  }
  const Token word = p.peek();
  if (word.text == "swap" || word.text == "push") {
    p.take();
    r.labelAction = word.text == "swap" ? Netbase::labelActionSwap : Netbase::labelActionPush;
    labelStack(p, word.text, r.stack);
  } else if (word.text == "pop") {
    p.take();
    if (p.peekIs("lookup")) {
      p.take();
      r.viaType = viaTypeIpLookup;
      r.lookup = parseLookup(p);
    }
  } else if (word.text == "pseudowire") {
    p.take();
    r.viaType = viaTypeMplsPseudowire;
    p.keyword("dev", "after 'pseudowire'");
    r.pseudowire = p.parsed<Netbase::IntfId>("an interface name after 'dev'");
  } else {
    p.expected("'swap', 'push', 'pop' or 'pseudowire'");
  }
}

// `text` as a dotted-quad IPv4 address as inet_pton reads it (four numbers of 0 to 255,
// without leading zeros); false for anything else, which may still be an address.
bool dottedQuad(std::string_view text, uint32_t& address) {
  uint32_t value = 0;
  size_t i = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (i == text.size() || text[i] != '.') {
        return false;
      }
      ++i;
    }
    const size_t start = i;
    uint32_t number = 0;
    while (i < text.size() && i - start < 3 && text[i] >= '0' && text[i] <= '9') {
      number = number * 10 + static_cast<uint32_t>(text[i] - '0');
      ++i;
    }
    if (i == start || number > 255 || (i - start > 1 && text[start] == '0')) {
      return false;
    }
    value = value << 8 | number;
  }
  if (i != text.size()) {
    return false;
  }
  address = value;
  return true;
}

// The next hop after "via": the common IPv4 form read here, the others by IpGenAddr.
Netbase::IpGenAddr nextHop(LineParser& p) {
  uint32_t v4 = 0;
  if (!p.atEnd() && dottedQuad(p.peek().text, v4)) {
    p.take();
    return Netbase::IpGenAddr::ipv4(v4);
  }
  return p.parsed<Netbase::IpGenAddr>("an IPv4 or IPv6 address after 'via'");
}

// "via ADDRESS dev INTF [weight N]", from its "via" (`at`); weights of one next hop add up.
void parseVia(LineParser& p, const Token& at, std::vector<Hop>& hops) {
  p.take();
  Hop hop{nextHop(p), {}, 0};
  p.keyword("dev", "after the next hop");
  hop.intf = p.parsed<Netbase::IntfId>("an interface name after 'dev'");
  uint32_t weight = 1;
  if (p.peekIs("weight")) {
    p.take();
    weight = p.number("a weight after 'weight'", "weight", 1, kMaxWeight);
  }
  auto same = std::find_if(hops.begin(), hops.end(), [&](const Hop& h) {
    return h.intf == hop.intf && h.address == hop.address;
  });
  if (same == hops.end()) {
    same = hops.insert(hops.end(), hop);
  }
  if (same->weight + weight > kMaxWeight) {
    p.fail(at.column, fmt::format("via {} dev {} has a total weight above {}",
                                  hop.address.stringValue(), hop.intf.stringValue(), kMaxWeight));
  }
  same->weight += weight;
  if (hops.size() > kMaxVias) {
    p.fail(at.column, fmt::format("more than {} vias", kMaxVias));
  }
}

// "source NAME".
LFib::Source parseSource(LineParser& p) {
  p.take();
  if (p.atEnd()) {
    p.expected("a source name after 'source'");
  }
  for (const SourceName& s : kSources) {
    if (p.peek().text == s.name) {
      p.take();
      return s.source;
    }
  }
  p.expected("a source name (static, ldp, rsvp, bgp-lu, isis-sr, ospf-sr, bgp, evpn, mldp, "
             "pseudowire, vrf-label, sr-te, ti-lfa) after 'source'");
}

// What may come next, for the error at a word that is none of it.
std::string expectedNext(const RouteLine& r, bool takesVias) {
  if (takesVias && r.hops.empty()) {
    return "'via'";
  }
  std::vector<std::string> words;
  if (takesVias && !r.source && !r.metric) {
    words.push_back("'via'");
  }
  if (!r.source) {
    words.push_back("'source'");
  }
  if (!r.metric) {
    words.push_back("'metric'");
  }
  return words.empty() ? "end of line" : absl::StrJoin(words, ", ") + " or end of line";
}

void parseOptions(LineParser& p, RouteLine& r) {
  const bool takesVias = r.viaType == viaTypeMplsIp;
  while (!p.atEnd()) {
    const Token t = p.peek();
    if (t.text == "via" && takesVias && !r.source && !r.metric) {
      parseVia(p, t, r.hops);
    } else if (t.text == "source" && !r.source) {
      r.source = parseSource(p);
    } else if (t.text == "metric" && !r.metric) {
      p.take();
      r.metricColumn = p.atEnd() ? 0 : p.peek().column;
      r.metric = p.number("a metric after 'metric'", "metric", 0, 255);
    } else {
      p.expected(expectedNext(r, takesVias));
    }
  }
  if (takesVias && r.hops.empty()) {
    p.expected("'via'");
  }
  if (r.viaType == viaTypeIpLookup && r.metric.value_or(0) != 0) {
    p.fail(r.metricColumn, "a lookup route takes metric 0 only");
  }
  if (r.hops.size() > 1) {
    std::sort(r.hops.begin(), r.hops.end(), hopLess);
  }
}

// "LABEL ACTION [VIAS] [OPTIONS]".
void parseRoute(LineParser& p, RouteLine& r) {
  r.clear();
  r.label = p.number("an incoming label", "incoming label", Netbase::MplsLabel::firstUnreserved,
                     Netbase::MplsLabel::max);
  parseAction(p, r);
  parseOptions(p, r);
}

size_t lineBreaks(std::string_view text) {
  size_t breaks = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  while ((at = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at))))) {
    ++breaks;
    ++at;
  }
  return breaks;
}

// Line `line` of `text` (1 for the first), without its line break.
std::string_view lineOf(std::string_view text, uint32_t line) {
  size_t start = 0;
  for (uint32_t n = 1; n < line; ++n) {
    start = text.find('\n', start) + 1;
  }
  const size_t end = text.find('\n', start);
  return text.substr(start, end == std::string_view::npos ? end : end - start);
}

// The length of the record of `via` in its table; 0 for a row of fixed size.
template <class V>
uint32_t recordLen(const V& via) {
  if constexpr (requires { via.serializeLen(); }) {
    return via.serializeLen();
  } else {
    return 0;
  }
}

// One bit per key, zeroed by the allocator: the pages of keys never set cost nothing.
class KeyBits {
 public:
  explicit KeyBits(uint32_t keyBits)
      : words_(static_cast<uint64_t*>(std::calloc((size_t{1} << keyBits) / 64, sizeof(uint64_t)))) {
    if (!words_) {
      throw std::bad_alloc();
    }
  }
  // Sets the bit of `key`; false when it was set already.
  bool insert(uint32_t key) {
    uint64_t& word = words_.get()[key / 64];
    const uint64_t bit = uint64_t{1} << (key % 64);
    const bool fresh = (word & bit) == 0;
    word |= bit;
    return fresh;
  }

 private:
  struct Free {
    void operator()(uint64_t* p) const { std::free(p); }
  };
  std::unique_ptr<uint64_t, Free> words_;
};

}  // namespace

// Fills a RouteList.
class RouteListParser {
 public:
  static RouteList parse(std::string_view text, const std::string& fileName, RouteFileUse use);

 private:
  using Piece = RouteList::Piece;

  // The routes of `text`, whose first line is line `firstLine` of the file, into `piece`
  // up to the first line in error, whose error goes to `error`.
  // `lines` is how many `text` holds, if known (0 otherwise).
  static void parsePiece(std::string_view text, const std::string& fileName, uint32_t firstLine,
                         size_t lines, Piece& piece, std::exception_ptr& error) noexcept {
    try {
      if (lines == 0) {
        lines = lineBreaks(text) + 1;
      }
      piece.entries.reserve(lines);
      piece.hops.reserve(2 * lines);
      piece.labels.reserve(lines);
      preferHugePages(piece.entries.data(), piece.entries.capacity() * sizeof(RouteList::Entry));
      preferHugePages(piece.hops.data(), piece.hops.capacity() * sizeof(Hop));
      preferHugePages(piece.labels.data(), piece.labels.capacity() * sizeof(Netbase::MplsLabel));
      RouteLine r;
      forEachLine(
          text, fileName, "route file",
          [&](LineParser& p) {
            parseRoute(p, r);
            add(piece, r, p.line());
          },
          firstLine);
    } catch (...) {
      error = std::current_exception();
    }
  }

  static void add(Piece& piece, const RouteLine& r, uint32_t line) {
    RouteList::Entry e{};
    e.label = r.label;
    e.line = line;
    e.viaType = static_cast<uint8_t>(r.viaType);
    e.labelAction = static_cast<uint8_t>(r.labelAction);
    e.source = static_cast<uint8_t>(r.source.value_or(LFib::sourceStatic));
    e.sourceGiven = r.source.has_value();
    e.metric = static_cast<uint8_t>(r.metric.value_or(0));
    e.hops = 1;
    if (r.lookup) {
      e.first = static_cast<uint32_t>(piece.lookups.size());
      piece.lookups.push_back(*r.lookup);
    } else if (r.pseudowire) {
      e.first = static_cast<uint32_t>(piece.pseudowires.size());
      piece.pseudowires.push_back(*r.pseudowire);
    } else {
      e.first = static_cast<uint32_t>(piece.hops.size());
      e.hops = static_cast<uint16_t>(r.hops.size());
      piece.hops.insert(piece.hops.end(), r.hops.begin(), r.hops.end());
      e.firstLabel = static_cast<uint32_t>(piece.labels.size());
      e.stackLabels = static_cast<uint8_t>(r.stack.size());
      piece.labels.insert(piece.labels.end(), r.stack.begin(), r.stack.end());
    }
    piece.entries.push_back(e);
  }

  // The first route that routes a key of the ones before it again (keys by `use`), as the
  // error of its line.
  static void refuseRepeats(const RouteList& list, std::string_view text,
                            const std::string& fileName, RouteFileUse use);
};

RouteList RouteListParser::parse(std::string_view text, const std::string& fileName,
                                 RouteFileUse use) {
  // Two halves: the second starts after the first line break from the middle on.
  size_t split = text.find('\n', text.size() / 2);
  split = split == std::string_view::npos ? text.size() : split + 1;
  const std::string_view halves[2] = {text.substr(0, split), text.substr(split)};
  const size_t firstLines = lineBreaks(halves[0]);
  const uint32_t secondLine = static_cast<uint32_t>(firstLines + 1);

  RouteList list;
  list.pieces_.resize(2);
  std::exception_ptr errors[2];
  std::optional<std::thread> second;
  if (text.size() >= kThreadedBytes) {
    try {
      second.emplace(
          [&] { parsePiece(halves[1], fileName, secondLine, 0, list.pieces_[1], errors[1]); });
    } catch (const std::system_error&) {
      // No thread to be had: the calling thread parses both.
    }
  }
  parsePiece(halves[0], fileName, 1, firstLines + 1, list.pieces_[0], errors[0]);
  if (second) {
    second->join();
  } else if (!errors[0]) {
    parsePiece(halves[1], fileName, secondLine, 0, list.pieces_[1], errors[1]);
  }
  // The second half follows the first line in error, if the first half has it.
  if (errors[0]) {
    list.pieces_.pop_back();
  }
  for (const Piece& piece : list.pieces_) {
    list.size_ += piece.entries.size();
  }
  // Every route held comes before the first line in error: a route repeated among them is
  // the first error of the file.
  refuseRepeats(list, text, fileName, use);
  for (const std::exception_ptr& error : errors) {
    if (error) {
      std::rethrow_exception(error);
    }
  }
  return list;
}

void RouteListParser::refuseRepeats(const RouteList& list, std::string_view text,
                                    const std::string& fileName, RouteFileUse use) {
  // label, or label and metric (above the label's 20 bits)
  const bool byMetric = use == RouteFileUse::config;
  auto keyOf = [&](const RouteList::Route& r) {
    return byMetric ? r.label() | r.metric() << 20 : r.label();
  };
  KeyBits seen(byMetric ? 28 : 20);
  std::optional<RouteList::Route> repeat;
  for (const Piece& piece : list.pieces_) {
    for (const RouteList::Entry& e : piece.entries) {
      if (!seen.insert(keyOf(RouteList::Route(piece, e)))) {
        repeat = RouteList::Route(piece, e);
        break;
      }
    }
    if (repeat) {
      break;
    }
  }
  if (!repeat) {
    return;
  }
  uint32_t firstLine = 0;
  list.forEach([&](const RouteList::Route& r) {
    if (firstLine == 0 && keyOf(r) == keyOf(*repeat)) {
      firstLine = r.line();
    }
  });
  const std::string_view line = lineOf(text, repeat->line());
  const uint32_t labelColumn = static_cast<uint32_t>(line.find_first_not_of(" \t\r") + 1);
  throw LineFileError(
      fileName, repeat->line(), labelColumn,
      byMetric ? fmt::format("label {} metric {} is already routed on line {}", repeat->label(),
                             repeat->metric(), firstLine)
               : fmt::format("label {} is already routed on line {}", repeat->label(), firstLine));
}

uint32_t RouteList::Route::viaRecords() const {
  if (viaType() != viaTypeMplsIp) {
    return 1;
  }
  uint32_t records = 0;
  for (uint32_t h = 0; h < e_->hops; ++h) {
    records += p_->hops[e_->first + h].weight;
  }
  return records;
}

uint32_t RouteList::Route::viaRecordLen() const {
  switch (viaType()) {
    case viaTypeIpLookup:
      return recordLen(p_->lookups[e_->first]);
    case viaTypeMplsPseudowire:
      return recordLen(LfibPwVia(LfibViaKey(), p_->pseudowires[e_->first]));
    default: {
      const auto action = static_cast<Netbase::MplsLabelAction>(e_->labelAction);
      const Netbase::MplsLabel* labels = p_->labels.data() + e_->firstLabel;
      return recordLen(
          LfibMplsVia(LfibViaKey(), p_->hops[e_->first].address, action,
                      Netbase::UnboundedMplsLabelOperation(
                          action, Netbase::MplsLabelStack(labels, labels + e_->stackLabels)),
                      false));
    }
  }
}

void RouteList::Route::lfibRouteIn(ConsolidatedLfibRoute& out) const {
  out.keyIs(RouteKey(Netbase::MplsLabel(e_->label)));
  out.sourceIs(source());
  out.fecIs(FwdEqvClass());
  out.metricIs(RouteMetric(e_->metric));
  out.viaTypeIs(viaType());
  out.viaSetTypeIs(viaSetTypeEcmp);
  out.mplsViaDelAll();
  out.pwViaDelAll();
  out.ipLookupViaDelAll();
  out.extFecViaDelAll();
  switch (viaType()) {
    case viaTypeIpLookup:
      out.ipLookupViaIs(p_->lookups[e_->first]);
      return;
    case viaTypeMplsPseudowire:
      out.pwViaIs(LfibPwVia(LfibViaKey(), p_->pseudowires[e_->first]));
      return;
    default:
      break;
  }
  // The LFIB writer derives a via's weight from the number of equal vias it is given.
  const auto action = static_cast<Netbase::MplsLabelAction>(e_->labelAction);
  const Netbase::MplsLabel* labels = p_->labels.data() + e_->firstLabel;
  const Netbase::UnboundedMplsLabelOperation operation(
      action, Netbase::MplsLabelStack(labels, labels + e_->stackLabels));
  for (uint32_t h = 0; h < e_->hops; ++h) {
    const Hop& hop = p_->hops[e_->first + h];
    LfibMplsVia via(LfibViaKey(), hop.address, action, operation, false);
    via.intfIs(hop.intf);
    for (uint32_t w = 1; w <= hop.weight; ++w) {
      via.weightIs(w);
      out.mplsViaIs(via);
    }
    if (hop.weight > 1) {
      out.viaSetTypeIs(viaSetTypeUcmp);
    }
  }
}

Mpls::Route RouteList::Route::config() const {
  Mpls::Route config;
  config.keyIs(RouteKeyAndMetric(RouteKey(Netbase::MplsLabel(e_->label)), RouteMetric(e_->metric)));
  switch (viaType()) {
    case viaTypeIpLookup: {
      const LfibIpLookupVia& lookup = p_->lookups[e_->first];
      config.actionIs(routeActionLookup);
      config.vrfNameIs(lookup.vrfName());
      config.payloadTypeIs(lookup.payloadType());
      return config;
    }
    case viaTypeMplsPseudowire:
      config.actionIs(routeActionPseudowire);
      config.intfIs(p_->pseudowires[e_->first]);
      return config;
    default:
      break;
  }
  const auto action = static_cast<Netbase::MplsLabelAction>(e_->labelAction);
  config.actionIs(action == Netbase::labelActionSwap   ? routeActionSwap
                  : action == Netbase::labelActionPush ? routeActionPush
                                                       : routeActionPop);
  const Netbase::MplsLabel* labels = p_->labels.data() + e_->firstLabel;
  config.labelStackIs(Mpls::Route::LabelStack(labels, labels + e_->stackLabels));
  Mpls::Route::Vias vias;
  vias.reserve(e_->hops);
  for (uint32_t h = 0; h < e_->hops; ++h) {
    const Hop& hop = p_->hops[e_->first + h];
    vias.emplace_back(hop.address, hop.intf, static_cast<uint8_t>(hop.weight));
  }
  config.viaIs(std::move(vias));
  return config;
}

RouteList parseRouteList(std::string_view text, const std::string& fileName, RouteFileUse use) {
  return RouteListParser::parse(text, fileName, use);
}

std::vector<ParsedRoute> parseRouteFile(std::string_view text, const std::string& fileName,
                                        RouteFileUse use) {
  const RouteList list = parseRouteList(text, fileName, use);
  std::vector<ParsedRoute> routes;
  routes.reserve(list.size());
  list.forEach([&](const RouteList::Route& r) {
    ParsedRoute& p = routes.emplace_back();
    if (use == RouteFileUse::load) {
      r.lfibRouteIn(p.route);
    }
    p.line = r.line();
    p.vias = r.vias();
    p.config = r.config();
    p.source = r.source();
    p.sourceGiven = r.sourceGiven();
  });
  return routes;
}

RouteList readRouteList(const std::string& path, RouteFileUse use) {
  return parseLineFile(path, "route file", [&](std::string_view text, const std::string& name) {
    return parseRouteList(text, name, use);
  });
}

std::vector<ParsedRoute> readRouteFile(const std::string& path, RouteFileUse use) {
  return parseLineFile(path, "route file", [&](std::string_view text, const std::string& name) {
    return parseRouteFile(text, name, use);
  });
}

std::string routeLine(const Route& route) {
  std::string line = std::to_string(route.key().routeKey().label().value());
  switch (route.action()) {
    case routeActionLookup: {
      const PayloadType payload = route.payloadType();
      line += fmt::format(" pop lookup vrf {} {}", route.vrfName().stringValue(),
                          payload == payloadTypeIpv6         ? "ipv6"
                          : payload == payloadTypeAutoDecide ? "auto"
                                                             : "ipv4");
      break;
    }
    case routeActionPseudowire:
      line += " pseudowire dev " + route.intf().stringValue();
      break;
    default: {
      const RouteAction a = route.action();
      line += a == routeActionSwap ? " swap " : a == routeActionPush ? " push " : " pop";
      std::vector<std::string> labels;
      for (const Netbase::MplsLabel& l : route.labelStack()) {
        labels.push_back(std::to_string(l.value()));
      }
      line += absl::StrJoin(labels, "/");
      for (const RouteVia& via : route.via()) {
        line += fmt::format(" via {} dev {}", via.nextHop().stringValue(), via.intf().stringValue());
        if (via.weight() > 1) {
          line += fmt::format(" weight {}", via.weight());
        }
      }
    }
  }
  if (route.key().metric().value() != 0) {
    line += fmt::format(" metric {}", route.key().metric().value());
  }
  return line;
}

std::string sourceName(LFib::Source source) {
  for (const SourceName& s : kSources) {
    if (s.source == source) {
      return s.name;
    }
  }
  return std::to_string(static_cast<uint32_t>(source));
}

}  // namespace Mplsctl
