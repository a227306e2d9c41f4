#include "BenchSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <random>

namespace Bench {

namespace {

uint64_t splitmix64(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Key number `n`: 256 pseudo-random bits, so that rows' keys and absent keys never meet.
Key keyNumber(uint64_t n) {
  uint64_t s = n * 4;
  uint32_t w[8];
  for (int i = 0; i < 8; i += 2) {
    uint64_t x = splitmix64(s);
    w[i] = uint32_t(x);
    w[i + 1] = uint32_t(x >> 32);
  }
  return Key(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7]);
}

}  // namespace

Workload Workload::make(uint32_t rows, uint32_t probes) {
  Workload w;
  w.keys.reserve(rows);
  for (uint32_t i = 0; i < rows; ++i) {
    w.keys.push_back(keyNumber(i));
  }
  std::mt19937_64 rng(20240611);
  std::vector<std::pair<Key, int32_t>> p;
  p.reserve(probes);
  for (uint32_t i = 0; i < probes; ++i) {
    if (i % 2 == 0) {
      uint32_t r = uint32_t(rng() % rows);
      p.emplace_back(w.keys[r], int32_t(r));
    } else {
      p.emplace_back(keyNumber(uint64_t(rows) + rng() % (uint64_t(rows) * 8)), -1);
    }
  }
  std::shuffle(p.begin(), p.end(), rng);
  w.probes.reserve(probes);
  w.probeRow.reserve(probes);
  for (const auto& [k, r] : p) {
    w.probes.push_back(k);
    w.probeRow.push_back(r);
  }
  return w;
}

double quantile(std::vector<uint64_t>& samples, double p) {
  if (samples.empty()) {
    return 0;
  }
  std::sort(samples.begin(), samples.end());
  size_t i = std::min(samples.size() - 1, size_t(p * double(samples.size())));
  return double(samples[i]);
}

double clockPairNs() {
  std::vector<uint64_t> s(100'000);
  for (auto& x : s) {
    auto a = std::chrono::steady_clock::now();
    auto b = std::chrono::steady_clock::now();
    x = uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(b - a).count());
  }
  return quantile(s, 0.5);
}

// ---------------------------------------------------------------------------------------

namespace {
// The parent's ends of every live child's pipes: a new child closes them, so that a child
// sees the end of its requests when the parent closes its pipe, whoever was forked since.
std::vector<int> gParentEnds;

void closeParentEnd(int& fd) {
  if (fd >= 0) {
    std::erase(gParentEnds, fd);
    ::close(fd);
    fd = -1;
  }
}
}  // namespace

Child::Child(std::string what, const Body& body) : what_(std::move(what)) {
  int up[2];
  int down[2];
  if (::pipe2(up, O_CLOEXEC) != 0 || ::pipe2(down, O_CLOEXEC) != 0) {
    throw std::runtime_error(what_ + ": pipe: " + std::strerror(errno));
  }
  std::fflush(nullptr);
  pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) {
    throw std::runtime_error(what_ + ": fork: " + std::strerror(errno));
  }
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a child never outlives the benchmark
    if (::getppid() != parent) {
      ::_exit(1);
    }
    for (int fd : gParentEnds) {
      ::close(fd);
    }
    gParentEnds.clear();
    ::close(up[0]);
    ::close(down[1]);
    upFd_ = up[1];
    downFd_ = down[0];
    int status = 1;
    try {
      std::string bytes = body(*this);
      send(bytes.data(), bytes.size());
      status = 0;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "PondBench: %s: %s\n", what_.c_str(), e.what());
    }
    std::fflush(nullptr);
    ::_exit(status);
  }
  ::close(up[1]);
  ::close(down[0]);
  upFd_ = up[0];
  downFd_ = down[1];
  gParentEnds.push_back(upFd_);
  gParentEnds.push_back(downFd_);
}

Child::~Child() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status;
    ::waitpid(pid_, &status, 0);
  }
  closeParentEnd(upFd_);
  closeParentEnd(downFd_);
}

void Child::ready() { send("r", 1); }

void Child::send(const void* data, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = ::write(upFd_, static_cast<const char*>(data) + done, n - done);
    if (r < 0 && errno == EINTR) {
      continue;
    }
    if (r <= 0) {
      throw std::runtime_error(std::string("cannot write to the parent: ") + std::strerror(errno));
    }
    done += size_t(r);
  }
}

bool Child::nextRequest() {
  char c;
  ssize_t r;
  do {
    r = ::read(downFd_, &c, 1);
  } while (r < 0 && errno == EINTR);
  return r == 1;
}

void Child::request() {
  if (::write(downFd_, "g", 1) != 1) {
    failed(std::string("cannot send it a request: ") + std::strerror(errno));
  }
}

void Child::waitReady(std::chrono::seconds timeout) {
  std::string r = readBytes(1, timeout);
  if (r != "r") {
    failed("sent something else than 'ready'");
  }
}

void Child::finish(std::chrono::seconds timeout) {
  closeParentEnd(downFd_);
  std::string status = reap(timeout);
  if (!status.empty()) {
    failed(status);
  }
}

std::string Child::readBytes(size_t want, std::chrono::seconds timeout) {
  std::string bytes(want, '\0');
  size_t got = 0;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (got < want) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      failed("no answer after " + std::to_string(timeout.count()) + " s");
    }
    pollfd p{upFd_, POLLIN, 0};
    int n = ::poll(&p, 1, int(left.count()));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      failed(std::string("poll: ") + std::strerror(errno));
    }
    if (n == 0) {
      continue;
    }
    ssize_t r = ::read(upFd_, bytes.data() + got, want - got);
    if (r < 0 && errno == EINTR) {
      continue;
    }
    if (r <= 0) {
      failed("ended without an answer");
    }
    got += size_t(r);
  }
  return bytes;
}

// Empty when the child exited with status 0; otherwise what became of it.
std::string Child::reap(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid_, &status, WNOHANG)) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
      return "did not exit in time and was killed";
    }
    ::usleep(1000);
  }
  pid_ = -1;
  if (r < 0) {
    return std::string("waitpid: ") + std::strerror(errno);
  }
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status) == 0 ? ""
                                    : "exited with status " + std::to_string(WEXITSTATUS(status));
  }
  return std::string("was killed by signal ") + std::to_string(WTERMSIG(status)) + " (" +
         ::strsignal(WTERMSIG(status)) + ")";
}

void Child::failed(const std::string& why) {
  std::string status;
  if (pid_ > 0) {
    status = reap(std::chrono::milliseconds(200));
  }
  throw std::runtime_error(what_ + ": " + why + (status.empty() ? "" : "; the child " + status));
}

// ---------------------------------------------------------------------------------------

namespace {

constexpr int kMaxPaths = 16;
char gPaths[kMaxPaths][256];
volatile sig_atomic_t gPathCount = 0;
pid_t gOwner = 0;

void removeRegistered() {
  if (::getpid() != gOwner) {
    return;
  }
  for (int i = 0; i < gPathCount; ++i) {
    ::unlink(gPaths[i]);  // async-signal-safe; absent names are fine
  }
}

void onSignal(int sig) {
  removeRegistered();
  const char* msg =
      sig == SIGALRM ? "PondBench: the run took too long; stopped\n" : "PondBench: interrupted\n";
  if (::getpid() == gOwner) {
    (void)!::write(2, msg, std::strlen(msg));
  }
  ::_exit(sig == SIGALRM ? 3 : 128 + sig);
}

}  // namespace

void installCleanup(std::chrono::seconds wholeRunLimit) {
  gOwner = ::getpid();
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
    ::sigaction(sig, &sa, nullptr);
  }
  std::atexit(removeRegistered);
  ::alarm(unsigned(wholeRunLimit.count()));
}

void removeAtExit(const std::string& path) {
  if (gPathCount >= kMaxPaths || path.size() >= sizeof(gPaths[0])) {
    throw std::runtime_error("too many names to remove at exit: " + path);
  }
  std::memcpy(gPaths[gPathCount], path.c_str(), path.size() + 1);
  gPathCount = gPathCount + 1;
}

void removeAll() { removeRegistered(); }

void figure(const std::string& name, double value, const char* unit) {
  double rounded = value >= 100 ? std::round(value) : std::round(value * 100) / 100;
  std::printf("figure %s %.10g %s\n", name.c_str(), rounded, unit);
  std::fflush(stdout);
}

void note(const std::string& text) {
  std::printf("# %s\n", text.c_str());
  std::fflush(stdout);
}

}  // namespace Bench
