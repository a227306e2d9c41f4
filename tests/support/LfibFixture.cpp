#include "support/LfibFixture.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

namespace TestSupport {

using namespace Mpls;

LfibViaKey lfibViaKey(LfibViaType type, uint32_t index, LFib::Source source) {
  return LfibViaKey(source, type, index);
}

LfibViaSetKey lfibViaSetKey(LfibViaType type, uint32_t index, LfibViaSetType setType,
                            LFib::Source source) {
  return LfibViaSetKey(source, index, type, setType);
}

WriterLfib::WriterLfib(const std::string& groupName, const LfibStatusSizing& sizing)
    : group(Pond::MountGroup::writer(groupName)), status(lfibStatusFactory()) {
  status->mountGroupIs(group, sizing);
}

void WriterLfib::via(const LfibViaKey& key, uint32_t weight) {
  lfibViaTypeVisit(key.viaType(), [&](auto via) {
    typename decltype(via)::Row row;
    row.keyIs(key);
    if constexpr (std::is_same_v<typename decltype(via)::Row, LfibMplsVia>) {
      row.weightIs(weight);
    }
    via.write(*status, row);
  });
}

void WriterLfib::ipLookupVia(const LfibViaKey& key, const char* vrf, PayloadType af) {
  status->ipLookupViaIs(LfibIpLookupVia(key, L3::VrfName(vrf), af));
}

void WriterLfib::viaSet(const LfibViaSetKey& key, std::initializer_list<LfibViaKey> vias) {
  LfibViaSet set(key);
  uint32_t slot = 0;
  for (const LfibViaKey& via : vias) {
    set.viaKeyIs(slot++, via);
  }
  status->viaSetIs(set);
}

void WriterLfib::route(uint32_t label, const LfibViaSetKey& set) {
  status->lfibRouteIs(LfibRoute(RouteKey(label), set, set.source(), FwdEqvClass(), 0));
}

std::vector<LfibViaKey> WriterLfib::viaKeysOf(uint32_t label) const {
  const LfibViaSet set = status->viaSet(status->lfibRoute(RouteKey(label)).viaSetKey());
  return std::vector<LfibViaKey>(set.viaKey().begin(), set.viaKey().end());
}

LfibFixture::LfibFixture(const std::string& test, const LfibStatusSizing& sizing)
    : PondTest::ScopedGroupName(test), WriterLfib(**this, sizing) {}

std::string assertionMismatch(std::string_view file, const std::function<void()>& f,
                              const std::string& signature, const std::string& expression,
                              const std::string& message) {
  try {
    f();
    return "nothing thrown";
  } catch (const Kel::InternalException& e) {
    const std::string what = e.what(), prefix = std::string(file) + ":";
    const size_t digits = what.find_first_not_of("0123456789", prefix.size());
    const std::string rest = " " + signature + " -- assertion failed(" + expression + "): " + message;
    const bool match = what.starts_with(prefix) && digits > prefix.size() && digits < what.size() &&
                       what.substr(digits) == rest;
    return match ? "" : what;
  }
}

std::string lfibKeyText(const RouteKey& key) { return std::to_string(key.label().value()); }
std::string lfibKeyText(const LfibViaKey& key) { return std::to_string(key.index()); }
std::string lfibKeyText(const LfibViaSetKey& key) { return std::to_string(key.index()); }

std::vector<std::string> LfibRecorder::take() { return std::exchange(events, {}); }

std::vector<std::string> LfibRecorder::takeSorted() {
  std::sort(events.begin(), events.end());
  return take();
}

namespace {

template <class Range>
std::string labels(const Range& keys) {
  std::set<uint32_t> out;
  for (const RouteKey& k : keys) {
    out.insert(k.topLabel().value());
  }
  return joined(out);
}

}  // namespace

std::string tagMapsText(const LfibStatus& s) {
  std::map<uint32_t, std::map<uint16_t, uint16_t>> maps;
  for (const auto& [key, map] : s.dot1qTagToVlanCollIter()) {
    auto& tags = maps[key.index()];
    for (const auto& [tag, vlan] : map->dot1qTagToVlanIdIter()) {
      tags[tag.value()] = vlan.value();
    }
  }
  std::vector<std::string> out;
  for (const auto& [index, tags] : maps) {
    std::vector<std::string> pairs;
    for (const auto& [tag, vlan] : tags) {
      pairs.push_back(fmt::format("{}:{}", tag, vlan));
    }
    out.push_back(fmt::format("{}{{{}}}", index, joined(pairs)));
  }
  return joined(out);
}

std::string trackingText(const LfibTrackingStatus& t) {
  std::map<uint32_t, uint32_t> versions;
  for (const auto& [key, version] : t.routeVersionIter()) {
    versions[key.topLabel().value()] = version.version();
  }
  std::vector<std::string> v;
  for (const auto& [label, version] : versions) {
    v.push_back(fmt::format("{}:{}", label, version));
  }
  std::set<uint32_t> sets;
  for (const LfibViaSetKey& k : t.viaSetKeyBacklogIter()) {
    sets.insert(k.index());
  }
  return fmt::format("v{{{}}} r{{{}}} s{{{}}}", joined(v), labels(t.routeKeyBacklogIter()),
                     joined(sets));
}

std::string ipLookupText(const LfibIpLookupStatus& s) {
  std::set<std::string> out;
  for (const LfibIpLookupStatusLabelVrfAf& t : s.labelVrfAfIter()) {
    out.insert(
        fmt::format("{}:{}:{}", t.label().value(), t.vrfName().stringValue(), t.payloadType()));
  }
  return joined(out);
}

std::string labelInfosText(const LfibL2EvpnStatus& s) {
  std::set<std::string> out;
  for (const auto& [label, i] : s.labelInfoIter()) {
    const bool sane = i.payloadType() == payloadTypeEthernet && i.label() == label;
    out.insert(fmt::format("{}:{}:{}:{}{}", label.value(), i.dstVlanId().value(),
                           i.hasControlWord() ? "cw" : "-", i.dot1qXlate() ? "x" : "-",
                           sane ? "" : "!"));
  }
  return joined(out);
}

std::string decapsText(const LfibL2EvpnStatus& s) {
  std::set<std::string> out;
  for (const auto& [key, vlan] : s.vlanAwareDecapKeyToVlanIdIter()) {
    out.insert(fmt::format("{}/{}:{}", key.label().value(), key.dot1qTag().value(), vlan.value()));
  }
  return joined(out);
}

LfibReaderProcess::LfibReaderProcess(const std::string& groupName,
                                     const std::function<Answer(const LfibStatus::Ptr&)>& setup)
    : child_([&](Kel::ChildProcess::Channel& channel) {
        auto group = Pond::MountGroup::reader(groupName);
        auto status = lfibStatusFactory();
        status->mountGroupIs(group);
        const Answer answer = setup(status);
        channel.reply("ready");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (std::chrono::steady_clock::now() < deadline) {
          const std::optional<std::string> request =
              channel.request(std::chrono::milliseconds(100));
          if (!request) {
            return 0;  // the test is done with us
          }
          if (!request->empty()) {
            group->processChanges();
            channel.reply(answer(*request));
          }
        }
        return 1;
      }) {
  std::string line;
  ready_ = child_.awaitReply(std::chrono::seconds(10), &line) && line == "ready";
}

}  // namespace TestSupport
