// Pond with real processes: a reader in a forked child follows a writer through its
// change log, and through a resync once it falls behind; a watch follows the groups that
// another process creates and removes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "Kel/ChildProcess.h"
#include "Pond/GroupWatch.h"
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
enum class Driven { byWait, byLoop, byChangeFd };  // waitForChange, loopIs, poll(changeFd())
int mirrorUntilDone(const std::string& group, Kel::ChildProcess::Channel& channel, Driven by) {
  Kel::EventLoop loop;
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
  if (by == Driven::byLoop) {
    reader->loopIs(&loop);
  }
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (!done && Clock::now() < deadline) {
    if (by == Driven::byLoop) {
      loop.runOnce(std::chrono::milliseconds(50));
    } else {
      if (by == Driven::byChangeFd) {
        pollfd p{reader->changeFd(), POLLIN, 0};
        ::poll(&p, 1, 50);
      } else {
        reader->waitForChange(std::chrono::milliseconds(50));
      }
      reader->processChanges();
    }
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
// exactly the writer's rows, deletions included. The same on an event loop, and polling
// the group's change fd.
TEST(PondProcess, ReaderInAnotherProcessHearsOfEveryChange) {
  for (int run = 0; run < 6; ++run) {
    const auto by = static_cast<Driven>(run / 2);
    const bool stopped = run % 2 != 0;
    const char* how[] = {"", "-loop", "-fd"};
    ScopedGroupName g(std::string(stopped ? "overrun" : "follow") + how[static_cast<int>(by)]);
    auto writer = MountGroup::writer(*g);
    PondMap<Key, Row> table(writer, "rows", sized(4096, stopped ? 64 : 1 << 16));
    for (uint32_t k = 0; k < (stopped ? 500 : 1); ++k) {
      table.upsert(Row::of(k, k));
    }
    writer->publish();
    Kel::ChildProcess child(
        [&](Kel::ChildProcess::Channel& c) { return mirrorUntilDone(*g, c, by); });
    ASSERT_TRUE(child.awaitReply(std::chrono::seconds(30)));
    if (stopped) {
      ::kill(child.pid(), SIGSTOP);
      for (uint32_t k = 0; k < 500; k += 2) {
        table.erase(Key(k));  // rows the reader has mirrored
      }
    }
    writeRandomly(table, *writer, stopped ? 5000 : 20000, stopped ? 1500 : 1000, stopped ? 2 : 1);
    ::kill(child.pid(), SIGCONT);
    EXPECT_EQ(child.wait(std::chrono::seconds(60)), 0)
        << (stopped ? "stopped" : "following") << how[static_cast<int>(by)];
  }
}

// A watch knows the groups under its prefix when it starts, and hears of every group that
// another process then creates or removes there, in order; never of the prefix's own
// group, a group beside it ("<prefix>x/y"), tables or the writers' temporaries. A path
// too long to name its segments whole is followed like the others.
TEST(GroupWatch, FollowsTheGroupsAnotherProcessCreatesAndRemoves) {
  const std::string l64(64, 'l');
  ScopedGroupName top("watch"), before("watch/before"), a("watch/a"), ab("watch/a/b"),
      beside("watchx/y"), longest("watch/" + l64 + "/" + l64 + "/" + l64);
  MountGroup::writer(*before);
  Pond::GroupWatch watch(*top);
  EXPECT_EQ(watch.groups(), std::vector<std::string>{*before});
  std::vector<std::pair<std::string, bool>> heard;
  watch.handlerIs(
      [&](const std::string& group, bool present) { heard.emplace_back(group, present); });
  Kel::EventLoop loop;
  watch.loopIs(&loop);
  Kel::ChildProcess child([&](Kel::ChildProcess::Channel& c) {
    while (auto request = c.request(std::chrono::seconds(10))) {
      if (*request == "create") {
        for (const ScopedGroupName* g : {&top, &beside, &a, &ab, &longest}) {
          PondMap<Key, Row>(MountGroup::writer(**g), "rows", sized(4));
        }
      } else if (*request == "remove") {
        for (const ScopedGroupName* g : {&ab, &longest, &before}) {
          MountGroup::removeSegments(**g);
        }
      }
      c.reply("done");
    }
    return 0;
  });
  using Heard = std::vector<std::pair<std::string, bool>>;
  ASSERT_EQ(child.ask("create"), "done");
  EXPECT_TRUE(loop.runUntil([&] { return heard.size() >= 3; }, std::chrono::seconds(5)));
  EXPECT_EQ(heard, (Heard{{*a, true}, {*ab, true}, {*longest, true}}));
  ASSERT_EQ(child.ask("remove"), "done");
  EXPECT_TRUE(loop.runUntil([&] { return heard.size() >= 6; }, std::chrono::seconds(5)));
  EXPECT_EQ(heard, (Heard{{*a, true}, {*ab, true}, {*longest, true}, {*ab, false},
                          {*longest, false}, {*before, false}}));
  EXPECT_EQ(watch.groups(), std::vector<std::string>{*a});
  watch.loopIs(nullptr);
  EXPECT_EQ(child.wait(std::chrono::seconds(10)), 0);
}

// More changes than the kernel queues for a watch: it lists the groups anew, and ends
// knowing exactly those that exist, having reported gone every one it had reported present
// before its removal was dropped. (Plain files named as group segments: a watch goes by
// the names.)
TEST(GroupWatch, ListsTheGroupsAnewWhenChangesAreDropped) {
  ScopedGroupName top("flood");
  Pond::GroupWatch watch(*top);
  std::set<std::string> reported;
  watch.handlerIs([&](const std::string& group, bool present) {
    EXPECT_EQ(present ? reported.insert(group).second : reported.erase(group) == 1, true) << group;
  });
  uint32_t queued = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  auto path = [&](uint32_t i) { return fmt::format("/dev/shm/pond.{}+g{}", *top, i); };
  std::set<std::string> kept;
  for (uint32_t i = 0; i < queued + 100; ++i) {
    ASSERT_EQ(::close(::open(path(i).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)), 0);
  }
  for (uint32_t i = 0; i < queued + 100; ++i) {
    if (i % 1000 == 0) {
      kept.insert(fmt::format("{}/g{}", *top, i));
    } else {
      ::unlink(path(i).c_str());
    }
  }
  watch.processEvents();
  EXPECT_EQ(reported, kept);
  EXPECT_EQ(watch.groups(), std::vector<std::string>(kept.begin(), kept.end()));
  for (uint32_t i = 0; i < queued + 100; i += 1000) {
    ::unlink(path(i).c_str());
  }
}

}  // namespace
