// mplsctl show: the routes of an LFIB with their via sets and vias, as a table or as JSON.
#include <absl/strings/str_join.h>
#include <absl/strings/strip.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <variant>
#include <vector>

#include "Mpls/LfibRouteView.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

namespace Mplsctl {

namespace {

using namespace Mpls;

std::string actionText(const LfibMplsVia& via) {
  switch (via.labelAction()) {
    case Netbase::labelActionSwap:
      return "swap " + via.labelStack().labelStackString();
    case Netbase::labelActionPush:
      return "push " + via.labelStack().labelStackString();
    case Netbase::labelActionPop:
      return "pop";
    default:
      return "none";
  }
}

}  // namespace

std::string payloadName(PayloadType type) {
  switch (type) {
    case payloadTypeMpls:
      return "mpls";
    case payloadTypeIpv4:
      return "ipv4";
    case payloadTypeIpv6:
      return "ipv6";
    case payloadTypeAutoDecide:
      return "auto";
    case payloadTypeEthernet:
      return "ethernet";
    default:
      return fmt::format("payloadType{}", static_cast<uint32_t>(type));
  }
}

namespace {

// One via as show prints it; `found` false when the via set names a via the LFIB lacks.
struct ViaView {
  LfibViaKey key;
  bool found = false;
  std::string action, nextHop, intf;
  uint32_t weight = 0;  // MPLS vias only
  nlohmann::json json;
};

ViaView viaView(const LfibViaKey& key, const LfibAnyVia& stored) {
  ViaView v;
  v.key = key;
  v.found = !std::holds_alternative<std::monostate>(stored);
  v.json = {{"key", viaKeyText(key)}, {"type", viaTypeName(key.viaType())}};
  if (!v.found) {
    v.action = "(missing)";
    v.json["missing"] = true;
    return v;
  }
  if (const auto* via = std::get_if<LfibMplsVia>(&stored)) {
    v.action = actionText(*via);
    v.nextHop = via->nextHop().stringValue();
    v.intf = via->intf().stringValue();
    v.weight = via->weight();
    nlohmann::json labels = nlohmann::json::array();
    for (const Netbase::MplsLabel& l : via->labelStack().labelStack()) {
      labels.push_back(l.value());
    }
    v.json.update({{"action", v.action.substr(0, v.action.find(' '))},
                   {"labels", labels},
                   {"nextHop", v.nextHop},
                   {"interface", v.intf},
                   {"weight", v.weight}});
  } else if (const auto* via = std::get_if<LfibPwVia>(&stored)) {
    v.action = "pseudowire";
    v.intf = via->pwIntfId().stringValue();
    v.json.update({{"action", "pseudowire"}, {"interface", v.intf}});
  } else if (const auto* via = std::get_if<LfibIpLookupVia>(&stored)) {
    v.action = "lookup " + payloadName(via->payloadType());
    v.nextHop = "vrf " + via->vrfName().stringValue();
    v.json.update({{"action", "lookup"},
                   {"vrf", via->vrfName().stringValue()},
                   {"payload", payloadName(via->payloadType())}});
  } else {
    v.action = viaTypeName(key.viaType());
    v.json["action"] = v.action;
  }
  return v;
}

std::vector<ViaView> viaViews(const LfibRouteView& route) {
  std::vector<ViaView> vias;
  for (const auto& [key, via] : route.vias) {
    vias.push_back(viaView(key, via));
  }
  return vias;
}

void printTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width;
  for (const auto& row : rows) {
    width.resize(std::max(width.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) {
      width[i] = std::max(width[i], row[i].size());
    }
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line.append(width[i] - row[i].size() + 2, ' ');
      }
    }
    absl::StripTrailingAsciiWhitespace(&line);
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace

std::string routeSummary(const LfibRouteView& route) {
  if (!route.viaSetFound) {
    return "(via set missing)";
  }
  std::vector<std::string> vias;
  for (const auto& [key, stored] : route.vias) {
    const ViaView v = viaView(key, stored);
    std::string text = v.action;
    if (key.viaType() == viaTypeIpLookup) {
      text += " " + v.nextHop;  // "vrf NAME"
    } else if (const auto* vlan = std::get_if<LfibVlanVia>(&stored)) {
      text = fmt::format("vlan {}", vlan->vlanId().value());
    } else if (!v.nextHop.empty()) {
      text += " via " + v.nextHop;
    }
    if (!v.intf.empty()) {
      text += " dev " + v.intf;
    }
    if (v.weight > 1) {
      text += fmt::format(" weight {}", v.weight);
    }
    vias.push_back(std::move(text));
  }
  return vias.empty() ? "(no vias)" : absl::StrJoin(vias, ", ");
}

int runShow(const ShowOptions& options) {
  LfibStatus::Ptr lfib = mountLfibReader(options.lfib);
  std::vector<RouteKey> keys;
  if (options.label) {
    keys.push_back(RouteKey(Netbase::MplsLabel(*options.label)));
  } else {
    lfib->lfibRouteForEach([&](const LfibRoute& r) { keys.push_back(r.key()); });
    std::sort(keys.begin(), keys.end());
  }
  nlohmann::json out = nlohmann::json::array();
  std::vector<std::vector<std::string>> rows = {
      {"LABEL", "SOURCE", "METRIC", "VIA SET", "VIA", "ACTION", "NEXT HOP", "INTERFACE", "WEIGHT"}};
  for (const RouteKey& key : keys) {
    // Read whole, with the via set and vias it names at one instant; a route deleted
    // since the walk is left out.
    const std::optional<LfibRouteView> read = lfibRouteView(*lfib, key);
    if (!read) {
      if (options.label) {
        throw CommandError(
            fmt::format("LFIB '{}' has no route for label {}", options.lfib, *options.label));
      }
      continue;
    }
    const LfibRouteView& view = *read;
    const LfibRoute& r = view.route;
    const std::vector<ViaView> vias = viaViews(view);
    nlohmann::json route = {{"label", r.key().label().value()},
                            {"source", sourceName(r.source())},
                            {"metric", static_cast<uint32_t>(r.metric().value())},
                            {"viaSet",
                             {{"key", viaSetKeyText(r.viaSetKey())},
                              {"viaType", viaTypeName(r.viaSetKey().viaType())},
                              {"viaSetType", viaSetTypeName(r.viaSetKey().viaSetType())}}}};
    if (r.fec().fecType() == fecTypePrefix) {
      route["fec"] = r.fec().prefix().stringValue();
    }
    if (!view.viaSetFound) {
      route["viaSet"]["missing"] = true;
    }
    route["vias"] = nlohmann::json::array();
    std::vector<std::string> head = {
        std::to_string(r.key().label().value()), sourceName(r.source()),
        std::to_string(r.metric().value()),
        viaSetKeyText(r.viaSetKey()) + (view.viaSetFound ? "" : " (missing)")};
    if (vias.empty()) {
      rows.push_back(head);
    }
    for (size_t i = 0; i < vias.size(); ++i) {
      const ViaView& v = vias[i];
      std::vector<std::string> row = i == 0 ? head : std::vector<std::string>(4);
      row.insert(row.end(), {viaKeyText(v.key), v.action, v.nextHop, v.intf,
                             v.weight ? std::to_string(v.weight) : ""});
      rows.push_back(std::move(row));
      route["vias"].push_back(v.json);
    }
    out.push_back(std::move(route));
  }
  if (options.json) {
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    printTable(rows);
  }
  return 0;
}

}  // namespace Mplsctl
