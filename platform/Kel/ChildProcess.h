// Kel::ChildProcess: a forked child running a function, with a line-based request/reply
// channel between the two processes. Tests, benchmarks and tools use it to put a reader (or
// a writer to be killed) in a process of its own.
//
// Contract:
// - Fork only while the process has no other threads: the child gets a copy of the
//   calling thread alone, and a lock another thread held stays locked in it forever.
// - Every wait of the parent is bounded; a child that hangs is killed when its bound
//   passes, so it fails its caller and never hangs it. The child dies with its parent
//   (PR_SET_PDEATHSIG).
// - The child runs body(channel) and _exits with the body's return value; it never
//   returns into the caller's code and runs no atexit handler. A body that throws makes the
//   child print "child process: <what>" to stderr and exit with kBodyThrew.
// - A new child closes the parent's ends of every other live child's channel, so each child
//   sees its requests end as soon as the parent closes them, whatever was forked since.
// - The first ChildProcess makes the process ignore SIGPIPE: a child that went away shows
//   as a failed write, not as the end of the parent.
//
// Requests and replies are lines without their newline; a request is never empty.
//
// Threads: a ChildProcess, and the bookkeeping shared by all of them, belong to the one
// thread that forks.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Kel {

class ChildProcess {
 public:
  // The child's end of the channel.
  class Channel {
   public:
    Channel(int requests, int replies) : requests_(requests), replies_(replies) {}
    // The next request; "" when none came within `wait` (zero only takes what has
    // arrived); nullopt once the parent has closed the channel (the child should end).
    std::optional<std::string> request(std::chrono::milliseconds wait);
    // Sends one reply line; false when the parent has gone.
    bool reply(const std::string& line);
    // The requests' descriptor, for an event loop to wait on; read it through request().
    int requestFd() const noexcept { return requests_; }

   private:
    int requests_;
    int replies_;
    std::string pending_;
  };

  using Body = std::function<int(Channel&)>;

  // The exit status of a child whose body threw.
  static constexpr int kBodyThrew = 2;

  // Forks; the child runs `body` (see the contract above). Throws std::system_error when
  // the pipes or the fork fail.
  explicit ChildProcess(const Body& body);
  // Closes the channel and waits for the child, killing it after 10 s.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }
  // Sends `request` and returns the child's next reply line: "<no answer>" when none came
  // within `timeout`, "<gone>" when the child has closed the channel or ended.
  std::string ask(const std::string& request,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Waits for the child's next reply line without sending anything (a child saying it is
  // ready, or handing over a result); false when none came within `timeout` or the child
  // has gone.
  bool awaitReply(std::chrono::milliseconds timeout, std::string* line = nullptr);
  // Closes the channel and waits for the child to end. Returns its exit status, 128 + the
  // signal that ended it, or -1 when it did not end within `timeout` (it is killed then).
  // Once the child has ended, every later call returns the same status at once.
  int wait(std::chrono::milliseconds timeout);
  // Kills the child now (SIGKILL) unless it has already ended; returns as wait() does.
  int kill();

 private:
  int reap(std::chrono::milliseconds timeout);

  pid_t pid_ = -1;
  int requests_ = -1;  // the parent's ends
  int replies_ = -1;
  std::optional<int> status_;
  std::string pending_;
};

}  // namespace Kel
