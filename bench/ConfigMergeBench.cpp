// ConfigMergeBench: the static route merge at a million routes.
//   C1  keys/s  RouteConfigMergeSm's start-up merge of two sources of 1,000,000 routes each
//               (the command-line input, labels 16 to 1,000,015, and a directory input,
//               labels 500,016 to 1,500,015: half of each source conflicts with the other):
//               source keys merged per second. The output ends with 1,000,000 routes.
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <chrono>
#include <cstdio>

#include "Mpls/MplsRouteConfigMergeSm.h"

namespace {

constexpr uint32_t kRoutes = 1'000'000;
constexpr uint32_t kFirst = 16;

Mpls::Route routeOf(uint32_t label) {
  Mpls::Route r;
  r.keyIs(Mpls::RouteKeyAndMetric(Mpls::RouteKey(Netbase::MplsLabel(label)), Mpls::RouteMetric(0)));
  r.actionIs(Mpls::routeActionSwap);
  r.labelStackIs({Netbase::MplsLabel(label + 1)});
  r.viaIs({Mpls::RouteVia(Netbase::IpGenAddr::ipv4(0x0a000001 + (label & 0xff)),
                          Netbase::IntfId("Ethernet1"), 1)});
  return r;
}

Mpls::RouteConfigInput::Ptr inputOf(const char* name, uint32_t first) {
  Mpls::RouteConfigInput::Ptr input = Mpls::routeConfigInputFactory(name);
  for (uint32_t i = 0; i < kRoutes; ++i) {
    input->routeIs(routeOf(first + i));
  }
  return input;
}

}  // namespace

int main() {
  const Mpls::RouteConfigInput::Ptr cli = inputOf("cli", kFirst);
  const Kel::Dir::Ptr dir = Kel::dirFactory("inputs");
  dir->entityPtrIs(Kel::String("agent"), inputOf("agent", kFirst + kRoutes / 2));
  const Mpls::RouteConfig::Ptr out = Mpls::routeConfigFactory();
  const auto sm = Mpls::routeConfigMergeSmFactory(out, dir, cli);

  const auto start = std::chrono::steady_clock::now();
  sm->handleInitialized();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (out->routes() != kRoutes || !out->ready()) {
    std::fprintf(stderr, "ConfigMergeBench: the output holds %u routes, not %u\n", out->routes(),
                 kRoutes);
    return 1;
  }
  std::printf("# C1: %u source keys merged in %.3f s into %u routes\n", 2 * kRoutes, seconds,
              out->routes());
  std::printf("figure C1 %.0f keys/s\n", 2 * kRoutes / seconds);
  return 0;
}
