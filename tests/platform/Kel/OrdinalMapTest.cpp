#include "Kel/OrdinalMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Kel/Collection.h"
#include "Kel/Entity.h"

namespace Demo {

class Ordered {
  KEL_VALUE(Ordered, "Demo::Ordered", (uint32_t, space), (uint32_t, number));
  KEL_HASH_ORDINAL(number)
};

class Item {
  KEL_VALUE(Item, "Demo::Item", (Ordered, key), (uint32_t, weight));
};

class Leaf : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<Leaf> {};
  Leaf(const Ordered& key, uint32_t tag) : key_(key), tag_(tag) {}
  const Ordered& key() const noexcept { return key_; }
  uint32_t tag() const noexcept { return tag_; }

 private:
  Ordered key_;
  uint32_t tag_;
};

// Every kind of collection twice: in a hash table and in dense pages.
class Ledger : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<Ledger> {
   public:
    virtual void onCount(const Ordered&) {}
    virtual void onDenseCount(const Ordered&) {}
    virtual void onMember(const Ordered&) {}
    virtual void onDenseMember(const Ordered&) {}
    virtual void onItem(const Ordered&) {}
    virtual void onDenseItem(const Ordered&) {}
    virtual void onLeaf(const Ordered&) {}
    virtual void onDenseLeaf(const Ordered&) {}
  };

  KEL_MAP_ATTR(Ordered, uint32_t, count, Count)
  KEL_DENSE_MAP_ATTR(Ordered, uint32_t, denseCount, DenseCount)
  KEL_SET_ATTR(Ordered, member, Member)
  KEL_DENSE_SET_ATTR(Ordered, denseMember, DenseMember)
  KEL_VALUE_COLL_ATTR(Ordered, Item, item, Item)
  KEL_DENSE_VALUE_COLL_ATTR(Ordered, Item, denseItem, DenseItem)
  KEL_ENTITY_COLL_ATTR(Ordered, Leaf, leaf, Leaf)
  KEL_DENSE_ENTITY_COLL_ATTR(Ordered, Leaf, denseLeaf, DenseLeaf)
};

}  // namespace Demo

namespace {

using Demo::Ordered;

// Values stay where they are while other keys come and go, in pages and in the hash map.
TEST(OrdinalMap, ValuesStayPutWhileOtherKeysChange) {
  Kel::OrdinalMap<Ordered, Kel::SetColl<uint32_t>> m;
  Kel::SetColl<uint32_t>* dense = m.tryEmplace(Ordered(1, 5)).first;
  Kel::SetColl<uint32_t>* sparse = m.tryEmplace(Ordered(1, 1u << 30)).first;
  dense->insert(1);
  dense->insert(2);
  sparse->insert(3);
  for (uint32_t i = 0; i < 20000; ++i) {
    m.tryEmplace(Ordered(1, 10 + i)).first->insert(i);
    m.tryEmplace(Ordered(2, (1u << 30) + i)).first->insert(i);
  }
  for (uint32_t i = 0; i < 20000; i += 2) {
    m.erase(Ordered(1, 10 + i));
    m.erase(Ordered(2, (1u << 30) + i));
  }
  EXPECT_EQ(m.find(Ordered(1, 5)), dense);
  EXPECT_EQ(m.find(Ordered(1, 1u << 30)), sparse);
  EXPECT_EQ(dense->size(), 2u);
  EXPECT_TRUE(sparse->contains(3));
  EXPECT_EQ(m.size(), 2u + 20000u);

  // A copied set is a set of its own.
  const Kel::SetColl<uint32_t> copy = *dense;
  dense->erase(1);
  dense->insert(9);
  EXPECT_EQ(copy.keys().size(), 2u);
  EXPECT_TRUE(copy.contains(1) && copy.contains(2) && !copy.contains(9));
}

using Demo::Item;
using Demo::Leaf;
using Demo::Ledger;
using Lines = std::vector<std::string>;

// Records the notifications of the hashed and the dense collections apart.
class LedgerLog : public Ledger::NotifieeConst {
 public:
  explicit LedgerLog(const Kel::Ptr<Ledger>& ledger) { notifierIs(ledger); }
  void onCount(const Ordered& k) override { note(hashed, "count", k); }
  void onDenseCount(const Ordered& k) override { note(dense, "count", k); }
  void onMember(const Ordered& k) override { note(hashed, "member", k); }
  void onDenseMember(const Ordered& k) override { note(dense, "member", k); }
  void onItem(const Ordered& k) override { note(hashed, "item", k); }
  void onDenseItem(const Ordered& k) override { note(dense, "item", k); }
  void onLeaf(const Ordered& k) override { note(hashed, "leaf", k); }
  void onDenseLeaf(const Ordered& k) override { note(dense, "leaf", k); }
  Lines hashed;
  Lines dense;

 private:
  static void note(Lines& lines, const char* what, const Ordered& k) {
    lines.push_back(fmt::format("{} {}/{}", what, k.space(), k.number()));
  }
};

template <class Range, class Show>
Lines sortedLines(const Range& range, Show&& show) {
  Lines out;
  for (const auto& element : range) {
    out.push_back(show(element));
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The same random changes made to both kinds, with keys in a few domains over several pages,
// in more domains than are kept in pages, past the pages and at the top of the ordinals:
// they announce the same changes, hold and iterate the same elements, and empty the same way.
TEST(DenseCollections, BehaveAsTheHashedOnes) {
  auto ledger = Kel::make<Ledger>();
  LedgerLog log(ledger);
  std::mt19937 rng(11);
  auto randomKey = [&] {
    switch (rng() % 8) {
      case 0:
        return Ordered(100 + rng() % 70, rng() % 50);  // more domains than are paged
      case 1:
        return Ordered(rng() % 3, (1u << 22) + rng() % 50);  // past the pages
      case 2:
        return Ordered(rng() % 3, UINT32_MAX - rng() % 4);
      default:
        return Ordered(rng() % 3, rng() % 3000);
    }
  };
  for (int step = 0; step < 20000; ++step) {
    const Ordered k = randomKey();
    const uint32_t value = rng() % 3;
    switch (rng() % 8) {
      case 0:
        ledger->countIs(k, value);
        ledger->denseCountIs(k, value);
        break;
      case 1:
        ASSERT_EQ(ledger->countDel(k), ledger->denseCountDel(k));
        break;
      case 2:
        ledger->memberIs(k, value != 0);
        ledger->denseMemberIs(k, value != 0);
        break;
      case 3:
        ASSERT_EQ(ledger->itemIs(Item(k, value)), ledger->denseItemIs(Item(k, value)));
        break;
      case 4:
        ledger->itemDel(k);
        ledger->denseItemDel(k);
        break;
      case 5: {
        const Kel::Ptr<Leaf> hashed = ledger->leafIs(k, value);
        const Kel::Ptr<Leaf> dense = ledger->denseLeafIs(k, value);
        ASSERT_EQ(hashed->tag(), dense->tag()) << "the existing entity is kept";
        break;
      }
      default: {
        const Kel::Ptr<Leaf> hashed = ledger->leafDel(k);
        const Kel::Ptr<Leaf> dense = ledger->denseLeafDel(k);
        ASSERT_EQ(hashed == nullptr, dense == nullptr);
        break;
      }
    }
    ASSERT_EQ(log.hashed, log.dense) << step;
    ASSERT_EQ(ledger->count(k), ledger->denseCount(k));
    ASSERT_EQ(ledger->countHas(k), ledger->denseCountHas(k));
    ASSERT_EQ(ledger->member(k), ledger->denseMember(k));
    ASSERT_EQ(ledger->item(k), ledger->denseItem(k));
    ASSERT_EQ(ledger->leaf(k) == nullptr, ledger->denseLeaf(k) == nullptr);
  }
  auto showKey = [](const Ordered& k) { return fmt::format("{}/{}", k.space(), k.number()); };
  auto showCount = [&](const auto& kv) { return fmt::format("{}={}", showKey(kv.first), kv.second); };
  auto showItem = [&](const auto& kv) { return fmt::format("{}={}", showKey(kv.first), kv.second.weight()); };
  auto showLeaf = [&](const auto& kv) { return fmt::format("{}={}", showKey(kv.first), kv.second->tag()); };
  EXPECT_EQ(sortedLines(ledger->countIter(), showCount),
            sortedLines(ledger->denseCountIter(), showCount));
  EXPECT_EQ(sortedLines(ledger->memberIter(), showKey),
            sortedLines(ledger->denseMemberIter(), showKey));
  EXPECT_EQ(sortedLines(ledger->itemIter(), showItem),
            sortedLines(ledger->denseItemIter(), showItem));
  EXPECT_EQ(sortedLines(ledger->leafIter(), showLeaf),
            sortedLines(ledger->denseLeafIter(), showLeaf));
  EXPECT_EQ(ledger->members(), ledger->denseMembers());
  EXPECT_GT(ledger->denseMembers(), 100u);
  EXPECT_EQ(ledger->denseCountIter().keys().size(), ledger->denseCounts());

  log.hashed.clear();
  log.dense.clear();
  ledger->countDelAll();
  ledger->memberDelAll();
  ledger->itemDelAll();
  ledger->leafDelAll();
  ledger->denseCountDelAll();
  ledger->denseMemberDelAll();
  ledger->denseItemDelAll();
  ledger->denseLeafDelAll();
  std::sort(log.hashed.begin(), log.hashed.end());
  std::sort(log.dense.begin(), log.dense.end());
  EXPECT_EQ(log.hashed, log.dense);
  EXPECT_EQ(ledger->denseCounts() + ledger->denseMembers() + ledger->denseItems() +
                ledger->denseLeafs(),
            0u);
  EXPECT_EQ(ledger->denseMemberIter().begin(), ledger->denseMemberIter().end());
}

}  // namespace
