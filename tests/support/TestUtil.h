// Helpers shared by every test suite: the message of an expected exception, the text form
// of a value, and the lines a trace facility writes. Header-only: any test target may use it.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/Strep.h"
#include "Kel/String.h"
#include "Kel/Trace.h"

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

// Turns on every level of trace facility `facility` and keeps what it writes, until
// destroyed (which turns tracing off again).
class TraceCapture {
 public:
  explicit TraceCapture(const std::string& facility) {
    Kel::traceSinkIs([this, facility](const Kel::TraceFacility& f, int level, std::string_view m) {
      if (f.name() == facility) {
        lines_.emplace_back(level, std::string(m));
      }
    });
    Kel::traceConfigIs(facility + "/*");
  }
  ~TraceCapture() {
    Kel::traceSinkIs({});
    Kel::traceConfigIs("");
  }
  // The lines written at `level` (any level: -1), in order.
  std::vector<std::string> lines(int level = -1) const {
    std::vector<std::string> out;
    for (const auto& [l, line] : lines_) {
      if (level < 0 || l == level) {
        out.push_back(line);
      }
    }
    return out;
  }
  // Every line, each ended by "\n".
  std::string text() const {
    std::string out;
    for (const auto& [l, line] : lines_) {
      out += line + "\n";
    }
    return out;
  }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::pair<int, std::string>> lines_;
};

}  // namespace TestSupport
