#include "support/ChildProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

namespace TestSupport {

namespace {

// Appends what `fd` has to `buffer` until it holds a line or `wait` passes. 1: a line is
// in `out`; 0: none yet; -1: end of file.
int readLine(int fd, std::string& buffer, std::chrono::milliseconds wait, std::string& out) {
  auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    auto eol = buffer.find('\n');
    if (eol != std::string::npos) {
      out = buffer.substr(0, eol);
      buffer.erase(0, eol + 1);
      return 1;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() < 0) {
      return 0;
    }
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) != 1) {
      continue;
    }
    char chunk[4096];
    ssize_t n = ::read(fd, chunk, sizeof(chunk));
    if (n <= 0) {
      return -1;
    }
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) {
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::optional<std::string> Channel::request(std::chrono::milliseconds wait) {
  std::string line;
  int r = readLine(requests_, pending_, wait, line);
  if (r < 0) {
    return std::nullopt;
  }
  return r == 1 ? line : std::string();
}

void Channel::reply(const std::string& line) { writeAll(replies_, line + "\n"); }

ChildProcess::ChildProcess(const std::function<int(Channel&)>& body) {
  ::signal(SIGPIPE, SIG_IGN);  // a child that died shows as a failed write, not a crash
  int requests[2];
  int replies[2];
  if (::pipe(requests) != 0 || ::pipe(replies) != 0) {
    std::perror("pipe");
    std::abort();
  }
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(requests[1]);
    ::close(replies[0]);
    int status = 2;
    try {
      Channel channel(requests[0], replies[1]);
      status = body(channel);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child process: %s\n", e.what());
    }
    std::fflush(nullptr);
    ::_exit(status);
  }
  ::close(requests[0]);
  ::close(replies[1]);
  requests_ = requests[1];
  replies_ = replies[0];
}

ChildProcess::~ChildProcess() {
  wait(std::chrono::seconds(10));
  ::close(replies_);
}

std::string ChildProcess::ask(const std::string& request, std::chrono::seconds timeout) {
  if (requests_ < 0 || !writeAll(requests_, request + "\n")) {
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

bool ChildProcess::awaitReply(std::chrono::seconds timeout, std::string* line) {
  std::string text;
  bool got = readLine(replies_, pending_, timeout, text) == 1;
  if (got && line) {
    *line = text;
  }
  return got;
}

int ChildProcess::wait(std::chrono::seconds timeout) {
  if (status_) {
    return *status_;
  }
  if (requests_ >= 0) {
    ::close(requests_);  // the child's channel ends
    requests_ = -1;
  }
  auto deadline = std::chrono::steady_clock::now() + timeout;
  int raw = 0;
  while (::waitpid(pid_, &raw, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &raw, 0);
      status_ = -1;
      return -1;
    }
    ::usleep(1000);
  }
  status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return *status_;
}

}  // namespace TestSupport
