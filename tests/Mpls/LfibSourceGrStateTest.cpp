#include "Mpls/LfibSourceGrState.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Mpls;

class GrWatcher : public LibProducerGrState::NotifieeConst {
 public:
  explicit GrWatcher(const Kel::PtrConst<LibProducerGrState>& s) { notifierIs(s); }
  void onInputReady() override { events.push_back("inputReady"); }
  void onFibSmBacklogEmpty() override { events.push_back("fibSmBacklogEmpty"); }
  void onTunnelTableSeqNum() override { events.push_back("tunnelTableSeqNum"); }
  std::vector<std::string> events;
};

std::string dump(const auto& state, int indent) {
  Kel::DumpContext context;
  state->dumpState(context, indent);
  return context.text();
}

// The dump shows every attribute, the initial values included.
TEST(LibProducerGrState, InitialValuesDumpAndNotificationsOnChangeOnly) {
  auto s = libProducerGrStateFactory(LFib::sourceBgpLu);
  EXPECT_EQ(s->source(), LFib::sourceBgpLu);
  EXPECT_EQ(dump(s, 0),
            "LibProducerGrState sourceBgpLu\n  tunnelProducer=no\n  inputReady=no\n"
            "  fibSmReady=no\n  lfibGenSmReady=no\n  fibSmBacklogEmpty=yes\n"
            "  lfibGenSmBacklogEmpty=no\n  tunnelTableSeqNum=0\n");

  GrWatcher w(s);
  EXPECT_EQ(s->notifieeList().size(), 1u);
  s->inputReadyIs(false);
  s->fibSmBacklogEmptyIs(true);
  EXPECT_TRUE(w.events.empty());
  s->inputReadyIs(true);
  s->fibSmBacklogEmptyIs(false);
  s->tunnelTableSeqNumIs(5);
  s->tunnelTableSeqNumIs(5);
  s->tunnelTableSeqNumIs(5 + (uint64_t{1} << 32));  // only the upper half changes
  EXPECT_EQ(w.events, (std::vector<std::string>{"inputReady", "fibSmBacklogEmpty",
                                                "tunnelTableSeqNum", "tunnelTableSeqNum"}));
  s->tunnelProducerIs(true);
  s->tunnelTableSeqNumIs(18446744073709551615ull);
  EXPECT_EQ(dump(s, 3),
            "   LibProducerGrState sourceBgpLu\n     tunnelProducer=yes\n     inputReady=yes\n"
            "     fibSmReady=no\n     lfibGenSmReady=no\n     fibSmBacklogEmpty=no\n"
            "     lfibGenSmBacklogEmpty=no\n     tunnelTableSeqNum=18446744073709551615\n");

  auto l = lfibProducerGrStateFactory(LFib::sourceStatic);
  l->inputReadyIs(true);
  EXPECT_EQ(dump(l, 2), "  LfibProducerGrState sourceStatic\n    inputReady=yes\n");
}

}  // namespace
