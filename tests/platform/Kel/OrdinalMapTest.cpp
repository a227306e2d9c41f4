#include "Kel/OrdinalMap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>

#include "Kel/Collection.h"

namespace Demo {

class Ordered {
  KEL_VALUE(Ordered, "Demo::Ordered", (uint32_t, space), (uint32_t, number));
  KEL_HASH_ORDINAL(number)
};

}  // namespace Demo

namespace {

using Demo::Ordered;
using Model = std::map<std::pair<uint32_t, uint32_t>, std::string>;

Model contentsOf(const Kel::OrdinalMap<Ordered, std::string>& m) {
  Model out;
  m.forEach([&](const Ordered& k, const std::string& v) {
    EXPECT_TRUE(out.emplace(std::pair(k.space(), k.number()), v).second) << "twice: " << v;
  });
  return out;
}

// Random inserts, overwrites and erases, checked against a std::map after every step:
// dense keys in a few domains, ordinals past the dense range, and more domains than are
// kept in pages.
TEST(OrdinalMap, AgreesWithAnOrderedMapUnderRandomChanges) {
  Kel::OrdinalMap<Ordered, std::string> m;
  Model model;
  std::mt19937 rng(7);
  auto randomKey = [&] {
    switch (rng() % 8) {
      case 0:
        return Ordered(100 + rng() % 80, rng() % 64);         // many domains
      case 1:
        return Ordered(rng() % 3, (1u << 22) + rng() % 5000);  // past the pages
      case 2:
        return Ordered(rng() % 3, UINT32_MAX - rng() % 4);
      default:
        return Ordered(rng() % 3, rng() % 5000);  // dense, several pages
    }
  };
  for (int step = 0; step < 40000; ++step) {
    const Ordered k = randomKey();
    const auto mk = std::pair(k.space(), k.number());
    if (rng() % 3 == 0) {
      ASSERT_EQ(m.erase(k), model.erase(mk) == 1) << step;
    } else {
      const std::string value = std::to_string(step);
      auto [v, inserted] = m.tryEmplace(k);
      ASSERT_EQ(inserted, !model.contains(mk)) << step;
      ASSERT_TRUE(!inserted || v->empty()) << "a new value is default-constructed: " << *v;
      *v = value;
      model[mk] = value;
    }
    ASSERT_EQ(m.size(), model.size());
    const std::string* found = m.find(k);
    ASSERT_EQ(found != nullptr, model.contains(mk));
    if (found) {
      ASSERT_EQ(*found, model[mk]);
    }
    if (step % 4000 == 0) {
      ASSERT_EQ(contentsOf(m), model) << step;
    }
  }
  ASSERT_EQ(contentsOf(m), model);
  EXPECT_EQ(m.keys().size(), model.size());

  // Emptied page by page and domain by domain, it finds nothing, and is usable again.
  for (const auto& [key, value] : model) {
    ASSERT_TRUE(m.erase(Ordered(key.first, key.second))) << value;
  }
  EXPECT_TRUE(m.empty());
  EXPECT_TRUE(contentsOf(m).empty());
  EXPECT_FALSE(m.contains(Ordered(0, 1)));
  *m.tryEmplace(Ordered(0, 1)).first = "again";
  EXPECT_EQ(*m.find(Ordered(0, 1)), "again");
  m.clear();
  EXPECT_TRUE(m.empty());
  EXPECT_FALSE(m.contains(Ordered(0, 1)));
}

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

}  // namespace
