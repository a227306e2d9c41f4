// The MPLS agent with real processes: clients ask for label blocks with mplsctl while the
// agent is killed with SIGKILL at random moments and started again.
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ProgramRun.h"
#include "Pond/MountGroup.h"
#include "Statehub/EntityManager.h"

namespace {

using namespace ToolTest;
using ::testing::HasSubstr;

class Mplsd : public ::testing::Test {
 protected:
  Mplsd() { Statehub::EntityManager::clear(instance); }
  ~Mplsd() override {
    Statehub::EntityManager::clear(instance);
    if (!Pond::MountGroup::tableNames(lfib).empty()) {
      runProgram(MPLSCTL_PATH, {"clear", "--lfib", lfib});
    }
  }

  Result ctl(std::vector<std::string> args) {
    args.insert(args.end(), {"--statehub", instance});
    return runProgram(MPLSCTL_PATH, args);
  }
  std::unique_ptr<Child> agent() {
    return std::make_unique<Child>(
        MPLSD_PATH, std::vector<std::string>{"--statehub", instance, "--lfib", lfib});
  }
  // The LFIB's routes: label -> "source route-summary".
  std::map<uint32_t, std::string> lfibRoutes() {
    const Result r = runProgram(MPLSCTL_PATH, {"show", "--lfib", lfib, "--json"});
    std::map<uint32_t, std::string> out;
    if (r.status != 0) {
      return out;
    }
    for (const auto& route : nlohmann::json::parse(r.out)) {
      out[route["label"]] = route["source"].get<std::string>() + " " + route["vias"].dump();
    }
    return out;
  }
  // Whether `pred` comes true within 10 s.
  template <class P>
  static bool eventually(P pred) {
    for (int i = 0; i < 500 && !pred(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
  }
  std::set<uint32_t> labels() {
    std::set<uint32_t> out;
    for (const auto& [label, route] : lfibRoutes()) {
      out.insert(label);
    }
    return out;
  }
  // Every block the agent publishes, "client/request" -> first label.
  std::map<std::string, uint32_t> blocks() {
    const Result r = ctl({"labels", "show", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::map<std::string, uint32_t> out;
    const nlohmann::json shown = nlohmann::json::parse(r.out);
    for (const auto& b : shown["blocks"]) {
      out[b["client"].get<std::string>() + "/" + b["request"].get<std::string>()] = b["first"];
    }
    return out;
  }

  const std::string instance = fmt::format("mplsd-test-{}", ::getpid());
  const std::string lfib = fmt::format("mplsd-test-lfib-{}", ::getpid());
  ScratchDir scratch;
};

TEST_F(Mplsd, ConfiguredRoutesAreMergedAndProgrammedIntoTheLfib) {
  std::unique_ptr<Child> mplsd = agent();
  const std::string first = scratch.file("first", "100 swap 200 via 10.0.0.1 dev Ethernet1\n"
                                                  "101 pop via 10.0.0.2 dev Ethernet2\n"
                                                  "101 pop via 10.0.0.3 dev Ethernet3 metric 9\n"
                                                  "102 pop lookup vrf red ipv4\n");
  Result r = ctl({"config", "commit", first});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("4 added, 0 changed, 0 removed"));
  using Labels = std::set<uint32_t>;
  ASSERT_TRUE(eventually([&] { return labels() == Labels{100, 101, 102}; }));
  EXPECT_THAT(lfibRoutes()[101], HasSubstr("10.0.0.2"));  // the lower metric

  // Another agent's input conflicts on 101 (metric 0): withdrawn, until it goes.
  const std::string other = scratch.file("other", "101 pop via 10.0.0.9 dev Ethernet9\n"
                                                  "103 pseudowire dev Pseudowire1\n");
  ASSERT_EQ(ctl({"config", "input", "publish", "isis", other}).status, 0);
  ASSERT_TRUE(eventually([&] { return labels().contains(103); }));
  EXPECT_TRUE(eventually([&] { return lfibRoutes()[101].find("10.0.0.3") != std::string::npos; }));
  r = ctl({"config", "show"});
  EXPECT_THAT(r.out, HasSubstr("withdrawn 101 metric 0: claimed by cli, isis"));
  EXPECT_THAT(r.out, HasSubstr("103 pseudowire dev Pseudowire1"));
  ASSERT_EQ(ctl({"config", "input", "withdraw", "isis"}).status, 0);
  ASSERT_TRUE(eventually([&] { return labels() == Labels{100, 101, 102}; }));
  EXPECT_THAT(lfibRoutes()[101], HasSubstr("10.0.0.2"));

  // VRF labels: a static one over a dynamic one; a configured route over both.
  ASSERT_EQ(ctl({"config", "vrf-label", "300", "blue", "--dynamic", "--input", "bgp"}).status, 0);
  ASSERT_EQ(ctl({"config", "vrf-label", "300", "green"}).status, 0);
  ASSERT_EQ(ctl({"config", "vrf-label", "100", "green"}).status, 0);
  ASSERT_TRUE(eventually([&] { return labels().contains(300); }));
  EXPECT_THAT(lfibRoutes()[300], HasSubstr("vrf-label"));
  EXPECT_THAT(lfibRoutes()[300], HasSubstr("green"));
  EXPECT_THAT(lfibRoutes()[100], HasSubstr("static"));

  // Bad input commits nothing and says where; an unchanged commit changes nothing.
  const std::string bad = scratch.file("bad", "104 pop via 10.0.0.1 dev Ethernet1\n"
                                              "105 swap x via 10.0.0.1 dev Ethernet1\n");
  r = ctl({"config", "commit", bad});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr(bad + ":2:10"));
  r = ctl({"config", "commit", scratch.file("ldp", "106 pop via 10.0.0.1 dev Ethernet1 source ldp\n")});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("configured routes are static"));
  r = ctl({"config", "commit", first});
  EXPECT_THAT(r.out, HasSubstr("0 added, 0 changed, 0 removed"));

  // A restarted agent, even one killed, changes nothing in the LFIB for an unchanged
  // configuration: a reader in another process sees only the one route committed after.
  Child watch(MPLSCTL_PATH, {"watch", "--lfib", lfib, "--timeout", "30"});
  ASSERT_TRUE(watch.outHas("watching LFIB"));
  ::kill(mplsd->process.pid(), SIGKILL);
  mplsd->wait();
  mplsd = agent();
  r = ctl({"config", "commit", scratch.file("more", "100 swap 200 via 10.0.0.1 dev Ethernet1\n"
                                                     "101 pop via 10.0.0.2 dev Ethernet2\n"
                                                     "101 pop via 10.0.0.3 dev Ethernet3 metric 9\n"
                                                     "107 pop via 10.0.0.7 dev Ethernet7\n")});
  EXPECT_THAT(r.out, HasSubstr("1 added, 0 changed, 1 removed"));  // 102 goes, 107 comes
  ASSERT_TRUE(eventually([&] { return labels() == Labels{100, 101, 107, 300}; }));
  ASSERT_TRUE(watch.outHas("deleted 102"));
  ::kill(watch.process.pid(), SIGINT);
  watch.wait();
  std::vector<std::string> changes;
  std::istringstream lines(watch.out());
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("watching", 0) != 0) {
      changes.push_back(line.substr(0, line.find(" ->")));
    }
  }
  EXPECT_THAT(changes, ::testing::UnorderedElementsAre("added 107", "deleted 102"));
  ::kill(mplsd->process.pid(), SIGTERM);
  EXPECT_EQ(mplsd->wait(), 0);
}

TEST_F(Mplsd, ClientsKeepTheirBlocksAcrossKilledAgents) {
  Result r = ctl({"labels", "request", "bgp", "r1", "--timeout", "0.2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("no MPLS agent has published 'mpls/status'"));

  std::unique_ptr<Child> mplsd = agent();
  r = ctl({"labels", "request", "bgp", "r2"});  // r1 is answered too
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, ::testing::MatchesRegex("1[0-9]+-1[0-9]+\n"));

  // Clients come, go and restate their requests while the agent is killed and restarted.
  std::mt19937 random(::testing::UnitTest::GetInstance()->random_seed());
  std::map<std::string, uint32_t> held = blocks();
  for (int round = 0; round < 8; ++round) {
    const std::string client = fmt::format("c{}", random() % 3);
    const std::string id = fmt::format("q{}", random() % 2);
    std::thread asking([&] { ctl({"labels", "request", client, id, "--timeout", "10"}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
    ::kill(mplsd->process.pid(), SIGKILL);
    mplsd->wait();
    mplsd = agent();
    asking.join();
    if (const std::string gone = std::prev(held.end())->first; random() % 3 == 0 && gone[0] == 'c') {
      ASSERT_EQ(ctl({"labels", "release", gone.substr(0, gone.find('/')),
                     gone.substr(gone.find('/') + 1)}).status, 0);
    }
    ASSERT_EQ(ctl({"labels", "request", "bgp", "r1"}).status, 0);  // the agent is up again
    const std::map<std::string, uint32_t> now = blocks();
    std::set<uint32_t> starts;
    for (const auto& [request, start] : now) {
      EXPECT_TRUE(starts.insert(start).second) << "block " << start << " twice, round " << round;
      EXPECT_EQ((start - 100000) % 16384, 0u) << request;
      if (held.contains(request)) {
        EXPECT_EQ(held[request], start) << request << " moved in round " << round;
      }
    }
    held = now;
  }
  EXPECT_GE(held.size(), 3u);

  // Exhaustion says so; a moved range answers everything anew.
  for (int i = 0; held.size() + i < 16; ++i) {
    ASSERT_EQ(ctl({"labels", "request", "filler", fmt::format("f{}", i)}).status, 0);
  }
  r = ctl({"labels", "request", "late", "x", "--timeout", "0.5"});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("is exhausted: its 16 blocks are all handed out"));
  ASSERT_EQ(ctl({"labels", "range", "dynamic", "16", "1048560"}).status, 0);
  r = ctl({"labels", "request", "late", "x"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(blocks().size(), 17u);
  EXPECT_EQ(ctl({"labels", "range", "dynamic", "1048576", "1"}).status, 1);
  EXPECT_THAT(ctl({"labels", "release", "nobody", "x"}).err, HasSubstr("no label requests"));
  EXPECT_THAT(ctl({"labels", "request", "a/b", "x"}).err, HasSubstr("invalid client name"));
  ::kill(mplsd->process.pid(), SIGTERM);
  EXPECT_EQ(mplsd->wait(), 0);
}

}  // namespace
