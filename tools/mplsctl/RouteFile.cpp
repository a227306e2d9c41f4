#include "tools/mplsctl/RouteFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <absl/strings/str_join.h>
#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <optional>
#include <unordered_map>

#include "Kel/Exception.h"
#include "Kel/Quote.h"

namespace Mplsctl {

namespace {

using namespace Mpls;

constexpr uint32_t kMaxStackLabels = 16;
constexpr uint32_t kMaxWeight = 255;
constexpr uint32_t kMaxVias = 128;
// Bounds on what is read, so that endless or binary input fails instead of exhausting
// memory: far above a route file of the whole label space with many vias per route.
constexpr size_t kMaxFileBytes = size_t{256} << 20;
constexpr size_t kMaxLineBytes = size_t{64} << 10;

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

struct Token {
  std::string_view text;
  uint32_t column;
};

// One line's words, and the errors that point into it.
class LineParser {
 public:
  LineParser(const std::string& file, uint32_t line, std::string_view text)
      : file_(file), line_(line) {
    size_t end = text.find('#');
    if (end != std::string_view::npos) {
      text = text.substr(0, end);
    }
    size_t i = 0;
    while (i < text.size()) {
      if (text[i] == ' ' || text[i] == '\t' || text[i] == '\r') {
        ++i;
        continue;
      }
      size_t start = i;
      while (i < text.size() && text[i] != ' ' && text[i] != '\t' && text[i] != '\r') {
        ++i;
      }
      tokens_.push_back({text.substr(start, i - start), static_cast<uint32_t>(start + 1)});
    }
    endColumn_ = static_cast<uint32_t>(text.size() + 1);
  }

  bool empty() const { return tokens_.empty(); }
  bool atEnd() const { return next_ == tokens_.size(); }
  const Token& peek() const { return tokens_[next_]; }
  bool peekIs(std::string_view word) const { return !atEnd() && peek().text == word; }
  Token take() { return tokens_[next_++]; }

  [[noreturn]] void fail(uint32_t column, const std::string& message) const {
    throw RouteFileError(file_, line_, column, message);
  }
  // "expected <what>, found '<next word>'" (or "found end of line") at the next word.
  [[noreturn]] void expected(const std::string& what) const {
    if (atEnd()) {
      fail(endColumn_, fmt::format("expected {}, found end of line", what));
    }
    fail(peek().column, fmt::format("expected {}, found {}", what, Kel::quoted(peek().text)));
  }
  // Takes the next word, which must be `word`.
  void keyword(std::string_view word, const std::string& context) {
    if (!peekIs(word)) {
      expected(fmt::format("'{}' {}", word, context));
    }
    take();
  }

  // A decimal number in [min, max]; `what` is what an error expected, `noun` names the
  // number in a range error.
  uint32_t number(const std::string& what, const char* noun, uint32_t min, uint32_t max) {
    if (atEnd()) {
      expected(what);
    }
    const Token t = peek();
    uint32_t value = 0;
    auto [ptr, ec] = std::from_chars(t.text.data(), t.text.data() + t.text.size(), value);
    if (ec == std::errc::result_out_of_range ||
        (ec == std::errc() && ptr == t.text.data() + t.text.size() && (value < min || value > max))) {
      fail(t.column, fmt::format("{} {} out of range {}..{}", noun, Kel::quoted(t.text), min, max));
    }
    if (ec != std::errc() || ptr != t.text.data() + t.text.size()) {
      expected(what);
    }
    take();
    return value;
  }

  // LABEL ('/' LABEL)*, after `after`.
  Netbase::MplsLabelStack labelStack(const std::string& after) {
    const std::string what = fmt::format("a label after {}", Kel::quoted(after));
    if (atEnd()) {
      expected(what);
    }
    const Token t = peek();
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
        fail(column, fmt::format("expected {}, found {}", stack.empty() ? what : "a label after '/'",
                                 Kel::quoted(part.empty() ? t.text : part)));
      }
      if (ec == std::errc::result_out_of_range || value > Netbase::MplsLabel::max) {
        fail(column, fmt::format("label {} out of range 0..{}", Kel::quoted(part), Netbase::MplsLabel::max));
      }
      if (stack.size() == kMaxStackLabels) {
        fail(column, fmt::format("label stack {} has more than {} labels", Kel::quoted(t.text),
                                 kMaxStackLabels));
      }
      stack.push_back(Netbase::MplsLabel(value));
      if (slash == std::string_view::npos) {
        break;
      }
      pos = slash + 1;
    }
    take();
    return stack;
  }

  template <class T>
  T parsed(const std::string& what) {
    if (atEnd()) {
      expected(what);
    }
    const Token t = peek();
    try {
      T value(t.text);
      take();
      return value;
    } catch (const Kel::Exception&) {
      expected(what);
    }
  }

 private:
  const std::string& file_;
  uint32_t line_;
  std::vector<Token> tokens_;
  size_t next_ = 0;
  uint32_t endColumn_ = 1;
};

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
    action.stack = p.labelStack(std::string(word.text));
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
                      uint32_t lineNumber) {
  ConsolidatedLfibRoute route(RouteKey(Netbase::MplsLabel(label)),
                              o.source.value_or(LFib::sourceStatic), FwdEqvClass(),
                              static_cast<uint8_t>(o.metric.value_or(0)), action.viaType);
  route.viaSetTypeIs(viaSetTypeEcmp);
  ParsedRoute parsed{route, lineNumber, 1};
  if (action.lookup) {
    parsed.route.ipLookupViaIs(*action.lookup);
  } else if (action.pseudowire) {
    parsed.route.pwViaIs(*action.pseudowire);
  } else {
    parsed.vias = static_cast<uint32_t>(o.nextHops.size());
    const Netbase::UnboundedMplsLabelOperation operation(action.labelAction, action.stack);
    for (const auto& [hop, weight] : o.nextHops) {
      LfibMplsVia via(LfibViaKey(), hop.address, action.labelAction, operation, false);
      via.intfIs(hop.intf);
      for (uint32_t w = 1; w <= weight; ++w) {
        via.weightIs(w);
        parsed.route.mplsViaIs(via);
      }
      if (weight > 1) {
        parsed.route.viaSetTypeIs(viaSetTypeUcmp);
      }
    }
  }
  return parsed;
}

// "LABEL ACTION [VIAS] [OPTIONS]".
ParsedRoute parseRoute(LineParser& p, uint32_t lineNumber) {
  const uint32_t label = p.number("an incoming label", "incoming label",
                                  Netbase::MplsLabel::firstUnreserved, Netbase::MplsLabel::max);
  const Action action = parseAction(p);
  const Options options = parseOptions(p, action.viaType);
  return makeRoute(label, action, options, lineNumber);
}

}  // namespace

RouteFileError::RouteFileError(const std::string& file, uint32_t line, uint32_t column,
                               const std::string& message)
    : std::runtime_error(line == 0 ? fmt::format("{}: {}", file, message)
                                   : fmt::format("{}:{}:{}: {}", file, line, column, message)),
      line_(line),
      column_(column) {}

std::vector<ParsedRoute> parseRouteFile(std::string_view text, const std::string& fileName) {
  std::vector<ParsedRoute> routes;
  std::unordered_map<uint32_t, uint32_t> lineByLabel;
  uint32_t lineNumber = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    ++lineNumber;
    size_t end = text.find('\n', pos);
    std::string_view line = text.substr(pos, end == std::string_view::npos ? end : end - pos);
    pos = end == std::string_view::npos ? text.size() : end + 1;
    if (line.size() > kMaxLineBytes) {
      throw RouteFileError(fileName, lineNumber, 1,
                           fmt::format("line longer than {} bytes", kMaxLineBytes));
    }
    if (const size_t nul = line.find('\0'); nul != std::string_view::npos) {
      throw RouteFileError(fileName, lineNumber, static_cast<uint32_t>(nul + 1),
                           "a NUL byte: not a route file");
    }
    LineParser p(fileName, lineNumber, line);
    if (p.empty()) {
      continue;
    }
    const uint32_t labelColumn = p.peek().column;
    ParsedRoute route = parseRoute(p, lineNumber);
    const uint32_t label = route.route.key().label().value();
    auto [it, inserted] = lineByLabel.emplace(label, lineNumber);
    if (!inserted) {
      throw RouteFileError(fileName, lineNumber, labelColumn,
                           fmt::format("label {} is already routed on line {}", label, it->second));
    }
    routes.push_back(std::move(route));
  }
  return routes;
}

std::vector<ParsedRoute> readRouteFile(const std::string& path) {
  const bool standardInput = path == "-";
  const std::string name = standardInput ? "<stdin>" : path;
  const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw RouteFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
  }
  struct Closer {
    int fd;
    bool own;
    ~Closer() {
      if (own) {
        ::close(fd);
      }
    }
  } closer{fd, !standardInput};
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    throw RouteFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
  }
  if (S_ISDIR(st.st_mode)) {
    throw RouteFileError(name, 0, 0, "is a directory, not a route file");
  }
  std::string text;
  char chunk[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      throw RouteFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
    }
    if (n == 0) {
      break;
    }
    if (text.size() + static_cast<size_t>(n) > kMaxFileBytes) {
      throw RouteFileError(name, 0, 0,
                           fmt::format("longer than {} bytes: not a route file", kMaxFileBytes));
    }
    text.append(chunk, static_cast<size_t>(n));
  }
  return parseRouteFile(text, name);
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
