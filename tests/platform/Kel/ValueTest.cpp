// Value types, enumerations, range types, flag sets, fixed arrays, value sets and strings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "Kel/Binary.h"
#include "Kel/Codec.h"
#include "Kel/FixedArray.h"
#include "Kel/String.h"
#include "Kel/ValueSet.h"
#include "KelTestTypes.h"
#include "support/TestUtil.h"

namespace Demo {

using Slots = Kel::FixedArray<Key, 4, IdxRange>;

class Holder {
  KEL_VALUE(Holder, "Demo::Holder", (Key, key), (uint32_t, count), (Color, color, blue),
            (Kel::String, name), (bool, up), (Flags, flags), (double, weight), (int32_t, delta));
};

// Pair and Flat feed the same words to the hash: Pair's nested key feeds its own two.
class Pair {
  KEL_VALUE(Pair, "Demo::Pair", (Key, key), (uint8_t, tag));
};
class Flat {
  KEL_VALUE(Flat, "Demo::Flat", (int32_t, source), (uint32_t, index), (uint32_t, tag));
};

class Numbered {
  KEL_VALUE(Numbered, "Demo::Numbered", (uint32_t, space), (uint32_t, number));
  KEL_HASH_ORDINAL(number)
};

class Shelf {
  KEL_VALUE(Shelf, "Demo::Shelf", (Slots, slot), (Kel::ValueSet<Key>, keys));
  KEL_ARRAY_ACCESSORS(Slots, slot)
};

}  // namespace Demo

namespace {

using namespace Demo;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using TestSupport::errorText;
using TestSupport::expectTextForm;

std::string keyText(const char* source, int index) {
  return std::string("Value('Demo::Key', ** {'source': ") + source +
         ", 'index': " + std::to_string(index) + "})";
}

TEST(ValueType, TextFormIsExactAndReadsBack) {
  expectTextForm(Key(sourceLdp, 1), keyText("sourceLdp", 1));
  expectTextForm(Key(static_cast<Source>(42), 3), keyText("42", 3));
  expectTextForm(
      Holder(Key(sourceBgp, 3), 4000000000u, green, "it's", true, Flags(5), 1.5, -7),
      "Value('Demo::Holder', ** {'key': " + keyText("sourceBgp", 3) +
          ", 'count': 4000000000, 'color': green, 'name': 'it\\'s', 'up': True, "
          "'flags': Value('Demo::Flags', ** {'on': True, 'up': True}), 'weight': 1.5, "
          "'delta': -7})");
  // Defaults: an enumeration's first enumerator (sourceStatic is 3, not 0), declared ones.
  expectTextForm(Holder(), "Value('Demo::Holder', ** {'key': " + keyText("sourceStatic", 0) +
                               ", 'count': 0, 'color': blue, 'name': '', 'up': False, "
                               "'flags': Value('Demo::Flags', ** {'on': False, 'up': False}), "
                               "'weight': 0, 'delta': 0})");
  Shelf shelf;
  shelf.slotIs(1, Key(sourceLdp, 2));
  Kel::ValueSet<Key> keys;
  keys.insert(Key(sourceStatic, 0));
  keys.insert(Key(sourceLdp, 1));
  shelf.keysIs(keys);
  expectTextForm(shelf, "Value('Demo::Shelf', ** {'slot': [" + keyText("sourceStatic", 0) +
                            ", " + keyText("sourceLdp", 2) + "], 'keys': {" +
                            keyText("sourceLdp", 1) + ", " + keyText("sourceStatic", 0) + "}})");
  expectTextForm(Flags(1), "Value('Demo::Flags', ** {'on': True, 'up': False})");
  expectTextForm(sourceLdp, "sourceLdp");
  expectTextForm(static_cast<Source>(-9), "-9");
  expectTextForm(IdxRange(2), "2");
  EXPECT_EQ(fmt::format("{}", Key(sourceBgp, 0)), keyText("sourceBgp", 0));
  EXPECT_EQ(fmt::format("{}", sourceBgp), "sourceBgp");
}

TEST(ValueType, StrictReaderRefusesMalformedText) {
  const char* bad[] = {
      "",
      "Value('Demo::Kez', ** {'source': sourceLdp, 'index': 1})",   // wrong type name
      "Value('Demo::Key',** {'source': sourceLdp, 'index': 1})",    // wrong literal
      "Value('Demo::Key', ** {'index': 1, 'source': sourceLdp})",   // fields out of order
      "Value('Demo::Key', ** {'source': sourceLdp})",               // missing field
      "Value('Demo::Key', ** {'source': sourceLdp, 'index': 1, 'x': 2})",
      "Value('Demo::Key', ** {'source': sourceLdp, 'index': 1}",    // no closing brace
      "Value('Demo::Key', ** {'source': sourceLdp, 'index': 1}) ",  // trailing text
      "Value('Demo::Key', ** {'source': sourceLdp, 'index': 1})x",
      "Value('Demo::Key', ** {'source': sourceLdp, 'index': x})",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    EXPECT_THROW(Kel::strepToValue<Key>(text), Kel::ParseError);
    EXPECT_THROW(Key{Kel::Strep(text)}, Kel::ParseError);
  }
  EXPECT_THROW(Kel::strepToValue<Source>("sourceLdp "), Kel::ParseError);
  EXPECT_THROW(Kel::strepToValue<bool>("true"), Kel::ParseError);
  EXPECT_THROW(Kel::strepToValue<uint32_t>("007"), Kel::ParseError);  // not its text form
  // A number that does not fit its field is out of range, like a range type's.
  EXPECT_THROW(Kel::strepToValue<uint8_t>("256"), Kel::RangeException);
  EXPECT_THROW(Kel::strepToValue<int8_t>("-129"), Kel::RangeException);
}

TEST(ValueType, ReaderNamesTheAttributeOutOfRange) {
  const std::string range = "IdxRange::value < IdxRange::min or > IdxRange::max not allowed";
  EXPECT_EQ(errorText<Kel::RangeException>([] { Key{Kel::Strep(keyText("sourceLdp", 9))}; }),
            "attribute 'index': " + range);
  auto holderError = [](const std::string& key) {
    return errorText<Kel::RangeException>([&] {
      Kel::strepToValue<Holder>(
          "Value('Demo::Holder', ** {'key': " + key +
          ", 'count': 0, 'color': blue, 'name': '', 'up': False, 'flags': Value('Demo::Flags', "
          "** {'on': False, 'up': False}), 'weight': 0, 'delta': 0})");
    });
  };
  EXPECT_EQ(holderError(keyText("sourceLdp", 4)), "attribute 'key.index': " + range);
  EXPECT_EQ(holderError(keyText("sourceNone", 0)),
            "attribute 'key.source': 'sourceNone' is not a name of Demo::Source");
}

// The binary form reads back to an equal value, whatever the field kinds; equal keys have
// equal bytes; bytes that do not make a value are refused, never read past.
TEST(ValueType, BinaryFormReadsBackAndRefusesBadBytes) {
  Holder h(Key(sourceBgp, IdxRange(2)), 7, green, Kel::String("eth\"1"), true,
           Flags(5), 0.5, -3);
  EXPECT_EQ(Kel::decoded<Holder>(Kel::encoded(h)), h);
  Shelf shelf;
  shelf.slotIs(2, Key(sourceLdp, 1));
  Kel::ValueSet<Key> keys;
  keys.insert(Key(sourceBgp, 3));
  shelf.keysIs(keys);
  EXPECT_EQ(Kel::decoded<Shelf>(Kel::encoded(shelf)), shelf);
  EXPECT_EQ(Kel::encoded(Key(sourceBgp, IdxRange(1))), Kel::encoded(Key(sourceBgp, IdxRange(1))));
  EXPECT_EQ(Kel::encoded(Flat(1, 2, 3)).size(), 12u);  // no padding: its bytes as they are

  const std::string bytes = Kel::encoded(h);
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    EXPECT_THROW(Kel::decoded<Holder>(bytes.substr(0, cut)), Kel::SizeError) << cut;
  }
  EXPECT_THROW(Kel::decoded<Holder>(bytes + "x"), Kel::SizeError);
  std::string badIndex = Kel::encoded(Key(sourceBgp, IdxRange(1)));
  badIndex.back() = 9;  // above the range's maximum of 3
  EXPECT_THROW(Kel::decoded<Key>(badIndex), Kel::RangeException);
}

TEST(ValueType, EqualityAndOrderFollowTheFields) {
  const Key k(sourceStatic, 1);
  auto holder = [&](uint32_t count, int32_t delta) {
    return Holder(k, count, red, "", false, Flags(), 0, delta);
  };
  struct Case {
    Holder lo, hi;
  };
  const Case cases[] = {
      // Enum fields compare as signed numbers: sourceLdp (-2) < sourceStatic (3).
      {Holder(Key(sourceLdp, 3), 9, red, "", false, Flags(), 0, 0), holder(0, 0)},
      // The first field that differs decides.
      {holder(9, 0), Holder(Key(sourceBgp, 0), 0, red, "", false, Flags(), 0, 0)},
      {holder(1, 0), holder(0x80000000u, 0)},  // unsigned
      {holder(0, -1), holder(0, 1)},           // signed
      {holder(1, 5), holder(2, -5)},
      {Holder(k, 0, red, "a", false, Flags(), 0, 0), Holder(k, 0, red, "b", false, Flags(), 0, 0)},
      {Holder(k, 0, red, "", false, Flags(1), 0, 0), Holder(k, 0, red, "", false, Flags(4), 0, 0)},
      {Holder(k, 0, red, "", false, Flags(), -0.5, 0), Holder(k, 0, red, "", false, Flags(), 0, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.lo << " < " << c.hi);
    EXPECT_TRUE(c.lo < c.hi);
    EXPECT_FALSE(c.hi < c.lo);
    EXPECT_FALSE(c.lo == c.hi);
    EXPECT_FALSE(c.lo < c.lo);
  }
}

// Value types nested in value types, byte arrays and sequences are compared in one walk;
// the order is the one operator< gives field by field.
TEST(ValueType, ThreeWayCompareAgreesWithTheFieldOrder) {
  using Bytes = std::array<uint8_t, 12>;
  auto bytes = [](std::initializer_list<std::pair<int, uint8_t>> set) {
    Bytes b{};
    for (auto [i, v] : set) {
      b[i] = v;
    }
    return b;
  };
  auto expectOrdered = [](const auto& lo, const auto& hi) {
    EXPECT_EQ(Kel::internal::compareField(lo, hi), -1);
    EXPECT_EQ(Kel::internal::compareField(hi, lo), 1);
    EXPECT_EQ(Kel::internal::compareField(lo, lo), 0);
    EXPECT_EQ(Kel::internal::compareField(hi, hi), 0);
    EXPECT_TRUE(lo < hi);
  };
  expectOrdered(bytes({}), bytes({{11, 1}}));
  expectOrdered(bytes({{0, 0x7f}}), bytes({{0, 0x80}}));  // unsigned
  expectOrdered(bytes({{7, 2}, {8, 9}}), bytes({{7, 3}}));
  expectOrdered(bytes({{8, 1}}), bytes({{7, 1}}));
  using Seq = std::vector<Key>;
  expectOrdered(Seq{}, Seq{Key(sourceLdp, 0)});
  expectOrdered(Seq{Key(sourceLdp, 3)}, Seq{Key(sourceLdp, 3), Key(sourceLdp, 0)});
  expectOrdered(Seq{Key(sourceLdp, 3), Key(sourceBgp, 0)}, Seq{Key(sourceStatic, 0)});
  const Holder a(Key(sourceLdp, 1), 2, red, "a", false, Flags(), 0, 0);
  const Holder b(Key(sourceLdp, 2), 0, red, "", false, Flags(), 0, 0);
  EXPECT_EQ(Kel::valueCompare(a, b), -1);
  EXPECT_EQ(Kel::valueCompare(b, a), 1);
  EXPECT_EQ(Kel::valueCompare(a, a), 0);
}

// Keys of up to four words take the inline mix: every word and the seed must reach the
// low bits that pick a bucket.
TEST(ValueType, ShortKeysSpreadOverBuckets) {
  for (uint32_t words : {1u, 2u, 3u, 4u}) {
    for (uint32_t varying = 0; varying < words; ++varying) {
      SCOPED_TRACE(::testing::Message() << words << " words, word " << varying << " varies");
      constexpr uint32_t kKeys = 1 << 14;
      constexpr uint32_t kBuckets = 1 << 14;
      std::vector<uint32_t> load(kBuckets);
      uint32_t worst = 0;
      for (uint32_t i = 0; i < kKeys; ++i) {
        uint32_t key[4] = {0x11111111, 0x22222222, 0x33333333, 0x44444444};
        key[varying] = i;
        const uint32_t h = Kel::HashAccumulator::ofWords(key, 4 * words, 7);
        worst = std::max(worst, ++load[h & (kBuckets - 1)]);
      }
      const auto used = std::count_if(load.begin(), load.end(), [](uint32_t n) { return n > 0; });
      // A random hash fills 1 - 1/e of the buckets (63 %), its longest chain about 8.
      EXPECT_GT(used, kBuckets * 6 / 10);
      EXPECT_LE(worst, 12u);
    }
  }
  const uint32_t key[3] = {1, 2, 3};
  EXPECT_NE(Kel::HashAccumulator::ofWords(key, 12, 1), Kel::HashAccumulator::ofWords(key, 12, 2));
  EXPECT_NE(Kel::HashAccumulator::ofWords(key, 8, 1), Kel::HashAccumulator::ofWords(key, 12, 1));
}

TEST(ValueType, HashIsConsistentWithEquality) {
  const Holder h(Key(sourceBgp, 3), 7, green, "x", true, Flags(4), 2.5, -1);
  for (uint32_t seed : {0u, 1u, 0xdeadbeefu}) {
    EXPECT_EQ(h.hash(seed), Kel::strepToValue<Holder>(Kel::valueToStrep(h)).hash(seed));
    // Fields are fed one word each, a nested value feeding its own words in place.
    EXPECT_EQ(Pair(Key(sourceLdp, 2), 9).hash(seed), Flat(-2, 2, 9).hash(seed));
  }
  EXPECT_NE(h.hash(1), h.hash(2));
  Holder negZero = h;
  negZero.weightIs(-0.0);
  Holder zero = h;
  zero.weightIs(0.0);
  ASSERT_EQ(negZero, zero);
  EXPECT_EQ(negZero.hash(5), zero.hash(5));
}

TEST(RangeType, BoundsAreInclusiveAndChecked) {
  EXPECT_EQ(IdxRange(0).value(), 0);
  EXPECT_EQ(IdxRange(3).value(), 3);
  EXPECT_EQ(IdxRange().value(), IdxRange::min);
  const std::string text = "IdxRange::value < IdxRange::min or > IdxRange::max not allowed";
  auto refusal = [](auto v) { return errorText<Kel::RangeException>([&] { (void)IdxRange(v); }); };
  // 256 would wrap to 0 in a uint8_t.
  for (const std::string& what : {refusal(4), refusal(-1), refusal(256), refusal(int64_t{1} << 40),
                                   refusal(uint64_t{0xffffffffffffff01u}), refusal(int8_t{-128})}) {
    EXPECT_EQ(what, text);
  }
  // Read wide: "256" is out of range for a range of 8 bits, not a malformed number.
  for (const char* text : {"256", "-1", "4"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(Kel::strepToValue<IdxRange>(text), Kel::RangeException);
  }
  EXPECT_EQ((IdxRange(3) + 1).value(), 4);  // `+` is unchecked
  EXPECT_TRUE(IdxRange(1) < IdxRange(2));
}

TEST(FlagSet, KeepsDefinedBitsAndRefusesHigherOnes) {
  EXPECT_EQ(Flags(5).value(), 5u);
  EXPECT_EQ(Flags(7).value(), 5u);  // bit 1 names no flag
  EXPECT_EQ(Flags(2).value(), 0u);
  EXPECT_TRUE(Flags(5).on());
  EXPECT_TRUE(Flags(4).up());
  EXPECT_FALSE(Flags(4).on());
  // Above the highest flag, in any width: refused, never narrowed first.
  for (uint64_t v : {uint64_t{8}, uint64_t{0xffffffff}, uint64_t{1} << 32, uint64_t{0x100000001}}) {
    SCOPED_TRACE(v);
    EXPECT_THAT([&] { (void)Flags(v); },
                ThrowsMessage<Kel::EnumSetRangeException>("Flags::value > Flags::max not allowed"));
  }
  Flags f;
  f.upIs(true);
  EXPECT_EQ(f.value(), 4u);
  f.onIs(true);
  f.upIs(false);
  EXPECT_EQ(f, Flags(1));
  EXPECT_THROW(Kel::strepToValue<Flags>("Value('Demo::Flags', ** {'up': True, 'on': True})"),
               Kel::ParseError);
}

// A key numbered in sequence hashes neighbouring numbers to neighbouring low bits, so
// that tables indexed by the low bits keep them together; the rest of the hash still
// depends on every field.
TEST(ValueType, OrdinalHashKeepsNeighboursTogether) {
  constexpr uint32_t block = 1u << Kel::kHashOrdinalBits;
  const uint32_t base = Numbered(7, 5 * block).hash(11);
  for (uint32_t i = 0; i < block; ++i) {
    const uint32_t h = Numbered(7, 5 * block + i).hash(11);
    EXPECT_EQ(h & (block - 1), i);
    EXPECT_EQ(h & ~(block - 1), base & ~(block - 1));
  }
  EXPECT_NE(Numbered(7, 6 * block).hash(11) & ~(block - 1), base & ~(block - 1));
  EXPECT_NE(Numbered(8, 5 * block).hash(11), base);
  EXPECT_NE(Numbered(7, 5 * block).hash(12), base);
  EXPECT_EQ(Kel::strepToValue<Numbered>(Kel::valueToStrep(Numbered(7, 9))), Numbered(7, 9));
  // Tables record how their keys hash: a table of the plain layout is not read as this.
  EXPECT_NE(Kel::schemaOf<Numbered>().find("#ordinal"), std::string::npos);
  EXPECT_EQ(Kel::schemaOf<Flat>().find("#ordinal"), std::string::npos);
  // Blocks spread over the table: 4096 neighbouring blocks fill most of 4096 block places.
  std::vector<bool> used(4096);
  uint32_t places = 0;
  for (uint32_t b = 0; b < 4096; ++b) {
    uint32_t place = (Numbered(1, b * block).hash() >> Kel::kHashOrdinalBits) % 4096;
    places += !used[place];
    used[place] = true;
  }
  EXPECT_GT(places, 2400u);  // uniform hashing fills 1 - 1/e of them: about 2589

  // In Swiss tables too: the probe starts at the bits above the low 7, which carry the
  // framework hash, and the low 7 (the tag) differ between neighbours.
  const Kel::Hasher<Numbered> hasher;
  std::vector<bool> tags(128);
  for (uint32_t i = 0; i < block; ++i) {
    const size_t h = hasher(Numbered(7, 5 * block + i));
    EXPECT_EQ(h >> 7, Numbered(7, 5 * block + i).hash());
    EXPECT_FALSE(tags[h & 0x7f]) << i;
    tags[h & 0x7f] = true;
  }
}

TEST(FixedArray, CountRules) {
  const Key a(sourceLdp, 1), b(sourceBgp, 2), c(sourceBgp, 3);
  auto contents = [](const Shelf& s) {
    std::vector<Key> out;
    for (const Key& k : s.slot()) {
      out.push_back(k);
    }
    return out;
  };
  Shelf s;
  EXPECT_EQ(s.slots(), 0u);
  s.slotIs(3, c);
  EXPECT_EQ(contents(s), (std::vector<Key>{Key(), Key(), Key(), c}));
  s.slotIs(0, a);
  s.slotIs(1, b);
  EXPECT_EQ(contents(s), (std::vector<Key>{a, b, Key(), c}));

  EXPECT_EQ(s.slotDel(1), b);  // middle: reset in place, nothing moves
  EXPECT_EQ(contents(s), (std::vector<Key>{a, Key(), Key(), c}));
  EXPECT_EQ(s.slotDel(3), c);  // last: the trailing defaults go too
  EXPECT_EQ(s.slots(), 1u);
  EXPECT_EQ(s.slotDel(2), Key());  // at or after the count
  EXPECT_EQ(s.slots(), 1u);
  EXPECT_EQ(s.slotDel(s.slot().begin()), a);
  EXPECT_EQ(s.slots(), 0u);

  s.slotIs(2, b);
  s.slotDelAll();
  EXPECT_EQ(s.slots(), 0u);
  EXPECT_EQ(s, Shelf());
  EXPECT_THROW(s.slotIs(4, a), Kel::RangeException);
  EXPECT_THROW(s.slotDel(-1), Kel::RangeException);

  // Equality covers the count as well as the slots below it.
  Shelf x, y;
  x.slotIs(0, a);
  y.slotIs(0, a);
  EXPECT_EQ(x, y);
  y.slotIs(1, Key());
  EXPECT_NE(x, y);
  EXPECT_TRUE(x < y);
  y.slotDel(1);
  EXPECT_EQ(x, y);
  EXPECT_EQ(x.hash(3), y.hash(3));

  // Slots beyond the count keep nothing of what they held: not after delAll, not after a
  // shorter array is copied over a longer one, not through a gap opened by a set.
  Shelf full;
  for (int i = 0; i < 4; ++i) {
    full.slotIs(i, c);
  }
  Shelf reused = full;
  reused.slotDelAll();
  reused.slotIs(2, a);
  EXPECT_EQ(contents(reused), (std::vector<Key>{Key(), Key(), a}));
  EXPECT_EQ(reused.slot(3), Key());
  Shelf copied = full;
  copied = x;
  EXPECT_EQ(copied, x);
  EXPECT_EQ(copied.slot(1), Key());
  copied.slotIs(3, b);
  EXPECT_EQ(contents(copied), (std::vector<Key>{a, Key(), Key(), b}));
}

// Round trips and cut records: LfibViaSet.BinaryForm. Here, records of another shape.
TEST(FixedArray, BinaryFormRefusesRecordsOfAnotherShape) {
  Slots a;
  a.set(0, Key(sourceLdp, 1));
  a.set(2, Key(sourceBgp, 3));
  std::vector<uint8_t> buf(a.serializeLen());
  ASSERT_EQ(a.serialize(buf.data()), buf.size());
  std::vector<uint8_t> big = buf;
  uint32_t five = 5;
  std::memcpy(big.data(), &five, 4);
  Slots c;
  EXPECT_THAT([&] { c.deserialize(big.data(), big.size()); },
              ThrowsMessage<Kel::SizeError>(AllOf(
                  StartsWith("expected size <= 4, instead got 5. Buffer is at address: "),
                  HasSubstr(fmt::format(" with contents: 05 00 00 00 04 00 {:02x}",
                                        sizeof(Key))))));
  EXPECT_EQ(c.count(), 0u);
  std::vector<uint8_t> wide = buf;
  uint16_t eight = 8;
  std::memcpy(wide.data() + 4, &eight, 2);
  EXPECT_THROW(Slots::deserializeLen(wide.data(), wide.size()), Kel::SizeError);
}

TEST(ValueSet, SetSemanticsIndependentOfOrder) {
  Kel::ValueSet<uint32_t> up, down;
  for (uint32_t i = 0; i < 50; ++i) {
    EXPECT_TRUE(up.insert(i * 7).second);
    down.insert((49 - i) * 7);
  }
  EXPECT_FALSE(up.insert(7).second);
  EXPECT_EQ(up.size(), 50u);
  EXPECT_EQ(up, down);
  EXPECT_EQ(Kel::hashOf(up, 4), Kel::hashOf(down, 4));
  EXPECT_EQ(Kel::valueToStrep(up), Kel::valueToStrep(down));
  EXPECT_EQ(Kel::strepToValue<Kel::ValueSet<uint32_t>>(Kel::valueToStrep(up)), up);
  EXPECT_TRUE(down.erase(0));
  EXPECT_FALSE(down.erase(0));
  EXPECT_FALSE(down.contains(0));
  EXPECT_NE(up, down);
  EXPECT_TRUE(up < down);  // {0, 7, ...} before {7, ...}

  Kel::ValueSet<Key> keys;
  keys.insert(Key(sourceBgp, 0));
  keys.insert(Key(sourceStatic, 2));
  keys.insert(Key(sourceLdp, 3));
  expectTextForm(keys, "{" + keyText("sourceLdp", 3) + ", " + keyText("sourceStatic", 2) + ", " +
                           keyText("sourceBgp", 0) + "}");
  expectTextForm(Kel::ValueSet<Key>(), "{}");
}

TEST(String, QuotingRoundTrips) {
  const Kel::String s(std::string("a'b\\c\nd\0e\xff\t", 11));
  EXPECT_EQ(s.size(), 11u);
  expectTextForm(s, "'a\\'b\\\\c\\nd\\x00e\\xff\\t'");
  EXPECT_EQ(Kel::strepToValue<Kel::String>("'\\xFF\\x41'"), Kel::String("\xff" "A"));
  EXPECT_STREQ(Kel::String("plain").c_str(), "plain");
  for (const char* bad : {"'open", "'bad \\q escape'", "'\\x4'", "noquote", "'x'y"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Kel::strepToValue<Kel::String>(bad), Kel::ParseError);
  }
  EXPECT_NE(Kel::String("ab").hash(), Kel::String(std::string("ab\0", 3)).hash());
}

}  // namespace
