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

#include "Kel/ChildProcess.h"
#include "Mpls/LfibStatusSm.h"
#include "platform/Pond/PondTestTypes.h"

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

TEST(LfibStatusProducerSm, PublishesEveryNonZeroEntryAndOnlyThose) {
  ScopedGroupName name("producer");
  WriterAgent agent(*name);
  LfibStatus& w = *agent.status;
  putRow(w, 9, 1, 5);     // an earlier run's row of a map that is gone
  putRow(w, 1, 30, 7);    // ... of a tag that is gone
  putRow(w, 1, 10, 999);  // ... of a tag whose VLAN changed
  setTag(w, 1, 10, 100);
  setTag(w, 1, 20, 0);
  setTag(w, 2, 5, 50);
  Watch watch(agent.status);
  agent.start();
  EXPECT_TRUE(agent.producer->initialized());
  EXPECT_EQ(agent.producer->dot1qTagToVlanColls(), 2u);
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
  w.mountGroupIs(agent.group);
  EXPECT_EQ(rowsOf(w), "1{12:120} 3{7:70 8:80}");

  // Destroying the producer leaves the rows to the readers.
  agent.producer = nullptr;
  w.dot1qTagToVlanCollDelAll();
  EXPECT_EQ(rowsOf(w), "1{12:120} 3{7:70 8:80}");
}

// Two readers: one whose consumer starts before the writer exists and builds the maps when
// its group is ready (the rows there come with no row notification), and one whose consumer
// starts on a ready group.
TEST(LfibStatusConsumerSm, MirrorsRowsTagByTagOnceItsGroupIsReadyAndFollowsANewGroup) {
  ScopedGroupName first("consumer"), second("consumerMoved");
  const Group lateGroup = Pond::MountGroup::reader(*first);
  auto late = lfibStatusFactory();
  late->mountGroupIs(lateGroup);
  auto lateConsumer = lfibStatusConsumerSmFactory(late);
  EXPECT_FALSE(lateGroup->ready());

  WriterAgent w(*first);
  putRow(*w.status, 1, 10, 100);
  putRow(*w.status, 1, 20, 200);
  const Group readyGroup = Pond::MountGroup::reader(*first);
  auto ready = lfibStatusFactory();
  ready->mountGroupIs(readyGroup);
  auto consumer = lfibStatusConsumerSmFactory(ready);
  EXPECT_TRUE(consumer->initialized());
  EXPECT_EQ(consumer->mountGroup(), readyGroup);
  EXPECT_EQ(mapsOf(*ready), "1{10:100 20:200}");

  LfibStatus& s = *w.status;
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* maps;
  } steps[] = {
      {"the rows there when the group is ready", [] {}, "1{10:100 20:200}"},
      {"a row deleted removes its tag", [&] { s.dot1qTagToVlanCompositeDel(rowKey(1, 10)); },
       "1{20:200}"},
      {"the last one removes the map", [&] { s.dot1qTagToVlanCompositeDel(rowKey(1, 20)); }, ""},
      {"a row creates its map", [&] { putRow(s, 2, 5, 50); }, "2{5:50}"},
      {"a changed row changes the tag", [&] { putRow(s, 2, 5, 51); }, "2{5:51}"},
      {"rows of several maps",
       [&] {
         putRow(s, 3, 5, 52);
         putRow(s, 2, 6, 60);
       },
       "2{5:51 6:60} 3{5:52}"},
  };
  for (const Step& step : steps) {
    step.change();
    lateGroup->processChanges();
    readyGroup->processChanges();
    EXPECT_TRUE(lateGroup->ready());
    EXPECT_EQ(mapsOf(*late), step.maps) << step.what;
    EXPECT_EQ(mapsOf(*ready), step.maps) << step.what;
  }

  // Neither row nor map: nothing. Another full pass: nothing either (no map dropped and
  // created again, no VLAN changed).
  Watch watch(ready);
  consumer->handleDot1qTagToVlanComposite(rowKey(7, 7));
  consumer->handleDot1qTagToVlanComposites();
  consumer->handleDot1qTagToVlanComposites();
  EXPECT_EQ(mapsOf(*ready), "2{5:51 6:60} 3{5:52}");
  EXPECT_EQ(watch.maps, std::vector<uint32_t>{});

  // The LfibStatus moves to another group: the consumer follows it, and what the new table
  // does not hold goes.
  WriterAgent other(*second);
  putRow(*other.status, 4, 30, 300);
  const Group secondReader = Pond::MountGroup::reader(*second);
  late->mountGroupIs(secondReader);
  EXPECT_EQ(lateConsumer->mountGroup(), secondReader);
  EXPECT_EQ(mapsOf(*late), "4{30:300}");
  putRow(*other.status, 4, 31, 310);
  putRow(s, 1, 11, 110);  // the old group is no longer followed
  secondReader->processChanges();
  lateGroup->processChanges();
  EXPECT_EQ(mapsOf(*late), "4{30:300 31:310}");
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
int readerProcess(const std::string& name, Kel::ChildProcess::Channel& channel) {
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

// A reader in another process holds exactly the writer's maps, less the VLAN 0 entries
// and the maps left empty by them, after every change and across a writer restart.
TEST(LfibStatusSm, AReaderProcessHoldsTheWritersPublishedMaps) {
  ScopedGroupName name("xproc");
  // Before any thread, and before the writer exists.
  Kel::ChildProcess reader(
      [&](Kel::ChildProcess::Channel& channel) { return readerProcess(*name, channel); });
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
