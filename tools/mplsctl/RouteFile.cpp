#include "tools/mplsctl/RouteFile.h"

#include <absl/strings/str_join.h>
#include <fmt/format.h>

#include <charconv>
#include <map>
#include <optional>
#include <unordered_map>

#include "Kel/Exception.h"
#include "Kel/Quote.h"
#include "tools/mplsd/StaticRoute.h"

namespace Mplsctl {

namespace {

using namespace Mpls;

constexpr uint32_t kMaxStackLabels = 16;
constexpr uint32_t kMaxWeight = 255;
constexpr uint32_t kMaxVias = 128;

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

// LABEL ('/' LABEL)*, after `after`.
Netbase::MplsLabelStack labelStack(LineParser& p, const std::string& after) {
  const std::string what = fmt::format("a label after {}", Kel::quoted(after));
  if (p.atEnd()) {
    p.expected(what);
  }
  const Token t = p.peek();
  Netbase::MplsLabelStack stack;
  size_t pos = 0;
  while (true) {
    size_t slash = t.text.find('/', pos);
    std::string_view part = t.text.substr(pos, slash == std::string_view::npos ? slash : slash - pos);
    const uint32_t column = t.column + static_cast<uint32_t>(pos);
    uint32_t value = 0;
    auto [ptr, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
    if (part.empty() || (ec != std::errc() && ec != std::errc::result_out_of_range) ||
        ptr != part.data() + part.size()) {
      p.fail(column, fmt::format("expected {}, found {}", stack.empty() ? what : "a label after '/'",
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
  return stack;
}

// A next hop of a swap, push or pop route, weights added up.
struct NextHop {
  Netbase::IpGenAddr address;
  Netbase::IntfId intf;
  bool operator<(const NextHop& o) const {
    return address != o.address ? address < o.address : intf < o.intf;
  }
};

// What a route does with its packets: the words after the incoming label.
struct Action {
  LfibViaType viaType = viaTypeMplsIp;
  Netbase::MplsLabelAction labelAction = Netbase::labelActionPop;
  Netbase::MplsLabelStack stack;
  std::optional<LfibIpLookupVia> lookup;
  std::optional<LfibPwVia> pseudowire;
};

// The rest of the line: the vias (of a swap, push or pop route) and the options.
struct Options {
  std::map<NextHop, uint32_t> nextHops;
  std::optional<LFib::Source> source;
  std::optional<uint32_t> metric;
  uint32_t metricColumn = 0;
};

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

Action parseAction(LineParser& p) {
  if (p.atEnd()) {
    p.expected("'swap', 'push', 'pop' or 'pseudowire'");
  }
  const Token word = p.peek();
  Action action;
  if (word.text == "swap" || word.text == "push") {
    p.take();
    action.labelAction = word.text == "swap" ? Netbase::labelActionSwap : Netbase::labelActionPush;
    action.stack = labelStack(p, std::string(word.text));
  } else if (word.text == "pop") {
    p.take();
    if (p.peekIs("lookup")) {
      p.take();
      action.viaType = viaTypeIpLookup;
      action.lookup = parseLookup(p);
    }
  } else if (word.text == "pseudowire") {
    p.take();
    action.viaType = viaTypeMplsPseudowire;
    p.keyword("dev", "after 'pseudowire'");
    action.pseudowire =
        LfibPwVia(LfibViaKey(), p.parsed<Netbase::IntfId>("an interface name after 'dev'"));
  } else {
    p.expected("'swap', 'push', 'pop' or 'pseudowire'");
  }
  return action;
}

// "via ADDRESS dev INTF [weight N]", from its "via" (`at`); weights of one next hop add up.
void parseVia(LineParser& p, const Token& at, std::map<NextHop, uint32_t>& nextHops) {
  p.take();
  NextHop hop{p.parsed<Netbase::IpGenAddr>("an IPv4 or IPv6 address after 'via'"), {}};
  p.keyword("dev", "after the next hop");
  hop.intf = p.parsed<Netbase::IntfId>("an interface name after 'dev'");
  uint32_t weight = 1;
  if (p.peekIs("weight")) {
    p.take();
    weight = p.number("a weight after 'weight'", "weight", 1, kMaxWeight);
  }
  uint32_t& total = nextHops[hop];
  if (total + weight > kMaxWeight) {
    p.fail(at.column, fmt::format("via {} dev {} has a total weight above {}",
                                  hop.address.stringValue(), hop.intf.stringValue(), kMaxWeight));
  }
  total += weight;
  if (nextHops.size() > kMaxVias) {
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
std::string expectedNext(const Options& o, bool takesVias) {
  if (takesVias && o.nextHops.empty()) {
    return "'via'";
  }
  std::vector<std::string> words;
  if (takesVias && !o.source && !o.metric) {
    words.push_back("'via'");
  }
  if (!o.source) {
    words.push_back("'source'");
  }
  if (!o.metric) {
    words.push_back("'metric'");
  }
  return words.empty() ? "end of line" : absl::StrJoin(words, ", ") + " or end of line";
}

Options parseOptions(LineParser& p, LfibViaType viaType) {
  Options o;
  const bool takesVias = viaType == viaTypeMplsIp;
  while (!p.atEnd()) {
    const Token t = p.peek();
    if (t.text == "via" && takesVias && !o.source && !o.metric) {
      parseVia(p, t, o.nextHops);
    } else if (t.text == "source" && !o.source) {
      o.source = parseSource(p);
    } else if (t.text == "metric" && !o.metric) {
      p.take();
      o.metricColumn = p.atEnd() ? 0 : p.peek().column;
      o.metric = p.number("a metric after 'metric'", "metric", 0, 255);
    } else {
      p.expected(expectedNext(o, takesVias));
    }
  }
  if (takesVias && o.nextHops.empty()) {
    p.expected("'via'");
  }
  if (viaType == viaTypeIpLookup && o.metric.value_or(0) != 0) {
    p.fail(o.metricColumn, "a lookup route takes metric 0 only");
  }
  return o;
}

ParsedRoute makeRoute(uint32_t label, const Action& action, const Options& o,
                      uint32_t lineNumber, RouteFileUse use) {
  Route config;
  config.keyIs(RouteKeyAndMetric(RouteKey(Netbase::MplsLabel(label)),
                                 RouteMetric(static_cast<uint8_t>(o.metric.value_or(0)))));
  if (action.lookup) {
    config.actionIs(routeActionLookup);
    config.vrfNameIs(action.lookup->vrfName());
    config.payloadTypeIs(action.lookup->payloadType());
  } else if (action.pseudowire) {
    config.actionIs(routeActionPseudowire);
    config.intfIs(action.pseudowire->pwIntfId());
  } else {
    config.actionIs(action.labelAction == Netbase::labelActionSwap   ? routeActionSwap
                    : action.labelAction == Netbase::labelActionPush ? routeActionPush
                                                                     : routeActionPop);
    config.labelStackIs(Route::LabelStack(action.stack.begin(), action.stack.end()));
    Route::Vias vias;
    vias.reserve(o.nextHops.size());
    for (const auto& [hop, weight] : o.nextHops) {
      vias.emplace_back(hop.address, hop.intf, static_cast<uint8_t>(weight));
    }
    config.viaIs(std::move(vias));
  }
  const LFib::Source source = o.source.value_or(LFib::sourceStatic);
  return ParsedRoute{
      use == RouteFileUse::load ? Mplsd::lfibRouteOf(config, source) : ConsolidatedLfibRoute(),
      lineNumber,
      static_cast<uint32_t>(action.lookup || action.pseudowire ? 1 : o.nextHops.size()),
      std::move(config), source, o.source.has_value()};
}

// "LABEL ACTION [VIAS] [OPTIONS]".
ParsedRoute parseRoute(LineParser& p, uint32_t lineNumber, RouteFileUse use) {
  const uint32_t label = p.number("an incoming label", "incoming label",
                                  Netbase::MplsLabel::firstUnreserved, Netbase::MplsLabel::max);
  const Action action = parseAction(p);
  const Options options = parseOptions(p, action.viaType);
  return makeRoute(label, action, options, lineNumber, use);
}

}  // namespace

std::vector<ParsedRoute> parseRouteFile(std::string_view text, const std::string& fileName,
                                        RouteFileUse use) {
  std::vector<ParsedRoute> routes;
  // label, or label and metric (above the label's 20 bits) -> line
  std::unordered_map<uint32_t, uint32_t> lineByKey;
  forEachLine(text, fileName, "route file", [&](LineParser& p) {
    const uint32_t labelColumn = p.peek().column;
    ParsedRoute route = parseRoute(p, p.line(), use);
    const uint32_t label = route.config.key().routeKey().label().value();
    const uint32_t metric = route.config.key().metric().value();
    const bool byMetric = use == RouteFileUse::config;
    auto [it, inserted] = lineByKey.emplace(byMetric ? label | metric << 20 : label, p.line());
    if (!inserted) {
      p.fail(labelColumn, byMetric ? fmt::format("label {} metric {} is already routed on line {}",
                                                 label, metric, it->second)
                                   : fmt::format("label {} is already routed on line {}", label,
                                                 it->second));
    }
    routes.push_back(std::move(route));
  });
  return routes;
}

std::vector<ParsedRoute> readRouteFile(const std::string& path, RouteFileUse use) {
  std::string name;
  const std::string text = readLineFile(path, "route file", name);
  return parseRouteFile(text, name, use);
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
