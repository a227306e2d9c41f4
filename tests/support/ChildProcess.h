// Tests with real processes: a forked child running a function, with a line-based
// request/reply channel to it, and every wait bounded (a child that hangs fails the test;
// it never hangs it).
//
// Fork only while the test process has no threads of its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace TestSupport {

// The child's end of the channel.
class Channel {
 public:
  Channel(int requests, int replies) : requests_(requests), replies_(replies) {}
  // The next request line; "" when none came within `wait`; nullopt when the parent closed
  // the channel (the child should end).
  std::optional<std::string> request(std::chrono::milliseconds wait);
  void reply(const std::string& line);

 private:
  int requests_;
  int replies_;
  std::string pending_;
};

class ChildProcess {
 public:
  // Forks; the child runs body(channel) and exits with its return value (2 when it throws;
  // the exception's text goes to stderr). Children never return into the test framework.
  explicit ChildProcess(const std::function<int(Channel&)>& body);
  // Closes the channel and waits for the child (killing it after 10 s).
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }
  // Sends `request` and returns the child's reply line; "<no answer>" after `timeout`,
  // "<gone>" when the child has ended.
  std::string ask(const std::string& request,
                  std::chrono::seconds timeout = std::chrono::seconds(10));
  // Waits for the child's reply line without sending anything (a child that says it is
  // ready); false after `timeout`.
  bool awaitReply(std::chrono::seconds timeout, std::string* line = nullptr);
  // The child's exit status, 128 + the signal that ended it, or -1 when it did not end
  // within `timeout` (it is killed then). Closes the channel first.
  int wait(std::chrono::seconds timeout);

 private:
  pid_t pid_ = -1;
  int requests_ = -1;
  int replies_ = -1;
  std::optional<int> status_;
  std::string pending_;
};

}  // namespace TestSupport
