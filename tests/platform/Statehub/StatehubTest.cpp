// Publishing and mounting entities by path, in one process (the publisher and its readers
// each with mappings of their own, as in separate processes) and across processes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Kel/ChildProcess.h"
#include "Kel/EntityText.h"
#include "Statehub/EntityManager.h"

namespace Demo {

class Block {
 public:
  KEL_VALUE(Block, "Demo::Block", (uint32_t, id), (uint32_t, start), (uint32_t, size));
  uint32_t key() const noexcept { return id_; }
};

class Client : public Kel::Entity {
 public:
  KEL_ENTITY(Client, "Demo::Client");
  class NotifieeConst : public Kel::NotifieeOf<Client> {
   public:
    virtual void onPriority() {}
    virtual void onBlock(const uint32_t&) {}
  };
  explicit Client(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_ATTR(uint32_t, priority, Priority)
  KEL_VALUE_COLL_ATTR(uint32_t, Block, block, Block)

 private:
  Kel::String name_;
};

class Status : public Kel::Entity {
 public:
  KEL_ENTITY(Status, "Demo::Status");
  class NotifieeConst : public Kel::NotifieeOf<Status> {
   public:
    virtual void onReady() {}
    virtual void onMotd() {}
    virtual void onLabel(const uint32_t&) {}
    virtual void onMember(const Kel::String&) {}
    virtual void onClient(const Kel::String&) {}
  };

  KEL_ATTR(bool, ready, Ready)
  KEL_ATTR(Kel::String, motd, Motd)
  KEL_MAP_ATTR(uint32_t, Kel::String, label, Label)
  KEL_SET_ATTR(Kel::String, member, Member)
  KEL_ENTITY_COLL_ATTR(Kel::String, Client, client, Client)
};

// Another type, for the mismatches.
class Other : public Kel::Entity {
 public:
  KEL_ENTITY(Other, "Demo::Other");
  class NotifieeConst : public Kel::NotifieeOf<Other> {
   public:
    virtual void onSeen(const uint32_t&) {}
  };
  KEL_SET_ATTR(uint32_t, seen, Seen)
};

}  // namespace Demo

namespace {

using namespace Demo;
using Statehub::EntityManager;
using ::testing::HasSubstr;

// An instance of the state database of the test's own, removed before and after.
class Statehub_ : public ::testing::Test {
 protected:
  Statehub_()
      : instance(fmt::format("t{}-{}", ::getpid(),
                             ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
    EntityManager::clear(instance);
  }
  ~Statehub_() override { EntityManager::clear(instance); }

  std::string instance;
  EntityManager::Ptr manager = Kel::make<EntityManager>(instance);
};

// Records the replica's notifications.
class StatusLog : public Status::NotifieeConst {
 public:
  explicit StatusLog(const Kel::Ptr<Status>& s) { notifierIs(s); }
  void onReady() override { seen.push_back("ready"); }
  void onMotd() override { seen.push_back("motd"); }
  void onLabel(const uint32_t& k) override { seen.push_back(fmt::format("label {}", k)); }
  void onMember(const Kel::String& k) override { seen.push_back(fmt::format("member {}", k)); }
  void onClient(const Kel::String& k) override { seen.push_back(fmt::format("client {}", k)); }
  std::vector<std::string> seen;
};

TEST_F(Statehub_, ReplicaFollowsEveryKindOfAttributeWithItsNotifications) {
  // A reader may come first: it stays pending until the path is published.
  auto mount = manager->mount<Status>("mpls/status");
  mount->processChanges();
  EXPECT_EQ(mount->status(), Statehub::mountPending);

  auto status = Kel::make<Status>();
  status->motdIs(Kel::String("hello"));
  status->labelIs(1, Kel::String("one"));
  auto publication = manager->publish("mpls/status", status);
  mount->processChanges();
  ASSERT_EQ(mount->status(), Statehub::mountComplete);
  const Kel::Ptr<Status>& replica = mount->entity();
  EXPECT_EQ(Kel::entityText(*replica), Kel::entityText(*status));

  StatusLog log(replica);
  auto sync = [&] { publication->flush(), mount->processChanges(); };
  status->readyIs(true);
  status->labelIs(2, Kel::String("two"));
  status->labelIs(1, Kel::String("uno"));
  status->memberIs(Kel::String("bgp"), true);
  auto bgp = status->clientIs(Kel::String("bgp"));
  bgp->priorityIs(3);
  bgp->blockIs(Block(0, 100000, 16384));
  bgp->blockIs(Block(1, 116384, 16384));
  sync();
  EXPECT_EQ(Kel::entityText(*replica), Kel::entityText(*status));
  EXPECT_THAT(log.seen, ::testing::UnorderedElementsAre("ready", "label 1", "label 2",
                                                        "member bgp", "client bgp"));

  // Deletes, down to the nested entities' rows.
  log.seen.clear();
  bgp->blockDel(0);
  status->labelDel(2);
  sync();
  EXPECT_EQ(replica->client(Kel::String("bgp"))->blocks(), 1u);
  status->clientDel(Kel::String("bgp"));
  status->memberDel(Kel::String("bgp"));
  sync();
  EXPECT_EQ(Kel::entityText(*replica), Kel::entityText(*status));
  EXPECT_THAT(log.seen, ::testing::UnorderedElementsAre("label 2", "client bgp", "member bgp"));
}

TEST_F(Statehub_, ReaderThatFellBehindTheChangeLogConverges) {
  // A log of 4 entries per table: the reader hears of a batch of changes by a resync, and
  // must find the rows removed meanwhile from its own replica, nested ones included.
  Pond::TableSizing small;
  small.logEntries = 4;
  auto status = Kel::make<Status>();
  auto publication = manager->publish("mpls/status", status, small);
  for (uint32_t i = 0; i < 10; ++i) {
    status->labelIs(i, Kel::String("x"));
    status->clientIs(Kel::String(fmt::format("c{}", i)))->blockIs(Block(i, i, 1));
  }
  status->motdIs(Kel::String("hello"));
  publication->flush();
  auto mount = manager->mount<Status>("mpls/status");
  mount->processChanges();
  ASSERT_EQ(mount->status(), Statehub::mountComplete);
  for (uint32_t i = 0; i < 10; i += 2) {
    status->labelDel(i);
    status->clientDel(Kel::String(fmt::format("c{}", i)));
    status->client(Kel::String(fmt::format("c{}", i + 1)))->blockDel(i + 1);
    status->client(Kel::String(fmt::format("c{}", i + 1)))->blockIs(Block(7, 7, 7));
  }
  status->motdIs(Kel::String());
  publication->flush();
  mount->processChanges();
  EXPECT_EQ(Kel::entityText(*mount->entity()), Kel::entityText(*status));
}

TEST_F(Statehub_, PublishedStateOutlivesItsPublisherWhoFindsItAgain) {
  auto status = Kel::make<Status>();
  auto publication = manager->publish("mpls/status", status);
  status->clientIs(Kel::String("ldp"))->blockIs(Block(4, 200000, 16384));
  status->labelIs(7, Kel::String("seven"));
  const std::string before = Kel::entityText(*status);
  publication = nullptr;
  status = nullptr;

  // Readers still see it; a restarted publisher finds it, and its repairs reach them.
  auto mount = manager->mount<Status>("mpls/status");
  mount->processChanges();
  ASSERT_EQ(mount->status(), Statehub::mountComplete);
  EXPECT_EQ(Kel::entityText(*mount->entity()), before);
  auto restarted = Kel::make<Status>();
  publication = manager->publish("mpls/status", restarted);
  EXPECT_EQ(Kel::entityText(*restarted), before);
  restarted->labelDel(7);
  publication->flush();
  mount->processChanges();
  EXPECT_EQ(Kel::entityText(*mount->entity()), Kel::entityText(*restarted));
  EXPECT_EQ(manager->paths(), std::vector<std::string>{"mpls/status"});
}

TEST_F(Statehub_, BadUseIsRefusedNamingThePath) {
  auto status = Kel::make<Status>();
  auto publication = manager->publish("mpls/status", status);
  const std::string path = "path 'mpls/status' of statehub '" + instance + "'";
  EXPECT_THAT([&] { manager->publish("mpls/status", Kel::make<Status>()); },
              ::testing::ThrowsMessage<Statehub::PublisherExistsError>(
                  HasSubstr(path + " has a publisher already")));
  EXPECT_THAT([&] { manager->publish("mpls/other", status); },
              ::testing::ThrowsMessage<Statehub::Error>(HasSubstr("published already")));
  publication = nullptr;
  EXPECT_THAT([&] { manager->publish("mpls/status", Kel::make<Other>()); },
              ::testing::ThrowsMessage<Statehub::Error>(
                  path + " holds a Demo::Status, not a Demo::Other"));
  // Refused before it made a table of its own there.
  EXPECT_EQ(Pond::MountGroup::tableNames(manager->groupName("mpls/status")).size(), 7u);
  auto mount = manager->mount<Other>("mpls/status");
  mount->processChanges();
  EXPECT_EQ(mount->status(), Statehub::mountFailed);
  EXPECT_EQ(mount->error(), path + " holds a Demo::Status, not a Demo::Other");
  for (const char* bad : {"", "/mpls", "mpls/", "mpls//status", "mpls/st atus"}) {
    EXPECT_THAT([&] { manager->mount<Status>(bad); },
                ::testing::ThrowsMessage<Statehub::Error>(HasSubstr("invalid statehub path")))
        << bad;
  }
  EXPECT_THROW(EntityManager("a/b"), Statehub::Error);
}

// Driven by an event loop: publications wake their readers after each iteration, and the
// directory follows its entries from the loop.
TEST_F(Statehub_, DirectoryEntriesAppearAndGo) {
  Kel::EventLoop loop;
  auto looped = Kel::make<EntityManager>(instance, &loop);
  auto dir = looped->mountDir<Client>(
      "mpls/labelRequest", [](const std::string& name) { return Kel::make<Client>(Kel::String(name)); });
  const Kel::Ptr<Kel::Dir>& entries = dir->dir();
  auto until = [&](auto done) { return loop.runUntil(done, std::chrono::seconds(5)); };
  // Three processes publish an entry each and are gone; a fourth stays and changes its own.
  const std::string inst = instance;
  auto publishIn = [&inst](const std::string& name, uint32_t priority) {
    return [inst, name, priority](Kel::ChildProcess::Channel& channel) {
      auto m = Kel::make<EntityManager>(inst);
      auto client = Kel::make<Client>(Kel::String(name));
      client->priorityIs(priority);
      auto publication = m->publish("mpls/labelRequest/" + name, client);
      channel.reply("published");
      while (std::optional<std::string> r = channel.request(std::chrono::seconds(10))) {
        client->priorityIs(static_cast<uint32_t>(std::stoul(*r)));
        publication->flush();
        channel.reply("done");
      }
      return 0;
    };
  };
  {
    Kel::ChildProcess a(publishIn("bgp", 1)), b(publishIn("ldp", 2)), c(publishIn("sr", 3));
    for (Kel::ChildProcess* p : {&a, &b, &c}) {
      ASSERT_TRUE(p->awaitReply(std::chrono::seconds(10)));
    }
  }
  Kel::ChildProcess staying(publishIn("te", 4));
  ASSERT_TRUE(staying.awaitReply(std::chrono::seconds(10)));
  // Deeper paths are not entries.
  auto deeper = looped->publish("mpls/labelRequest/bgp/extra", Kel::make<Other>());
  ASSERT_TRUE(until([&] { return entries->entityPtrs() == 4; })) << entries->entityPtrs();
  const auto* te = static_cast<const Client*>(entries->entityPtr(Kel::String("te")).get());
  EXPECT_EQ(te->priority(), 4u);
  EXPECT_EQ(static_cast<const Client*>(entries->entityPtr(Kel::String("ldp")).get())->priority(),
            2u);
  ASSERT_EQ(staying.ask("9"), "done");
  EXPECT_TRUE(until([&] { return te->priority() == 9; }));

  // A mount on the loop follows its path removed and published anew (a new group); woken
  // by its helper thread, as where the kernel has no io_uring futex wait.
  Pond::MountGroup::futexRingAllowedIs(false);
  auto ldp = looped->mount<Client>("mpls/labelRequest/ldp", Kel::make<Client>(Kel::String("ldp")));
  Pond::MountGroup::futexRingAllowedIs(true);
  ASSERT_TRUE(until([&] { return ldp->entity()->priority() == 2; }));
  EXPECT_TRUE(looped->remove("mpls/labelRequest/ldp"));
  auto again = Kel::make<Client>(Kel::String("ldp"));
  again->priorityIs(7);
  auto republished = looped->publish("mpls/labelRequest/ldp", again);
  EXPECT_TRUE(until([&] { return ldp->entity()->priority() == 7; }));

  EXPECT_TRUE(looped->remove("mpls/labelRequest/bgp"));
  EXPECT_TRUE(until([&] { return !entries->entityPtrHas(Kel::String("bgp")); }));
  EXPECT_EQ(entries->entityPtrs(), 3u);
}

// Blocks as every publisher below writes them: a block's start follows from its id.
bool wholeBlocks(const Status& s) {
  bool whole = true;
  for (const auto& [name, client] : s.clientIter()) {
    Client::KelAttr_block::forEach(*client, [&](uint32_t id, const Block& b) {
      whole = whole && b.start() == 100000 + id * 16384 && b.size() == 16384;
    });
  }
  return whole;
}

// A publisher in a process of its own, killed with SIGKILL at random moments while it
// churns: the reader never meets a block half written, and each restarted publisher finds
// exactly what the reader last saw.
TEST_F(Statehub_, KilledPublisherNeverTearsARowAndFindsItsStateOnRestart) {
  auto mount = manager->mount<Status>("mpls/status");
  std::mt19937 random(::testing::UnitTest::GetInstance()->random_seed());
  const std::string inst = instance;
  for (int round = 0; round < 25; ++round) {
    Kel::ChildProcess publisher([&inst, round](Kel::ChildProcess::Channel& channel) {
      auto m = Kel::make<EntityManager>(inst);
      auto status = Kel::make<Status>();
      auto publication = m->publish("mpls/status", status);
      std::string loaded = Kel::entityText(*status);
      std::replace(loaded.begin(), loaded.end(), '\n', '|');
      channel.reply(loaded);
      if (!channel.request(std::chrono::seconds(10))) {
        return 1;
      }
      channel.reply("churning");
      std::mt19937 r(static_cast<uint32_t>(round));
      for (uint32_t n = 0;; ++n) {
        auto client = status->clientIs(Kel::String(fmt::format("c{}", r() % 8)));
        const uint32_t id = r() % 32;
        if (r() % 3 == 0) {
          client->blockDel(id);
        } else {
          client->blockIs(Block(id, 100000 + id * 16384, 16384));
        }
        if (r() % 16 == 0) {
          status->clientDel(client->name());
        }
        status->labelIs(r() % 64, Kel::String(fmt::format("gen {}", n)));
        publication->flush();
      }
      return 0;
    });
    std::string found;
    ASSERT_TRUE(publisher.awaitReply(std::chrono::seconds(10), &found));
    // What the restarted publisher loaded is what the reader sees.
    mount->processChanges();
    if (round > 0) {
      std::string seen = Kel::entityText(*mount->entity());
      std::replace(seen.begin(), seen.end(), '\n', '|');
      EXPECT_EQ(found, seen) << "round " << round;
    }
    ASSERT_EQ(publisher.ask("go"), "churning");
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 40);
    while (std::chrono::steady_clock::now() < until) {
      mount->processChanges();
      ASSERT_TRUE(wholeBlocks(*mount->entity())) << "round " << round;
    }
    publisher.kill();
    mount->processChanges();
    ASSERT_TRUE(wholeBlocks(*mount->entity())) << "round " << round;
  }
  EXPECT_EQ(mount->status(), Statehub::mountComplete);
  EXPECT_GT(mount->entity()->labels(), 0u);
  EXPECT_GT(mount->entity()->clients(), 0u);
}

}  // namespace
