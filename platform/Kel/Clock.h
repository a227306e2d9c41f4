// Kel::Clock: what the library asks the time of. Whatever stamps, expires or schedules
// takes a clock, so that tests move time instead of sleeping.
//
//   Kel::systemClock()          the process's clock: CLOCK_MONOTONIC, in seconds
//   Kel::manualClockFactory(t)  a clock at t that moves only when told (tests); every move
//                               is announced to its notifiees (NotifieeConst::onNow())
//
// Times are seconds since an arbitrary origin, as doubles (a nanosecond's resolution
// for over a hundred days), and never go back.
#pragma once

#include "Kel/Entity.h"

namespace Kel {

class Clock : public Entity {
 public:
  KEL_ENTITY(Clock, "Kel::Clock");
  using Ptr = Kel::Ptr<Clock>;
  class NotifieeConst : public NotifieeOf<Clock> {
   public:
    virtual void onNow() {}
  };
  virtual double now() const = 0;
};

// The process's monotonic clock.
Clock::Ptr systemClock();

class ManualClock final : public Clock {
 public:
  using Ptr = Kel::Ptr<ManualClock>;
  explicit ManualClock(double start) : now_(start) {}
  double now() const override { return now_; }
  // Moves the clock to `t` and announces it; throws Kel::InternalException for a `t`
  // before now(): time never goes back.
  void nowIs(double t);
  void advance(double seconds) { nowIs(now_ + seconds); }

 private:
  double now_;
};

inline ManualClock::Ptr manualClockFactory(double start = 0) { return make<ManualClock>(start); }

}  // namespace Kel
