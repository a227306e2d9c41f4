// Pond with real processes: a reader in a forked child follows a writer through its
// change log, and through a resync once it falls behind.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <random>

#include "Kel/ChildProcess.h"
#include "Pond/PondMap.h"
#include "PondTestTypes.h"

namespace {

using namespace PondTest;
using Pond::MountGroup;
using Pond::PondMap;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kDone = 0xFFFFFFF0;  // the key of the row that says "the writer is done"

// A reader that keeps a mirror of the table from notifications alone: on each one it
// looks the key up. When the writer is done, the mirror must equal the table, and a key
// whose notification was lost would show as a difference.
int mirrorUntilDone(const std::string& group, Kel::ChildProcess::Channel& channel) {
  auto reader = MountGroup::reader(group);
  PondMap<Key, Row> table(reader, "rows");
  std::map<uint32_t, Row> mirror;
  bool done = false;
  bool caughtUp = false;
  // Rows present when the table opens are not changes: a reader takes them in one pass.
  table.mountHandlerIs([&] { table.forEach([&](const Row& r) { mirror[r.key().id()] = r; }); });
  table.changeHandlerIs([&](const Key& k) {
    Row row;
    if (table.find(k, row)) {
      if (!row.consistent()) {
        std::fprintf(stderr, "torn row %u\n", k.id());
        std::exit(3);
      }
      mirror[k.id()] = row;
    } else {
      mirror.erase(k.id());
    }
    done = done || k.id() == kDone;
  });
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (!done && Clock::now() < deadline) {
    reader->waitForChange(std::chrono::milliseconds(50));
    reader->processChanges();
    if (!caughtUp && reader->ready() && mirror.contains(0)) {
      channel.reply("caught up");
      caughtUp = true;
    }
  }
  if (!done) {
    std::fprintf(stderr, "the writer's last row never arrived\n");
    return 4;
  }
  std::map<uint32_t, Row> actual;
  table.forEach([&](const Row& r) { actual[r.key().id()] = r; });
  if (actual != mirror) {
    std::fprintf(stderr, "mirror of %zu rows differs from the table's %zu\n", mirror.size(),
                 actual.size());
    return 5;
  }
  return 0;
}

// Random upserts and erases over `keys` keys, ending with the "done" row.
void writeRandomly(PondMap<Key, Row>& table, MountGroup& group, uint32_t ops, uint32_t keys,
                   uint32_t seed) {
  std::mt19937 rng(seed);
  for (uint32_t i = 0; i < ops; ++i) {
    uint32_t k = rng() % keys;
    if (rng() % 4 == 0) {
      table.erase(Key(k));
    } else {
      table.upsert(Row::of(k, i));
    }
    if (i % 64 == 0) {
      group.publish();
    }
  }
  table.upsert(Row::of(kDone, 0));
  group.publish();
}

// A reader in another process hears of every change through the log. Stopped while the
// writer overruns its log, it comes back, resynchronises from the table and ends with
// exactly the writer's rows, deletions included.
TEST(PondProcess, ReaderInAnotherProcessHearsOfEveryChange) {
  for (const bool stopped : {false, true}) {
    ScopedGroupName g(stopped ? "overrun" : "follow");
    auto writer = MountGroup::writer(*g);
    PondMap<Key, Row> table(writer, "rows", sized(4096, stopped ? 64 : 1 << 16));
    for (uint32_t k = 0; k < (stopped ? 500 : 1); ++k) {
      table.upsert(Row::of(k, k));
    }
    writer->publish();
    Kel::ChildProcess child([&](Kel::ChildProcess::Channel& c) { return mirrorUntilDone(*g, c); });
    ASSERT_TRUE(child.awaitReply(std::chrono::seconds(30)));
    if (stopped) {
      ::kill(child.pid(), SIGSTOP);
      for (uint32_t k = 0; k < 500; k += 2) {
        table.erase(Key(k));  // rows the reader has mirrored
      }
    }
    writeRandomly(table, *writer, stopped ? 5000 : 20000, stopped ? 1500 : 1000, stopped ? 2 : 1);
    ::kill(child.pid(), SIGCONT);
    EXPECT_EQ(child.wait(std::chrono::seconds(60)), 0) << (stopped ? "stopped" : "following");
  }
}

}  // namespace
