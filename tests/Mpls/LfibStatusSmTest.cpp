// The publication of the tag-to-VLAN maps: the producer flattens a writer's maps into
// dot1qTagToVlanComposite, the consumer rebuilds them in a reader, in this process and in
// another one.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Mpls/LfibStatusSm.h"
#include "platform/Pond/PondTestTypes.h"
#include "support/ChildProcess.h"

namespace {

using namespace Mpls;
using PondTest::ScopedGroupName;
using Group = Kel::Ptr<Pond::MountGroup>;

LfibDot1qTagToVlanKey mapKey(uint32_t index) {
  return LfibDot1qTagToVlanKey(LFib::sourceEvpn, index);
}

LfibDot1qTagToVlanCompositeKey rowKey(uint32_t map, uint16_t tag) {
  return LfibDot1qTagToVlanCompositeKey(mapKey(map), tag);
}

// "<map index>{<tag>:<vlan> ...} ..." in key order, from tag -> VLAN pairs per map.
std::string mapsText(const std::map<uint32_t, std::map<uint16_t, uint16_t>>& maps) {
  std::string out;
  for (const auto& [index, tags] : maps) {
    out += (out.empty() ? "" : " ") + std::to_string(index) + "{";
    for (const auto& [tag, vlan] : tags) {
      out += (out.back() == '{' ? "" : " ") + fmt::format("{}:{}", tag, vlan);
    }
    out += "}";
  }
  return out;
}

// The nested maps of an LfibStatus (empty ones included).
std::string mapsOf(const LfibStatus& s) {
  std::map<uint32_t, std::map<uint16_t, uint16_t>> maps;
  for (const auto& [key, map] : s.dot1qTagToVlanCollIter()) {
    auto& tags = maps[key.index()];
    for (const auto& [tag, vlan] : map->dot1qTagToVlanIdIter()) {
      tags[tag.value()] = vlan.value();
    }
  }
  return mapsText(maps);
}

// The rows of dot1qTagToVlanComposite, in the same form.
std::string rowsOf(const LfibStatus& s) {
  std::map<uint32_t, std::map<uint16_t, uint16_t>> maps;
  s.dot1qTagToVlanCompositeForEach([&](const LfibDot1qTagToVlanComposite& row) {
    maps[row.key().dot1qTagToVlanKey().index()][row.key().dot1qTag().value()] =
        row.localVlan().value();
  });
  return mapsText(maps);
}

void setTag(LfibStatus& s, uint32_t map, uint16_t tag, uint16_t vlan) {
  s.dot1qTagToVlanCollIs(mapKey(map))->dot1qTagToVlanIdIs(tag, vlan);
}

// setTag() for each (map, tag, VLAN).
void setTags(LfibStatus& s, std::initializer_list<std::array<uint16_t, 3>> entries) {
  for (const auto& [map, tag, vlan] : entries) {
    setTag(s, map, tag, vlan);
  }
}

void putRow(LfibStatus& s, uint32_t map, uint16_t tag, uint16_t vlan) {
  s.dot1qTagToVlanCompositeIs(LfibDot1qTagToVlanComposite(rowKey(map, tag), vlan));
}

// The composite keys announced by an LfibStatus, and its map additions and removals.
struct Watch : LfibStatus::NotifieeConst {
  explicit Watch(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onDot1qTagToVlanComposite(const LfibDot1qTagToVlanCompositeKey& k) override {
    rows.insert(fmt::format("{}/{}", k.dot1qTagToVlanKey().index(), k.dot1qTag()));
  }
  void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& k) override { maps.push_back(k.index()); }
  std::multiset<std::string> rows;
  std::vector<uint32_t> maps;
};

// A writer-role and a reader-role LfibStatus on one mount group, in this process.
struct Lfibs {
  explicit Lfibs(const std::string& test)
      : name(test),
        writerGroup(Pond::MountGroup::writer(*name)),
        writer(lfibStatusFactory()),
        readerGroup(Pond::MountGroup::reader(*name)),
        reader(lfibStatusFactory()) {
    writer->mountGroupIs(writerGroup);
    reader->mountGroupIs(readerGroup);
  }
  ScopedGroupName name;
  Group writerGroup;
  LfibStatus::Ptr writer;
  Group readerGroup;
  LfibStatus::Ptr reader;
};

TEST(LfibStatusProducerSm, PublishesEveryNonZeroEntryAndOnlyThose) {
  Lfibs l("producer");
  LfibStatus& w = *l.writer;
  putRow(w, 9, 1, 5);     // an earlier run's row of a map that is gone
  putRow(w, 1, 30, 7);    // ... of a tag that is gone
  putRow(w, 1, 10, 999);  // ... of a tag whose VLAN changed
  setTag(w, 1, 10, 100);
  setTag(w, 1, 20, 0);
  setTag(w, 2, 5, 50);
  Watch watch(l.writer);
  auto producer = lfibStatusProducerSmFactory(l.writer);
  EXPECT_TRUE(producer->initialized());
  EXPECT_EQ(producer->dot1qTagToVlanColls(), 2u);
  EXPECT_EQ(rowsOf(w), "1{10:100} 2{5:50}");
  // Each earlier row brought in line once, then each entry written once: nothing was
  // written while the nested reactors were set up, before the first pass.
  EXPECT_EQ(watch.rows, (std::multiset<std::string>{"9/1", "1/30", "1/10", "1/10", "2/5"}));

  LfibDot1qTagToVlan::Ptr removed;
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* rows;
  } steps[] = {
      {"VLAN 0 withdraws the tag", [&] { setTag(w, 1, 10, 0); }, "2{5:50}"},
      {"and a VLAN brings it back", [&] { setTag(w, 1, 10, 101); }, "1{10:101} 2{5:50}"},
      {"a VLAN 0 entry gets one", [&] { setTag(w, 1, 20, 200); }, "1{10:101 20:200} 2{5:50}"},
      {"an entry removed", [&] { w.dot1qTagToVlanCollIs(mapKey(2))->dot1qTagToVlanIdDel(5); },
       "1{10:101 20:200}"},
      {"a new map", [&] { setTag(w, 3, 7, 70); }, "1{10:101 20:200} 3{7:70}"},
      {"a whole map removed", [&] { removed = w.dot1qTagToVlanCollDel(mapKey(1)); }, "3{7:70}"},
      {"the removed map is no longer followed", [&] { removed->dot1qTagToVlanIdIs(11, 110); },
       "3{7:70}"},
      {"a new map under its key is", [&] { setTag(w, 1, 12, 120); }, "1{12:120} 3{7:70}"},
  };
  for (const Step& step : steps) {
    step.change();
    EXPECT_EQ(rowsOf(w), step.rows) << step.what;
  }
  // Moved to another group: the new table gets every row, without the old group's stale
  // ones; without a group the maps change with nothing written.
  ScopedGroupName moved("producerMoved");
  putRow(w, 9, 9, 9);
  w.mountGroupIs(nullptr);
  setTag(w, 3, 8, 80);
  w.mountGroupIs(Pond::MountGroup::writer(*moved));
  EXPECT_EQ(rowsOf(w), "1{12:120} 3{7:70 8:80}");
  w.mountGroupIs(l.writerGroup);
  EXPECT_EQ(rowsOf(w), "1{12:120} 3{7:70 8:80}");

  // Destroying the producer leaves the rows to the readers.
  producer = nullptr;
  w.dot1qTagToVlanCollDelAll();
  EXPECT_EQ(rowsOf(w), "1{12:120} 3{7:70 8:80}");
}

TEST(LfibStatusConsumerSm, MirrorsRowsTagByTag) {
  Lfibs l("consumer");
  putRow(*l.writer, 1, 10, 100);
  putRow(*l.writer, 1, 20, 200);
  auto consumer = lfibStatusConsumerSmFactory(l.reader);
  EXPECT_TRUE(consumer->initialized());
  EXPECT_EQ(consumer->mountGroup(), l.readerGroup);
  EXPECT_EQ(mapsOf(*l.reader), "1{10:100 20:200}");

  struct Step {
    const char* what;
    std::function<void()> change;
    const char* maps;
  } steps[] = {
      {"a row deleted removes its tag",
       [&] { l.writer->dot1qTagToVlanCompositeDel(rowKey(1, 10)); }, "1{20:200}"},
      {"the last one removes the map", [&] { l.writer->dot1qTagToVlanCompositeDel(rowKey(1, 20)); },
       ""},
      {"a row creates its map", [&] { putRow(*l.writer, 2, 5, 50); }, "2{5:50}"},
      {"a changed row changes the tag", [&] { putRow(*l.writer, 2, 5, 51); }, "2{5:51}"},
      {"rows of several maps",
       [&] {
         putRow(*l.writer, 3, 5, 52);
         putRow(*l.writer, 2, 6, 60);
       },
       "2{5:51 6:60} 3{5:52}"},
  };
  for (const Step& step : steps) {
    step.change();
    l.readerGroup->processChanges();
    EXPECT_EQ(mapsOf(*l.reader), step.maps) << step.what;
  }

  // Neither row nor map: nothing. Another full pass: nothing either (no map dropped and
  // created again, no VLAN changed).
  Watch watch(l.reader);
  consumer->handleDot1qTagToVlanComposite(rowKey(7, 7));
  consumer->handleDot1qTagToVlanComposites();
  consumer->handleDot1qTagToVlanComposites();
  EXPECT_EQ(mapsOf(*l.reader), "2{5:51 6:60} 3{5:52}");
  EXPECT_EQ(watch.maps, std::vector<uint32_t>{});
}

TEST(LfibStatusConsumerSm, BuildsWhenItsGroupIsReadyAndFollowsANewGroup) {
  ScopedGroupName first("late"), second("moved");
  auto readerGroup = Pond::MountGroup::reader(*first);
  auto reader = lfibStatusFactory();
  reader->mountGroupIs(readerGroup);
  auto consumer = lfibStatusConsumerSmFactory(reader);
  EXPECT_FALSE(readerGroup->ready());

  // The writer appears with its rows in place: they come with no row notification.
  auto writer = lfibStatusFactory();
  writer->mountGroupIs(Pond::MountGroup::writer(*first));
  putRow(*writer, 1, 10, 100);
  readerGroup->processChanges();
  EXPECT_TRUE(readerGroup->ready());
  EXPECT_EQ(mapsOf(*reader), "1{10:100}");

  // lfibStatus moves to another group: the consumer follows it, and what the new table
  // does not hold goes.
  auto other = lfibStatusFactory();
  other->mountGroupIs(Pond::MountGroup::writer(*second));
  putRow(*other, 3, 30, 300);
  auto secondReader = Pond::MountGroup::reader(*second);
  reader->mountGroupIs(secondReader);
  EXPECT_EQ(consumer->mountGroup(), secondReader);
  EXPECT_EQ(mapsOf(*reader), "3{30:300}");
  putRow(*other, 3, 31, 310);
  putRow(*writer, 1, 11, 110);  // the old group is no longer followed
  secondReader->processChanges();
  readerGroup->processChanges();
  EXPECT_EQ(mapsOf(*reader), "3{30:300 31:310}");
}

TEST(LfibStatusConsumerSmDeathTest, RefusesAnLfibStatusWithMapsAlready) {
  auto status = lfibStatusFactory();
  status->dot1qTagToVlanCollIs(mapKey(1));
  EXPECT_DEATH(
      lfibStatusConsumerSmFactory(status),
      "^Mpls/LfibStatusSm:[0-9]+ void Mpls::LfibStatusConsumerSm::handleInitialized\\(\\) "
      "-- fatal assertion failed\\(!lfibStatus\\(\\)->dot1qTagToVlanColls\\(\\) && \"This sm "
      "should not have been created with a filled dot1qTagToVlanColl\"\\)\n$");
}

// A reading process of its own: it mounts the group as a reader, rebuilds the maps with a
// consumer and follows the writer; asked, it answers with the maps it holds once it has
// processed every change so far.
int readerProcess(const std::string& name, TestSupport::Channel& channel) {
  auto group = Pond::MountGroup::reader(name);
  auto status = lfibStatusFactory();
  status->mountGroupIs(group);
  auto consumer = lfibStatusConsumerSmFactory(status);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    std::optional<std::string> request = channel.request(std::chrono::milliseconds(0));
    if (!request) {
      return 0;  // the test is done with us
    }
    if (request->empty()) {
      if (group->waitForChange(std::chrono::milliseconds(10))) {
        group->processChanges();
      }
      continue;
    }
    group->processChanges();
    channel.reply(mapsOf(*status));
  }
  return 1;
}

// The writer's agent: its group, its LfibStatus and, once started, its producer.
struct WriterAgent {
  explicit WriterAgent(const std::string& name)
      : group(Pond::MountGroup::writer(name)), status(lfibStatusFactory()) {
    status->mountGroupIs(group);
  }
  void start() { producer = lfibStatusProducerSmFactory(status); }
  Group group;
  LfibStatus::Ptr status;
  LfibStatusProducerSm::Ptr producer;
};

// A reader in another process holds exactly the writer's maps, less the VLAN 0 entries
// and the maps left empty by them, after every change and across a writer restart.
TEST(LfibStatusSm, AReaderProcessHoldsTheWritersPublishedMaps) {
  ScopedGroupName name("xproc");
  // Before any thread, and before the writer exists.
  TestSupport::ChildProcess reader(
      [&](TestSupport::Channel& channel) { return readerProcess(*name, channel); });
  auto agent = std::make_unique<WriterAgent>(*name);
  agent->start();
  struct Step {
    const char* what;
    std::function<void(LfibStatus&)> change;
    const char* maps;
  } steps[] = {
      {"one map",
       [](LfibStatus& s) {
         setTags(s, {{1, 10, 100}, {1, 20, 200}});
       },
       "1{10:100 20:200}"},
      {"VLAN 0 entries",
       [](LfibStatus& s) {
         setTags(s, {{1, 30, 0}, {2, 5, 0}});
       },
       "1{10:100 20:200}"},
      {"a VLAN for one of them", [](LfibStatus& s) { setTag(s, 2, 6, 60); },
       "1{10:100 20:200} 2{6:60}"},
      {"a changed VLAN", [](LfibStatus& s) { setTag(s, 1, 20, 201); }, "1{10:100 20:201} 2{6:60}"},
      {"a whole map removed", [](LfibStatus& s) { s.dot1qTagToVlanCollDel(mapKey(1)); }, "2{6:60}"},
      {"a map the restarted writer will not have", [](LfibStatus& s) { setTag(s, 5, 5, 55); },
       "2{6:60} 5{5:55}"},
      {"writer restart",
       [&](LfibStatus&) {
         agent.reset();
         agent = std::make_unique<WriterAgent>(*name);
         setTags(*agent->status, {{2, 6, 61}, {3, 1, 10}});
         agent->start();
       },
       "2{6:61} 3{1:10}"},
      {"after the restart",
       [](LfibStatus& s) {
         setTags(s, {{3, 1, 0}, {4, 4, 40}});
       },
       "2{6:61} 4{4:40}"},
  };
  for (const Step& step : steps) {
    step.change(*agent->status);
    agent->group->publish();
    EXPECT_EQ(reader.ask("maps?"), step.maps) << step.what;
  }
  EXPECT_EQ(reader.wait(std::chrono::seconds(10)), 0);
}

}  // namespace
