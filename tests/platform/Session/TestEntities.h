// A small entity type with one attribute of every kind, for the copy service's tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Kel/Value.h"

namespace SessionTest {

class Item {
 public:
  KEL_VALUE(Item, "SessionTest::Item", (uint32_t, id), (uint32_t, count));
  uint32_t key() const noexcept { return id_; }
};

class Leaf : public Kel::Entity {
 public:
  KEL_ENTITY(Leaf, "SessionTest::Leaf");
  using Ptr = Kel::Ptr<Leaf>;
  class NotifieeConst : public Kel::NotifieeOf<Leaf> {
   public:
    virtual void onColor() {}
    virtual void onTag(uint32_t) {}
  };
  explicit Leaf(uint32_t id) : id_(id) {}
  uint32_t id() const noexcept { return id_; }
  KEL_ATTR(uint32_t, color, Color)
  KEL_SET_ATTR(uint32_t, tag, Tag)

 private:
  uint32_t id_;
};

class Shelf : public Kel::Entity {
 public:
  KEL_ENTITY(Shelf, "SessionTest::Shelf");
  using Ptr = Kel::Ptr<Shelf>;
  class NotifieeConst : public Kel::NotifieeOf<Shelf> {
   public:
    virtual void onLabel() {}
    virtual void onWeight(uint32_t) {}
    virtual void onTag(const Kel::String&) {}
    virtual void onItem(uint32_t) {}
    virtual void onLeaf(uint32_t) {}
  };
  KEL_ATTR(Kel::String, label, Label)
  KEL_MAP_ATTR(uint32_t, uint32_t, weight, Weight)
  KEL_SET_ATTR(Kel::String, tag, Tag)
  KEL_ORDERED_VALUE_COLL_ATTR(uint32_t, Item, item, Item)
  KEL_ENTITY_COLL_ATTR(uint32_t, Leaf, leaf, Leaf)
};

// Another type, for the refusals.
class Other : public Kel::Entity {
 public:
  KEL_ENTITY(Other, "SessionTest::Other");
  class NotifieeConst : public Kel::NotifieeOf<Other> {
   public:
    virtual void onValue() {}
  };
  KEL_ATTR(uint32_t, value, Value)
};

// Everything a Shelf holds, comparable.
struct ShelfState {
  Kel::String label;
  std::vector<std::pair<uint32_t, uint32_t>> weights;
  std::vector<Kel::String> tags;
  std::vector<Item> items;
  std::vector<std::pair<uint32_t, uint32_t>> leafColors;
  std::vector<uint32_t> leafTags;
  friend bool operator==(const ShelfState&, const ShelfState&) = default;
};

inline ShelfState stateOf(const Shelf& s) {
  ShelfState st{s.label(), {}, {}, {}, {}, {}};
  for (const auto& [k, v] : s.weightIter()) st.weights.emplace_back(k, v);
  for (const auto& t : s.tagIter()) st.tags.push_back(t);
  for (const auto& [k, v] : s.itemIter()) st.items.push_back(v);
  for (const auto& [k, leaf] : s.leafIter()) {
    st.leafColors.emplace_back(k, leaf->color());
    for (uint32_t t : leaf->tagIter()) st.leafTags.push_back(k * 1000 + t);
  }
  std::sort(st.weights.begin(), st.weights.end());
  std::sort(st.tags.begin(), st.tags.end());
  std::sort(st.leafColors.begin(), st.leafColors.end());
  std::sort(st.leafTags.begin(), st.leafTags.end());
  return st;
}

// A shelf holding a little of everything; `variant` changes every value.
inline Shelf::Ptr shelfOf(uint32_t variant) {
  auto s = Kel::make<Shelf>();
  s->labelIs(variant ? "changed" : "base");
  for (uint32_t i = variant; i < variant + 3; ++i) {
    s->weightIs(i, i * 10 + variant);
    s->tagIs(Kel::String(std::to_string(i)), true);
    s->itemIs(Item(i, i + variant));
    auto leaf = s->leafIs(i);
    leaf->colorIs(i + variant);
    leaf->tagIs(variant, true);
  }
  return s;
}

// Counts a shelf's announcements per attribute.
class ShelfCounter : public Shelf::NotifieeConst {
 public:
  explicit ShelfCounter(const Shelf::Ptr& s) { notifierIs(s); }
  void onLabel() override { ++label; }
  void onWeight(uint32_t) override { ++weight; }
  void onTag(const Kel::String&) override { ++tag; }
  void onItem(uint32_t) override { ++item; }
  void onLeaf(uint32_t) override { ++leaf; }
  int label = 0, weight = 0, tag = 0, item = 0, leaf = 0;
};

}  // namespace SessionTest
