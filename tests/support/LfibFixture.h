// The LFIB of the Mpls tests: a writer-role LfibStatus on a mount group of its own,
// shorthands that write its rows, a recorder of its notifications, text forms of what the
// readers derive from it, and a reader of it in another process.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Mpls/LfibIpLookup.h"
#include "Mpls/LfibL2Evpn.h"
#include "Mpls/LfibTracking.h"
#include "Mpls/MplsLfib.h"
#include "platform/Pond/PondTestTypes.h"
#include "Kel/ChildProcess.h"

namespace TestSupport {

// The source of the keys below unless told otherwise.
inline constexpr Mpls::LFib::Source kLfibSource = Mpls::LFib::sourceStatic;

Mpls::LfibViaKey lfibViaKey(Mpls::LfibViaType type, uint32_t index,
                            Mpls::LFib::Source source = kLfibSource);
Mpls::LfibViaSetKey lfibViaSetKey(Mpls::LfibViaType type, uint32_t index,
                                  Mpls::LfibViaSetType setType = Mpls::viaSetTypeEcmp,
                                  Mpls::LFib::Source source = kLfibSource);

// A writer-role LfibStatus on the group `groupName` (which another process may read).
struct WriterLfib {
  explicit WriterLfib(const std::string& groupName, const Mpls::LfibStatusSizing& sizing = {});

  // A via with default fields under `key`, in the collection of its via type; an MPLS via
  // gets `weight`, which tells two versions of it apart.
  void via(const Mpls::LfibViaKey& key, uint32_t weight = 1);
  void ipLookupVia(const Mpls::LfibViaKey& key, const char* vrf, Mpls::PayloadType af);
  // A via set holding `vias` in slots 0, 1, ...
  void viaSet(const Mpls::LfibViaSetKey& key, std::initializer_list<Mpls::LfibViaKey> vias);
  // Route `label` naming `set`, with the set's source and metric 0.
  void route(uint32_t label, const Mpls::LfibViaSetKey& set);
  // The via keys of route `label`'s via set, in slot order.
  std::vector<Mpls::LfibViaKey> viaKeysOf(uint32_t label) const;

  Kel::Ptr<Pond::MountGroup> group;
  Mpls::LfibStatus::Ptr status;
};

// A WriterLfib on a group of its own, removed at the end.
struct LfibFixture : PondTest::ScopedGroupName, WriterLfib {
  explicit LfibFixture(const std::string& test, const Mpls::LfibStatusSizing& sizing = {});
};

// Runs `f`; "" when it throws Kel::InternalException with the text of an assertion in
// `file` (any line) of `signature`, `expression` and `message`:
// "<file>:<line> <signature> -- assertion failed(<expression>): <message>"; else what it
// threw, or "nothing thrown".
std::string assertionMismatch(std::string_view file, const std::function<void()>& f,
                              const std::string& signature, const std::string& expression,
                              const std::string& message);

// The items, joined by spaces.
std::string joined(const auto& items) { return fmt::format("{}", fmt::join(items, " ")); }

// Short text of a key in the events below: a route's label, a via's or via set's index,
// the text form of anything else.
std::string lfibKeyText(const Mpls::RouteKey& key);
std::string lfibKeyText(const Mpls::LfibViaKey& key);
std::string lfibKeyText(const Mpls::LfibViaSetKey& key);
template <class K>
std::string lfibKeyText(const K& key) {
  return Kel::valueToStrep(key);
}
template <class K>
std::string lfibEvent(std::string_view collection, const K& key) {
  return std::string(collection) + " " + lfibKeyText(key);
}

// Every notification of an LfibStatus, in order: "<collection> <key text>" for each table
// (named after the table), the tag-to-VLAN maps, and "mountGroup".
class LfibRecorder : public Mpls::LfibStatus::NotifieeConst {
 public:
  explicit LfibRecorder(const Mpls::LfibStatus::Ptr& s) { notifierIs(s); }
  // MPLS_LFIB_STATUS_TABLES names its key types unqualified.
  using RouteKey = Mpls::RouteKey;
  using LfibViaSetKey = Mpls::LfibViaSetKey;
  using LfibViaKey = Mpls::LfibViaKey;
  using LfibDot1qTagToVlanCompositeKey = Mpls::LfibDot1qTagToVlanCompositeKey;
#define TEST_SUPPORT_LFIB_RECORD_(name, Name, K, T, check, capacity) \
  void on##Name(const K& key) override { events.push_back(lfibEvent(#name, key)); }
  MPLS_LFIB_STATUS_TABLES(TEST_SUPPORT_LFIB_RECORD_)
#undef TEST_SUPPORT_LFIB_RECORD_
  void onDot1qTagToVlanColl(const Mpls::LfibDot1qTagToVlanKey& key) override {
    events.push_back(lfibEvent("dot1qTagToVlanColl", key));
  }
  void onMountGroup() override { events.push_back("mountGroup"); }

  // The events so far, forgotten; sorted, for changes announced in no defined order.
  std::vector<std::string> take();
  std::vector<std::string> takeSorted();

  std::vector<std::string> events;
};

// Text forms, each sorted: the tag-to-VLAN maps "<map index>{<tag>:<vlan> ...} ...";
// the tracking "v{<label>:<version> ...} r{<route backlog labels>} s{<via set backlog
// indexes>}"; the IP lookup triples "<label>:<vrf>:<af> ..."; the layer-2 entries
// "<label>:<dstVlanId>:<cw or ->:<x (dot1qXlate) or -> ..." ("!" marks an entry whose
// payload type is not Ethernet or whose key is not its label) and "<label>/<tag>:<vlan> ...".
std::string tagMapsText(const Mpls::LfibStatus& s);
std::string trackingText(const Mpls::LfibTrackingStatus& t);
std::string ipLookupText(const Mpls::LfibIpLookupStatus& s);
std::string labelInfosText(const Mpls::LfibL2EvpnStatus& s);
std::string decapsText(const Mpls::LfibL2EvpnStatus& s);

// A reader of the LFIB of group `groupName` in a child process (fork before any thread).
// The child mounts a reader-role LfibStatus, builds its readers with setup(status), which
// returns the function that answers a request, and says it is ready. For each request it
// processes every change so far, then replies answer(request) (one line). Between requests
// it leaves the group alone: the writer's first rows are there when its tables open, and
// come with no notification.
class LfibReaderProcess {
 public:
  using Answer = std::function<std::string(const std::string& request)>;

  LfibReaderProcess(const std::string& groupName,
                    const std::function<Answer(const Mpls::LfibStatus::Ptr&)>& setup);
  // Whether the child said it was ready.
  bool ready() const noexcept { return ready_; }
  std::string ask(const std::string& request) { return child_.ask(request); }
  // The child's exit status (0: it ended when asked to).
  int wait() { return child_.wait(std::chrono::seconds(10)); }

 private:
  Kel::ChildProcess child_;
  bool ready_ = false;
};

}  // namespace TestSupport
