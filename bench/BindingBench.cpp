// BindingBench: label bindings between processes, at a million FECs.
//   B1      bindings/s  a producer (CommonLibProducerSm) publishes 1,000,000 local bindings
//                       of one label each and 8 peers' bindings for the same FECs, 9,000,000
//                       in all, as an LDP agent learns them; a consumer (CommonLibConsumerSm)
//                       in another process rebuilds the entity tables: bindings per second
//                       from the first binding made to the consumer holding the last one
//   B1-lag  ms          from the producer's last write to the consumer holding it
//   B2      s           a restarted producer's first pass over a table set of 1,000,000 local
//                       bindings of which 1 % are no longer backed: it deletes those 10,000
//   M2      bytes       shared memory per binding row after B1 (resident pages of every
//                       segment of the table set, over the rows)
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/CommonLibSm.h"
#include "Pond/MountGroup.h"
#include "ShmBytes.h"

namespace Bench {
namespace {

using Mpls::FwdEqvClass;

constexpr uint32_t kFecs = 1'000'000;
constexpr uint32_t kPeers = 8;
constexpr uint64_t kBindings = uint64_t{kFecs} * (1 + kPeers);
constexpr uint32_t kBatch = 4096;  // writes between two publishes

FwdEqvClass fecOf(uint32_t i) {
  return FwdEqvClass(Netbase::IpGenPrefix(Netbase::IpGenAddr::ipv4(0x0a000000 + i), 32));
}
Mpls::RouterId peerOf(uint32_t p) { return Mpls::RouterId(0xc0a80001 + p, 0); }
Netbase::MplsLabel labelOf(uint32_t i, uint32_t p) {
  return Netbase::MplsLabel(16 + (i + p * 7919) % (Netbase::MplsLabel::max - 15));
}

CommonLibPond::LabelBindingTable::Sizing sizing(uint32_t fecs, uint32_t peers) {
  auto s = CommonLibPond::LabelBindingTable::sizingFor(Pond::Role::writer);
  s.localLbtLabel.capacity = fecs;
  s.peerLbtLabel.capacity = std::max<uint32_t>(1024, fecs * peers);
  // Change logs that hold a burst of the agent's writes: a consumer that falls further
  // behind than its log resynchronises from the whole table.
  s.localLbtLabel.logEntries = 1u << 20;
  s.peerLbtLabel.logEntries = 1u << 22;
  return s;
}

struct ConsumerResult {
  uint64_t doneNs;
  uint64_t bindings;
};

// The consumer's process: follows the table set until its entity tables hold every
// binding.
std::string consume(Child& c, const std::string& group) {
  auto lbt = CommonLibPond::labelBindingTableFactory("bench");
  lbt->mountGroupIs(Pond::MountGroup::reader(group));
  const Kel::Ptr<Pond::MountGroup>& g = lbt->mountGroup();
  while (!g->ready()) {
    g->waitForChange(std::chrono::milliseconds(100));
    g->processChanges();
  }
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  auto consumer = CommonLibPond::commonLibConsumerSmFactory(lbt, local, peers);
  consumer->handleInitialized();
  c.ready();
  // One label per binding: the bindings count the labels.
  auto held = [&] {
    uint64_t n = local->bindings();
    for (auto&& [id, t] : peers->bindingTableIter()) {
      n += t->bindings();
    }
    return n;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(600);
  uint64_t n = 0;
  while ((n = held()) < kBindings) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("the consumer holds " + std::to_string(n) + " bindings of " +
                               std::to_string(kBindings));
    }
    g->waitForChange(std::chrono::milliseconds(50));
    g->processChanges();
  }
  return bytesOf(ConsumerResult{monoNs(), n});
}

void b1AndM2() {
  const std::string group = "bench-b1-" + std::to_string(::getpid());
  Pond::MountGroup::removeSegments(group);
  struct Remove {
    std::string group;
    ~Remove() { Pond::MountGroup::removeSegments(group); }
  } remove{group};
  auto writer = Pond::MountGroup::writer(group);
  auto lbt = CommonLibPond::labelBindingTableFactory("bench");
  lbt->mountGroupIs(writer, sizing(kFecs, kPeers));
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  auto producer = CommonLibPond::commonLibProducerSmFactory(local, peers, lbt);
  producer->handleInitialized();
  writer->publish();

  Child consumer("consumer (B1)", [&](Child& c) { return consume(c, group); });
  consumer.waitReady(std::chrono::seconds(60));
  std::vector<Mpls::LabelBindingTable::Ptr> tables;
  for (uint32_t p = 0; p < kPeers; ++p) {
    tables.push_back(peers->bindingTableIs(peerOf(p)));
  }
  const uint64_t start = monoNs();
  uint32_t batch = 0;
  for (uint32_t i = 0; i < kFecs; ++i) {
    const FwdEqvClass fec = fecOf(i);
    local->bindingIs(fec)->mplsLabelIs(labelOf(i, 0), true);
    for (uint32_t p = 0; p < kPeers; ++p) {
      tables[p]->bindingIs(fec)->mplsLabelIs(labelOf(i, p + 1), true);
    }
    if (++batch == kBatch / (1 + kPeers)) {
      writer->publish();
      batch = 0;
    }
  }
  writer->publish();
  const uint64_t written = monoNs();
  const ConsumerResult r = consumer.result<ConsumerResult>(std::chrono::seconds(600));
  figure("B1", double(kBindings) * 1e9 / double(r.doneNs - start), "bindings/s");
  figure("B1-lag", double(r.doneNs > written ? r.doneNs - written : 0) / 1e6, "ms");
  note("B1: producer wrote for " + std::to_string((written - start) / 1'000'000) + " ms");

  uint64_t rows = 0;
  lbt->tableForEach([&](const auto& ref) { rows += ref.size(); });
  figure("M2", double(groupResidentBytes(group)) / double(rows), "bytes");
}

void b2() {
  const std::string group = "bench-b2-" + std::to_string(::getpid());
  Pond::MountGroup::removeSegments(group);
  struct Remove {
    std::string group;
    ~Remove() { Pond::MountGroup::removeSegments(group); }
  } remove{group};
  constexpr uint32_t kStale = kFecs / 100;
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  for (uint32_t i = 0; i < kFecs; ++i) {
    local->bindingIs(fecOf(i))->mplsLabelIs(labelOf(i, 0), true);
  }
  {
    auto writer = Pond::MountGroup::writer(group);
    auto lbt = CommonLibPond::labelBindingTableFactory("bench");
    lbt->mountGroupIs(writer, sizing(kFecs, 0));
    auto producer = CommonLibPond::commonLibProducerSmFactory(local, peers, lbt);
    producer->handleInitialized();
    writer->publish();
  }
  // The agent comes back without every 100th binding.
  for (uint32_t i = 0; i < kFecs; i += kFecs / kStale) {
    local->bindingDel(fecOf(i));
  }
  auto writer = Pond::MountGroup::writer(group);
  auto lbt = CommonLibPond::labelBindingTableFactory("bench");
  lbt->mountGroupIs(writer, sizing(kFecs, 0));
  auto producer = CommonLibPond::commonLibProducerSmFactory(local, peers, lbt);
  const uint64_t start = monoNs();
  producer->handleInitialized();
  writer->publish();
  const uint64_t end = monoNs();
  if (lbt->localLbtLabels() != kFecs - kStale) {
    throw std::runtime_error("after the restart pass the table holds " +
                             std::to_string(lbt->localLbtLabels()) + " rows, expected " +
                             std::to_string(kFecs - kStale));
  }
  figure("B2", double(end - start) / 1e9, "s");
}

int run() {
  note("BindingBench: " + std::to_string(kFecs) + " FECs, " + std::to_string(kPeers) +
       " peers; " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs");
  b1AndM2();
  b2();
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::benchMain(argc, argv, "BindingBench",
                          "Measures label bindings between processes at a million FECs; prints\n"
                          "`figure NAME VALUE UNIT` lines (bench/README.md).\n",
                          Bench::run);
}
