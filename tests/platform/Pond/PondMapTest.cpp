// One process, two roles: a writer group and a reader group on the same segments (each
// with a mapping of its own, the reader's read-only), as a forwarding agent and a protocol
// agent would have them.
#include "Pond/PondMap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "Kel/ChildProcess.h"

#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"
#include "PondTestTypes.h"

namespace {

using namespace PondTest;
using Pond::IterHint;
using Pond::MountGroup;
using Pond::PondMap;
using Pond::TableSizing;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TableSizing sized(uint32_t capacity, uint32_t log = 0, uint64_t heapBytes = 0) {
  TableSizing s;
  s.capacity = capacity;
  s.logEntries = log;
  s.heapBytes = heapBytes;
  return s;
}

// A table's segment mapped writable behind its owner's back, to damage it.
auto rawTable(const std::string& group, const char* table) {
  return Pond::internal::Segment::open(Pond::internal::Segment::tableShmName(group, table), true,
                                       sizeof(Pond::internal::TableHeader));
}

TEST(PondMap, WriterAndReaderAgree) {
  ScopedGroupName g("agree");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(64));
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  EXPECT_TRUE(reader->ready());
  EXPECT_EQ(r.lookup(Key(1)), Row());  // absent: the default row

  for (uint32_t i = 0; i < 64; ++i) {
    w.upsert(Row::of(i, i));
  }
  EXPECT_THROW(w.upsert(Row::of(64, 0)), Pond::TableFullException);
  w.upsert(Row::of(3, 1000));  // replacing needs no room
  EXPECT_EQ(r.size(), 64u);
  EXPECT_EQ(r.lookup(Key(3)), Row::of(3, 1000));
  EXPECT_TRUE(w.erase(Key(5)));
  EXPECT_FALSE(w.erase(Key(5)));
  EXPECT_FALSE(r.find(Key(5), *std::make_unique<Row>()));
  w.upsert(Row::of(64, 64));  // reuses the freed slot
  EXPECT_EQ(r.lookup(Key(64)), Row::of(64, 64));

  std::set<uint32_t> seen;
  r.forEach([&](const Row& row) {
    EXPECT_TRUE(row.consistent());
    seen.insert(row.key().id());
  });
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_FALSE(seen.contains(5));
  EXPECT_THROW(r.upsert(Row::of(1, 1)), Pond::NotWriterError);
  EXPECT_THROW(r.erase(Key(1)), Pond::NotWriterError);
  w.clear();
  EXPECT_EQ(r.size(), 0u);

  // Keys found wherever the row holds them, and however they compare, by both roles.
  PondMap<Key, TailKeyRow> tail(writer, "tail", sized(8));
  PondMap<PaddedKey, PaddedKeyRow> padded(writer, "padded", sized(8));
  PondMap<Key, TailKeyRow> tailRead(reader, "tail");
  for (uint32_t i = 0; i < 8; ++i) {
    tail.upsert(TailKeyRow(i, Key(i)));
    tail.upsert(TailKeyRow(i * 10, Key(i)));  // replaces
    padded.upsert(PaddedKeyRow(PaddedKey(1, i), i * 10));
  }
  EXPECT_EQ(tail.size() + padded.size(), 16u);
  EXPECT_EQ(tail.lookup(Key(3)).n(), 30u);
  EXPECT_EQ(tailRead.lookup(Key(3)).n(), 30u);
  EXPECT_EQ(padded.lookup(PaddedKey(1, 3)).n(), 30u);
  EXPECT_TRUE(padded.erase(PaddedKey(1, 3)));
  EXPECT_FALSE(padded.find(PaddedKey(1, 3), *std::make_unique<PaddedKeyRow>()));
}

TEST(PondMap, VariableRowsTakeAboutTheirLength) {
  ScopedGroupName g("var");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, VarRow> w(writer, "var", sized(1000, 0, 64 * 4096));
  auto reader = MountGroup::reader(*g);
  PondMap<Key, VarRow> r(reader, "var");
  for (uint32_t i = 0; i < 200; ++i) {
    w.upsert(VarRow::of(i, i * 10, i % 101));
  }
  for (uint32_t round = 0; round < 5; ++round) {  // rewrite every row with other sizes
    for (uint32_t i = 0; i < 200; ++i) {
      w.upsert(VarRow::of(i, i + round, (i + round * 37) % 101));
    }
  }
  for (uint32_t i = 0; i < 200; ++i) {
    VarRow row = r.lookup(Key(i));
    EXPECT_EQ(row, VarRow::of(i, i + 4, (i + 4 * 37) % 101)) << i;
  }
  // A record above the table's largest is the size error, and changes nothing.
  EXPECT_THAT([&] { w.upsert(VarRow::of(1, 0, 101)); },
              ::testing::ThrowsMessage<Kel::SizeError>(
                  StartsWith("expected size <= 408, instead got 412. Buffer is at address: ")));
  EXPECT_EQ(r.lookup(Key(1)).words().size(), (1u + 4 * 37) % 101);
  // Erasing everything gives every chunk back: the whole heap takes 408-byte records now
  // (nine to a chunk, in 416-byte blocks).
  w.clear();
  uint32_t stored = 0;
  try {
    for (; stored < 1000; ++stored) {
      w.upsert(VarRow::of(stored, stored, 100));
    }
  } catch (const Pond::TableFullException& e) {
    EXPECT_THAT(e.what(), HasSubstr("record heap"));
  }
  EXPECT_EQ(stored, 64u * 9);
  EXPECT_EQ(r.size(), stored);
}

TEST(PondMap, IterationResumesFromItsHint) {
  ScopedGroupName g("iter");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(100));
  for (uint32_t i = 0; i < 100; ++i) {
    w.upsert(Row::of(i, i));
  }
  IterHint hint;
  std::set<uint32_t> seen;
  EXPECT_FALSE(w.forEach(hint, [&](const Row& row) { seen.insert(row.key().id()); }, 30));
  EXPECT_EQ(seen.size(), 30u);
  EXPECT_EQ(hint.slot, 30u);
  EXPECT_EQ(hint.stringValue(), fmt::format("IterHint{{ version 100, slot 30, bucket {} }}",
                                            hint.bucket));
  // Changes between the steps: rows present throughout are still all visited.
  w.erase(Key(50));
  w.upsert(Row::of(7, 7000));
  EXPECT_TRUE(w.forEach(hint, [&](const Row& row) { seen.insert(row.key().id()); }));
  EXPECT_EQ(seen.size(), 99u);
  EXPECT_EQ(hint.version, 102u);
}

TEST(PondMap, ReaderIsNotifiedOfEveryChangedKey) {
  ScopedGroupName g("notify");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(64, 16));
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::multiset<uint32_t> changed;
  r.changeHandlerIs([&](const Key& k) { changed.insert(k.id()); });

  w.upsert(Row::of(1, 1));
  w.upsert(Row::of(2, 2));
  w.upsert(Row::of(1, 3));
  w.erase(Key(2));
  EXPECT_EQ(reader->processChanges(), 4u);
  EXPECT_EQ(changed, (std::multiset<uint32_t>{1, 1, 2, 2}));
  EXPECT_EQ(reader->processChanges(), 0u);

  // Falling behind a 16-entry log: every row present and every row gone, once each.
  changed.clear();
  w.upsert(Row::of(9, 9));
  reader->processChanges();
  changed.clear();
  std::multiset<uint32_t> expected = {9, 1};
  for (uint32_t i = 10; i < 40; ++i) {
    w.upsert(Row::of(i, i));
    expected.insert(i);
  }
  w.erase(Key(9));
  w.erase(Key(1));
  reader->processChanges();
  EXPECT_EQ(changed, expected);
}

TEST(PondMap, WriterRestartKeepsRowsAndReadersLearnOfIt) {
  ScopedGroupName g("restart");
  auto writer = MountGroup::writer(*g);
  auto w = std::make_unique<PondMap<Key, Row>>(writer, "rows", sized(32));
  w->upsert(Row::of(1, 1));
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::multiset<uint32_t> changed;
  r.changeHandlerIs([&](const Key& k) { changed.insert(k.id()); });
  reader->processChanges();
  uint64_t first = reader->writerIncarnation();
  EXPECT_TRUE(reader->writerAlive());
  EXPECT_THROW(MountGroup::writer(*g), Pond::WriterExistsError);
  // A row the reader read in the table before it heard of it, gone again before the
  // writer's end: the resync names it too.
  w->upsert(Row::of(3, 3));
  EXPECT_EQ(r.lookup(Key(3)), Row::of(3, 3));
  w->erase(Key(3));

  w.reset();
  writer = nullptr;
  EXPECT_FALSE(reader->writerAlive());
  writer = MountGroup::writer(*g);
  w = std::make_unique<PondMap<Key, Row>>(writer, "rows", sized(32));
  EXPECT_EQ(w->lookup(Key(1)), Row::of(1, 1));
  EXPECT_EQ(w->size(), 1u);
  w->upsert(Row::of(2, 2));
  changed.clear();
  reader->processChanges();
  EXPECT_EQ(reader->writerIncarnation(), first + 1);
  EXPECT_EQ(changed, (std::multiset<uint32_t>{1, 2, 3}));  // a new writer: a full resync
  // A writer that asks for other sizes is refused: the table would not be the same.
  w.reset();
  writer = nullptr;
  writer = MountGroup::writer(*g);
  EXPECT_THROW((PondMap<Key, Row>(writer, "rows", sized(64))), Pond::SegmentError);
}

// An agent's loop publishes the writer's batch after each iteration, and the reader's
// change fd wakes its loop: nobody calls publish() or processChanges() by hand.
TEST(PondMap, EventLoopDrivesPublishingAndReading) {
  ScopedGroupName g("loop");
  Kel::EventLoop loop;
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(64));
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::set<uint32_t> heard;
  r.changeHandlerIs([&](const Key& k) { heard.insert(k.id()); });
  writer->loopIs(&loop);
  reader->loopIs(&loop);
  for (uint32_t batch = 0; batch < 3; ++batch) {
    loop.defer([&, batch] {
      for (uint32_t i = 0; i < 10; ++i) {
        w.upsert(Row::of(batch * 10 + i, i));
      }
    });
    EXPECT_TRUE(loop.runUntil([&] { return heard.size() == (batch + 1) * 10; },
                              std::chrono::seconds(5)));
  }
  writer->loopIs(nullptr);
  reader->loopIs(nullptr);
}

TEST(PondMap, ReaderWaitsForTheWriterToAppear) {
  ScopedGroupName g("appear");
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  EXPECT_FALSE(reader->ready());
  EXPECT_EQ(r.lookup(Key(1)), Row());
  EXPECT_FALSE(reader->waitForChange(std::chrono::milliseconds(1)));
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(8));
  w.upsert(Row::of(1, 1));
  writer->publish();
  EXPECT_TRUE(reader->waitForChange(std::chrono::milliseconds(1000)));
  reader->processChanges();
  EXPECT_TRUE(reader->ready());
  EXPECT_EQ(r.lookup(Key(1)), Row::of(1, 1));
}

// What a writer killed in the middle of rewriting a row leaves: the row's slot counter odd
// and its bytes half old, half new. Readers report it and read the row as absent; the
// next writer drops it and logs its deletion, so readers hear that it is gone.
TEST(PondMap, DeadWritersHalfWrittenRowIsReportedThenRepaired) {
  ScopedGroupName g("halfwritten");
  auto writer = MountGroup::writer(*g);
  auto w = std::make_unique<PondMap<Key, Row>>(writer, "rows", sized(16));
  for (uint32_t i = 0; i < 4; ++i) {
    w->upsert(Row::of(i, i));
  }
  IterHint hint;
  Row first;
  w->forEach(hint, [&](const Row& r) { first = r; }, 1);
  w.reset();
  writer = nullptr;  // the writer is gone

  {
    auto raw = rawTable(*g, "rows");
    ASSERT_TRUE(raw);
    const auto* h = reinterpret_cast<const Pond::internal::TableHeader*>(raw->base());
    uint8_t* slot = raw->base() + h->slotsOffset + uint64_t{hint.slot - 1} * h->slotSize;
    auto* header = reinterpret_cast<Pond::internal::SlotHeader*>(slot);
    header->seq += 1;  // caught between the two halves of a rewrite
    reinterpret_cast<uint64_t*>(slot + sizeof(Pond::internal::SlotHeader))[2] ^= 0xFF;
  }
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  std::vector<uint32_t> changed;
  r.changeHandlerIs([&](const Key& k) { changed.push_back(k.id()); });
  EXPECT_FALSE(r.find(first.key(), first));
  ASSERT_EQ(reports.size(), 2u);  // the pass over the rows, then the lookup
  for (const std::string& report : reports) {
    EXPECT_THAT(report, HasSubstr("was left half-written by a writer that died"));
  }

  writer = MountGroup::writer(*g);
  PondMap<Key, Row> repaired(writer, "rows", sized(16));
  EXPECT_EQ(repaired.size(), 3u);
  reader->processChanges();
  EXPECT_EQ(r.size(), 3u);
  std::sort(changed.begin(), changed.end());
  // A new writer: every row present, and row 0, whose deletion the new writer logged.
  EXPECT_EQ(changed, (std::vector<uint32_t>{0, 1, 2, 3}));
  uint32_t count = 0;
  r.forEach([&](const Row& row) {
    EXPECT_TRUE(row.consistent());
    ++count;
  });
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(reports.size(), 2u);  // nothing left to report
}

// Invariant: whatever bytes the body of a segment holds (its header passing the checks), a
// reader's lookups, iterations and change processing and a writer's repair stay within the
// segment and end: they may only report corruption and treat rows as absent. (ASan checks
// every access.)
TEST(PondMap, ScribbledSegmentsNeverCrashReadersOrWriters) {
  ScopedGroupName g("scribble");
  std::mt19937 rng(11);
  int totalReports = 0;
  for (int round = 0; round < 60; ++round) {
    Pond::MountGroup::removeSegments(*g);
    {
      auto writer = MountGroup::writer(*g);
      PondMap<Key, Row> f(writer, "fixed", sized(64, 32));
      PondMap<Key, VarRow> v(writer, "var", sized(64, 32, 64 * 4096));
      for (uint32_t i = 0; i < 48; ++i) {
        f.upsert(Row::of(i, i));
        v.upsert(VarRow::of(i, i, i % 40));
      }
    }
    for (const char* table : {"fixed", "var"}) {
      auto raw = rawTable(*g, table);
      ASSERT_TRUE(raw);
      // Where rows live: buckets, slots, the log and the first heap chunks.
      const auto* h = reinterpret_cast<const Pond::internal::TableHeader*>(raw->base());
      uint64_t body = sizeof(Pond::internal::TableHeader);
      uint64_t end = std::min<uint64_t>(raw->size(), h->heapOffset + 4 * 4096);
      uint32_t scribbles = 1 + rng() % 64;
      for (uint32_t i = 0; i < scribbles; ++i) {
        raw->base()[body + rng() % (end - body)] = static_cast<uint8_t>(rng());
      }
    }
    int reports = 0;
    {
      auto reader = MountGroup::reader(*g);
      PondMap<Key, Row> f(reader, "fixed");
      PondMap<Key, VarRow> v(reader, "var");
      f.corruptionHandlerIs([&](const std::string&) { ++reports; });
      v.corruptionHandlerIs([&](const std::string&) { ++reports; });
      f.changeHandlerIs([](const Key&) {});
      v.changeHandlerIs([](const Key&) {});
      for (uint32_t i = 0; i < 64; ++i) {
        f.lookup(Key(i));
        v.lookup(Key(i));
      }
      reader->processChanges();
      auto writer = MountGroup::writer(*g);  // repairs what it can
      PondMap<Key, Row> wf(writer, "fixed", sized(64, 32));
      PondMap<Key, VarRow> wv(writer, "var", sized(64, 32, 64 * 4096));
      wf.upsert(Row::of(1, 100));
      wv.upsert(VarRow::of(1, 100, 3));
      reader->processChanges();
      EXPECT_EQ(f.lookup(Key(1)), Row::of(1, 100));
    }
    totalReports += reports;
  }
  EXPECT_GT(totalReports, 10);  // the scribbles did meet the readers
}

// Every way a segment can be untrustworthy is refused with a message that says what is
// wrong, never a crash.
TEST(PondMap, BadSegmentsAreRefused) {
  ScopedGroupName g("bad");
  auto writer = MountGroup::writer(*g);
  { PondMap<Key, Row> w(writer, "rows", sized(16)); }
  std::string path = Pond::internal::Segment::pathOf(Pond::internal::Segment::tableShmName(*g, "rows"));
  auto readerError = [&]() -> std::string {
    auto reader = MountGroup::reader(*g);
    try {
      PondMap<Key, Row> r(reader, "rows");
      return "accepted";
    } catch (const Pond::SegmentError& e) {
      return e.what();
    }
  };
  auto patch = [&](off_t offset, uint64_t value) {
    int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &value, sizeof(value), offset), 8);
    ::close(fd);
  };
  EXPECT_EQ(readerError(), "accepted");
  // A reader of another row type.
  {
    auto reader = MountGroup::reader(*g);
    EXPECT_THROW((PondMap<Key, VarRow>(reader, "rows")), Pond::SegmentError);
  }
  struct stat st {};
  ::stat(path.c_str(), &st);
  ASSERT_EQ(::truncate(path.c_str(), st.st_size / 2), 0);
  EXPECT_THAT(readerError(), HasSubstr("truncated"));
  ASSERT_EQ(::truncate(path.c_str(), st.st_size), 0);
  patch(offsetof(Pond::internal::TableHeader, capacity), 0xFFFFFFFFull << 32 | 16);
  EXPECT_THAT(readerError(), HasSubstr("sizes"));
  patch(offsetof(Pond::internal::TableHeader, capacity), 16 | (16ull << 32));
  patch(offsetof(Pond::internal::TableHeader, layoutVersion), 9 | (320ull << 32));
  EXPECT_THAT(readerError(), HasSubstr("layout version 9"));
  patch(0, 0x1234);
  EXPECT_THAT(readerError(), HasSubstr("not a Pond table"));
  ASSERT_EQ(::truncate(path.c_str(), 10), 0);
  EXPECT_THAT(readerError(), HasSubstr("truncated"));

  EXPECT_THAT([] { MountGroup::reader("a/b\x1b"); },
              ::testing::ThrowsMessage<Pond::SegmentError>(HasSubstr("name 'a/b\\x1b'")));
  EXPECT_THROW(MountGroup::writer(".."), Pond::SegmentError);
  EXPECT_THROW((PondMap<Key, Row>(writer, "rows.x", sized(4))), Pond::SegmentError);
  ::stat(Pond::internal::Segment::pathOf(Pond::internal::Segment::groupShmName(*g)).c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// The row count in a segment's header sizes readers' buffers: a count beyond the table's
// capacity (a corrupt header) must not make a reader reserve memory for it.
TEST(PondMap, RowCountBeyondCapacityIsNotTrusted) {
  ScopedGroupName g("rowcount");
  {
    auto writer = MountGroup::writer(*g);
    PondMap<Key, Row> w(writer, "rows", sized(16));
    w.upsert(Row::of(1, 1));
  }
  {
    auto raw = rawTable(*g, "rows");
    ASSERT_TRUE(raw);
    reinterpret_cast<Pond::internal::TableHeader*>(raw->base())->rowCount = 0x80000000u;
  }
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  EXPECT_EQ(r.size(), 16u);
  std::vector<uint32_t> changed;
  r.changeHandlerIs([&](const Key& k) { changed.push_back(k.id()); });  // sizes its key set
  EXPECT_EQ(r.lookup(Key(1)), Row::of(1, 1));
}

// A writer may let the members of a group read its segments; nobody else, ever.
TEST(PondMap, SegmentsBelongToTheGroupTheWriterNames) {
  ScopedGroupName g("owner");
  Pond::MountOptions options;
  options.group = ::getegid();
  auto writer = MountGroup::writer(*g, options);
  PondMap<Key, Row> w(writer, "rows", sized(4));
  for (const std::string& shm : {Pond::internal::Segment::groupShmName(*g),
                                 Pond::internal::Segment::tableShmName(*g, "rows")}) {
    struct stat st {};
    ASSERT_EQ(::stat(Pond::internal::Segment::pathOf(shm).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << shm;
    EXPECT_EQ(st.st_gid, ::getegid()) << shm;
  }
}


// ---------------------------------------------------------------------------------------
// Hostile segments: what another process (or user) may put in a group's place.

std::string tablePath(const std::string& group, const char* table) {
  return Pond::internal::Segment::pathOf(Pond::internal::Segment::tableShmName(group, table));
}

// Makes the group with its table "rows" holding `rows` rows, and drops its writer.
void makeRows(const std::string& group, uint32_t rows) {
  auto writer = MountGroup::writer(group);
  PondMap<Key, Row> w(writer, "rows", sized(std::max(rows, 16u)));
  for (uint32_t i = 0; i < rows; ++i) {
    w.upsert(Row::of(i, i));
  }
}

// What mounting the table "rows" as a writer or a reader fails with; "accepted" if nothing.
std::string mountError(const std::string& group, bool writer) {
  try {
    auto g = writer ? MountGroup::writer(group) : MountGroup::reader(group);
    PondMap<Key, Row> t(g, "rows", sized(16));
    return "accepted";
  } catch (const Pond::SegmentError& e) {
    return e.what();
  }
}

// Nothing in a segment's place makes a reader or a writer block (a FIFO) or look
// elsewhere (a symbolic link): what is not a regular file is refused, naming the segment.
TEST(PondMap, NonRegularSegmentsAreRefusedWithoutBlocking) {
  ScopedGroupName g("nonregular");
  makeRows(*g, 1);
  const std::string path = tablePath(*g, "rows");
  const std::vector<std::pair<std::string, std::function<int()>>> cases = {
      {"a FIFO", [&] { return ::mkfifo(path.c_str(), 0600); }},
      {"a directory", [&] { return ::mkdir(path.c_str(), 0700); }},
      {"a symbolic link", [&] { return ::symlink("/dev/zero", path.c_str()); }}};
  for (const auto& [kind, make] : cases) {
    std::filesystem::remove(path);
    ASSERT_EQ(make(), 0) << kind;
    for (bool writer : {false, true}) {
      EXPECT_THAT(mountError(*g, writer),
                  AllOf(HasSubstr("/pond." + *g + ".rows is " + kind), HasSubstr("refused")));
    }
  }
}

// A reader bounds every wait: rows that stay half-written while the group's writer lives
// (this very process) give the writer-stuck error after 2 s, naming the writer; the reader
// then gives up on that writer at once, and an iteration ends at its first such row.
TEST(PondMap, ReaderGivesUpOnAStuckWriter) {
  ScopedGroupName g("stuck");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(16));
  w.upsert(Row::of(1, 1));
  w.upsert(Row::of(2, 2));
  auto raw = rawTable(*g, "rows");
  const auto* h = reinterpret_cast<const Pond::internal::TableHeader*>(raw->base());
  for (uint32_t i = 0; i < h->bucketCount; ++i) {
    reinterpret_cast<Pond::internal::Bucket*>(raw->base() + h->bucketsOffset)[i].seq |= 1;
  }
  for (uint32_t i = 0; i < h->capacity; ++i) {
    reinterpret_cast<Pond::internal::SlotHeader*>(raw->base() + h->slotsOffset +
                                                  uint64_t{i} * h->slotSize)->seq |= 1;
  }
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(r.find(Key(1), *std::make_unique<Row>()));
  r.forEach([](const Row&) { ADD_FAILURE(); });
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
  ASSERT_EQ(reports.size(), 2u);
  const std::string stuck = fmt::format("its writer (pid {}) is stuck: ", ::getpid());
  EXPECT_THAT(reports[0], HasSubstr(stuck + "bucket "));
  EXPECT_THAT(reports[1], HasSubstr(stuck + "slot 0 stayed half-written for 2 s"));
}

// A segment truncated under its reader and its writer kills neither (no SIGBUS): the
// reader's iteration reports the truncation and ends, the writer's next change throws.
TEST(PondMap, TruncatedSegmentIsCorruptionNotASignal) {
  ScopedGroupName g("truncated");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(4096));
  for (uint32_t i = 0; i < 4096; ++i) {
    w.upsert(Row::of(i, i));
  }
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  uint32_t seen = 0;
  r.forEach([&](const Row&) {
    if (++seen == 10) {
      ASSERT_EQ(::truncate(tablePath(*g, "rows").c_str(), 4096), 0);
    }
  });
  EXPECT_LT(seen, 4096u);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], HasSubstr("segment was truncated to 4096 bytes under the reader"));
  EXPECT_THAT([&] { w.upsert(Row::of(4000, 1)); },
              ::testing::ThrowsMessage<Pond::CorruptionError>(HasSubstr("under the writer")));
}

// Segments someone else made first are not a writer's to write: another owner, or a mode
// that lets others write, is refused, naming the segment, its owner and its mode. Readers
// refuse the second too (anyone may have written what it holds), not the first.
TEST(PondMap, SquattedSegmentsAreRefused) {
  ScopedGroupName g("squat");
  makeRows(*g, 1);
  const std::string path = tablePath(*g, "rows");
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  const std::string others =
      fmt::format("/pond.{}.rows (owner uid {}, mode 0666) may be written by others", *g,
                  ::geteuid());
  EXPECT_THAT(mountError(*g, true), HasSubstr(others));
  EXPECT_THAT(mountError(*g, false), HasSubstr(others));
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(path.c_str(), 4242, static_cast<gid_t>(-1)), 0);
    EXPECT_THAT(mountError(*g, true), HasSubstr("rows is owned by uid 4242 (mode 0600), not by "
                                                "this writer's uid 0: refused"));
    EXPECT_EQ(mountError(*g, false), "accepted");
  }
  const std::string groupPath =
      Pond::internal::Segment::pathOf(Pond::internal::Segment::groupShmName(*g));
  ASSERT_EQ(::chmod(groupPath.c_str(), 0622), 0);
  EXPECT_THROW(MountGroup::writer(*g), Pond::SegmentError);
  Pond::MountOptions groupWritable;
  groupWritable.mode = 0660;
  EXPECT_THROW(MountGroup::writer(*g + "x", groupWritable), Pond::SegmentError);
}

// Another user may neither remove nor read a group: both say so, naming the segment.
TEST(PondMap, PermissionDeniedIsSaidSo) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "acting as another user needs root";
  }
  ScopedGroupName g("denied");
  makeRows(*g, 1);
  Kel::ChildProcess child([&](Kel::ChildProcess::Channel&) {
    if (::setuid(65534) != 0) {
      return 2;
    }
    auto says = [](const std::function<void()>& f, const std::string& text) {
      try {
        f();
      } catch (const Pond::SegmentError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return std::string(e.what()).find(text) != std::string::npos;
      }
      return false;
    };
    const std::string table = fmt::format(" shared-memory segment /pond.{}.rows (owner uid 0", *g);
    return says([&] { MountGroup::removeSegments(*g); }, "permission denied: cannot remove" + table) &&
                   says([&] { MountGroup::reader(*g); }, "permission denied: cannot open")
               ? 0
               : 1;
  });
  EXPECT_EQ(child.wait(std::chrono::seconds(10)), 0);
  EXPECT_EQ(MountGroup::tableNames(*g), std::vector<std::string>{"rows"});  // all still there
}

// A writer killed while creating a group's tables leaves some of them: the next writer
// learns their sizes from their segments, keeps their rows and creates the others.
TEST(PondMap, WriterTakesOverAHalfCreatedGroup) {
  ScopedGroupName g("half");
  makeRows(*g, 3);
  EXPECT_FALSE(MountGroup::tableSizing(*g, "var"));
  auto sizing = MountGroup::tableSizing(*g, "rows");
  ASSERT_TRUE(sizing);
  EXPECT_EQ(sizing->capacity, 16u);
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> rows(writer, "rows", *sizing);
  PondMap<Key, VarRow> var(writer, "var", sized(8));
  EXPECT_EQ(rows.size(), 3u);
  EXPECT_EQ(MountGroup::tableSizing(*g, "var")->heapBytes, 4u * 4096);
}

// A row that does not decode, or whose values break their types' invariants, is
// corruption naming the table: a record claiming 1000 words, a bool holding 2, a level
// out of its range.
TEST(PondMap, DamagedRowsAreCorruption) {
  ScopedGroupName g("damagedrows");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, VarRow> v(writer, "var", sized(8));
  PondMap<Key, CheckedRow> c(writer, "checked", sized(8));
  v.upsert(VarRow::of(1, 1, 3));
  c.upsert(CheckedRow(Key(1), true, Level(3)));
  c.upsert(CheckedRow(Key(2), true, Level(3)));
  auto rawVar = rawTable(*g, "var");
  auto rawChecked = rawTable(*g, "checked");
  auto at = [](auto& raw, auto field) {
    const auto* h = reinterpret_cast<const Pond::internal::TableHeader*>(raw->base());
    return raw->base() + h->*field;
  };
  reinterpret_cast<uint32_t*>(at(rawVar, &Pond::internal::TableHeader::heapOffset))[1] = 1000;
  uint8_t* slots = at(rawChecked, &Pond::internal::TableHeader::slotsOffset);
  const uint32_t slotSize = 16 + 16;
  slots[16 + 4] = 2;                                    // slot 0: key 1's bool
  slots[slotSize + 16 + 8] = 77;                        // slot 1: key 2's level
  auto reader = MountGroup::reader(*g);
  PondMap<Key, VarRow> rv(reader, "var");
  PondMap<Key, CheckedRow> rc(reader, "checked");
  std::vector<std::string> reports;
  rv.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  rc.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  EXPECT_EQ(rv.lookup(Key(1)), VarRow());
  EXPECT_EQ(rc.lookup(Key(1)), CheckedRow());
  EXPECT_EQ(rc.lookup(Key(2)), CheckedRow());
  EXPECT_THAT(reports, ::testing::ElementsAre(
      StartsWith(fmt::format("table 'var' of mount group '{}': a record of 20 bytes does not "
                             "decode as PondTest::VarRow: expected size <= 100, instead got 1000",
                             *g)),
      fmt::format("table 'checked' of mount group '{}': a row breaks the invariants of "
                  "PondTest::CheckedRow: on: a bool holds 2", *g),
      HasSubstr("PondTest::CheckedRow: level: 77 outside 1..9")));
}

}  // namespace
