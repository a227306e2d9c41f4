// mplsctl bindings run as a user runs it, one process per command: a binding file
// published through both table sets' producers and rebuilt by the consumers of another
// process, a republish that deletes exactly what the new file lacks (also after a
// publisher killed half way), bad files that publish nothing, and clear.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "Kel/ChildProcess.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/CommonLibSm.h"
#include "Pond/MountGroup.h"
#include "ProgramRun.h"

namespace {

using ToolTest::Result;

class MplsctlBindings : public ::testing::Test {
 protected:
  void SetUp() override { ctl({"clear"}); }
  void TearDown() override { ctl({"clear"}); }
  // mplsctl bindings on this test's table set.
  Result ctl(std::vector<std::string> args, const std::string& table = "") {
    args.insert(args.begin(), "bindings");
    args.insert(args.end(), {"--table", table.empty() ? table_ : table});
    return ToolTest::runProgram(MPLSCTL_PATH, args, 120000);
  }
  Result publish(const std::string& text, const std::string& table = "") {
    return ctl({"publish", dir_.file("b.txt", text)}, table);
  }
  std::string shown(const std::string& table = "") {
    Result r = ctl({"show"}, table);
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  }

  ToolTest::ScratchDir dir_;
  std::string table_ = ToolTest::testName("bindings");
};

const char* kFile =
    "# an LDP agent's bindings\n"
    "local 10.0.0.0/8 16 updated 100\n"
    "local 10.0.0.0/8 17\n"
    "local 10.9.0.0/16 filtered\n"
    "peer 10.1.1.1:0 10.0.0.0/8 24001\n"
    "peer 10.1.1.2:0 10.0.0.0/8 24002 updated 5.5\n"
    "peer 10.1.1.2:0 10.9.0.0/16 filtered\n"
    "\n"
    "advertised 10.0.0.0/8 10.1.1.1:0\n"
    "advertised 10.0.0.0/8 10.1.1.2:0\n";

TEST_F(MplsctlBindings, PublishShowRepublishClear) {
  Result r = publish(kFile);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "label-binding table set '" + table_ +
                       "': 2 local labels, 2 peer labels from 2 peers, 2 filters, 2 "
                       "advertisements\n");
  EXPECT_EQ(shown(),
            "10.0.0.0/8\n"
            "  local: 16, 17 (updated 100)\n"
            "  advertised to: 10.1.1.1:0, 10.1.1.2:0\n"
            "  peer 10.1.1.1:0: 24001\n"
            "  peer 10.1.1.2:0: 24002 (updated 5.5)\n"
            "10.9.0.0/16\n"
            "  local: no label filtered\n"
            "  peer 10.1.1.2:0: no label filtered\n"
            "2 FECs, 2 local labels, 2 peer labels from 2 peers\n");
  EXPECT_EQ(ctl({"show", "--peer", "10.1.1.2:0", "--fec", "10.9.0.0/16"}).out,
            "10.9.0.0/16\n"
            "  peer 10.1.1.2:0: no label filtered\n"
            "1 FECs, 0 local labels, 0 peer labels from 1 peers\n");
  const nlohmann::json json = nlohmann::json::parse(ctl({"show", "--json"}).out);
  ASSERT_EQ(json.size(), 2u);
  EXPECT_EQ(json[0]["local"]["labels"], nlohmann::json({16, 17}));
  EXPECT_EQ(json[0]["local"]["updated"], 100);
  EXPECT_EQ(json[0]["peers"][1]["peer"], "10.1.1.2:0");
  EXPECT_TRUE(json[1]["local"]["updated"].is_null());

  // 17 unbound, the time set to 0 (none), a filter lifted, one peer gone whole, one
  // advertisement withdrawn, a FEC added: what the new file lacks is gone.
  r = publish(
      "local 10.0.0.0/8 16 updated 0\n"
      "local 10.9.0.0/16 18\n"
      "peer 10.1.1.2:0 10.0.0.0/8 24002 updated 5.5\n"
      "advertised 10.0.0.0/8 10.1.1.2:0\n");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(shown(),
            "10.0.0.0/8\n"
            "  local: 16\n"
            "  advertised to: 10.1.1.2:0\n"
            "  peer 10.1.1.2:0: 24002 (updated 5.5)\n"
            "10.9.0.0/16\n"
            "  local: 18\n"
            "2 FECs, 2 local labels, 1 peer labels from 1 peers\n");

  EXPECT_EQ(ctl({"clear"}).status, 0);
  r = ctl({"show"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: no label-binding table set named '" + table_ +
                       "' (no shared-memory segments)\n");
}

TEST_F(MplsctlBindings, BadFilesPublishNothing) {
  ASSERT_EQ(publish(kFile).status, 0);
  const std::string before = shown();
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"local 10.0.0.0/8 16\nlocal 10.0.0.1/8 17\n",
       "2:7: expected a prefix (as 10.0.0.0/8), found '10.0.0.1/8'"},
      {"local 10.0.0.0/8 1048576\n", "1:18: label '1048576' out of range 0..1048575"},
      {"peer 10.1.1.1 10.0.0.0/8 16\n",
       "1:6: expected an LSR id and label space (LSR-ID:SPACE, as 10.0.0.1:0), found "
       "'10.1.1.1'"},
      {"local 10.0.0.0/8 16 updated -1\n",
       "1:29: expected a time in seconds (0 or more) after 'updated', found '-1'"},
      {"local 10.0.0.0/8 16\nlocal 10.0.0.0/8 16\n",
       "2:18: label 16 is already bound to 10.0.0.0/8"},
      {"local 10.0.0.0/8 16 updated 1\nlocal 10.0.0.0/8 17 updated 2\n",
       "2:18: 10.0.0.0/8 was already updated at 1, not 2"},
      {"advertised 10.0.0.0/8 10.1.1.1:0 x\n", "1:34: expected end of line, found 'x'"},
      {"remote 10.0.0.0/8 16\n",
       "1:1: expected 'local', 'peer' or 'advertised', found 'remote'"},
      {std::string("local 10.0.0.0/8 16\0\n", 21), "1:20: a NUL byte: not a binding file"},
  };
  for (const auto& [text, message] : bad) {
    SCOPED_TRACE(text);
    const std::string path = dir_.file("bad.txt", text);
    Result r = ctl({"publish", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mplsctl: " + path + ":" + message + "\n");
  }
  Result r = ctl({"publish", dir_.path});
  EXPECT_EQ(r.err, "mplsctl: " + dir_.path + ": is a directory, not a binding file\n");
  r = ctl({"publish", dir_.path + "/none"});
  EXPECT_EQ(r.err, "mplsctl: " + dir_.path + "/none: cannot read: No such file or directory\n");
  EXPECT_EQ(shown(), before);
}

TEST_F(MplsctlBindings, PublisherKilledHalfWayThenRestarted) {
  // A large publish killed with SIGKILL at some point of its pass, then a small file: the
  // restarted producers delete exactly what the small file lacks.
  const std::string big = dir_.path + "/big.txt";
  ASSERT_EQ(std::system((std::string(MPLS_EXAMPLES_DIR) + "/gen-bindings 20000 --peers 2 "
                         "--advertise --updated 7 > " + big).c_str()),
            0);
  for (int delay : {100, 800, 1300}) {
    SCOPED_TRACE(delay);
    ToolTest::Child c(MPLSCTL_PATH, {"bindings", "publish", big, "--table", table_});
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    c.process.kill();
    const std::string small =
        "local 10.0.0.5/32 21 updated 7\n"
        "peer 192.168.0.2:0 10.0.0.5/32 140005 updated 7\n"
        "advertised 10.0.0.5/32 192.168.0.1:0\n";
    Result r = publish(small);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(publish(small, table_ + "-ref").status, 0);
    EXPECT_EQ(shown(), shown(table_ + "-ref"));
    ctl({"clear"}, table_ + "-ref");
  }
}

// A consumer of the common table set, in the process that builds it.
struct Consumer {
  explicit Consumer(const std::string& table)
      : tables(CommonLibPond::labelBindingTableFactory(table)) {
    tables->mountGroupIs(Pond::MountGroup::reader(CommonLibPond::mountGroupName(table)));
    sm = CommonLibPond::commonLibConsumerSmFactory(tables, local, peers);
    sm->handleInitialized();
  }
  // Processes what the writer published until nothing is left.
  void catchUp() {
    const Kel::Ptr<Pond::MountGroup>& g = tables->mountGroup();
    for (int i = 0; i < 500 && (g->processChanges() > 0 || !g->ready()); ++i) {
      g->waitForChange(std::chrono::milliseconds(10));
    }
  }
  // What it rebuilt: a hash over one line per router, FEC, label, filter and time, and the
  // number of lines.
  std::string digest() const {
    std::map<std::string, int> lines;
    auto add = [&](const Mpls::LabelBindingTable& t, const std::string& who) {
      for (auto&& [fec, b] : t.bindingIter()) {
        for (const Netbase::MplsLabel& l : b->mplsLabelIter()) {
          ++lines[who + fec.prefix().stringValue() + " " + std::to_string(l.value())];
        }
        ++lines[who + fec.prefix().stringValue() + " t" + std::to_string(b->lastUpdate())];
      }
      for (const Mpls::FwdEqvClass& fec : t.filteredFecIter()) {
        ++lines[who + fec.prefix().stringValue() + " filtered"];
      }
    };
    add(*local, "local ");
    for (auto&& [id, t] : peers->bindingTableIter()) {
      add(*t, id.stringValue() + " ");
    }
    std::string all;
    for (const auto& [line, n] : lines) {
      all += line + "*" + std::to_string(n) + "\n";
    }
    return std::to_string(std::hash<std::string>()(all)) + " " + std::to_string(lines.size());
  }

  CommonLibPond::LabelBindingTable::Ptr tables;
  Mpls::LabelBindingTable::Ptr local = Mpls::labelBindingTableFactory();
  Mpls::LabelBindingTableColl::Ptr peers = Mpls::labelBindingTableCollFactory();
  Kel::Ptr<CommonLibPond::CommonLibConsumerSm> sm;
};

TEST_F(MplsctlBindings, ConsumerThatFellBehindConverges) {
  // A consumer process holds 40,000 FECs' bindings; a publish of the same FECs with other
  // labels and one peer fewer goes by without it processing anything: more changes than a
  // table's change log holds. Once it processes, it holds what a fresh reader rebuilds.
  const std::string gen = std::string(MPLS_EXAMPLES_DIR) + "/gen-bindings 40000 --updated 3 ";
  ASSERT_EQ(std::system((gen + "--peers 2 > " + dir_.path + "/a.txt").c_str()), 0);
  ASSERT_EQ(std::system((gen + "--peers 1 --first-label 50000 > " + dir_.path + "/b.txt").c_str()),
            0);
  Result r = ctl({"publish", dir_.path + "/a.txt"});
  ASSERT_EQ(r.status, 0) << r.err;
  Kel::ChildProcess follower([&](Kel::ChildProcess::Channel& c) {
    Consumer consumer(table_);
    while (std::optional<std::string> request = c.request(std::chrono::seconds(60))) {
      if (!request->empty()) {
        consumer.catchUp();
        c.reply(consumer.digest());
      }
    }
    return 0;
  });
  EXPECT_TRUE(follower.ask("catch up", std::chrono::seconds(120)).ends_with(" 240000"));
  r = ctl({"publish", dir_.path + "/b.txt"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string caughtUp = follower.ask("catch up", std::chrono::seconds(120));
  Consumer fresh(table_);
  fresh.catchUp();
  EXPECT_EQ(caughtUp, fresh.digest());
  EXPECT_TRUE(caughtUp.ends_with(" 160000")) << caughtUp;  // labels and times, local and peer
}

}  // namespace
