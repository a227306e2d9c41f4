// Entities, collections, notifiees, reactors and Kel::Ptr.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Kel/Clock.h"
#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/FixedArray.h"
#include "Kel/String.h"
#include "KelTestTypes.h"

namespace Demo {

class Entry {
  KEL_VALUE(Entry, "Demo::Entry", (Key, key), (uint32_t, weight));
};

class Child : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<Child> {
   public:
    virtual void onLevel() {}
  };
  Child(uint32_t id, std::atomic<int>* destroyed) : id_(id), destroyed_(destroyed) {}
  ~Child() override {
    if (destroyed_) {
      ++*destroyed_;
    }
  }
  uint32_t id() const noexcept { return id_; }
  const Kel::Entity* parent() const noexcept { return parent_; }
  void handleParent(const Kel::Ptr<Kel::Entity>& parent) override { parent_ = parent.get(); }

  KEL_ATTR(uint32_t, level, Level)

 private:
  uint32_t id_;
  std::atomic<int>* destroyed_;
  const Kel::Entity* parent_ = nullptr;
};

class Box : public Kel::Entity {
 public:
  KEL_ENTITY(Box, "Demo::Box");
  class NotifieeConst : public Kel::NotifieeOf<Box> {
   public:
    virtual void onName() {}
    virtual void onOwner() {}
    virtual void onCounter(const uint32_t&) {}
    virtual void onOrigin(const uint32_t&) {}
    virtual void onMember(const uint32_t&) {}
    virtual void onEntry(const Key&) {}
    virtual void onChild(const uint32_t&) {}
  };
  explicit Box(std::atomic<int>* destroyed = nullptr) : destroyed_(destroyed) {}
  ~Box() override {
    if (destroyed_) {
      ++*destroyed_;
    }
  }

  KEL_ATTR(Kel::String, name, Name)
  KEL_ATTR(Source, owner, Owner)
  KEL_MAP_ATTR(uint32_t, uint32_t, counter, Counter)
  KEL_MAP_ATTR(uint32_t, Source, origin, Origin)
  KEL_SET_ATTR(uint32_t, member, Member)
  KEL_VALUE_COLL_ATTR(Key, Entry, entry, Entry)
  KEL_ENTITY_COLL_ATTR(uint32_t, Child, child, Child)

 private:
  std::atomic<int>* destroyed_;
};

// Records every notification of one box as a short line.
class BoxLog : public Box::NotifieeConst {
 public:
  explicit BoxLog(const Kel::Ptr<Box>& box) { notifierIs(box); }
  void onName() override { note("name"); }
  void onOwner() override { note("owner"); }
  void onCounter(const uint32_t& k) override { note(fmt::format("counter {}", k)); }
  void onOrigin(const uint32_t& k) override { note(fmt::format("origin {}", k)); }
  void onMember(const uint32_t& k) override { note(fmt::format("member {}", k)); }
  void onEntry(const Key& k) override { note(fmt::format("entry {}", k.index().value())); }
  void onChild(const uint32_t& k) override { note(fmt::format("child {}", k)); }
  std::vector<std::string> take() { return std::exchange(log_, {}); }
  std::vector<std::string> takeSorted() {
    auto v = take();
    std::sort(v.begin(), v.end());
    return v;
  }
  std::function<void()> hook;  // runs after each notification is recorded

 private:
  void note(std::string line) {
    log_.push_back(std::move(line));
    if (hook) {
      hook();
    }
  }
  std::vector<std::string> log_;
};

class BoxSm : public Kel::Reactor {
 public:
  class KelBox : public Kel::Nested<Box::NotifieeConst> {
   public:
    KelBox(BoxSm* sm, const Kel::Ptr<Box>& box) : Nested(sm), sm_(sm) { notifierIs(box); }
    void onName() override { sm_->handled.push_back("name"); }
    void onChild(const uint32_t& k) override { sm_->handleChild(k); }

   private:
    BoxSm* sm_;
  };
  // Watches one child; reached by kelDoZombieReactors only through the reactor collection.
  class KelChild : public Child::NotifieeConst {
   public:
    KelChild(BoxSm* sm, const Kel::Ptr<Child>& child) : sm_(sm) { notifierIs(child); }
    void onLevel() override { sm_->handled.push_back(fmt::format("level {}", notifier()->id())); }

   private:
    BoxSm* sm_;
  };

  explicit BoxSm(const Kel::Ptr<Box>& box) : kelBox(this, box) {}
  void handleChild(uint32_t k) {
    handled.push_back(fmt::format("child {}", k));
    if (auto c = kelBox.notifier()->child(k)) {
      kelChildIs(k, this, c);
    } else {
      kelChildDel(k);
    }
  }
  std::vector<std::string> take() { return std::exchange(handled, {}); }

  KEL_REACTOR_COLL(uint32_t, KelChild, kelChild)
  KelBox kelBox;
  std::vector<std::string> handled;
};

}  // namespace Demo

namespace {

using namespace Demo;
using Lines = std::vector<std::string>;

TEST(Entity, EveryChangeNotifiesOnceWithItsKey) {
  auto box = Kel::make<Box>();
  BoxLog log(box);
  EXPECT_EQ(box->owner(), sourceStatic);
  box->nameIs("a");
  box->nameIs("a");
  box->ownerIs(sourceLdp);
  box->ownerIs(sourceLdp);
  EXPECT_EQ(log.take(), (Lines{"name", "owner"}));

  box->counterIs(1, 10);
  box->counterIs(1, 10);
  box->counterIs(1, 11);
  box->counterIs(2, 0);
  EXPECT_EQ(box->counter(1), 11u);
  EXPECT_EQ(box->counter(3), 0u);
  EXPECT_TRUE(box->counterHas(2));
  EXPECT_FALSE(box->counterHas(3));
  EXPECT_EQ(box->counters(), 2u);
  EXPECT_EQ(box->counterDel(3), 0u);
  EXPECT_EQ(box->counterDel(1), 11u);
  EXPECT_EQ(log.take(), (Lines{"counter 1", "counter 1", "counter 2", "counter 1"}));

  box->memberIs(4, true);
  box->memberIs(4, true);
  box->memberIs(5, false);
  box->memberDel(6);
  box->memberIs(5, true);
  box->memberDel(4);
  EXPECT_TRUE(box->member(5));
  EXPECT_FALSE(box->member(4));
  EXPECT_EQ(box->members(), 1u);
  EXPECT_EQ(log.take(), (Lines{"member 4", "member 5", "member 4"}));

  const Entry e1(Key(sourceLdp, 1), 5), e1b(Key(sourceLdp, 1), 6), e2(Key(sourceBgp, 2), 1);
  EXPECT_EQ(box->entryIs(e1), e1);
  box->entryIs(e1);
  EXPECT_EQ(box->entryIs(e1b), e1b);
  box->entryCommit(&e2);
  box->entryDel(Key(sourceBgp, 3));
  EXPECT_EQ(box->entry(Key(sourceBgp, 3)), Entry());
  EXPECT_EQ(box->entry(Key(sourceLdp, 1)), e1b);
  EXPECT_EQ(log.take(), (Lines{"entry 1", "entry 1", "entry 2"}));

  Kel::Ptr<Child> c1 = box->childIs(1, nullptr);
  EXPECT_EQ(c1->id(), 1u);
  EXPECT_EQ(box->childIs(1, nullptr), c1);  // the existing entity, no notification
  EXPECT_EQ(box->child(2), nullptr);
  EXPECT_EQ(box->childDel(2), nullptr);
  EXPECT_EQ(box->childDel(1), c1);
  box->childIs(3, nullptr);
  EXPECT_EQ(log.take(), (Lines{"child 1", "child 1", "child 3"}));

  box->counterIs(7, 1);
  box->memberIs(9, true);
  box->entryIs(Entry(Key(sourceStatic, 3), 0));
  box->childIs(4, nullptr);
  Lines seen;
  for (const auto& [k, v] : box->counterIter()) {
    seen.push_back(fmt::format("{}={}", k, v));
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (Lines{"2=0", "7=1"}));
  log.take();
  box->counterDelAll();
  box->memberDelAll();
  box->entryDelAll();
  box->childDelAll();
  box->childDelAll();
  EXPECT_EQ(log.takeSorted(), (Lines{"child 3", "child 4", "counter 2", "counter 7", "entry 1",
                                     "entry 2", "entry 3", "member 5", "member 9"}));
  EXPECT_EQ(box->counters() + box->members() + box->entrys() + box->childs(), 0u);
}

// A set keeps a lone member inline and moves to a hash set for a second one: every step
// of that, and back, answers the same as any set.
// The descriptors walk every attribute in declaration order; a change made through them,
// or through the setters, reaches the observer (quiesced or not) and raises the
// collection's version, and only a change does.
TEST(Entity, AttributesAreDescribedAndObserved) {
  static_assert(Kel::DescribedEntity<Box> && Box::kelTypeName == "Demo::Box");
  Lines attrs;
  Kel::forEachAttr<Box>([&](auto a) {
    attrs.push_back(fmt::format("{} {} {}", a.index, a.name, static_cast<int>(a.kind)));
  });
  EXPECT_EQ(attrs, (Lines{"0 name 0", "1 owner 0", "2 counter 1", "3 origin 1", "4 member 2",
                          "5 entry 3", "6 child 4"}));
  EXPECT_EQ(Kel::attrCount<Child>, 1);

  struct Observer : Kel::AttrObserver {
    void kelAttrChanged(int index, const void* key) override {
      seen.push_back(fmt::format("{}{}", index, key ? "+key" : ""));
    }
    Lines seen;
  } observer;
  auto box = Kel::make<Box>();
  box->kelObserverIs(&observer);
  BoxLog log(box);
  Box::KelAttr_name::set(*box, Kel::String("x"));
  Box::KelAttr_name::set(*box, Kel::String("x"));
  EXPECT_EQ(box->name(), Kel::String("x"));
  Box::KelAttr_counter::set(*box, 1, 5);
  box->memberNotifyQuiesced(true);
  Box::KelAttr_member::set(*box, 2, true);
  Box::KelAttr_entry::set(*box, Entry(Key(sourceBgp, IdxRange(1)), 9));
  Box::KelAttr_entry::del(*box, Key(sourceBgp, IdxRange(2)));  // absent: no change
  EXPECT_EQ(observer.seen, (Lines{"0", "2+key", "4+key", "5+key"}));
  EXPECT_EQ(log.take(), (Lines{"name", "counter 1", "entry 1"}));
  EXPECT_EQ(box->memberVersion(), 1u);
  EXPECT_EQ(Box::KelAttr_entry::version(*box), 1u);
  Box::KelAttr_counter::forEach(*box, [](uint32_t k, uint32_t v) { EXPECT_EQ(k * 5, v); });
  EXPECT_TRUE(Box::KelAttr_member::has(*box, 2));
  EXPECT_FALSE(Kel::visitAttr<Box>(7, [](auto) {}));
}

// A manual clock moves when told, announces each move, and never goes back; the system
// clock does not go back either.
TEST(Clock, ManualClockMovesForwardOnlyAndAnnounces) {
  auto clock = Kel::manualClockFactory(10);
  struct Moves : Kel::Clock::NotifieeConst {
    void onNow() override { ++count; }
    int count = 0;
  } moves;
  moves.notifierIs(clock);
  clock->advance(1.5);
  clock->nowIs(11.5);  // where it is: nothing to announce
  EXPECT_EQ(clock->now(), 11.5);
  EXPECT_EQ(moves.count, 1);
  EXPECT_THROW(clock->nowIs(11), Kel::InternalException);
  const double t = Kel::systemClock()->now();
  EXPECT_LE(t, Kel::systemClock()->now());
}

TEST(Entity, SetCollectionThroughOneAndManyMembers) {
  auto box = Kel::make<Box>();
  // Each step adds ("+n") or removes ("-n") a member; the members after it.
  const std::pair<const char*, std::vector<uint32_t>> steps[] = {
      {"", {}},        {"+4", {4}}, {"+4", {4}}, {"+5", {4, 5}}, {"+6", {4, 5, 6}}, {"-4", {5, 6}},
      {"-6", {5}},     {"-5", {}},  {"+7", {7}}, {"-8", {7}},    {"+8", {7, 8}}};
  for (const auto& [step, expected] : steps) {
    SCOPED_TRACE(step);
    if (*step == '+') {
      box->memberIs(std::stoul(step + 1), true);
    } else if (*step == '-') {
      box->memberDel(std::stoul(step + 1));
    }
    std::vector<uint32_t> members(box->memberIter().begin(), box->memberIter().end());
    std::sort(members.begin(), members.end());
    EXPECT_EQ(members, expected);
    EXPECT_EQ(box->members(), expected.size());
    EXPECT_EQ(box->memberIter().keys().size(), expected.size());
    for (uint32_t n = 3; n <= 9; ++n) {
      EXPECT_EQ(box->member(n), std::find(expected.begin(), expected.end(), n) != expected.end())
          << n;
    }
  }
}

// A scan of a directory in slices of two entries, resuming after its bookmark: the
// bookmark's removal, an entry added behind it and one added ahead of it between slices.
TEST(Entity, OrderedCollectionScanResumesAfterItsBookmark) {
  auto dir = Kel::dirFactory("d");
  const Kel::Ptr<Kel::Entity> entry = Kel::dirFactory("entry");
  for (const char* name : {"b", "d", "f", "h"}) {
    dir->entityPtrIs(Kel::String(name), entry);
  }
  std::vector<std::string> seen;
  std::optional<Kel::String> bookmark;
  auto slice = [&] {
    int n = 0;
    for (const auto& [name, entry] : bookmark ? dir->entityPtrIterAfter(*bookmark)
                                              : Kel::IterRange{dir->entityPtrIter().begin(),
                                                               dir->entityPtrIter().end()}) {
      if (n++ == 2) {
        return false;
      }
      seen.push_back(std::string(name.view()));
      bookmark = name;
    }
    return true;
  };
  EXPECT_FALSE(slice());
  dir->entityPtrDel(Kel::String("d"));  // the bookmark
  dir->entityPtrIs(Kel::String("a"), entry);
  dir->entityPtrIs(Kel::String("e"), entry);
  EXPECT_FALSE(slice());
  EXPECT_TRUE(slice());
  EXPECT_EQ(seen, (std::vector<std::string>{"b", "d", "e", "f", "h"}));
}

TEST(Entity, QuiescedCollectionAnnouncesNothing) {
  auto box = Kel::make<Box>();
  BoxLog log(box);
  box->counterNotifyQuiesced(true);
  box->counterIs(1, 1);
  box->counterDel(1);
  box->counterNotify(1);
  box->memberIs(1, true);
  box->memberNotify(2);
  box->nameIs("q");
  EXPECT_EQ(log.take(), (Lines{"member 1", "member 2", "name"}));
  box->counterNotifyQuiesced(false);
  box->counterNotify(3);
  box->counterIs(2, 2);
  EXPECT_EQ(log.take(), (Lines{"counter 3", "counter 2"}));
}

TEST(Notifiee, AttachAndDetachDuringDelivery) {
  auto box = Kel::make<Box>();
  auto a = std::make_unique<BoxLog>(box);
  auto b = std::make_unique<BoxLog>(box);
  auto c = std::make_unique<BoxLog>(box);
  std::unique_ptr<BoxLog> d;
  a->hook = [&] {
    b.reset();                 // destroys a notifiee that has not been called yet
    a->notifierIs(nullptr);    // detaches itself
    d = std::make_unique<BoxLog>(box);  // attached during the delivery: not called by it
  };
  bool nested = false;
  c->hook = [&] {
    if (!nested) {
      nested = true;
      box->ownerIs(sourceBgp);  // a delivery inside a delivery
    }
  };
  box->nameIs("x");
  EXPECT_EQ(a->take(), (Lines{"name"}));
  EXPECT_EQ(c->take(), (Lines{"name", "owner"}));
  EXPECT_EQ(d->take(), (Lines{"owner"}));
  EXPECT_EQ(box->notifieeList().size(), 2u);

  box->nameIs("y");
  EXPECT_TRUE(a->take().empty());
  EXPECT_EQ(c->take(), (Lines{"name"}));
  EXPECT_EQ(d->take(), (Lines{"name"}));
}

TEST(Notifiee, KeepsItsEntityAlive) {
  std::atomic<int> destroyed{0};
  auto box = Kel::make<Box>(&destroyed);
  auto log = std::make_unique<BoxLog>(box);
  box = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(log->notifier()->notifieeList().size(), 1u);
  log->notifierIs(nullptr);
  EXPECT_EQ(destroyed, 1);

  box = Kel::make<Box>(&destroyed);
  log = std::make_unique<BoxLog>(box);
  box = nullptr;
  log.reset();
  EXPECT_EQ(destroyed, 2);
}

// Dropping the last reference from inside a handler must not free the entity under its
// own delivery loop.
TEST(Notifiee, DetachingTheLastHolderDuringDeliveryIsSafe) {
  std::atomic<int> destroyed{0};
  auto box = Kel::make<Box>(&destroyed);
  Box* raw = box.get();
  BoxLog log(box);
  log.hook = [&log] { log.notifierIs(nullptr); };
  box = nullptr;
  raw->nameIs("x");
  EXPECT_EQ(destroyed, 1);
}

TEST(Entity, HandleParentWhenParentHeldByPtr) {
  auto box = Kel::make<Box>();
  EXPECT_EQ(box->childIs(3, nullptr)->parent(), box.get());
  EXPECT_EQ(box->kelRefCount(), 1u);
  Box unowned;
  EXPECT_EQ(unowned.childIs(3, nullptr)->parent(), nullptr);
}

// A handler may remove the element it is told about; the setter that announced it must
// cope with the element being gone.
TEST(Entity, ValueCollSetterSurvivesHandlerRemovingTheElement) {
  auto box = Kel::make<Box>();
  BoxLog log(box);
  log.hook = [&] { box->entryDel(Key(sourceLdp, 1)); };
  box->entryIs(Entry(Key(sourceLdp, 1), 5));
  EXPECT_EQ(box->entrys(), 0u);
  EXPECT_EQ(log.take(), (Lines{"entry 1", "entry 1"}));
}

// Wherever the framework makes a default element, an enumeration's is its first
// enumerator (sourceStatic, 3), not 0.
TEST(Entity, AbsentEnumElementIsTheFirstEnumerator) {
  auto box = Kel::make<Box>();
  EXPECT_EQ(box->origin(1), sourceStatic);
  EXPECT_EQ(box->originDel(1), sourceStatic);
  Kel::FixedArray<Source, 4, IdxRange> a;
  a.set(2, sourceBgp);
  EXPECT_EQ(a.at(0), sourceStatic);
  EXPECT_EQ(a.del(3), sourceStatic);
  a.set(0, sourceLdp);
  a.set(1, sourceStatic);
  a.del(2);
  EXPECT_EQ(a.count(), 1u);
}

TEST(Reactor, ZombieStopsNestedNotifieesAndCollectionMembers) {
  auto box = Kel::make<Box>();
  auto sm = Kel::make<BoxSm>(box);
  box->childIs(1, nullptr);
  box->child(1)->levelIs(5);
  box->nameIs("a");
  EXPECT_EQ(sm->take(), (Lines{"child 1", "level 1", "name"}));

  sm->kelDoZombieReactors(true);
  EXPECT_TRUE(sm->isZombie());
  EXPECT_TRUE(sm->kelBox.isZombie());
  EXPECT_TRUE(sm->kelChild(1)->isZombie());
  box->nameIs("b");
  box->child(1)->levelIs(6);
  auto c2 = box->childIs(2, nullptr);
  sm->kelChildIs(2, sm.get(), c2);  // created while the reactor is a zombie
  EXPECT_TRUE(sm->kelChild(2)->isZombie());
  c2->levelIs(1);
  EXPECT_TRUE(sm->take().empty());

  sm->kelDoZombieReactors(false);
  EXPECT_FALSE(sm->isZombie() || sm->kelBox.isZombie() || sm->kelChild(2)->isZombie());
  box->nameIs("c");
  box->child(1)->levelIs(7);
  c2->levelIs(2);
  EXPECT_EQ(sm->take(), (Lines{"name", "level 1", "level 2"}));

  // The same state again passes nothing on.
  sm->kelChild(1)->hasNotificationActiveIs(false);
  sm->kelDoZombieReactors(false);
  box->child(1)->levelIs(8);
  EXPECT_TRUE(sm->take().empty());
  sm->kelChild(1)->hasNotificationActiveIs(true);
  sm->kelDoZombieReactors(true);
  sm->kelChild(1)->hasNotificationActiveIs(true);
  sm->kelDoZombieReactors(true);
  box->child(1)->levelIs(9);
  box->nameIs("d");
  EXPECT_EQ(sm->take(), (Lines{"level 1"}));
}

// Invariant: each thread holds a reference of its own while it makes and drops copies, so
// the count cannot reach zero early and no increment or decrement may be lost. With the
// main thread keeping one reference the count ends at exactly 1; when the main thread lets
// go first, the entity is destroyed exactly once, by whichever thread is last.
TEST(Ptr, ThreadSafeModeCountsExactly) {
  Kel::ptrThreadSafeModeIs(true);
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  for (bool mainKeeps : {true, false}) {
    SCOPED_TRACE(mainKeeps);
    std::atomic<int> destroyed{0};
    auto child = Kel::make<Child>(1u, &destroyed);
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&start, mine = child]() mutable {
        start.arrive_and_wait();
        for (int i = 0; i < kRounds; ++i) {
          Kel::Ptr<Child> copy = mine;
          Kel::PtrConst<Kel::Entity> base = copy;
          copy = nullptr;
        }
        mine = nullptr;
      });
    }
    if (!mainKeeps) {
      child = nullptr;
    }
    start.arrive_and_wait();
    for (auto& t : threads) {
      t.join();
    }
    if (mainKeeps) {
      EXPECT_EQ(child->kelRefCount(), 1u);
      EXPECT_EQ(destroyed, 0);
      child = nullptr;
    }
    EXPECT_EQ(destroyed, 1);
  }
  Kel::ptrThreadSafeModeIs(false);
}

}  // namespace
