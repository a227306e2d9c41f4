// mplsctl run as a user runs it, one process per command, on LFIBs of their own: load then
// show (table and JSON), a reload that writes only what changed, --replace, check, dump,
// clear, the errors for a missing LFIB and a bad route file, --help, watch following
// another process's loads, the demo, and mldp decode.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"

namespace {

struct Result {
  int status = -1;  // exit status; 128 + signal; -1 when it had to be killed
  std::string out;
  std::string err;
};

// Runs `program` with `args`, at most `timeout`; stdin is /dev/null.
Result runProgram(const std::string& program, const std::vector<std::string>& args,
                  std::chrono::seconds timeout = std::chrono::seconds(30)) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe failed";
    return {};
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) {
    argv.push_back(const_cast<char*>(a.c_str()));
  }
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  Result r;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&r.out, &r.err};
  int open = 2;
  bool killed = false;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (poll(fds, 2, static_cast<int>(left.count())) < 0) {
      continue;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
        char buf[4096];
        const ssize_t n = read(fds[i].fd, buf, sizeof buf);
        if (n > 0) {
          sinks[i]->append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
          close(fds[i].fd);
          fds[i].fd = -1;
          --open;
        }
      }
    }
  }
  for (pollfd& f : fds) {
    if (f.fd >= 0) {
      close(f.fd);
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (killed) {
    ADD_FAILURE() << program << " did not end within " << timeout.count() << " s";
    r.status = -1;
  } else {
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return r;
}

Result mplsctl(const std::vector<std::string>& args) { return runProgram(MPLSCTL_PATH, args); }

// A scratch directory for route files, and an LFIB name of its own that is cleared
// before and after.
class Mplsctl : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/mplsctl-test-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    lfib_ = std::string("mplsctl-test-") + ::testing::UnitTest::GetInstance()->current_test_info()->name() +
            "-" + std::to_string(getpid());
    mplsctl({"clear", "--lfib", lfib_});
  }
  void TearDown() override {
    mplsctl({"clear", "--lfib", lfib_});
    std::system(("rm -rf " + dir_).c_str());
  }
  std::string file(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
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

TEST_F(Mplsctl, LoadShowReloadReplaceCheck) {
  const std::string routes = file("routes.txt", kRoutes);
  Result r = mplsctl({"load", routes, "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 5 routes written, 0 unchanged, 0 deleted\n");

  r = mplsctl({"show", "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::string line;
  std::vector<std::string> table;
  while (std::getline(lines, line)) {
    table.push_back(line);
  }
  ASSERT_EQ(table.size(), 7u) << r.out;  // header, 16, 100 (two vias), 101, 102, 103
  EXPECT_EQ(table[0].substr(0, 5), "LABEL");
  for (const char* expected : {"VIA SET", "NEXT HOP", "INTERFACE", "WEIGHT"}) {
    EXPECT_NE(table[0].find(expected), std::string::npos) << table[0];
  }
  EXPECT_EQ(table[1].substr(0, 2), "16");
  EXPECT_NE(table[1].find("lookup ipv4"), std::string::npos) << table[1];
  EXPECT_NE(table[1].find("vrf red"), std::string::npos) << table[1];
  EXPECT_EQ(table[2].substr(0, 3), "100");
  EXPECT_EQ(table[3].substr(0, 3), "   ");  // the second via of route 100
  EXPECT_NE(table[2].find("swap 200"), std::string::npos) << table[2];
  EXPECT_NE(table[3].find("swap 200"), std::string::npos) << table[3];
  EXPECT_NE(table[5].find("push 300/301"), std::string::npos) << table[5];
  EXPECT_NE(table[5].find("2001:db8::1"), std::string::npos) << table[5];
  EXPECT_NE(table[6].find("Pseudowire1"), std::string::npos) << table[6];

  r = mplsctl({"show", "--lfib", lfib_, "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const nlohmann::json json = nlohmann::json::parse(r.out);
  ASSERT_EQ(json.size(), 5u);
  const nlohmann::json& swap = json[1];
  EXPECT_EQ(swap["label"], 100);
  EXPECT_EQ(swap["source"], "static");
  EXPECT_EQ(swap["viaSet"]["viaSetType"], "ucmp");
  ASSERT_EQ(swap["vias"].size(), 2u);
  EXPECT_EQ(swap["vias"][0]["nextHop"], "10.0.0.1");
  EXPECT_EQ(swap["vias"][0]["interface"], "Ethernet1");
  EXPECT_EQ(swap["vias"][0]["weight"], 2);
  EXPECT_EQ(swap["vias"][1]["weight"], 1);
  EXPECT_EQ(swap["vias"][0]["labels"], nlohmann::json::array({200}));
  EXPECT_EQ(json[3]["source"], "ldp");
  EXPECT_EQ(json[3]["metric"], 10);
  EXPECT_EQ(json[3]["vias"][0]["labels"], nlohmann::json::array({300, 301}));
  EXPECT_EQ(json[0]["vias"][0]["vrf"], "red");
  EXPECT_EQ(json[4]["vias"][0]["action"], "pseudowire");

  r = mplsctl({"show", "102", "--lfib", lfib_, "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out).size(), 1u);
  r = mplsctl({"show", "999", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' has no route for label 999\n");

  // The same file again writes nothing.
  r = mplsctl({"load", routes, "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 0 routes written, 5 unchanged, 0 deleted\n");

  // One route changed, one dropped: without --replace the dropped one stays.
  const std::string changed = file(
      "changed.txt",
      "100 swap 250 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
      "101 pop via 10.0.0.2 dev Ethernet2\n"
      "102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10\n"
      "16 pop lookup vrf red ipv4\n");
  r = mplsctl({"load", changed, "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 1 routes written, 3 unchanged, 0 deleted\n");
  r = mplsctl({"show", "103", "--lfib", lfib_});
  EXPECT_EQ(r.status, 0) << r.err;
  r = mplsctl({"show", "100", "--lfib", lfib_, "--json"});
  EXPECT_EQ(nlohmann::json::parse(r.out)[0]["vias"][0]["labels"], nlohmann::json::array({250}));

  r = mplsctl({"load", changed, "--lfib", lfib_, "--replace"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 0 routes written, 4 unchanged, 1 deleted\n");
  r = mplsctl({"show", "103", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);

  // 4 routes: route 100 has two vias, the others one each.
  r = mplsctl({"check", "--lfib", lfib_});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "' is consistent: 4 routes, 4 via sets, 5 vias\n");

  r = mplsctl({"dump", "--lfib", lfib_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("lfibRoutes #4\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("mplsVias #4\n"), std::string::npos) << r.out;

  r = mplsctl({"clear", "--lfib", lfib_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("LFIB '" + lfib_ + "': removed ", 0), 0u) << r.out;
  r = mplsctl({"show", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
}

TEST_F(Mplsctl, MissingLfibIsAnError) {
  const std::string missing = "mplsctl: no LFIB named '" + lfib_ + "' (no shared-memory segments)\n";
  for (const char* command : {"show", "check", "dump", "clear"}) {
    Result r = mplsctl({command, "--lfib", lfib_});
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_EQ(r.err, missing) << command;
    EXPECT_EQ(r.out, "") << command;
  }
}

TEST_F(Mplsctl, BadRouteFileProgramsNothing) {
  const std::string bad = file("bad.txt",
                               "100 swap 200 via 10.0.0.1 dev Ethernet1\n"
                               "101 pop via 10.0.0.2 dev Ethernet2\n"
                               "102 swap x via 10.0.0.3 dev Ethernet3\n");
  Result r = mplsctl({"load", bad, "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: " + bad + ":3:10: expected a label after 'swap', found 'x'\n");
  r = mplsctl({"show", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1) << "a refused file created the LFIB: " << r.out;

  // Over an existing LFIB, a refused file leaves it as it was.
  ASSERT_EQ(mplsctl({"load", file("good.txt", kRoutes), "--lfib", lfib_}).status, 0);
  const std::string before = mplsctl({"show", "--lfib", lfib_, "--json"}).out;
  r = mplsctl({"load", bad, "--lfib", lfib_, "--replace"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(mplsctl({"show", "--lfib", lfib_, "--json"}).out, before);

  r = mplsctl({"load", dir_ + "/none.txt", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: " + dir_ + "/none.txt: cannot read: No such file or directory\n");
}

TEST_F(Mplsctl, GeneratedRoutesAndTheExample) {
  const Result gen = runProgram(MPLS_EXAMPLES_DIR "/gen-routes", {"3000", "--vias", "3"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  const std::string generated = file("gen.txt", gen.out);
  const std::string example = MPLS_EXAMPLES_DIR "/routes.txt";

  // The first load sizes the tables for the example: the generated routes do not fit.
  Result r = mplsctl({"load", example, "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 7 routes written, 0 unchanged, 0 deleted\n");
  r = mplsctl({"load", generated, "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' has room for 1024 routes, this load may need 3007: "
                   "nothing loaded (run 'mplsctl clear --lfib " + lfib_ +
                   "' and load again to size it for the file)\n");
  r = mplsctl({"check", "--lfib", lfib_});
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "' is consistent: 7 routes, 7 via sets, 9 vias\n");

  ASSERT_EQ(mplsctl({"clear", "--lfib", lfib_}).status, 0);
  r = mplsctl({"load", generated, "--lfib", lfib_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 3000 routes written, 0 unchanged, 0 deleted\n");
  r = mplsctl({"check", "--lfib", lfib_});
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "' is consistent: 3000 routes, 3000 via sets, 9000 vias\n");
  r = mplsctl({"load", example, "--lfib", lfib_, "--replace"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "': 7 routes written, 0 unchanged, 3000 deleted\n");
  r = mplsctl({"check", "--lfib", lfib_});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "LFIB '" + lfib_ + "' is consistent: 7 routes, 7 via sets, 9 vias\n");
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

  const Result r = mplsctl({"check", "--lfib", lfib_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "route 100: via set static/1/mplsIp/ecmp is missing\n"
            "via set static/2/mplsIp/ecmp: via static/mplsIp/7 is missing\n"
            "via static/mplsIp/9 is used by no via set\n");
  EXPECT_EQ(r.err, "mplsctl: LFIB '" + lfib_ + "' is inconsistent: 3 problems\n");
  // show marks what is missing rather than failing.
  const Result show = mplsctl({"show", "--lfib", lfib_, "--json"});
  EXPECT_EQ(show.status, 0) << show.err;
  EXPECT_EQ(nlohmann::json::parse(show.out)[0]["viaSet"]["missing"], true);
}

TEST_F(Mplsctl, HelpAndUsage) {
  for (const char* command : {"load", "show", "dump", "check", "clear", "watch"}) {
    const Result r = mplsctl({command, "--help"});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_NE(r.out.find("--lfib"), std::string::npos) << command << ": " << r.out;
  }
  Result r = mplsctl({"--help"});
  EXPECT_EQ(r.status, 0);
  for (const char* command : {"load", "show", "dump", "check", "clear", "watch", "demo"}) {
    EXPECT_NE(r.out.find(command), std::string::npos) << r.out;
  }
  r = mplsctl({});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err, "");
  r = mplsctl({"frobnicate"});
  EXPECT_EQ(r.status, 2);
  r = mplsctl({"load"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("FILE"), std::string::npos) << r.err;
  r = mplsctl({"show", "2000000"});
  EXPECT_EQ(r.status, 2);
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
  // Transit VPNv6 bidir: 45 columns on one line, so the summary wraps the RD.
  const std::string vpnV6Bidir =
      "0a0029 80 20010db8000000000000000000000002 ff050000000000000000000000000001 "
      "0001 0a000001 0007";
  Result r = mplsctl({"mldp", "decode", vpnV6Bidir});
  EXPECT_EQ(r.out, "RP: 2001:db8::2/128 G: ff05::1 RD: 10.0.0.1:7\n");
  r = mplsctl({"mldp", "decode", "--summary", vpnV6Bidir});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "RP: 2001:db8::2/128 G: ff05::1\n RD: 10.0.0.1:7\n");
  r = mplsctl({"mldp", "decode", "05 00 08 20 0a 00 00 01 e1 01 01 01"});
  EXPECT_EQ(r.out, " x05 x00 x08 x20 x0a x00 x00 x01 xe1 x01 x01 x01\n");

  r = mplsctl({"mldp", "decode", "01 00 zz"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("mplsctl: bad hex 'zz': 'z' is not a hex digit", 0), 0u) << r.err;
  r = mplsctl({"mldp", "decode", "01:00:004"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("mplsctl: bad hex '004': an odd number of hex digits", 0), 0u) << r.err;
  r = mplsctl({"mldp", "decode", ": :"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mplsctl: no octets to decode in ': :'\n");
  r = mplsctl({"mldp", "decode"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("HEX"), std::string::npos) << r.err;
  r = mplsctl({"mldp", "decode", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("--summary"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("0x"), std::string::npos) << r.out;
}

// mplsctl started in the background; its stdout is read as it comes.
struct Background {
  pid_t pid = -1;
  int out = -1;
  std::string text;

  explicit Background(const std::vector<std::string>& args) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe failed";
      return;
    }
    std::vector<char*> argv = {const_cast<char*>(MPLSCTL_PATH)};
    for (const std::string& a : args) {
      argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      execv(MPLSCTL_PATH, argv.data());
      _exit(127);
    }
    close(fds[1]);
    out = fds[0];
  }
  ~Background() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (out >= 0) {
      close(out);
    }
  }
  // Reads until the output holds `what` or the pipe closes; at most 10 s.
  bool readUntil(const std::string& what) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (text.find(what) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p = {out, POLLIN, 0};
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) {
        return false;
      }
      char buf[4096];
      const ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) {
        return false;
      }
      text.append(buf, static_cast<size_t>(n));
    }
    return true;
  }
  // The exit status once it has ended (at most 10 s), -1 if it had to be killed.
  int wait() {
    readUntil("\x01");  // everything up to end of file
    for (int i = 0; i < 1000; ++i) {
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      usleep(10000);
    }
    return -1;
  }
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// watch in another process: the LFIB as it opens, then one line per route whose
// forwarding a load changed (a load that rewrites nothing prints nothing), --count, and
// SIGTERM.
TEST_F(Mplsctl, WatchFollowsLoads) {
  ASSERT_EQ(mplsctl({"load", file("routes.txt", kRoutes), "--lfib", lfib_}).status, 0);
  Background watch({"watch", "--lfib", lfib_, "--count", "3", "--timeout", "20"});
  ASSERT_TRUE(watch.readUntil("\n")) << watch.text;
  EXPECT_EQ(watch.text, "watching LFIB '" + lfib_ + "': 5 routes\n");

  ASSERT_EQ(mplsctl({"load", file("same.txt", kRoutes), "--lfib", lfib_}).status, 0);
  const std::string changed = file(
      "changed.txt",
      "100 swap 250 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
      "101 pop via 10.0.0.2 dev Ethernet2\n"
      "102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10\n"
      "16 pop lookup vrf red ipv4\n"
      "104 swap 204 via 10.0.1.1 dev Port-Channel10\n");
  const Result load = mplsctl({"load", changed, "--lfib", lfib_, "--replace"});
  ASSERT_EQ(load.status, 0) << load.err;
  EXPECT_EQ(watch.wait(), 0);
  std::vector<std::string> lines = linesOf(watch.text);
  ASSERT_EQ(lines.size(), 4u) << watch.text;
  std::sort(lines.begin() + 1, lines.end());
  EXPECT_EQ(lines[1], "added 104 -> swap 204 via 10.0.1.1 dev Port-Channel10");
  const std::string changedPrefix = "changed 100 version ";
  ASSERT_EQ(lines[2].rfind(changedPrefix, 0), 0u) << lines[2];
  EXPECT_GT(std::stoul(lines[2].substr(changedPrefix.size())), 1u) << lines[2];
  EXPECT_NE(lines[2].find(" -> swap 250 via 10.0.0.1 dev Ethernet1 weight 2, swap 250 via "
                          "10.0.0.3 dev Ethernet4"),
            std::string::npos)
      << lines[2];
  EXPECT_EQ(lines[3], "deleted 103");

  Background endless({"watch", "--lfib", lfib_});
  ASSERT_TRUE(endless.readUntil("\n")) << endless.text;
  kill(endless.pid, SIGTERM);
  EXPECT_EQ(endless.wait(), 0);
  EXPECT_EQ(endless.text, "watching LFIB '" + lfib_ + "': 5 routes\n");
}

TEST_F(Mplsctl, WatchOfAMissingLfibTimesOut) {
  const Result r = mplsctl({"watch", "--lfib", lfib_, "--timeout", "0.3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "mplsctl: no LFIB named '" + lfib_ + "' yet; waiting for it to appear\n"
                   "mplsctl: LFIB '" + lfib_ + "' did not appear within 0.3 s\n");
  EXPECT_NE(mplsctl({"watch", "--count", "0"}).status, 0);
  EXPECT_NE(mplsctl({"watch", "--timeout", "-1"}).status, 0);
}

// The demo forks its own reader and removes its LFIB afterwards.
TEST(MplsctlDemo, FollowsAndCleansUp) {
  const Result r = mplsctl({"demo"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_FALSE(lines.empty());
  const std::string& summary = lines.back();
  EXPECT_EQ(summary.rfind("demo: 12 routes written, 2 deleted, reader followed ", 0), 0u) << summary;
  const std::string tail =
      " changes, IP-lookup table 1 entries, L2 EVPN table 1 entries, all consistent";
  ASSERT_GT(summary.size(), tail.size());
  EXPECT_EQ(summary.substr(summary.size() - tail.size()), tail) << summary;
  EXPECT_NE(r.out.find("reader IP-lookup table: 16:red:ipv4 17:default:ipv6\n"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("reader L2 EVPN table: 300:20\n"), std::string::npos) << r.out;
  const size_t name = r.out.find("'mplsctl-demo-");
  ASSERT_NE(name, std::string::npos) << r.out;
  const std::string lfib = r.out.substr(name + 1, r.out.find('\'', name + 1) - name - 1);
  EXPECT_TRUE(Pond::MountGroup::tableNames(lfib).empty()) << lfib << " was left behind";
}

}  // namespace
