// mplsctl sr run as a user runs it, one process per command, on table sets of their own:
// publish then show (text and JSON) from another process, a republish that deletes what
// the file no longer has, clear, and files with errors that publish nothing.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ProgramRun.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ToolTest::Result;

// A scratch directory for files, and a table set of the test's own, cleared before and after.
class MplsctlSr : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/mplsctl-sr-test-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    table_ = std::string("sr-test-") +
             ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
             std::to_string(getpid());
    sr({"clear"});
  }
  void TearDown() override {
    sr({"clear"});
    std::system(("rm -rf " + dir_).c_str());
  }
  std::string file(const std::string& text) {
    const std::string path = dir_ + "/facts" + std::to_string(++files_) + ".txt";
    std::ofstream(path) << text;
    return path;
  }
  // mplsctl sr on this test's table set.
  Result sr(std::vector<std::string> args) {
    args.insert(args.begin(), "sr");
    args.insert(args.end(), {"--table", table_});
    return ToolTest::runProgram(MPLSCTL_PATH, args);
  }
  std::string summary(int blocks, int prefixes, int adjacencies, int areas, int routes,
                      int written, int unchanged, int deleted) const {
    return "segment routing '" + table_ + "': " + std::to_string(blocks) + " global blocks, " +
           std::to_string(prefixes) + " prefix segments, " + std::to_string(adjacencies) +
           " adjacency segments, " + std::to_string(areas) + " area segments, " +
           std::to_string(routes) + " routes (" + std::to_string(written) + " rows written, " +
           std::to_string(unchanged) + " unchanged, " + std::to_string(deleted) + " deleted)\n";
  }

  std::string dir_;
  std::string table_;
  int files_ = 0;
};

const char* kFacts =
    "# two routers' blocks\n"
    "block 10.0.0.1:0 16000 8000\n"
    "block 10.0.0.2 17000 1000\n"
    "\n"
    "prefix 10.0.0.1/32 index 1 router 10.0.0.1 flags 0x40 level 2\n"
    "prefix 10.0.0.2/32 index 999 router 10.0.0.2:0 protection-mode 2\n"
    "prefix 10.0.0.3/32 index 1000 router 10.0.0.2   # beyond the block\n"
    "prefix 10.0.0.4/32 index 4 router 10.0.0.9      # no block\n"
    "prefix 2001:db8::1/128 label 30000 router 10.0.0.9\n"
    "adjacency v4 label 24001 7 flags 0x30 neighbor 1921.6800.1002 10\n"
    "adjacency v6 index 3 8 neighbor 0000.0000.0002 10 neighbor 0000.0000.0003 20\n"
    "area v4 49.0001 index 5 local fec 7 originator 10.0.0.1 originator 10.0.0.2\n"
    "route 10.0.0.2/32 fec 12 type 1 metric-pref 10 deferred\n"
    "route 2001:db8::1/128 fec 13 pop-and-lookup\n";

// kFacts without prefix 10.0.0.3/32, the v6 adjacency and the second route, and with a
// larger block for 10.0.0.2.
const char* kFewer =
    "block 10.0.0.1:0 16000 8000\n"
    "block 10.0.0.2 17000 2000\n"
    "prefix 10.0.0.1/32 index 1 router 10.0.0.1 flags 0x40 level 2\n"
    "prefix 10.0.0.2/32 index 999 router 10.0.0.2:0 protection-mode 2\n"
    "prefix 10.0.0.4/32 index 4 router 10.0.0.9\n"
    "prefix 2001:db8::1/128 label 30000 router 10.0.0.9\n"
    "adjacency v4 label 24001 7 flags 0x30 neighbor 1921.6800.1002 10\n"
    "area v4 49.0001 index 5 local fec 7 originator 10.0.0.1 originator 10.0.0.2\n"
    "route 10.0.0.2/32 fec 12 type 1 metric-pref 10 deferred\n";

TEST_F(MplsctlSr, PublishShowRepublishClear) {
  Result r = sr({"publish", file(kFacts)});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, summary(2, 5, 2, 1, 2, 12, 0, 0));

  r = sr({"show"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* line :
       {"global blocks #2\n  10.0.0.1:0            16000-23999\n  10.0.0.2:0            17000-17999\n",
        "10.0.0.1/32          index 1          router 10.0.0.1:0            label 16001   flags "
        "0x40 level 2 protected (mode 0, srlg 0)\n",
        "10.0.0.2/32          index 999        router 10.0.0.2:0            label 17999   flags "
        "0x00 level 0 unprotected\n",
        "10.0.0.3/32          index 1000       router 10.0.0.2:0            label none",
        "10.0.0.4/32          index 4          router 10.0.0.9:0            label none",
        "2001:db8::1/128      label 30000      router 10.0.0.9:0            label 30000",
        "  v4 label 24001 src 7 flags 0x30 neighbors 1921.6800.1002 metric 10\n",
        "  v6 index 3 src 8 flags 0x00 neighbors 0000.0000.0002 metric 10 0000.0000.0003 metric "
        "20\n",
        "area segments #1\n  v4 49.0001 index 5 local fec 7 originators 10.0.0.1:0 10.0.0.2:0\n",
        "routes #2\n  10.0.0.2/32          fec 12 type 1 metric-pref 10 vrf-id 0 deferred\n"
        "  2001:db8::1/128      fec 13 type 0 metric-pref 0 vrf-id 0 pop-and-lookup\n"}) {
    EXPECT_THAT(r.out, HasSubstr(line));
  }

  r = sr({"show", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const nlohmann::json json = nlohmann::json::parse(r.out);
  using Pointer = nlohmann::json::json_pointer;
  for (const auto& [at, value] : std::vector<std::pair<std::string, nlohmann::json>>{
           {"/globalBlocks/1/size", 1000}, {"/prefixSegments/0/label", 16001},
           {"/prefixSegments/2/label", nullptr}, {"/prefixSegments/1/needProtection", false},
           {"/prefixSegments/4/sid/label", 30000}, {"/adjacencySegments/1/neighbors/1/metric", 20},
           {"/areaSegments/0/originators/1", "10.0.0.2:0"}, {"/routes/1/popAndLookupRoute", true}}) {
    EXPECT_EQ(json.contains(Pointer(at)) ? json.at(Pointer(at)) : "absent", value) << at;
  }

  // Republishing: rows the file no longer has go, the rest stays or changes.
  r = sr({"publish", file(kFewer)});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, summary(2, 4, 1, 1, 1, 1, 8, 3));
  r = sr({"show"});
  EXPECT_THAT(r.out, HasSubstr("  10.0.0.2:0            17000-18999\n"));
  EXPECT_THAT(r.out, HasSubstr("label 17999   flags"));  // index 999 is inside either block
  for (const char* gone : {"10.0.0.3/32", "v6 index 3", "fec 13"}) {
    EXPECT_THAT(r.out, Not(HasSubstr(gone)));
  }
  // An empty file (standard input is empty) takes everything away.
  r = sr({"publish", "-"});
  EXPECT_EQ(r.out, summary(0, 0, 0, 0, 0, 0, 0, 9));

  r = sr({"clear"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = sr({"show"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: no segment-routing tables named '" + table_ +
                       "' (no shared-memory segments)\n");
  r = ToolTest::runProgram(MPLSCTL_PATH, {"sr", "show", "--table", "a/b"});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("invalid segment-routing table set name 'a/b'"));
  r = sr({"publish", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("FILE"));
}

TEST_F(MplsctlSr, BadFileNamesLineAndColumnAndPublishesNothing) {
  Result r = sr({"publish", file(kFewer)});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string before = sr({"show"}).out;

  const std::string twoBlocks = "block 10.0.0.1:0 16000 8000\nblock 10.0.0.2 17000 2000\n";
  struct Case {
    const char* line;  // the third line, after two blocks
    std::string error;
  };
  for (const Case& c : std::vector<Case>{
           {"prefix 10.0.0.9/32 index 1 router 10.0.0.300", "3:35: expected a router id "
                                                            "(A.B.C.D or A.B.C.D:SPACE), found "
                                                            "'10.0.0.300'"},
           {"block 10.0.0.2 17000 5", "3:7: a global block of 10.0.0.2:0 is already given on "
                                      "line 2"},
           {"prefix 10.0.0.9/32 label 1048576 router 10.0.0.1",
            "3:26: a label '1048576' out of range 0..1048575"},
           {"block 10.0.0.3 1048000 1000", "3:24: a block size '1000' out of range 1..576"},
           {"prefix 10.0.0.1/8 index 1 router 10.0.0.1",
            "3:8: invalid IP prefix '10.0.0.1/8': host bits set"},
           {"route 10.0.0.9/32 fec 1 deferred deferred", "3:34: 'deferred' given twice"},
           {"adjacency v5 index 1 2", "3:11: expected 'v4' or 'v6', found 'v5'"},
           {"area v4 49.0001 index 5 originator", "3:35: expected a router id, found end of line"},
           {"segment 1", "3:1: expected 'block', 'prefix', 'adjacency', 'area' or 'route', "
                         "found 'segment'"}}) {
    const std::string path = file(twoBlocks + c.line + "\n" + kFewer);
    r = sr({"publish", path});
    EXPECT_EQ(r.status, 1) << c.line;
    EXPECT_EQ(r.err, "mplsctl: " + path + ":" + c.error + "\n");
    EXPECT_EQ(r.out, "");
  }
  // A file the tables cannot hold (1025 global blocks) is taken back after the refused write.
  std::string blocks;
  for (int i = 0; i < 1025; ++i) {
    blocks += "block 10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256) + " 16 1\n";
  }
  r = sr({"publish", file(blocks)});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("is full"));
  EXPECT_THAT(r.err, HasSubstr("nothing published"));
  EXPECT_EQ(sr({"show"}).out, before);
}

}  // namespace
