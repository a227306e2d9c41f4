#include "Kel/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>
#include <vector>

namespace Kel {

namespace {

using Clock = std::chrono::steady_clock;

// The parent's ends of every live child's channel; a new child closes them (see the header).
std::vector<int> gParentEnds;

void closeParentEnd(int& fd) {
  if (fd >= 0) {
    std::erase(gParentEnds, fd);
    ::close(fd);
    fd = -1;
  }
}

// Appends what `fd` has to `buffer` until it holds a line or `wait` passes. 1: a line is
// in `out`; 0: none yet; -1: end of file or a failed read.
int readLine(int fd, std::string& buffer, std::chrono::milliseconds wait, std::string& out) {
  const auto deadline = Clock::now() + wait;
  for (;;) {
    const auto eol = buffer.find('\n');
    if (eol != std::string::npos) {
      out = buffer.substr(0, eol);
      buffer.erase(0, eol + 1);
      return 1;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() < 0) {
      return 0;
    }
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) != 1) {
      continue;  // timed out (the deadline check ends it) or interrupted
    }
    char chunk[4096];
    ssize_t n;
    do {
      n = ::read(fd, chunk, sizeof(chunk));
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
      return -1;
    }
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

bool writeLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

[[noreturn]] void runChild(const ChildProcess::Body& body, pid_t parent, int requests,
                           int replies) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(ChildProcess::kBodyThrew);  // the parent ended before the line above
  }
  for (int fd : gParentEnds) {
    ::close(fd);
  }
  gParentEnds.clear();
  int status = ChildProcess::kBodyThrew;
  try {
    ChildProcess::Channel channel(requests, replies);
    status = body(channel);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "child process: %s\n", e.what());
  }
  std::fflush(nullptr);
  ::_exit(status);
}

}  // namespace

std::optional<std::string> ChildProcess::Channel::request(std::chrono::milliseconds wait) {
  std::string line;
  const int r = readLine(requests_, pending_, wait, line);
  if (r < 0) {
    return std::nullopt;
  }
  return r == 1 ? line : std::string();
}

bool ChildProcess::Channel::reply(const std::string& line) { return writeLine(replies_, line); }

ChildProcess::ChildProcess(const Body& body) {
  ::signal(SIGPIPE, SIG_IGN);
  int requests[2];
  int replies[2];
  if (::pipe2(requests, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "ChildProcess: pipe");
  }
  if (::pipe2(replies, O_CLOEXEC) != 0) {
    const int error = errno;
    ::close(requests[0]);
    ::close(requests[1]);
    throw std::system_error(error, std::generic_category(), "ChildProcess: pipe");
  }
  std::fflush(nullptr);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(requests[1]);
    ::close(replies[0]);
    runChild(body, parent, requests[0], replies[1]);
  }
  ::close(requests[0]);
  ::close(replies[1]);
  if (pid_ < 0) {
    const int error = errno;
    ::close(requests[1]);
    ::close(replies[0]);
    throw std::system_error(error, std::generic_category(), "ChildProcess: fork");
  }
  requests_ = requests[1];
  replies_ = replies[0];
  gParentEnds.push_back(requests_);
  gParentEnds.push_back(replies_);
}

ChildProcess::~ChildProcess() {
  wait(std::chrono::seconds(10));
  closeParentEnd(replies_);
}

std::string ChildProcess::ask(const std::string& request, std::chrono::milliseconds timeout) {
  if (requests_ < 0 || !writeLine(requests_, request)) {
    return "<gone>";
  }
  std::string line;
  switch (readLine(replies_, pending_, timeout, line)) {
    case 1:
      return line;
    case 0:
      return "<no answer>";
    default:
      return "<gone>";
  }
}

bool ChildProcess::awaitReply(std::chrono::milliseconds timeout, std::string* line) {
  std::string text;
  const bool got = readLine(replies_, pending_, timeout, text) == 1;
  if (got && line) {
    *line = std::move(text);
  }
  return got;
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (status_) {
    return *status_;
  }
  closeParentEnd(requests_);  // the child's requests end
  return reap(timeout);
}

int ChildProcess::kill() {
  if (status_) {
    return *status_;
  }
  ::kill(pid_, SIGKILL);
  return reap(std::chrono::seconds(10));
}

int ChildProcess::reap(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  int raw = 0;
  pid_t r;
  while ((r = ::waitpid(pid_, &raw, WNOHANG)) == 0 || (r < 0 && errno == EINTR)) {
    if (Clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &raw, 0);
      status_ = -1;
      return -1;
    }
    ::usleep(1000);
  }
  status_ = r == pid_ ? statusOf(raw) : -1;
  return *status_;
}

}  // namespace Kel
