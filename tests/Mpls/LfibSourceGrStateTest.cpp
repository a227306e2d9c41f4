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

TEST(LibProducerGrState, InitialValuesAndNotificationsOnChangeOnly) {
  auto s = libProducerGrStateFactory(LFib::sourceLdp);
  EXPECT_EQ(s->source(), LFib::sourceLdp);
  EXPECT_FALSE(s->tunnelProducer());
  EXPECT_FALSE(s->inputReady());
  EXPECT_FALSE(s->fibSmReady());
  EXPECT_FALSE(s->lfibGenSmReady());
  EXPECT_TRUE(s->fibSmBacklogEmpty());
  EXPECT_FALSE(s->lfibGenSmBacklogEmpty());
  EXPECT_EQ(s->tunnelTableSeqNum(), 0u);

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
}

TEST(LibProducerGrState, Dump) {
  auto s = libProducerGrStateFactory(LFib::sourceBgpLu);
  s->tunnelProducerIs(true);
  s->tunnelTableSeqNumIs(18446744073709551615ull);
  Kel::DumpContext at0;
  s->dumpState(at0, 0);
  EXPECT_EQ(at0.text(),
            "LibProducerGrState sourceBgpLu\n"
            "  tunnelProducer=yes\n"
            "  inputReady=no\n"
            "  fibSmReady=no\n"
            "  lfibGenSmReady=no\n"
            "  fibSmBacklogEmpty=yes\n"
            "  lfibGenSmBacklogEmpty=no\n"
            "  tunnelTableSeqNum=18446744073709551615\n");
  Kel::DumpContext at3;
  s->dumpState(at3, 3);
  EXPECT_TRUE(at3.text().starts_with("   LibProducerGrState sourceBgpLu\n     tunnelProducer=yes\n"))
      << at3.text();

  auto l = lfibProducerGrStateFactory(LFib::sourceStatic);
  l->inputReadyIs(true);
  Kel::DumpContext lfib0;
  l->dumpState(lfib0, 0);
  EXPECT_EQ(lfib0.text(), "LfibProducerGrState sourceStatic\n  inputReady=yes\n");
  Kel::DumpContext lfib2;
  l->dumpState(lfib2, 2);
  EXPECT_EQ(lfib2.text(), "  LfibProducerGrState sourceStatic\n    inputReady=yes\n");
}

}  // namespace
