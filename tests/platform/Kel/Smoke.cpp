#include <gtest/gtest.h>

#include "Kel/Collection.h"
#include "Kel/Enum.h"
#include "Kel/FixedArray.h"
#include "Kel/FlagSet.h"
#include "Kel/Range.h"
#include "Kel/String.h"
#include "Kel/Value.h"
#include "Kel/ValueSet.h"

namespace Demo {
KEL_ENUM(Color, "Demo::Color", (red, 0), (green, 1), (blue, 7));
KEL_RANGE(Idx, "Demo::Idx", uint8_t, 0, 3);
KEL_FLAGS(Flags, "Demo::Flags", (a, 0), (b, 2));

class Inner {
  KEL_VALUE(Inner, "Demo::Inner", (uint32_t, x), (Color, color, blue));
};
using Arr = Kel::FixedArray<Inner, 4, Idx>;
class Outer {
  KEL_VALUE(Outer, "Demo::Outer", (Inner, in), (Kel::String, name), (bool, on), (Flags, flags),
            (Arr, arr), (double, d), (Kel::ValueSet<Inner>, set));
  KEL_ARRAY_ACCESSORS(Arr, arr)
};
}  // namespace Demo

TEST(Smoke, RoundTrip) {
  Demo::Outer o;
  o.inIs(Demo::Inner(5, Demo::green));
  o.nameIs("it's");
  o.arrIs(2, Demo::Inner(1, Demo::red));
  o.dIs(1.5);
  std::string s = Kel::valueToStrep(o);
  std::cout << s << "\n";
  auto back = Kel::strepToValue<Demo::Outer>(s);
  EXPECT_EQ(back, o);
  EXPECT_EQ(back.hash(3), o.hash(3));
  EXPECT_EQ(o.arrs(), 3u);
  EXPECT_EQ(fmt::format("{}", Demo::blue), "blue");
}
