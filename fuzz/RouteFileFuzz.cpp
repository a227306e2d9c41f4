// Fuzzes the route file parser of mplsctl (tools/mplsctl/RouteFile.h): operators hand it
// files of their own writing, so any text must either be refused with a RouteFileError or
// give routes that keep the parser's promises. Anything else (a crash, a sanitizer report,
// another exception escaping, a broken promise) is a finding.
//
// Input: the file's text, as is.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tools/mplsctl/RouteFile.h"

namespace {

[[noreturn]] void finding(const char* what, const Mplsctl::ParsedRoute& r) {
  std::fprintf(stderr, "finding: %s (route of line %u)\n", what, r.line);
  std::abort();
}

// What a parsed file promises: routes in file order, one per label, each on a line of the
// file, with an unreserved incoming label and at most 128 distinct vias of the route's
// via type.
void checkRoutes(std::string_view text, const std::vector<Mplsctl::ParsedRoute>& routes) {
  const uint64_t lines = 1 + static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
  std::unordered_set<uint32_t> labels;
  uint32_t lastLine = 0;
  for (const Mplsctl::ParsedRoute& r : routes) {
    const uint32_t label = r.route.key().label().value();
    if (label < 16 || label > 1048575) {
      finding("incoming label out of range", r);
    }
    if (!labels.insert(label).second) {
      finding("label routed twice", r);
    }
    if (r.line <= lastLine || r.line > lines) {
      finding("route line out of order or past the end of the file", r);
    }
    lastLine = r.line;
    if (r.vias == 0 || r.vias > 128) {
      finding("route without vias or with more than 128", r);
    }
    const Mpls::ConsolidatedLfibRoute& route = r.route;
    const uint32_t stored =
        route.mplsVias() + route.pwVias() + route.ipLookupVias() + route.extFecVias();
    if (stored < r.vias) {
      finding("fewer vias in the route than the parser counted", r);
    }
    const bool ofItsType =
        route.viaType() == Mpls::viaTypeMplsIp           ? stored == route.mplsVias()
        : route.viaType() == Mpls::viaTypeMplsPseudowire ? stored == route.pwVias()
        : route.viaType() == Mpls::viaTypeIpLookup       ? stored == route.ipLookupVias()
                                                         : false;
    if (!ofItsType) {
      finding("vias of another type than the route's", r);
    }
    if (route.viaType() == Mpls::viaTypeIpLookup && route.metric() != 0) {
      finding("lookup route with a metric", r);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<Mplsctl::ParsedRoute> routes;
  try {
    routes = Mplsctl::parseRouteFile(text, "fuzz.routes");
  } catch (const Mplsctl::RouteFileError& e) {
    // Refused: the message must name the file.
    if (std::string_view(e.what()).substr(0, 12) != "fuzz.routes:") {
      std::fprintf(stderr, "finding: error message without the file name: %s\n", e.what());
      std::abort();
    }
    return 0;
  }
  checkRoutes(text, routes);
  return 0;
}
