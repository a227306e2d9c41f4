// Runs a program in a child process, as a user would, for the tool tests.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Kel/ChildProcess.h"

namespace ToolTest {

// A program in a child process: stdin /dev/null, stdout and stderr into scratch files (read
// with pread, which leaves the offset the child writes at alone). Killed if still running
// when dropped. `uid`: the user it runs as, when given (the caller must be allowed to
// switch).
struct Child {
  FILE* outFile = std::tmpfile();
  FILE* errFile = std::tmpfile();
  Kel::ChildProcess process;

  Child(const std::string& program, std::vector<std::string> args,
        std::optional<uid_t> uid = std::nullopt)
      : process([&](Kel::ChildProcess::Channel&) {
          std::vector<char*> argv = {const_cast<char*>(program.c_str())};
          for (std::string& a : args) {
            argv.push_back(a.data());
          }
          argv.push_back(nullptr);
          dup2(open("/dev/null", O_RDONLY), 0);
          dup2(fileno(outFile), 1);
          dup2(fileno(errFile), 2);
          if (uid && setuid(*uid) != 0) {
            return 126;
          }
          execv(program.c_str(), argv.data());
          return 127;
        }) {}
  ~Child() {
    process.kill();
    fclose(outFile);
    fclose(errFile);
  }
  static std::string textOf(FILE* f) {
    std::string s;
    char buf[4096];
    for (ssize_t n; (n = pread(fileno(f), buf, sizeof buf, static_cast<off_t>(s.size()))) > 0;) {
      s.append(buf, static_cast<size_t>(n));
    }
    return s;
  }
  std::string out() const { return textOf(outFile); }
  std::string err() const { return textOf(errFile); }
  // Whether stdout (stderr) comes to hold `what` (polled for at most 10 s).
  bool outHas(const std::string& what) const { return comesToHold(outFile, what); }
  bool errHas(const std::string& what) const { return comesToHold(errFile, what); }
  static bool comesToHold(FILE* f, const std::string& what) {
    for (int i = 0; i < 5000 && textOf(f).find(what) == std::string::npos; ++i) {
      usleep(2000);
    }
    return textOf(f).find(what) != std::string::npos;
  }
  // The exit status (128 + signal) once it has ended; -1 (and killed) if not within `ms`.
  int wait(int ms = 10000) { return process.wait(std::chrono::milliseconds(ms)); }
};

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// The program's run, killed after `ms` (status -1 then).
inline Result runProgram(const std::string& program, const std::vector<std::string>& args,
                         int ms = 30000, std::optional<uid_t> uid = std::nullopt) {
  Child c(program, args, uid);
  const int status = c.wait(ms);
  EXPECT_NE(status, -1) << program << " did not end within " << ms << " ms";
  return {status, c.out(), c.err()};
}

// A scratch directory for the files a test hands a program, removed with it.
struct ScratchDir {
  std::string path;
  ScratchDir() {
    char dir[] = "/tmp/mpls-tool-test-XXXXXX";
    EXPECT_NE(mkdtemp(dir), nullptr);
    path = dir;
  }
  ~ScratchDir() { std::filesystem::remove_all(path); }
  // Writes `text` to the file `name` in the directory; returns its path.
  std::string file(const std::string& name, const std::string& text) const {
    const std::string p = path + "/" + name;
    std::ofstream(p) << text;
    return p;
  }
};

// A name of the running test's own ("<prefix>-<test>-<pid>"), for shared-memory groups.
inline std::string testName(const std::string& prefix) {
  return prefix + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
         std::to_string(getpid());
}

}  // namespace ToolTest
