// Runs a program in a child process, as a user would, for the tool tests.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace ToolTest {

// A program in a child process: stdin /dev/null, stdout and stderr into scratch files (read
// with pread, which leaves the offset the child writes at alone). Killed if still running
// when dropped.
struct Child {
  FILE* outFile = std::tmpfile();
  FILE* errFile = std::tmpfile();
  pid_t pid = -1;
  int status = -1;  // exit status; 128 + signal

  // `uid`: the user it runs as, when given (the caller must be allowed to switch).
  Child(const std::string& program, const std::vector<std::string>& args,
        std::optional<uid_t> uid = std::nullopt) {
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& a : args) {
      argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    pid = outFile && errFile ? fork() : -1;
    if (pid == 0) {
      dup2(open("/dev/null", O_RDONLY), 0);
      dup2(fileno(outFile), 1);
      dup2(fileno(errFile), 2);
      if (uid && setuid(*uid) != 0) {
        _exit(126);
      }
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    EXPECT_GT(pid, 0) << "cannot start " << program;
  }
  ~Child() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    for (FILE* f : {outFile, errFile}) {
      if (f != nullptr) {
        fclose(f);
      }
    }
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
  bool ended() {
    int s = 0;
    if (pid > 0 && waitpid(pid, &s, WNOHANG) == pid) {
      status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
      pid = -1;
    }
    return pid <= 0;
  }
  // Whether stdout comes to hold `what` (polled for at most 10 s).
  bool outHas(const std::string& what) {
    for (int i = 0; i < 5000 && !ended(); ++i) {
      if (out().find(what) != std::string::npos) {
        return true;
      }
      usleep(2000);
    }
    return out().find(what) != std::string::npos;
  }
  // The exit status once it has ended; -1 if it did not within `ms`.
  int wait(int ms = 10000) {
    for (int i = 0; i < ms / 2 && !ended(); ++i) {
      usleep(2000);
    }
    return ended() ? status : -1;
  }
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

}  // namespace ToolTest
