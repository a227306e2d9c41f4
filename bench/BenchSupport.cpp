#include "BenchSupport.h"

#include <absl/strings/escaping.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <random>
#include <system_error>

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

Child::Child(std::string what, const Body& body) : what_(std::move(what)) {
  try {
    process_ = std::make_unique<Kel::ChildProcess>([&](Kel::ChildProcess::Channel& channel) {
      channel_ = &channel;
      try {
        send(body(*this));
        return 0;
      } catch (const std::exception& e) {
        std::fprintf(stderr, "PondBench: %s: %s\n", what_.c_str(), e.what());
        return 1;
      }
    });
  } catch (const std::system_error& e) {
    throw std::runtime_error(what_ + ": " + e.what());
  }
}

Child::~Child() { process_->kill(); }

void Child::ready() { send("ready"); }

void Child::send(const std::string& bytes) {
  if (!channel_->reply(absl::BytesToHexString(bytes))) {
    throw std::runtime_error("cannot write to the parent: the channel is closed");
  }
}

bool Child::nextRequest() {
  for (;;) {
    std::optional<std::string> request = channel_->request(std::chrono::seconds(1));
    if (!request) {
      return false;
    }
    if (!request->empty()) {
      return true;
    }
  }
}

std::string Child::askBytes(std::chrono::seconds timeout) {
  const std::string line = process_->ask("next", timeout);
  if (line == "<no answer>") {
    failed("no answer after " + std::to_string(timeout.count()) + " s");
  }
  if (line == "<gone>") {
    failed("ended without an answer");
  }
  return absl::HexStringToBytes(line);
}

std::string Child::awaitBytes(std::chrono::seconds timeout) {
  std::string line;
  if (!process_->awaitReply(timeout, &line)) {
    failed("no answer after " + std::to_string(timeout.count()) + " s, or ended without one");
  }
  return absl::HexStringToBytes(line);
}

void Child::waitReady(std::chrono::seconds timeout) {
  if (awaitBytes(timeout) != "ready") {
    failed("sent something else than 'ready'");
  }
}

void Child::finish(std::chrono::seconds timeout) {
  if (process_->wait(timeout) != 0) {
    failed("did not end well");
  }
}

void Child::failed(const std::string& why) {
  const int status = process_->wait(std::chrono::milliseconds(200));
  std::string fate = status == 0    ? "exited with status 0"
                     : status < 0   ? "did not exit in time and was killed"
                     : status > 128 ? "was killed by signal " + std::to_string(status - 128) +
                                          " (" + ::strsignal(status - 128) + ")"
                                    : "exited with status " + std::to_string(status);
  throw std::runtime_error(what_ + ": " + why + "; the child " + fate);
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

ProgramRun runProgram(const std::vector<std::string>& argv, const std::string& outPath,
                      std::chrono::seconds timeout) {
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  const uint64_t t0 = monoNs();
  Kel::ChildProcess child([&](Kel::ChildProcess::Channel&) {
    const int fd = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::dup2(fd, STDOUT_FILENO) < 0) {
      return 126;
    }
    ::execv(args[0], args.data());
    return 127;
  });
  const int status = child.wait(timeout);
  ProgramRun run{double(monoNs() - t0) / 1e9, {}};
  if (std::FILE* f = std::fopen(outPath.c_str(), "rb")) {
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) {
      run.output.append(buf, n);
    }
    std::fclose(f);
  }
  if (status != 0) {
    std::string command;
    for (const std::string& a : argv) {
      command += (command.empty() ? "" : " ") + a;
    }
    throw std::runtime_error(command + " exited with " + std::to_string(status) + ": " +
                             run.output);
  }
  return run;
}

void sleepFor(std::chrono::microseconds d) {
  timespec ts{0, long(d.count()) * 1000};
  while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, &ts) == EINTR) {
  }
}

NotifyResult futexFloor() {
  struct Shared {
    alignas(64) uint32_t word;
    alignas(64) uint64_t stamp;
    uint32_t round;
  };
  void* m =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) {
    throw std::runtime_error(std::string("mmap: ") + std::strerror(errno));
  }
  auto* sh = new (m) Shared{};
  struct Unmap {
    void* m;
    ~Unmap() { ::munmap(m, sizeof(Shared)); }
  } unmap{m};
  const uint32_t total = kNotifyWarm + kNotifyRounds;
  Child waiter("futex waiter (P3-futex)", [&](Child& c) {
    std::vector<uint64_t> latency;
    latency.reserve(kNotifyRounds);
    uint32_t seen = __atomic_load_n(&sh->word, __ATOMIC_ACQUIRE);
    c.ready();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    uint32_t round = 0;
    while (round + 1 < total) {
      if (std::chrono::steady_clock::now() > deadline) {
        throw std::runtime_error("the last round never came");
      }
      timespec timeout{0, 100'000'000};
      ::syscall(SYS_futex, &sh->word, FUTEX_WAIT, seen, &timeout, nullptr, 0);
      uint64_t now = monoNs();
      uint32_t w = __atomic_load_n(&sh->word, __ATOMIC_ACQUIRE);
      if (w == seen) {
        continue;
      }
      seen = w;
      round = __atomic_load_n(&sh->round, __ATOMIC_ACQUIRE);
      if (round >= kNotifyWarm) {
        latency.push_back(now - __atomic_load_n(&sh->stamp, __ATOMIC_ACQUIRE));
      }
    }
    NotifyResult res{quantile(latency, 0.50) / 1000, quantile(latency, 0.99) / 1000,
                     latency.size()};
    return bytesOf(res);
  });
  waiter.waitReady(std::chrono::seconds(60));
  for (uint32_t round = 0; round < total; ++round) {
    __atomic_store_n(&sh->stamp, monoNs(), __ATOMIC_RELAXED);
    __atomic_store_n(&sh->round, round, __ATOMIC_RELAXED);
    __atomic_store_n(&sh->word, round + 1, __ATOMIC_RELEASE);
    ::syscall(SYS_futex, &sh->word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    sleepFor(kNotifyGap);
  }
  return waiter.result<NotifyResult>(std::chrono::seconds(60));
}

int benchMain(int argc, char** argv, const char* name, const char* usage,
              const std::function<int()>& run) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::printf("usage: %s\n%s", argv[0], usage);
      return 0;
    }
    std::fprintf(stderr, "%s: unknown argument '%s' (try --help)\n", name, arg.c_str());
    return 2;
  }
  installCleanup(std::chrono::seconds(1200));
  try {
    return run();
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: failed: %s\n", name, e.what());
    removeAll();
    return 1;
  }
}

}  // namespace Bench
