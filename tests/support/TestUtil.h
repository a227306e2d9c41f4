// Helpers shared by every test suite: the message of an expected exception and the text
// form of a value. Header-only: any test target may use it.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>

#include "Kel/Strep.h"
#include "Kel/String.h"

namespace TestSupport {

// The message of the E that `f` throws; a failure, and "", when it throws none.
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

// `v` writes exactly `text` (valueToStrep, and operator<< where there is one: Kel::String's
// writes its bytes instead), and `text` reads back to `v` through strepToValue and, for
// value types, the text constructor.
template <class T>
void expectTextForm(const T& v, const std::string& text) {
  SCOPED_TRACE(text);
  EXPECT_EQ(Kel::valueToStrep(v), text);
  if constexpr (!std::is_same_v<T, Kel::String> && requires(std::ostream& os) { os << v; }) {
    std::ostringstream os;
    os << v;
    EXPECT_EQ(os.str(), text);
  }
  EXPECT_EQ(Kel::strepToValue<T>(text), v);
  if constexpr (Kel::ValueType<T>) {
    EXPECT_EQ(T(Kel::Strep(text)), v);
  }
}

}  // namespace TestSupport
