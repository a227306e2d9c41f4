// Invariant reports (KEL_ASSERT) and process assertions (KEL_FATAL_ASSERT). The expected
// texts carry this file's path and the lines of the assertions below: keep them in place.
#include <gtest/gtest.h>

#include <string>

#include "Kel/Exception.h"
#include "KelTestTypes.h"

namespace Demo {

class Thing {
 public:
  void check(const Key& key) const {
    KEL_ASSERT(key.source() == sourceLdp, "key of another source");
  }
  static int wrapped(int count) {
    KEL_ASSERT(count <
                   3,
               std::string("too many: ") + std::to_string(count));
    return count;
  }
  void exhaust(uint32_t next) const { KEL_FATAL_ASSERT(next < 128, "out of indices"); }
  void unhandled() const { KEL_FATAL_ASSERT(false); }
};

}  // namespace Demo

namespace {

using namespace Demo;

TEST(KelAssert, ThrowsInternalExceptionWithTheReport) {
  Thing thing;
  EXPECT_NO_THROW(thing.check(Key(sourceLdp, 0)));
  try {
    thing.check(Key(sourceBgp, 1));
    ADD_FAILURE() << "no exception";
  } catch (const Kel::InternalException& e) {
    EXPECT_EQ(std::string(e.what()),
              "tests/platform/Kel/AssertTest:15 void Demo::Thing::check(const Demo::Key&) const "
              "-- assertion failed(key.source() == sourceLdp): key of another source");
  }
  EXPECT_EQ(Thing::wrapped(2), 2);
  try {
    Thing::wrapped(3);
    ADD_FAILURE() << "no exception";
  } catch (const Kel::InternalException& e) {
    // An assertion written over several lines reports the line of KEL_ASSERT.
    EXPECT_EQ(std::string(e.what()),
              "tests/platform/Kel/AssertTest:18 static int Demo::Thing::wrapped(int) "
              "-- assertion failed(count < 3): too many: 3");
  }
}

TEST(KelFatalAssertDeathTest, AbortsNamingTheExpression) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Thing thing;
  thing.exhaust(5);
  EXPECT_DEATH(thing.exhaust(128),
               "tests/platform/Kel/AssertTest:23 void Demo::Thing::exhaust\\(uint32_t\\) const "
               "-- fatal assertion failed\\(next < 128\\): out of indices");
  EXPECT_DEATH(thing.unhandled(), "AssertTest:24 .*unhandled.*fatal assertion failed\\(false\\)");
}

}  // namespace
