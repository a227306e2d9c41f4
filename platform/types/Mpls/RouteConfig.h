// The static MPLS route configuration: what an operator or an agent configures, per
// source, and the merged configuration that the MPLS agent programs into the LFIB.
//
//   Mpls::RouteKeyAndMetric   a configured route's key: the incoming label and a metric.
//                             One label may be configured with several metrics; the
//                             lowest one is used.
//   Mpls::Route               one configured route: its key and what it does with the
//                             packet (swap or push a label stack, or pop, towards next
//                             hops; pop and look the payload up in a VRF; hand it to a
//                             pseudowire)
//   Mpls::RouteConfigInput    one source's routes, named after the source ("cli", or the
//                             name under which an agent publishes them in the input
//                             directory)
//   Mpls::RouteConfig         the merged routes of every source, and `ready` once every
//                             source present at start-up has been merged
//
// Routes are kept in key order, so that a long scan resumes after the last key it
// visited (routeIterAfter).
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/IntfId.h"
#include "types/Netbase/IpGenAddr.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

class RouteKeyAndMetric {
 public:
  KEL_VALUE(RouteKeyAndMetric, "Mpls::RouteKeyAndMetric", (RouteKey, routeKey),
            (RouteMetric, metric));
};

// What a configured route does with a packet of its label.
KEL_ENUM(RouteAction, "Mpls::RouteAction",
         (routeActionSwap, 0),         // swap the label for labelStack, towards the vias
         (routeActionPush, 1),         // swap it and push the rest of labelStack
         (routeActionPop, 2),          // pop it, towards the vias
         (routeActionLookup, 3),       // pop it and look the payload up in vrfName
         (routeActionPseudowire, 4));  // hand the packet to the pseudowire `intf`

// A next hop of a configured route, with its share of the traffic (1 to 255).
class RouteVia {
 public:
  KEL_VALUE(RouteVia, "Mpls::RouteVia", (Netbase::IpGenAddr, nextHop), (Netbase::IntfId, intf),
            (uint8_t, weight, 1));
};

class Route {
 public:
  using LabelStack = std::vector<Netbase::MplsLabel>;
  using Vias = std::vector<RouteVia>;
  KEL_VALUE(Route, "Mpls::Route", (RouteKeyAndMetric, key), (RouteAction, action),
            (LabelStack, labelStack), (Vias, via), (L3::VrfName, vrfName),
            (PayloadType, payloadType), (Netbase::IntfId, intf));
};

class RouteConfigInput : public Kel::Entity {
 public:
  KEL_ENTITY(RouteConfigInput, "Mpls::RouteConfigInput");
  using Ptr = Kel::Ptr<RouteConfigInput>;
  using PtrConst = Kel::Ptr<const RouteConfigInput>;
  class NotifieeConst : public Kel::NotifieeOf<RouteConfigInput> {
   public:
    virtual void onRoute(const RouteKeyAndMetric& key) { (void)key; }
  };
  explicit RouteConfigInput(const Kel::String& name) : name_(name) {}
  // The source's name.
  const Kel::String& name() const noexcept { return name_; }

  KEL_ORDERED_VALUE_COLL_ATTR(RouteKeyAndMetric, Route, route, Route)

 private:
  Kel::String name_;
};

inline RouteConfigInput::Ptr routeConfigInputFactory(const std::string& name) {
  return Kel::make<RouteConfigInput>(Kel::String(name));
}

class RouteConfig : public Kel::Entity {
 public:
  KEL_ENTITY(RouteConfig, "Mpls::RouteConfig");
  using Ptr = Kel::Ptr<RouteConfig>;
  class NotifieeConst : public Kel::NotifieeOf<RouteConfig> {
   public:
    virtual void onRoute(const RouteKeyAndMetric& key) { (void)key; }
    virtual void onReady() {}
  };

  KEL_ORDERED_VALUE_COLL_ATTR(RouteKeyAndMetric, Route, route, Route)
  KEL_ATTR(bool, ready, Ready, false)
};

inline RouteConfig::Ptr routeConfigFactory() { return Kel::make<RouteConfig>(); }

// Where the static route configuration lives in the state database: the command-line
// input (written by configuration sessions), the directory of inputs that other agents
// publish ("<routeConfigInputDirPath>/<name>"), and the merged output of the MPLS agent.
inline constexpr const char* routeConfigCliPath = "routing/mpls/route/input/cli";
inline constexpr const char* routeConfigInputDirPath = "routing/mpls/route/input/dynamic";
inline constexpr const char* routeConfigMergedPath = "routing/mpls/route/merged";

}  // namespace Mpls
