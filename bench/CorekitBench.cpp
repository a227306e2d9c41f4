// CorekitBench: the number allocator at a million numbers.
//   L1   ops/s   getNumber and releaseNumber over a range of 1,000,000 numbers (expiry 0,
//                the system clock): one round fills the range, releases a random half,
//                makes 2,000,000 random releases and gets in turn, and releases the rest;
//                every operation counts, the figure is the median of 3 rounds
// Notes give each phase's rate and the same rounds with an expiry time of 1 s (the label
// manager's), where released numbers cool and come back in release order.
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchSupport.h"
#include "Corekit/NumAllocator.h"

namespace Bench {
namespace {

constexpr uint32_t kNumbers = 1'000'000;
constexpr uint32_t kPairs = 1'000'000;  // release + get, in phase 3
constexpr int kRounds = 3;

struct Phase {
  const char* what;
  uint64_t ops = 0;
  uint64_t ns = 0;
};

// xorshift64: cheap enough not to weigh in the loop it feeds.
struct Rng {
  uint64_t s = 0x9e3779b97f4a7c15u;
  uint32_t below(uint32_t n) {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return static_cast<uint32_t>((s >> 32) * n >> 32);
  }
};

void check(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(what);
  }
}

// One round on a fresh allocator; returns its four phases.
std::vector<Phase> round(double expiry, const std::vector<uint32_t>& order) {
  auto config = Corekit::numAllocatorConfigFactory();
  config->rangeIs(Corekit::NumRange(0, kNumbers - 1));
  config->expiryTimeIs(expiry);
  auto status = Corekit::numAllocatorStatusFactory();
  auto alloc = Corekit::numAllocatorFactory(config, status, Kel::systemClock());
  std::vector<Phase> phases{{"fill"}, {"release half"}, {"release+get"}, {"release rest"}};
  std::vector<int64_t> held(kNumbers);
  Rng rng;

  uint64_t t = monoNs();
  for (uint32_t i = 0; i < kNumbers; ++i) {
    held[i] = alloc->getNumber();
  }
  phases[0] = {"fill", kNumbers, monoNs() - t};
  check(held.back() == kNumbers - 1 && status->rangeExhausted(), "the fill went wrong");

  t = monoNs();
  for (uint32_t i = 0; i < kNumbers / 2; ++i) {
    alloc->releaseNumber(held[order[i]]);
  }
  phases[1] = {"release half", kNumbers / 2, monoNs() - t};
  std::vector<int64_t> kept;
  for (uint32_t i = kNumbers / 2; i < kNumbers; ++i) {
    kept.push_back(held[order[i]]);
  }

  int64_t sink = 0;
  t = monoNs();
  for (uint32_t i = 0; i < kPairs; ++i) {
    int64_t& slot = kept[rng.below(static_cast<uint32_t>(kept.size()))];
    alloc->releaseNumber(slot);
    slot = alloc->getNumber();
    sink |= slot;
  }
  phases[2] = {"release+get", 2 * kPairs, monoNs() - t};
  check(sink >= 0, "a get failed");

  t = monoNs();
  for (int64_t n : kept) {
    alloc->releaseNumber(n);
  }
  phases[3] = {"release rest", kept.size(), monoNs() - t};
  check(alloc->numbersAllocated() == 0, "numbers are left allocated");
  return phases;
}

double rate(uint64_t ops, uint64_t ns) { return double(ops) * 1e9 / double(ns); }

// kRounds rounds; notes every round's phases; returns the median round's overall rate.
double measure(double expiry, const std::vector<uint32_t>& order) {
  std::vector<double> totals;
  for (int r = 0; r < kRounds; ++r) {
    uint64_t ops = 0;
    uint64_t ns = 0;
    std::string line = fmt::format("expiry {} s, round {}:", expiry, r + 1);
    for (const Phase& p : round(expiry, order)) {
      ops += p.ops;
      ns += p.ns;
      line += fmt::format(" {} {:.3g}/s;", p.what, rate(p.ops, p.ns));
    }
    totals.push_back(rate(ops, ns));
    note(line + fmt::format(" all {:.3g} ops/s", totals.back()));
  }
  std::sort(totals.begin(), totals.end());
  return totals[kRounds / 2];
}

int run() {
  std::vector<uint32_t> order(kNumbers);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  figure("L1", measure(0, order), "ops/s");
  note(fmt::format("with an expiry time of 1 s: {:.4g} ops/s", measure(1.0, order)));
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::benchMain(argc, argv, "CorekitBench",
                          "Measures the number allocator at a million numbers; prints\n"
                          "`figure NAME VALUE UNIT` lines (bench/README.md).\n",
                          Bench::run);
}
