// Helpers shared by the tests of the platform's value types.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Kel/Strep.h"

namespace TypesTest {

// The message of the E that `f` throws; records a failure when it throws nothing.
template <class E, class F>
std::string errorText(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  ADD_FAILURE() << "expected an exception, none was thrown";
  return {};
}

// `v` writes exactly `text` through valueToStrep and operator<<, and `text` reads back to
// `v` through strepToValue.
template <class T>
void expectTextForm(const T& v, const std::string& text) {
  SCOPED_TRACE(text);
  EXPECT_EQ(Kel::valueToStrep(v), text);
  std::ostringstream os;
  os << v;
  EXPECT_EQ(os.str(), text);
  EXPECT_EQ(Kel::strepToValue<T>(text), v);
}

}  // namespace TypesTest
