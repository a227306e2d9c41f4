#include "Kel/Clock.h"

#include <time.h>

#include <fmt/format.h>

#include "Kel/Exception.h"

namespace Kel {

namespace {

class SystemClock final : public Clock {
 public:
  double now() const override {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  }
};

}  // namespace

Clock::Ptr systemClock() {
  static const Clock::Ptr clock = make<SystemClock>();
  return clock;
}

void ManualClock::nowIs(double t) {
  if (t < now_) {
    throw InternalException(fmt::format("a clock at {} s cannot go back to {} s", now_, t));
  }
  if (t != now_) {
    now_ = t;
    kelNotify(&NotifieeConst::onNow);
  }
}

}  // namespace Kel
