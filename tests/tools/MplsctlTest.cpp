// mplsctl run as a user runs it, one process per command, on LFIBs of their own: load then
// show (table and JSON), a reload that writes only what changed, --replace, check, dump,
// clear, the errors for a missing LFIB and a bad route file, --help, watch following
// another process's loads, the demo, and mldp decode.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"
#include "Kel/EntityText.h"
#include "Statehub/EntityManager.h"
#include "types/Mpls/ClientLabelRequest.h"
#include "types/Mpls/MplsApiStatus.h"
#include "ProgramRun.h"

namespace {

using ToolTest::Child;
using ToolTest::Result;
using ToolTest::runProgram;

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

Result mplsctl(const std::vector<std::string>& args) { return runProgram(MPLSCTL_PATH, args); }

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// A scratch directory for route files, and an LFIB name of its own that is cleared
// before and after.
class Mplsctl : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/mplsctl-test-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    lfib_ = std::string("mplsctl-test-") +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
            std::to_string(getpid());
    ctl({"clear"});
  }
  void TearDown() override {
    ctl({"clear"});
    std::system(("rm -rf " + dir_).c_str());
  }
  std::string file(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  // mplsctl on this test's LFIB.
  Result ctl(std::vector<std::string> args) {
    args.insert(args.end(), {"--lfib", lfib_});
    return mplsctl(args);
  }
  std::string loaded(int written, int unchanged, int deleted) const {
    return fmt::format("LFIB '{}': {} routes written, {} unchanged, {} deleted\n", lfib_, written,
                       unchanged, deleted);
  }
  std::string consistent(int routes, int sets, int vias) const {
    return fmt::format("LFIB '{}' is consistent: {} routes, {} via sets, {} vias\n", lfib_, routes,
                       sets, vias);
  }

  std::string dir_;
  std::string lfib_;
};

const char* kRoutes =
    "100 swap 200 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
    "101 pop via 10.0.0.2 dev Ethernet2\n"
    "102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10\n"
    "16 pop lookup vrf red ipv4\n"
    "103 pseudowire dev Pseudowire1\n";
// kRoutes with route 100 swapping to 250 and route 103 dropped.
const char* kChanged =
    "100 swap 250 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
    "101 pop via 10.0.0.2 dev Ethernet2\n"
    "102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10\n"
    "16 pop lookup vrf red ipv4\n";

TEST_F(Mplsctl, LoadShowReloadReplaceCheck) {
  const std::string routes = file("routes.txt", kRoutes);
  Result r = ctl({"load", routes});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(5, 0, 0));

  r = ctl({"show"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> table = linesOf(r.out);
  ASSERT_EQ(table.size(), 7u) << r.out;  // header, 16, 100 (two vias), 101, 102, 103
  struct Row {
    size_t line;
    const char* start;
    std::vector<const char*> words;
  };
  for (const Row& row : std::vector<Row>{
           {0, "LABEL", {"VIA SET", "NEXT HOP", "INTERFACE", "WEIGHT"}},
           {1, "16", {"lookup ipv4", "vrf red"}},
           {2, "100", {"swap 200"}},
           {3, "   ", {"swap 200"}},  // the second via of route 100
           {5, "", {"push 300/301", "2001:db8::1"}},
           {6, "", {"Pseudowire1"}}}) {
    EXPECT_THAT(table[row.line], StartsWith(row.start));
    for (const char* word : row.words) {
      EXPECT_THAT(table[row.line], HasSubstr(word));
    }
  }

  r = ctl({"show", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const nlohmann::json json = nlohmann::json::parse(r.out);
  ASSERT_EQ(json.size(), 5u);
  EXPECT_EQ(json[1]["vias"].size(), 2u);
  using Pointer = nlohmann::json::json_pointer;
  for (const auto& [at, value] : std::vector<std::pair<std::string, nlohmann::json>>{
           {"/1/label", 100}, {"/1/source", "static"}, {"/1/viaSet/viaSetType", "ucmp"},
           {"/1/vias/0/nextHop", "10.0.0.1"}, {"/1/vias/0/interface", "Ethernet1"},
           {"/1/vias/0/weight", 2}, {"/1/vias/1/weight", 1},
           {"/1/vias/0/labels", nlohmann::json::array({200})}, {"/3/source", "ldp"},
           {"/3/metric", 10}, {"/3/vias/0/labels", nlohmann::json::array({300, 301})},
           {"/0/vias/0/vrf", "red"}, {"/4/vias/0/action", "pseudowire"}}) {
    EXPECT_EQ(json.contains(Pointer(at)) ? json.at(Pointer(at)) : nullptr, value) << at;
  }

  r = ctl({"show", "102", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out).size(), 1u);
  r = ctl({"show", "999"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' has no route for label 999\n");

  // The same file again writes nothing.
  EXPECT_EQ(ctl({"load", routes}).out, loaded(0, 5, 0));

  // One route changed, one dropped: without --replace the dropped one stays.
  const std::string changed = file("changed.txt", kChanged);
  r = ctl({"load", changed});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(1, 3, 0));
  EXPECT_EQ(ctl({"show", "103"}).status, 0);
  r = ctl({"show", "100", "--json"});
  EXPECT_EQ(nlohmann::json::parse(r.out)[0]["vias"][0]["labels"], nlohmann::json::array({250}));

  r = ctl({"load", changed, "--replace"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(0, 4, 1));
  EXPECT_EQ(ctl({"show", "103"}).status, 1);

  // 4 routes: route 100 has two vias, the others one each.
  r = ctl({"check"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, consistent(4, 4, 5));

  r = ctl({"dump"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("lfibRoutes #4\n"));
  EXPECT_THAT(r.out, HasSubstr("mplsVias #4\n"));

  r = ctl({"clear"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith("LFIB '" + lfib_ + "': removed "));
  EXPECT_EQ(ctl({"show"}).status, 1);
}

TEST_F(Mplsctl, MissingLfibIsAnError) {
  const std::string missing = "mplsctl: no LFIB named '" + lfib_ + "' (no shared-memory segments)\n";
  for (const char* command : {"show", "check", "dump", "clear"}) {
    Result r = ctl({command});
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_EQ(r.err, missing) << command;
    EXPECT_EQ(r.out, "") << command;
  }
  // watch waits for it, then gives up.
  const Result r = ctl({"watch", "--timeout", "0.3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "mplsctl: no LFIB named '" + lfib_ + "' yet; waiting for it to appear\n"
                   "mplsctl: LFIB '" + lfib_ + "' did not appear within 0.3 s\n");
}

TEST_F(Mplsctl, BadRouteFileProgramsNothing) {
  const std::string bad = file("bad.txt",
                               "100 swap 200 via 10.0.0.1 dev Ethernet1\n"
                               "101 pop via 10.0.0.2 dev Ethernet2\n"
                               "102 swap x via 10.0.0.3 dev Ethernet3\n");
  Result r = ctl({"load", bad});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: " + bad + ":3:10: expected a label after 'swap', found 'x'\n");
  r = ctl({"show"});
  EXPECT_EQ(r.status, 1) << "a refused file created the LFIB: " << r.out;

  // Over an existing LFIB, a refused file leaves it as it was.
  ASSERT_EQ(ctl({"load", file("good.txt", kRoutes)}).status, 0);
  const std::string before = ctl({"show", "--json"}).out;
  EXPECT_EQ(ctl({"load", bad, "--replace"}).status, 1);
  EXPECT_EQ(ctl({"show", "--json"}).out, before);

  r = ctl({"load", dir_ + "/none.txt"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: " + dir_ + "/none.txt: cannot read: No such file or directory\n");
}

TEST_F(Mplsctl, GeneratedRoutesAndTheExample) {
  const Result gen = runProgram(MPLS_EXAMPLES_DIR "/gen-routes", {"3000", "--vias", "3"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  const std::string generated = file("gen.txt", gen.out);
  const std::string example = MPLS_EXAMPLES_DIR "/routes.txt";

  // The first load sizes the tables for the example: the generated routes do not fit.
  Result r = ctl({"load", example});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(7, 0, 0));
  r = ctl({"load", generated});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' has room for 1024 routes, this load may need 3007: "
                   "nothing loaded (run 'mplsctl clear --lfib " + lfib_ +
                   "' and load again to size it for the file)\n");
  EXPECT_EQ(ctl({"check"}).out, consistent(7, 7, 9));

  ASSERT_EQ(ctl({"clear"}).status, 0);
  r = ctl({"load", generated});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(3000, 0, 0));
  EXPECT_EQ(ctl({"check"}).out, consistent(3000, 3000, 9000));
  r = ctl({"load", example, "--replace"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, loaded(7, 0, 3000));
  r = ctl({"check"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, consistent(7, 7, 9));
}

// An LFIB another writer sized with a small via-set record heap: a load that would fill it
// is refused before its first write.
TEST_F(Mplsctl, LoadRefusedBeforeTheRecordHeapFills) {
  {
    Mpls::LfibStatusSizing sizing;
    sizing.viaSet.heapBytes = 8192;
    auto lfib = Mpls::lfibStatusFactory();
    lfib->mountGroupIs(Pond::MountGroup::writer(lfib_), sizing);
  }
  ASSERT_EQ(ctl({"load", MPLS_EXAMPLES_DIR "/routes.txt"}).status, 0);
  const std::string before = ctl({"dump"}).out;
  const Result gen = runProgram(MPLS_EXAMPLES_DIR "/gen-routes", {"300"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  const Result r = ctl({"load", file("gen.txt", gen.out)});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' has no room for 21600 bytes more of via sets "
                   "in the 16384-byte record heap of its table 'viaSet': nothing loaded (run "
                   "'mplsctl clear --lfib " + lfib_ + "' and load again to size it for the "
                   "file)\n");
  EXPECT_EQ(ctl({"dump"}).out, before);
}

// An LFIB written here, past the LFIB writer: a route without its via set, a via set
// without its via, and a via no via set uses.
TEST_F(Mplsctl, CheckReportsWhatIsMissing) {
  using namespace Mpls;
  auto group = Pond::MountGroup::writer(lfib_);
  auto lfib = lfibStatusFactory();
  lfib->mountGroupIs(group);
  const LfibViaSetKey missingSet(LFib::sourceStatic, 1, viaTypeMplsIp, viaSetTypeEcmp);
  lfib->lfibRouteIs(LfibRoute(RouteKey(100), missingSet, LFib::sourceStatic, FwdEqvClass(), 0));
  LfibViaSet set(LfibViaSetKey(LFib::sourceStatic, 2, viaTypeMplsIp, viaSetTypeEcmp));
  set.viaKeyIs(0, LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 7));
  lfib->viaSetIs(set);
  lfib->mplsViaIs(LfibMplsVia(LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 9),
                              Netbase::IpGenAddr("10.0.0.9"), Netbase::labelActionPop,
                              Netbase::UnboundedMplsLabelOperation(), false));
  group->publish();

  const Result r = ctl({"check"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "route 100: via set static/1/mplsIp/ecmp is missing\n"
            "via set static/2/mplsIp/ecmp: via static/mplsIp/7 is missing\n"
            "via set static/2/mplsIp/ecmp is used by no route\n"
            "via static/mplsIp/9 is used by no via set\n");
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' is inconsistent: 4 problems\n");
  // show marks what is missing rather than failing.
  const Result show = ctl({"show", "--json"});
  EXPECT_EQ(show.status, 0) << show.err;
  EXPECT_EQ(nlohmann::json::parse(show.out)[0]["viaSet"]["missing"], true);
}

class Note : public Kel::Entity {
 public:
  KEL_ENTITY(Note, "Test::Note");
  class NotifieeConst : public Kel::NotifieeOf<Note> {
   public:
    virtual void onText() {}
  };
  KEL_ATTR(Kel::String, text, Text)
};

// What a process published: listed by path with its type, shown, watched, then removed.
TEST(MplsctlState, ListsShowsWatchesAndClearsTheInstance) {
  const std::string instance = fmt::format("mplsctl-test-{}", ::getpid());
  auto manager = Kel::make<Statehub::EntityManager>(instance);
  Child watch(MPLSCTL_PATH, {"state", "watch", "mpls/status", "--statehub", instance, "--count",
                             "3", "--timeout", "20"});
  ASSERT_TRUE(watch.errHas("\n"));  // waiting for the path to appear
  auto status = Mpls::Api::statusFactory();
  status->dynamicLabelRangeIs(Mpls::LabelRange(100000, 262144));
  auto bgp = status->labelBlockAllocationIs(Kel::String("bgp"));
  bgp->blockIs(Kel::String("r1"), Mpls::LabelBlock(Netbase::MplsLabel(100000)));
  auto publications = {manager->publish("mpls/status", status),
                       manager->publish("mpls/labelRequest/bgp",
                                        Mpls::clientLabelRequestFactory("bgp")),
                       manager->publish("other", Kel::make<Note>())};
  EXPECT_EQ(mplsctl({"state", "ls", "--statehub", instance}).out,
            "mpls/labelRequest/bgp  Mpls::ClientLabelRequest\nmpls/status  Mpls::Api::Status\n"
            "other  Test::Note\n");
  EXPECT_EQ(mplsctl({"state", "ls", "mpls/labelRequest", "--statehub", instance}).out,
            "mpls/labelRequest/bgp  Mpls::ClientLabelRequest\n");
  EXPECT_EQ(mplsctl({"state", "show", "mpls/status", "--statehub", instance}).out,
            Kel::entityText(*status));
  const auto json = nlohmann::json::parse(
      mplsctl({"state", "show", "mpls/status", "--json", "--statehub", instance}).out);
  EXPECT_EQ(json["type"], "Mpls::Api::Status");
  EXPECT_EQ(json["attributes"]["labelBlockAllocation"]["bgp"]["block"]["r1"],
            "Value('Mpls::LabelBlock', ** {'blockStart': 100000})");

  // The watcher printed the entity as it was published; now the changes, line by line.
  ASSERT_TRUE(watch.outHas("block"));
  bgp->blockIs(Kel::String("r2"), Mpls::LabelBlock(Netbase::MplsLabel(116384)));
  status->dynamicLabelRangeIs(Mpls::LabelRange(16, 16384));
  for (const auto& p : publications) {
    p->flush();
  }
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_THAT(watch.out(), StartsWith("watching path 'mpls/status' of statehub '" + instance +
                                      "'\n  dynamicLabelRange: "));
  EXPECT_THAT(watch.out(), HasSubstr("\n+ labelBlockAllocation['bgp'].block['r2']: "));
  EXPECT_THAT(watch.out(), HasSubstr("\n- dynamicLabelRange: Value('Mpls::LabelRange', ** "
                                     "{'base': 100000, 'size': 262144})\n+ dynamicLabelRange: "));

  Result r = mplsctl({"state", "show", "other", "--statehub", instance});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("holds a Test::Note, which mplsctl cannot show"));
  r = mplsctl({"state", "show", "nothing/here", "--statehub", instance});
  EXPECT_THAT(r.err, HasSubstr("nothing is published at path 'nothing/here'"));
  r = mplsctl({"state", "ls", "demo//a", "--statehub", instance});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, StartsWith("mplsctl: invalid statehub path 'demo//a': "));
  r = mplsctl({"state", "clear", "--statehub", instance});
  EXPECT_EQ(r.out, "statehub '" + instance + "': 3 paths removed\n");
  EXPECT_EQ(mplsctl({"state", "ls", "--statehub", instance}).out, "");
  EXPECT_EQ(mplsctl({"state", "ls", "--statehub", "bad/name"}).status, 1);
}

TEST(MplsctlUsage, HelpAndBadUsage) {
  for (const char* command : {"load", "show", "dump", "check", "clear", "watch"}) {
    const Result r = mplsctl({command, "--help"});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_THAT(r.out, HasSubstr("--lfib")) << command;
  }
  Result r = mplsctl({"--help"});
  EXPECT_EQ(r.status, 0);
  for (const char* command : {"load", "show", "dump", "check", "clear", "watch", "demo"}) {
    EXPECT_THAT(r.out, HasSubstr(command));
  }
  r = mplsctl({});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err, "");
  r = mplsctl({"load"});
  EXPECT_EQ(r.status, 2);
  EXPECT_THAT(r.err, HasSubstr("FILE"));
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"frobnicate"}, {"show", "2000000"}, {"watch", "--count", "0"},
           {"watch", "--timeout", "-1"}, {"watch", "--timeout", "nan"}, {"watch", "--timeout", "inf"}}) {
    EXPECT_EQ(mplsctl(args).status, 2) << args[0] << " " << args.back();
  }
}

// mldp decode reads hex in its several spellings, prints one line or the wrapped summary,
// and names bad hex.
TEST(MplsctlMldp, DecodesHexAndNamesBadHex) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"05", "00", "09", "20", "0a", "00", "00", "01", "e1", "01", "01", "01"},
           {"05:00:09:20:0A:00:00:01:E1:01:01:01"},
           {"0x050009200a", "0x000001e1010101"},
           {"\\x05\\x00\\x09\\x20\\x0a\\x00\\x00\\x01\\xe1\\x01\\x01\\x01"},
           {" x05 x00 x09 x20 x0a x00 x00 x01 xe1 x01 x01 x01"}}) {
    std::vector<std::string> command = {"mldp", "decode"};
    command.insert(command.end(), args.begin(), args.end());
    const Result r = mplsctl(command);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    EXPECT_EQ(r.out, "RP: 10.0.0.1/32 G: 225.1.1.1\n") << args[0];
  }
  // Transit VPNv6 bidir: 45 columns on one line, so --summary wraps the RD.
  const std::string vpnV6Bidir =
      "0a0029 80 20010db8000000000000000000000002 ff050000000000000000000000000001 "
      "0001 0a000001 0007";
  Result r = mplsctl({"mldp", "decode", "--summary", vpnV6Bidir});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "RP: 2001:db8::2/128 G: ff05::1\n RD: 10.0.0.1:7\n");

  for (const auto& [hex, err] : std::vector<std::pair<std::string, std::string>>{
           {"01 00 zz", "mplsctl: bad hex 'zz': 'z' is not a hex digit"},
           {"01:00:004", "mplsctl: bad hex '004': an odd number of hex digits"},
           {": :", "mplsctl: no octets to decode in ': :'\n"}}) {
    r = mplsctl({"mldp", "decode", hex});
    EXPECT_EQ(r.status, 1) << hex;
    EXPECT_EQ(r.out, "") << hex;
    EXPECT_THAT(r.err, StartsWith(err));
  }
  r = mplsctl({"mldp", "decode"});
  EXPECT_NE(r.status, 0);
  EXPECT_THAT(r.err, HasSubstr("HEX"));
  r = mplsctl({"mldp", "decode", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("--summary"));
  EXPECT_THAT(r.out, HasSubstr("0x"));
}

// watch in another process: the LFIB as it opens, then one line per route whose
// forwarding a load changed (a load that rewrites nothing prints nothing), --count, and
// SIGTERM.
TEST_F(Mplsctl, WatchFollowsLoads) {
  ASSERT_EQ(ctl({"load", file("routes.txt", kRoutes)}).status, 0);
  Child watch(MPLSCTL_PATH, {"watch", "--lfib", lfib_, "--count", "3", "--timeout", "20"});
  ASSERT_TRUE(watch.outHas("\n")) << watch.out();
  EXPECT_EQ(watch.out(), "watching LFIB '" + lfib_ + "': 5 routes\n");

  ASSERT_EQ(ctl({"load", file("same.txt", kRoutes)}).status, 0);
  const std::string changed =
      file("changed.txt", std::string(kChanged) + "104 swap 204 via 10.0.1.1 dev Port-Channel10\n");
  const Result load = ctl({"load", changed, "--replace"});
  ASSERT_EQ(load.status, 0) << load.err;
  EXPECT_EQ(watch.wait(), 0);
  std::vector<std::string> lines = linesOf(watch.out());
  ASSERT_EQ(lines.size(), 4u) << watch.out();
  std::sort(lines.begin() + 1, lines.end());
  EXPECT_EQ(lines[1], "added 104 -> swap 204 via 10.0.1.1 dev Port-Channel10");
  const std::string changedPrefix = "changed 100 version ";
  ASSERT_THAT(lines[2], StartsWith(changedPrefix));
  EXPECT_GT(std::stoul(lines[2].substr(changedPrefix.size())), 1u) << lines[2];
  EXPECT_THAT(lines[2], HasSubstr(" -> swap 250 via 10.0.0.1 dev Ethernet1 weight 2, swap 250 via "
                                  "10.0.0.3 dev Ethernet4"));
  EXPECT_EQ(lines[3], "deleted 103");

  Child endless(MPLSCTL_PATH, {"watch", "--lfib", lfib_});
  ASSERT_TRUE(endless.outHas("\n")) << endless.out();
  kill(endless.process.pid(), SIGTERM);
  EXPECT_EQ(endless.wait(), 0);
  EXPECT_EQ(endless.out(), "watching LFIB '" + lfib_ + "': 5 routes\n");
}

// The demo forks its own reader and removes its LFIB afterwards.
TEST(MplsctlDemo, FollowsAndCleansUp) {
  const Result r = mplsctl({"demo"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_FALSE(lines.empty());
  const std::string& summary = lines.back();
  EXPECT_THAT(summary, StartsWith("demo: 12 routes written, 2 deleted, reader followed "));
  EXPECT_THAT(summary, EndsWith(" changes, IP-lookup table 1 entries, L2 EVPN table 1 entries, "
                                "all consistent"));
  EXPECT_THAT(r.out, HasSubstr("reader IP-lookup table: 16:red:ipv4 17:default:ipv6\n"));
  EXPECT_THAT(r.out, HasSubstr("reader L2 EVPN table: 300:20\n"));
  EXPECT_THAT(r.out, HasSubstr("bgp keeps 100000-116383, ldp keeps 116384-132767"));
  const size_t hub = r.out.find("statehub 'mplsctl-demo-");
  ASSERT_NE(hub, std::string::npos) << r.out;
  const std::string instance = r.out.substr(hub + 10, r.out.find('\'', hub + 10) - hub - 10);
  EXPECT_TRUE(Statehub::EntityManager(instance).paths().empty()) << instance << " was left";
  const size_t name = r.out.find("'mplsctl-demo-");
  ASSERT_NE(name, std::string::npos) << r.out;
  const std::string lfib = r.out.substr(name + 1, r.out.find('\'', name + 1) - name - 1);
  EXPECT_TRUE(Pond::MountGroup::tableNames(lfib).empty()) << lfib << " was left behind";
}

}  // namespace
