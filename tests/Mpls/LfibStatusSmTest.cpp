// The publication of the tag-to-VLAN maps: the producer flattens a writer's maps into
// dot1qTagToVlanComposite, the consumer rebuilds them in a reader (in another process:
// LfibReaderStack in LfibTrackingTest.cpp).
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Mpls/LfibStatusSm.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using TestSupport::tagMapsText;
using PondTest::ScopedGroupName;
using Group = Kel::Ptr<Pond::MountGroup>;

LfibDot1qTagToVlanKey mapKey(uint32_t index) {
  return LfibDot1qTagToVlanKey(LFib::sourceEvpn, index);
}

LfibDot1qTagToVlanCompositeKey rowKey(uint32_t map, uint16_t tag) {
  return LfibDot1qTagToVlanCompositeKey(mapKey(map), tag);
}

// The rows of dot1qTagToVlanComposite, in the form of tagMapsText.
std::string rowsOf(const LfibStatus& s) {
  auto maps = lfibStatusFactory();
  s.dot1qTagToVlanCompositeForEach([&](const LfibDot1qTagToVlanComposite& row) {
    maps->dot1qTagToVlanCollIs(row.key().dot1qTagToVlanKey())
        ->dot1qTagToVlanIdIs(row.key().dot1qTag(), row.localVlan());
  });
  return tagMapsText(*maps);
}

void setTag(LfibStatus& s, uint32_t map, uint16_t tag, uint16_t vlan) {
  s.dot1qTagToVlanCollIs(mapKey(map))->dot1qTagToVlanIdIs(tag, vlan);
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

// The writer's agent: its LFIB and, once started, its producer.
struct WriterAgent : TestSupport::WriterLfib {
  using WriterLfib::WriterLfib;
  void start() { producer = lfibStatusProducerSmFactory(status); }
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

// A consumer that starts on a ready group (one that starts before the writer exists, in
// another process: LfibReaderStack).
TEST(LfibStatusConsumerSm, MirrorsRowsTagByTagAndFollowsANewGroup) {
  ScopedGroupName first("consumer"), second("consumerMoved");
  WriterAgent w(*first);
  LfibStatus& s = *w.status;
  putRow(s, 1, 10, 100);
  putRow(s, 1, 20, 200);
  putRow(s, 3, 5, 50);
  const Group readerGroup = Pond::MountGroup::reader(*first);
  auto reader = lfibStatusFactory();
  reader->mountGroupIs(readerGroup);
  auto consumer = lfibStatusConsumerSmFactory(reader);
  EXPECT_TRUE(consumer->initialized());
  EXPECT_EQ(tagMapsText(*reader), "1{10:100 20:200} 3{5:50}");

  // A row deleted removes its tag, the last row its map; a row creates its map, a changed
  // row changes its tag.
  s.dot1qTagToVlanCompositeDel(rowKey(1, 10));
  s.dot1qTagToVlanCompositeDel(rowKey(3, 5));
  putRow(s, 2, 5, 50);
  putRow(s, 1, 20, 201);
  readerGroup->processChanges();
  EXPECT_EQ(tagMapsText(*reader), "1{20:201} 2{5:50}");

  // Neither row nor map: nothing. Another full pass: nothing either (no map dropped and
  // created again, no VLAN changed).
  Watch watch(reader);
  consumer->handleDot1qTagToVlanComposite(rowKey(7, 7));
  consumer->handleDot1qTagToVlanComposites();
  consumer->handleDot1qTagToVlanComposites();
  EXPECT_EQ(tagMapsText(*reader), "1{20:201} 2{5:50}");
  EXPECT_EQ(watch.maps, std::vector<uint32_t>{});

  // The LfibStatus moves to another group: the consumer follows it, and what the new table
  // does not hold goes.
  WriterAgent other(*second);
  putRow(*other.status, 4, 30, 300);
  const Group secondReader = Pond::MountGroup::reader(*second);
  reader->mountGroupIs(secondReader);
  EXPECT_EQ(consumer->mountGroup(), secondReader);
  EXPECT_EQ(tagMapsText(*reader), "4{30:300}");
  putRow(*other.status, 4, 31, 310);
  putRow(s, 1, 11, 110);  // the old group is no longer followed
  secondReader->processChanges();
  readerGroup->processChanges();
  EXPECT_EQ(tagMapsText(*reader), "4{30:300 31:310}");
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

}  // namespace
