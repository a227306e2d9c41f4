// The graceful-restart state of the agents that produce LFIB and label tables, one entity
// per protocol source: how far a producer has come after a restart. The entities only
// store the flags and announce each change to their notifiees; the observing agents
// decide what follows from them. Nothing here enforces an order of the flags.
//
// Every setter sends nothing when it writes the value already stored.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>

#include "Kel/Collection.h"
#include "Kel/DumpContext.h"
#include "Kel/Entity.h"
#include "types/Mpls/MplsTypes.h"

namespace Mpls {

class LibProducerGrState : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<LibProducerGrState> {
   public:
    virtual void onTunnelProducer() {}
    virtual void onInputReady() {}
    virtual void onFibSmReady() {}
    virtual void onLfibGenSmReady() {}
    virtual void onFibSmBacklogEmpty() {}
    virtual void onLfibGenSmBacklogEmpty() {}
    virtual void onTunnelTableSeqNum() {}
  };

  explicit LibProducerGrState(LFib::Source source) : source_(source) {}
  LFib::Source source() const noexcept { return source_; }

  // The producer also produces tunnel-table entries.
  KEL_ATTR(bool, tunnelProducer, TunnelProducer, false)
  // The producer's inputs are complete after the restart.
  KEL_ATTR(bool, inputReady, InputReady, false)
  // The producer's forwarding-table reactor is ready.
  KEL_ATTR(bool, fibSmReady, FibSmReady, false)
  // The producer's LFIB-generating reactor is ready.
  KEL_ATTR(bool, lfibGenSmReady, LfibGenSmReady, false)
  // The forwarding-table reactor has no pending work. Starts true, unlike the LFIB
  // reactor's flag: the forwarding-table reactor has nothing to catch up on at start.
  KEL_ATTR(bool, fibSmBacklogEmpty, FibSmBacklogEmpty, true)
  // The LFIB-generating reactor has no pending work. Starts false.
  KEL_ATTR(bool, lfibGenSmBacklogEmpty, LfibGenSmBacklogEmpty, false)
  // The last tunnel-table sequence number reached (all 64 bits compared).
  KEL_ATTR(uint64_t, tunnelTableSeqNum, TunnelTableSeqNum, 0)

  // "LibProducerGrState <source>" indented by `indent` blanks, then one line per
  // attribute indented by indent + 2: "tunnelProducer=yes", ..., "tunnelTableSeqNum=7".
  void dumpState(Kel::DumpContext& context, int indent) const;

 private:
  const LFib::Source source_;
};

Kel::Ptr<LibProducerGrState> libProducerGrStateFactory(LFib::Source source);

class LfibProducerGrState : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<LfibProducerGrState> {
   public:
    virtual void onInputReady() {}
  };

  explicit LfibProducerGrState(LFib::Source source) : source_(source) {}
  LFib::Source source() const noexcept { return source_; }

  // The LFIB producer's inputs are complete after the restart.
  KEL_ATTR(bool, inputReady, InputReady, false)

  // "LfibProducerGrState <source>", then "inputReady=yes|no" indented by indent + 2.
  void dumpState(Kel::DumpContext& context, int indent) const;

 private:
  const LFib::Source source_;
};

Kel::Ptr<LfibProducerGrState> lfibProducerGrStateFactory(LFib::Source source);

}  // namespace Mpls
