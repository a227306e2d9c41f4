// Pond with real processes: readers in forked children, writers killed mid-change.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <map>
#include <random>

#include "Kel/ChildProcess.h"
#include "Pond/PondMap.h"
#include "PondTestTypes.h"

namespace {

using namespace PondTest;
using Pond::MountGroup;
using Pond::PondMap;
using Pond::TableSizing;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kDone = 0xFFFFFFF0;  // the key of the row that says "the writer is done"

TableSizing sized(uint32_t capacity, uint32_t log = 0, uint64_t heapBytes = 0) {
  TableSizing s;
  s.capacity = capacity;
  s.logEntries = log;
  s.heapBytes = heapBytes;
  return s;
}

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

TEST(PondProcess, ReaderInAnotherProcessHearsOfEveryChange) {
  ScopedGroupName g("follow");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> table(writer, "rows", sized(4096, 1 << 16));
  table.upsert(Row::of(0, 0));
  Kel::ChildProcess child([&](Kel::ChildProcess::Channel& c) { return mirrorUntilDone(*g, c); });
  ASSERT_TRUE(child.awaitReply(std::chrono::seconds(30)));
  writeRandomly(table, *writer, 20000, 1000, 1);
  EXPECT_EQ(child.wait(std::chrono::seconds(60)), 0);
}

// A reader stopped while the writer overruns its log comes back, resynchronises from the
// table and ends with exactly the writer's rows, deletions included.
TEST(PondProcess, StoppedReaderConvergesAfterOverrunningTheLog) {
  ScopedGroupName g("overrun");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> table(writer, "rows", sized(2048, 64));
  for (uint32_t k = 0; k < 500; ++k) {
    table.upsert(Row::of(k, k));
  }
  writer->publish();
  Kel::ChildProcess child([&](Kel::ChildProcess::Channel& c) { return mirrorUntilDone(*g, c); });
  ASSERT_TRUE(child.awaitReply(std::chrono::seconds(30)));
  ::kill(child.pid(), SIGSTOP);
  for (uint32_t k = 0; k < 500; k += 2) {
    table.erase(Key(k));  // rows the reader has mirrored
  }
  writeRandomly(table, *writer, 5000, 1500, 2);  // far more than 64 log entries
  ::kill(child.pid(), SIGCONT);
  EXPECT_EQ(child.wait(std::chrono::seconds(60)), 0);
}

// Invariant: every row a reader copies out was written whole by the writer, even while the
// writer rewrites every row as fast as it can (fixed rows in place, variable rows moving
// between heap blocks of changing sizes).
TEST(PondProcess, ReadersNeverSeeATornRow) {
  ScopedGroupName g("torn");
  auto writer = MountGroup::writer(*g);
  constexpr uint32_t kRows = 64;
  PondMap<Key, Row> fixed(writer, "fixed", sized(kRows + 1));
  PondMap<Key, VarRow> variable(writer, "var", sized(kRows, 0, 512 * 4096));
  for (uint32_t k = 0; k < kRows; ++k) {
    fixed.upsert(Row::of(k, k));
    variable.upsert(VarRow::of(k, k, k % 100));
  }
  std::vector<std::unique_ptr<Kel::ChildProcess>> readers;
  for (int r = 0; r < 3; ++r) {
    readers.push_back(std::make_unique<Kel::ChildProcess>([&](Kel::ChildProcess::Channel&) {
      auto reader = MountGroup::reader(*g);
      PondMap<Key, Row> f(reader, "fixed");
      PondMap<Key, VarRow> v(reader, "var");
      uint64_t reads = 0;
      int corrupt = 0;
      f.corruptionHandlerIs([&](const std::string&) { ++corrupt; });
      v.corruptionHandlerIs([&](const std::string&) { ++corrupt; });
      for (;;) {
        for (uint32_t k = 0; k < kRows; ++k) {
          Row row;
          VarRow var;
          if ((f.find(Key(k), row) && !row.consistent()) ||
              (v.find(Key(k), var) && !var.consistent())) {
            std::fprintf(stderr, "torn row %u after %lu reads\n", k, reads);
            return 2;
          }
          reads += 2;
        }
        bool torn = false;
        f.forEach([&](const Row& row) { torn = torn || !row.consistent(); });
        v.forEach([&](const VarRow& row) { torn = torn || !row.consistent(); });
        if (torn) {
          return 2;
        }
        if (f.lookup(Key(kDone)) != Row()) {
          return corrupt == 0 && reads > 0 ? 0 : 3;
        }
      }
    }));
  }
  auto until = Clock::now() + std::chrono::milliseconds(1500);
  uint64_t n = 0;
  while (Clock::now() < until) {
    for (uint32_t k = 0; k < kRows; ++k, ++n) {
      fixed.upsert(Row::of(k, n));
      variable.upsert(VarRow::of(k, static_cast<uint32_t>(n), static_cast<uint32_t>(n % 101)));
    }
  }
  fixed.upsert(Row::of(kDone, 0));
  for (auto& r : readers) {
    EXPECT_EQ(r->wait(std::chrono::seconds(30)), 0);
  }
}

// A writer killed at a random instant, hundreds of times: in between, a reader finds every
// row whole (a slot the dead writer left half-written reads as absent, reported as such),
// and each new writer repairs the tables and starts a new incarnation.
TEST(PondProcess, WriterKilledAtRandomMomentsLeavesTablesReadableAndRepairable) {
  ScopedGroupName g("kill");
  constexpr uint32_t kKeys = 300;
  const TableSizing varSizing = sized(kKeys, 0, 256 * 4096);
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> fixed(reader, "fixed");
  PondMap<Key, VarRow> variable(reader, "var");
  int halfWritten = 0;
  auto onCorruption = [&](const std::string& text) {
    EXPECT_NE(text.find("half-written by a writer that died"), std::string::npos) << text;
    ++halfWritten;
  };
  fixed.corruptionHandlerIs(onCorruption);
  variable.corruptionHandlerIs(onCorruption);
  std::mt19937 rng(7);
  uint64_t lastIncarnation = 0;
  int newIncarnations = 0;
  for (int round = 0; round < 300; ++round) {
    uint32_t seed = rng();
    Kel::ChildProcess child([&](Kel::ChildProcess::Channel&) {
      auto writer = MountGroup::writer(*g);
      PondMap<Key, Row> f(writer, "fixed", sized(kKeys));
      PondMap<Key, VarRow> v(writer, "var", varSizing);
      std::mt19937 r(seed);
      for (uint64_t i = 0;; ++i) {
        uint32_t k = r() % kKeys;
        if (r() % 3 == 0) {
          f.erase(Key(k));
          v.erase(Key(k));
        } else {
          f.upsert(Row::of(k, i));
          v.upsert(VarRow::of(k, static_cast<uint32_t>(i), static_cast<uint32_t>(i % 101)));
        }
      }
      return 0;
    });
    ::usleep(1000 + rng() % 4000);
    ::kill(child.pid(), SIGKILL);
    ASSERT_EQ(child.wait(std::chrono::seconds(10)), 128 + SIGKILL);
    reader->processChanges();
    EXPECT_FALSE(reader->writerAlive());
    // A writer killed before it attached leaves no incarnation behind.
    if (reader->ready() && reader->writerIncarnation() > lastIncarnation) {
      lastIncarnation = reader->writerIncarnation();
      ++newIncarnations;
    }
    fixed.forEach([&](const Row& row) { EXPECT_TRUE(row.consistent()); });
    variable.forEach([&](const VarRow& row) { EXPECT_TRUE(row.consistent()); });
    for (uint32_t k = 0; k < kKeys; ++k) {
      Row row;
      VarRow var;
      EXPECT_TRUE(!fixed.find(Key(k), row) || row.consistent());
      EXPECT_TRUE(!variable.find(Key(k), var) || var.consistent());
    }
    if (HasFailure()) {
      break;
    }
  }
  EXPECT_GT(newIncarnations, 100);
  // The last writer's leftovers, repaired: every slot and heap block is accounted for, so
  // the tables take exactly their capacity again.
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> f(writer, "fixed", sized(kKeys));
  PondMap<Key, VarRow> v(writer, "var", varSizing);
  uint32_t listed = 0;
  f.forEach([&](const Row& row) {
    EXPECT_TRUE(row.consistent());
    ++listed;
  });
  EXPECT_EQ(listed, f.size());
  for (uint32_t k = 0; k < kKeys; ++k) {
    f.upsert(Row::of(k, k));
  }
  EXPECT_EQ(f.size(), kKeys);
  EXPECT_THROW(f.upsert(Row::of(kKeys, 0)), Pond::TableFullException);
  v.clear();
  for (uint32_t k = 0; k < kKeys; ++k) {
    v.upsert(VarRow::of(k, k, 60));  // 248-byte records: 16 to a chunk, 19 chunks
  }
  EXPECT_EQ(v.size(), kKeys);
  reader->processChanges();
  EXPECT_EQ(fixed.size(), kKeys);
  std::printf("half-written slots met between writers: %d\n", halfWritten);
}

}  // namespace
