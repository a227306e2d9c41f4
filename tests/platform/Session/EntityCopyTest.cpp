// The generic attribute copy: every attribute kind, the blind rewrite of collections, the
// filter, and the runtime dispatch with its refusals.
#include <gtest/gtest.h>

#include "Kel/Exception.h"
#include "Session/EntityCopy.h"
#include "TestEntities.h"

namespace {

using namespace Cli::Session;
using namespace SessionTest;

TEST(EntityCopy, GenericCopyMakesEveryAttributeEqual) {
  auto copy = entityCopyFactory();
  auto src = shelfOf(1);
  auto dst = shelfOf(0);
  const Leaf::Ptr kept = dst->leaf(1);
  copy->doCopyEntityAttrs(*dst, *src);
  EXPECT_EQ(stateOf(*dst), stateOf(*src));
  EXPECT_EQ(dst->leaf(1), kept) << "a child present on both sides keeps its identity";
  EXPECT_EQ(dst->leaf(0), nullptr);

  // Equal contents: scalars and children announce nothing, other collections every
  // element twice (deleted, then written again).
  ShelfCounter counter(dst);
  copy->doCopyEntityAttrs(*dst, *src);
  EXPECT_EQ(stateOf(*dst), stateOf(*src));
  EXPECT_EQ(counter.label + counter.leaf, 0);
  EXPECT_EQ(counter.weight, 6);
  EXPECT_EQ(counter.tag, 6);
  EXPECT_EQ(counter.item, 6);

  copy->doCopyEntityAttrs(*dst, *dst);
  EXPECT_EQ(counter.weight, 6) << "a copy onto itself does nothing";
}

TEST(EntityCopy, FilterLeavesNamedAttributesAlone) {
  auto copy = entityCopyFactory();
  auto filter = attributeFilterFactory();
  filter->attributeNameIs("weight", true);
  filter->attributeNameIs("leaf", true);
  filter->attributeNameIs("noSuchAttribute", true);
  auto src = shelfOf(1);
  auto dst = shelfOf(0);
  const ShelfState before = stateOf(*dst);
  copy->doCopyEntityAttrs(*dst, *src, filter.get());
  const ShelfState after = stateOf(*dst);
  const ShelfState want = stateOf(*src);
  EXPECT_EQ(after.weights, before.weights);
  EXPECT_EQ(after.leafColors, before.leafColors);
  EXPECT_EQ(after.leafTags, before.leafTags);
  EXPECT_EQ(after.label, want.label);
  EXPECT_EQ(after.tags, want.tags);
  EXPECT_EQ(after.items, want.items);
}

TEST(EntityCopy, RuntimeCopyDispatchesOnTheDynamicType) {
  auto copy = entityCopyFactory();
  auto src = shelfOf(1);
  auto dst = shelfOf(0);
  auto other = Kel::make<Other>();
  EXPECT_THROW(copy->doCopyEntityAttrs(Kel::Ptr<Kel::Entity>(dst), src), Kel::InternalException)
      << "not registered";
  copy->registerType<Shelf>();
  EXPECT_TRUE(copy->registered(*dst->leaf(0))) << "nested types are registered with it";
  EXPECT_FALSE(copy->registered(*other));
  copy->doCopyEntityAttrs(Kel::Ptr<Kel::Entity>(dst), src);
  EXPECT_EQ(stateOf(*dst), stateOf(*src));
  EXPECT_THROW(copy->doCopyEntityAttrs(Kel::Ptr<Kel::Entity>(other), src), Kel::InternalException);
  EXPECT_THROW(copy->doCopyEntityAttrs(nullptr, src), Kel::InternalException);
}

}  // namespace
