// One process, two roles: a writer group and a reader group on the same segments (each
// with a mapping of its own, the reader's read-only), as a forwarding agent and a protocol
// agent would have them.
#include "Pond/PondMap.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "Pond/MappedFile.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"
#include "PondTestTypes.h"

namespace {

using namespace PondTest;
using Pond::IterHint;
using Pond::MountGroup;
using Pond::PondMap;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A table's segment mapped writable behind its owner's back, to damage it.
auto rawTable(const std::string& group, const char* table) {
  return Pond::internal::Segment::open(Pond::internal::Segment::tableShmName(group, table), true,
                                       sizeof(Pond::internal::TableHeader));
}

TEST(PondMap, WriterAndReaderAgree) {
  ScopedGroupName g("agree/rows/all");  // a group named by a path
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
  // A reader's answers, asked again, follow every change in between (the last answer is
  // kept while the table's version stays).
  EXPECT_EQ(r.lookup(Key(3)), Row::of(3, 3));
  EXPECT_EQ(r.lookup(Key(5)), Row::of(5, 5));
  EXPECT_EQ(r.lookup(Key(5)), Row::of(5, 5));
  EXPECT_FALSE(r.find(Key(64), *std::make_unique<Row>()));
  w.upsert(Row::of(3, 1000));  // replacing needs no room
  EXPECT_EQ(r.size(), 64u);
  EXPECT_EQ(r.lookup(Key(3)), Row::of(3, 1000));
  EXPECT_EQ(r.lookup(Key(5)), Row::of(5, 5));
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
  // The writer can ask beforehand, per size class, whether records fit.
  EXPECT_TRUE(w.heapHolds(std::vector<uint32_t>(64 * 9, 408)));
  EXPECT_FALSE(w.heapHolds(std::vector<uint32_t>(64 * 9 + 1, 408)));
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
  // One block free in a chunk of the 416-byte class: one more of its records fits, a
  // record of another class does not.
  w.erase(Key(0));
  EXPECT_TRUE(w.heapHolds({400}));
  EXPECT_FALSE(w.heapHolds({408, 408}));
  EXPECT_FALSE(w.heapHolds({16}));
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

  // The same with keys numbered in sequence, which the reader keeps as bits: rows present
  // when it opened the table and gone after it fell behind are told of too.
  PondMap<OrdinalKey, OrdinalRow> wo(writer, "ordinal", sized(64, 16));
  for (uint32_t i = 0; i < 8; ++i) {
    wo.upsert(OrdinalRow(OrdinalKey(i), i));
  }
  PondMap<OrdinalKey, OrdinalRow> ro(reader, "ordinal");
  std::multiset<uint32_t> heard;
  ro.changeHandlerIs([&](const OrdinalKey& k) { heard.insert(k.id()); });
  std::multiset<uint32_t> told;
  for (uint32_t i = 100; i < 130; ++i) {
    wo.upsert(OrdinalRow(OrdinalKey(i), i));
    told.insert(i);
  }
  for (uint32_t i = 0; i < 8; i += 2) {
    wo.erase(OrdinalKey(i));
    told.insert(i);
  }
  for (uint32_t i = 1; i < 8; i += 2) {
    told.insert(i);  // present: a resync tells of every row present
  }
  reader->processChanges();
  EXPECT_EQ(heard, told);
}

TEST(PondMap, WriterRestartKeepsRowsAndReadersLearnOfIt) {
  ScopedGroupName g("restart");
  // A reader on an event loop follows the group through all of it, as the writer publishes.
  Kel::EventLoop loop;
  auto looped = MountGroup::reader(*g);
  PondMap<Key, Row> l(looped, "rows");
  std::set<uint32_t> heard;
  l.changeHandlerIs([&](const Key& k) { heard.insert(k.id()); });
  looped->loopIs(&loop);
  auto hears = [&](uint32_t key) {
    return loop.runUntil([&] { return heard.contains(key); }, std::chrono::seconds(5));
  };
  // A reader may come first: it waits for the writer to appear.
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  EXPECT_FALSE(reader->ready());
  EXPECT_EQ(r.lookup(Key(1)), Row());
  EXPECT_FALSE(reader->waitForChange(std::chrono::milliseconds(1)));
  auto writer = MountGroup::writer(*g);
  auto w = std::make_unique<PondMap<Key, Row>>(writer, "rows", sized(32));
  w->upsert(Row::of(1, 1));
  writer->publish();
  EXPECT_TRUE(reader->waitForChange(std::chrono::milliseconds(1000)));
  // The loop's reader opens the table with the row in it: a row it reads, not a change.
  EXPECT_TRUE(loop.runUntil([&] { return l.lookup(Key(1)) == Row::of(1, 1); },
                            std::chrono::seconds(5)));
  std::multiset<uint32_t> changed;
  r.changeHandlerIs([&](const Key& k) { changed.insert(k.id()); });
  reader->processChanges();
  EXPECT_TRUE(reader->ready());
  EXPECT_EQ(r.lookup(Key(1)), Row::of(1, 1));
  uint64_t first = reader->writerIncarnation();
  EXPECT_TRUE(reader->writerAlive());
  EXPECT_THROW(MountGroup::writer(*g), Pond::WriterExistsError);
  EXPECT_TRUE(reader->writerAlive());  // the writer refused leaves the group as it was
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
  EXPECT_TRUE(hears(2));
  // A writer that asks for other sizes is refused: the table would not be the same.
  w.reset();
  writer = nullptr;
  writer = MountGroup::writer(*g);
  EXPECT_THROW((PondMap<Key, Row>(writer, "rows", sized(64))), Pond::SegmentError);
  // Segments removed and made anew: the loop's reader follows them to the new ones.
  writer = nullptr;
  MountGroup::removeSegments(*g);
  writer = MountGroup::writer(*g);
  w = std::make_unique<PondMap<Key, Row>>(writer, "rows", sized(64));
  w->upsert(Row::of(4, 4));
  writer->publish();
  EXPECT_TRUE(hears(4));
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
  {
    PondMap<Key, VarRow> var(writer, "var", sized(64, 0, 4 * 4096));
    var.upsert(VarRow::of(0, 0, 100));
    var.upsert(VarRow::of(1, 1, 100));
  }
  w.reset();
  writer = nullptr;  // the writer is gone
  // Caught between the two halves of a change: a fixed row being rewritten (torn: dropped),
  // a variable row's slot being rewritten (its record reference is one word: kept), and a
  // variable row being erased, its record not yet freed (dropped, the record freed).
  using Pond::internal::SlotHeader;
  for (const auto& [table, slotIndex, change] :
       {std::tuple{"rows", hint.slot - 1, &SlotHeader::seq}, std::tuple{"var", 0u, &SlotHeader::seq},
        std::tuple{"var", 1u, &SlotHeader::flags}}) {
    auto raw = rawTable(*g, table);
    ASSERT_TRUE(raw);
    const auto* h = reinterpret_cast<const Pond::internal::TableHeader*>(raw->base());
    reinterpret_cast<SlotHeader*>(raw->base() + slotHeaderOffset(*h, slotIndex))->*change ^= 1;
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
  for (uint32_t i = 0; i < 16; ++i) {  // the dropped row's slot is free again
    repaired.upsert(Row::of(i, i));
  }
  EXPECT_THROW(repaired.upsert(Row::of(16, 0)), Pond::TableFullException);
  // And every heap block is accounted for: 4 chunks of nine 408-byte records, one kept.
  PondMap<Key, VarRow> var(writer, "var", sized(64, 0, 4 * 4096));
  EXPECT_EQ(var.lookup(Key(0)), VarRow::of(0, 0, 100));
  uint32_t stored = 1;
  EXPECT_THROW(
      for (;; ++stored) { var.upsert(VarRow::of(stored, stored, 100)); }, Pond::TableFullException);
  EXPECT_EQ(stored, 4u * 9);
}

// Groups named by paths: a group lies under another when its path continues the other's
// past a '/' ("a/b" under "a", "ab/c" not), and its segments are its own: removing "a/b"
// leaves "a/b/c" and "a" whole, though a/b's table "c" and the group "a/b/c" differ by
// one character in /dev/shm ("pond.a+b.c", "pond.a+b+c"). Half-made segments are not groups.
TEST(MountGroup, GroupsUnderAPathAreListedAndRemovedApart) {
  ScopedGroupName a("paths"), ab("paths/b"), abc("paths/b/c"), other("pathsb/c");
  for (const ScopedGroupName* group : {&a, &ab, &abc, &other}) {
    auto writer = MountGroup::writer(**group);
    PondMap<Key, Row>(writer, "rows", sized(4));
    if (group == &ab) {
      PondMap<Key, Row>(writer, "c", sized(4));
    }
  }
  const std::string temporary = fmt::format("/dev/shm/pond.{}+d.tmp{}.7", *a, ::getpid());
  std::ofstream(temporary) << "half";
  using Groups = std::vector<std::string>;
  EXPECT_EQ(MountGroup::groupsUnder(*a), (Groups{*ab, *abc}));
  EXPECT_EQ(MountGroup::groupsUnder(*ab), (Groups{*abc}));
  EXPECT_THAT(MountGroup::groupsUnder(""), ::testing::IsSupersetOf({*a, *ab, *abc, *other}));
  EXPECT_EQ(MountGroup::tableNames(*ab), (Groups{"c", "rows"}));

  EXPECT_EQ(MountGroup::removeSegments(*ab), 3u);
  EXPECT_EQ(MountGroup::groupsUnder(*a), (Groups{*abc}));
  EXPECT_EQ(MountGroup::tableNames(*abc), (Groups{"rows"}));
  EXPECT_EQ(MountGroup::tableNames(*a), (Groups{"rows"}));
  EXPECT_TRUE(std::filesystem::exists(temporary));
  ::unlink(temporary.c_str());
}

// ---------------------------------------------------------------------------------------
// Hostile segments: what another process (or user) may put in a group's place.

std::string tablePath(const std::string& group, const char* table) {
  return Pond::internal::Segment::pathOf(Pond::internal::Segment::tableShmName(group, table));
}

// What mounting the table "rows" as a writer or a reader gives: the SegmentError's text, or
// "accepted: <n> rows" (a change handler sized from the header's row count).
std::string mountResult(const std::string& group, bool writer) {
  try {
    auto g = writer ? MountGroup::writer(group) : MountGroup::reader(group);
    PondMap<Key, Row> t(g, "rows", sized(16));
    t.changeHandlerIs([](const Key&) {});
    return fmt::format("accepted: {} rows", t.size());
  } catch (const Pond::SegmentError& e) {
    return e.what();
  }
}

// Every way a table's segment can be untrustworthy, each on a group whose table "rows"
// holds one row and has no writer: refused by a reader and by a writer with a message that
// says what is wrong and names the segment, never a crash, a block (a FIFO) or a look
// elsewhere (a symbolic link). A segment that others may write is refused by both roles
// (anyone may have written what it holds); one of another owner only by a writer.
TEST(PondMap, HostileSegmentsAreRefusedSayingWhy) {
  ScopedGroupName g("hostile");
  const std::string path = tablePath(*g, "rows");
  auto make = [&] {
    Pond::MountGroup::removeSegments(*g);
    auto writer = MountGroup::writer(*g);
    PondMap<Key, Row>(writer, "rows", sized(16)).upsert(Row::of(1, 1));
    return std::filesystem::file_size(path);
  };
  const uint64_t size = make();
  auto patch = [&](size_t offset, uint64_t value) {
    const int fd = ::open(path.c_str(), O_RDWR);
    return ::pwrite(fd, &value, sizeof(value), static_cast<off_t>(offset)) == 8 && ::close(fd) == 0
               ? 0 : -1;
  };
  const std::string segment = "shared-memory segment /pond." + *g + ".rows";
  const std::string table = fmt::format(
      "table 'rows' of mount group '{}' (segment /pond.{}.rows) cannot be used: ", *g, *g);
  struct Damage {
    std::string what;
    std::function<int()> apply;
    std::string reader = {};  // what a reader's mount gives
    std::string writer = {};  // and then a writer's
  };
  std::vector<Damage> cases = {
      {"a FIFO", [&] { return ::unlink(path.c_str()) | ::mkfifo(path.c_str(), 0600); }},
      {"a directory", [&] { return ::unlink(path.c_str()) | ::mkdir(path.c_str(), 0700); }},
      {"a symbolic link",
       [&] { return ::unlink(path.c_str()) | ::symlink("/dev/zero", path.c_str()); }},
      {"mode 0666", [&] { return ::chmod(path.c_str(), 0666); },
       fmt::format("{} (owner uid {}, mode 0666) may be written by others than its owner: refused",
                   segment, ::geteuid())},
      {"half its size", [&] { return ::truncate(path.c_str(), static_cast<off_t>(size / 2)); },
       fmt::format("{}truncated: {} bytes, its header claims {}", table, size / 2, size)},
      {"ten bytes", [&] { return ::truncate(path.c_str(), 10); },
       segment + " is truncated: 10 bytes, at least 512 expected"},
      {"bad sizes",
       [&] { return patch(offsetof(Pond::internal::TableHeader, capacity), 0xFFFFFFFFull << 32 | 16); },
       table + "its sizes and offsets do not match each other"},
      {"layout version 9",
       [&] { return patch(offsetof(Pond::internal::TableHeader, layoutVersion), 9 | (512ull << 32)); },
       fmt::format("{}layout version 9 with a 512-byte header; this build reads version {} (512)",
                   table, Pond::internal::kLayoutVersion)},
      {"another magic", [&] { return patch(0, 0x1234); }, table + "not a Pond table (magic 0x1234)"},
      // The row count sizes readers' buffers: one beyond the capacity is not trusted. (The
      // slot high-water mark after it stays 1.)
      {"row count 2^31",
       [&] { return patch(offsetof(Pond::internal::TableHeader, rowCount), 1ull << 32 | 1u << 31); },
       "accepted: 16 rows", "accepted: 1 rows"},
  };
  for (Damage& d : cases) {
    if (d.reader.empty()) {
      d.reader = segment + " is " + d.what + ", not a regular file: refused";
    }
    if (d.writer.empty()) {
      d.writer = d.reader;
    }
  }
  if (::geteuid() == 0) {
    cases.push_back({"another owner", [&] { return ::chown(path.c_str(), 4242, -1); },
                     "accepted: 1 rows",
                     segment + " is owned by uid 4242 (mode 0600), not by this writer's uid 0: "
                               "refused; remove it so that the writer creates it anew"});
  }
  for (const Damage& d : cases) {
    make();
    ASSERT_EQ(d.apply(), 0) << d.what;
    EXPECT_EQ(mountResult(*g, false), d.reader) << d.what;
    EXPECT_EQ(mountResult(*g, true), d.writer) << d.what;
  }

  // A group's segment left by a build of another layout, whose header is smaller, says so.
  Pond::MountGroup::removeSegments(*g);
  const uint64_t older[2] = {Pond::internal::kGroupMagic, 2 | 128ull << 32};
  std::ofstream(fmt::format("/dev/shm/pond.{}", *g))
      .write(reinterpret_cast<const char*>(older), sizeof(older));
  for (const bool writer : {false, true}) {
    EXPECT_EQ(mountResult(*g, writer),
              fmt::format("mount group '{}' (segment /pond.{}) cannot be used: layout version 2 "
                          "with a 128-byte header; this build reads version {} (320)",
                          *g, *g, Pond::internal::kLayoutVersion));
  }
  Pond::MountGroup::removeSegments(*g);

  // The half-made segment of a creator killed before it published it goes with the next
  // writer; a live creator's stays.
  const pid_t dead = ::fork();
  if (dead == 0) {
    ::_exit(0);
  }
  ::waitpid(dead, nullptr, 0);
  const std::string deadTemp = fmt::format("{}.tmp{}.0", path, dead);
  const std::string liveTemp = fmt::format("/dev/shm/pond.{}.tmp{}.3", *g, ::getpid());
  std::ofstream(deadTemp) << "half";
  std::ofstream(liveTemp) << "half";
  MountGroup::writer(*g);
  EXPECT_FALSE(std::filesystem::exists(deadTemp));
  EXPECT_TRUE(std::filesystem::exists(liveTemp));
  ::unlink(liveTemp.c_str());
}

// Names, row types and modes a group may not have; and the owner group a writer names,
// whose members may read its segments, nobody else, ever.
TEST(PondMap, NamesTypesModesAndOwnersAreChecked) {
  ScopedGroupName g("bad");
  auto writer = MountGroup::writer(*g);
  { PondMap<Key, Row> w(writer, "rows", sized(16)); }
  {
    auto reader = MountGroup::reader(*g);
    EXPECT_THROW((PondMap<Key, VarRow>(reader, "rows")), Pond::SegmentError);
  }
  EXPECT_THAT([] { MountGroup::reader("a/b\x1b"); },
              ::testing::ThrowsMessage<Pond::SegmentError>(HasSubstr("name 'a/b\\x1b'")));
  EXPECT_THROW(MountGroup::writer(".."), Pond::SegmentError);
  EXPECT_THROW((PondMap<Key, Row>(writer, "rows.x", sized(4))), Pond::SegmentError);
  EXPECT_THROW((PondMap<Key, Row>(writer, "rows/x", sized(4))), Pond::SegmentError);
  // A group's name is a path of names, 255 characters at most. The longest, too long to
  // stand whole in a segment's name, holds rows and is listed like any other.
  const std::string n64(64, 'n');
  const std::string top = *g + "-long";
  ScopedGroupName longest(top.substr(top.find('-') + 1) + "/" + n64 + "/" + n64 + "/" + n64 + "/" +
                          std::string(255 - top.size() - 3 * 65 - 1, 'z'));
  ASSERT_EQ((*longest).size(), 255u);
  PondMap<Key, Row>(MountGroup::writer(*longest), "rows", sized(4)).upsert(Row::of(1, 1));
  EXPECT_EQ((PondMap<Key, Row>(MountGroup::reader(*longest), "rows").lookup(Key(1))),
            Row::of(1, 1));
  EXPECT_EQ(MountGroup::groupsUnder(top), std::vector<std::string>{*longest});
  EXPECT_EQ(MountGroup::tableNames(*longest), std::vector<std::string>{"rows"});
  for (const std::string& bad : std::vector<std::string>{"/a", "a/", "a//b", "a/" + n64 + "x",
                                                        *longest + "z", "a+b", "a/./b", ""}) {
    EXPECT_THROW(MountGroup::reader(bad), Pond::SegmentError) << bad;
  }
  EXPECT_THAT([] { MountGroup::removeSegments("mpls//config"); },
              ::testing::ThrowsMessage<Pond::SegmentError>(::testing::Eq(
                  "invalid mount group name 'mpls//config': use names of 1 to 64 letters, "
                  "digits, '_' and '-', separated by single '/', at most 255 characters in all")));
  const std::string groupPath =
      Pond::internal::Segment::pathOf(Pond::internal::Segment::groupShmName(*g));
  struct stat st {};
  ::stat(groupPath.c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  writer = nullptr;
  ASSERT_EQ(::chmod(groupPath.c_str(), 0622), 0);
  EXPECT_THROW(MountGroup::writer(*g), Pond::SegmentError);
  Pond::MountOptions groupWritable;
  groupWritable.mode = 0660;
  EXPECT_THROW(MountGroup::writer(*g + "x", groupWritable), Pond::SegmentError);

  ScopedGroupName shared("owner");
  Pond::MountOptions options;
  options.group = ::getegid();
  writer = MountGroup::writer(*shared, options);
  PondMap<Key, Row> w(writer, "rows", sized(4));
  for (const std::string& shm : {Pond::internal::Segment::groupShmName(*shared),
                                 Pond::internal::Segment::tableShmName(*shared, "rows")}) {
    ASSERT_EQ(::stat(Pond::internal::Segment::pathOf(shm).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << shm;
    EXPECT_EQ(st.st_gid, ::getegid()) << shm;
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
    reinterpret_cast<Pond::internal::SlotHeader*>(raw->base() + slotHeaderOffset(*h, i))->seq |= 1;
  }
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(r.find(Key(1), *std::make_unique<Row>()));
  r.forEach([](const Row&) { ADD_FAILURE(); });
  // Two bounded waits of 2 s: far less than this even on a loaded machine, where a reader
  // that spun until the writer moved on would never end.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
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

// A mapped file cut short under its reader: the read past the new end gets zeros instead
// of a SIGBUS, and the mapping says so.
TEST(MappedFile, FileCutShortReadsAsZerosAndSaysSo) {
  const std::string path = fmt::format("/tmp/pond-mapped-{}.txt", ::getpid());
  const std::string text(3 * 4096 + 100, 'x');
  std::ofstream(path) << text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  auto mapped = Pond::MappedFile::map(fd, text.size());
  ::close(fd);  // the mapping keeps its own
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->bytes(), text);
  EXPECT_FALSE(mapped->cutShort());
  ASSERT_EQ(::truncate(path.c_str(), 4096), 0);
  const std::string_view bytes = mapped->bytes();
  EXPECT_EQ(bytes[100], 'x');
  EXPECT_EQ(bytes[2 * 4096], '\0');
  EXPECT_TRUE(mapped->cutShort());
  Pond::MappedFile moved = std::move(*mapped);
  EXPECT_TRUE(moved.cutShort());
  ::unlink(path.c_str());
  EXPECT_FALSE(Pond::MappedFile::map(-1, 10));
}

// Pages backed ahead of a writer, on another thread while it writes: they become resident,
// and the rows are those written.
TEST(PondMap, PopulatedPagesComeAheadOfTheWriter) {
  ScopedGroupName g("populate");
  auto writer = MountGroup::writer(*g);
  PondMap<Key, Row> w(writer, "rows", sized(1 << 16));
  const uint64_t before = w.residentBytes();
  std::thread populating([&] { w.populate(1 << 15, 0); });
  for (uint32_t i = 0; i < 1000; ++i) {
    w.upsert(Row::of(i, i * 3));
  }
  populating.join();
  EXPECT_GE(w.residentBytes(), before + (uint64_t{1} << 15) * sizeof(Row));
  writer->publish();
  auto reader = MountGroup::reader(*g);
  PondMap<Key, Row> r(reader, "rows");
  uint32_t rows = 0;
  r.forEach([&](const Row& row) {
    EXPECT_EQ(row, Row::of(row.key().id(), row.key().id() * 3));
    ++rows;
  });
  EXPECT_EQ(rows, 1000u);
  PondMap<Key, Row> other(reader, "rows");
  EXPECT_THROW(other.populate(1, 0), Pond::NotWriterError);
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
  const auto* checked = reinterpret_cast<const Pond::internal::TableHeader*>(rawChecked->base());
  rawChecked->base()[slotRowOffset(*checked, 0) + 4] = 2;   // slot 0: key 1's bool
  rawChecked->base()[slotRowOffset(*checked, 1) + 8] = 77;  // slot 1: key 2's level
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
