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
#include <string>
#include <thread>
#include <vector>

#include "ProgramRun.h"
#include "Statehub/EntityManager.h"

namespace {

using namespace ToolTest;
using ::testing::HasSubstr;

class Mplsd : public ::testing::Test {
 protected:
  Mplsd() { Statehub::EntityManager::clear(instance); }
  ~Mplsd() override { Statehub::EntityManager::clear(instance); }

  Result ctl(std::vector<std::string> args) {
    args.insert(args.end(), {"--statehub", instance});
    return runProgram(MPLSCTL_PATH, args);
  }
  std::unique_ptr<Child> agent() {
    return std::make_unique<Child>(MPLSD_PATH, std::vector<std::string>{"--statehub", instance});
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
};

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
