#include "Mpls/MplsLfib.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Mpls/LfibSourceGrState.h"
#include "support/TestUtil.h"

namespace {

using namespace Mpls;
using Netbase::IntfId;
using Netbase::IpGenAddr;
using Netbase::UnboundedMplsLabelOperation;

LfibViaKey mplsViaKey(uint32_t index) { return LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, index); }

LfibViaSetKey mplsViaSetKey(uint32_t index) {
  return LfibViaSetKey(LFib::sourceStatic, index, viaTypeMplsIp, viaSetTypeDefault);
}

std::string rangeError(auto&& f) { return TestSupport::errorText<Kel::RangeException>(f); }

TEST(LfibKeys, IdentityOrderingAndEvpnTypes) {
  LfibViaKey a(LFib::sourceStatic, viaTypeMplsIp, 1);
  LfibViaKey b(LFib::sourceLdp, viaTypeMplsIp, 1);
  EXPECT_NE(a.hash(0), b.hash(0));  // one source apart: the hash sees every field
  EXPECT_LT(a, b);                  // source first
  EXPECT_LT(LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 0xFFFFFFFF),
            LfibViaKey(LFib::sourceStatic, viaTypeMplsPseudowire, 0));
  // Via set keys order by index before via type.
  EXPECT_LT(LfibViaSetKey(LFib::sourceStatic, 1, viaTypeExternalFec, viaSetTypeDefault),
            LfibViaSetKey(LFib::sourceStatic, 2, viaTypeMplsIp, viaSetTypeDefault));

  // Types 3 to 8, and nothing beyond the last.
  const bool expected[] = {0, 0, 0, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0};
  for (int32_t t = 0; t <= 12; ++t) {
    EXPECT_EQ(isEvpnViaType(static_cast<LfibViaType>(t)), expected[t]) << t;
  }
  EXPECT_FALSE(isEvpnViaType(static_cast<LfibViaType>(0xFFFFFFFF)));
}

TEST(LfibViaSet, BinaryForm) {
  uint8_t buf[LfibViaSet::kMaxLen + 16];
  LfibViaSet empty(mplsViaSetKey(1));
  EXPECT_EQ(empty.serializeLen(), 48u);
  EXPECT_EQ(empty.serialize(buf), 48u);

  LfibViaSet full(LfibViaSetKey(LFib::sourceBgpLu, 7, viaTypeMplsIp, viaSetTypeUcmp));
  full.backupViaSetKeyIs(mplsViaSetKey(99));
  full.isUsableAsPrimaryViaIs(true);
  full.flagsIs(LfibViaSetFlags(1));
  full.resetFailoverStateIs(true);
  for (uint32_t i = 0; i < 128; ++i) {
    full.viaKeyIs(i, LfibViaKey(LFib::sourceBgpLu, viaTypeMplsIp, 1000 + i));
  }
  std::memset(buf, 0xAA, sizeof(buf));
  ASSERT_EQ(full.serialize(buf), 1584u);
  EXPECT_EQ(LfibViaSet::deserializeLen(buf, 1584), 1584u);
  // The layout other processes read: key, backup key, flags and the count at fixed offsets.
  uint32_t word;
  std::memcpy(&word, buf + 4, 4);
  EXPECT_EQ(word, 7u);  // key.index stands second
  EXPECT_EQ(buf[32], 1);
  EXPECT_EQ(buf[33], 0xAA);  // padding is not written
  std::memcpy(&word, buf + 36, 4);
  EXPECT_EQ(word, 1u);
  std::memcpy(&word, buf + 44, 4);
  EXPECT_EQ(word, 128u);
  std::memcpy(&word, buf + 48 + 12 * 127 + 8, 4);
  EXPECT_EQ(word, 1127u);  // the last via key's index

  LfibViaSet back;
  EXPECT_EQ(back.deserialize(buf, 1584), 1584u);
  EXPECT_EQ(back, full);
  EXPECT_THROW(back.viaKeyIs(128, mplsViaKey(1)), Kel::RangeException);  // 128 slots

  // A count above 128 is the size error, with the record's address and contents.
  uint32_t bad = 129;
  std::memcpy(buf + 44, &bad, 4);
  EXPECT_THAT(
      TestSupport::errorText<Kel::SizeError>([&] { back.deserialize(buf, sizeof(buf)); }),
      ::testing::StartsWith("expected size <= 128, instead got 129. Buffer is at address: 0x"));
  EXPECT_EQ(back, full);  // untouched by the failed read
  // A record that runs past the bytes given is refused, never read.
  uint32_t two = 2;
  std::memcpy(buf + 44, &two, 4);
  EXPECT_THROW(back.deserialize(buf, 48 + 12), Kel::SizeError);
  EXPECT_THROW(back.deserialize(buf, 47), Kel::SizeError);
}

TEST(LfibMplsVia, BinaryForm) {
  uint8_t buf[512];
  LfibMplsVia pop(mplsViaKey(1), IpGenAddr("10.0.0.1"), Netbase::labelActionPop,
                  UnboundedMplsLabelOperation(), false);
  UnboundedMplsLabelOperation emptyStack;
  EXPECT_EQ(pop.serializeLen(), 57u + emptyStack.serializeLen());
  EXPECT_EQ(pop.serialize(buf), pop.serializeLen());

  LfibMplsVia push(mplsViaKey(2), IpGenAddr("2001:db8::2"), Netbase::labelActionPush,
                   UnboundedMplsLabelOperation(Netbase::labelActionPush, {300, 301, 302}), true);
  push.intfIs(IntfId("Ethernet3/1"));
  push.payloadTypeIs(payloadTypeIpv6);
  push.ttlModeIs(ttlModePipe);
  push.weightIs(7);
  uint32_t len = push.serialize(buf);
  EXPECT_EQ(len, 57u + 4 + 3 * 4);
  EXPECT_EQ(LfibMplsVia::deserializeLen(buf, len), len);
  LfibMplsVia back;
  EXPECT_EQ(back.deserialize(buf, len), len);
  EXPECT_EQ(back, push);
  for (size_t cut : {size_t{0}, size_t{35}, size_t{40}, size_t{len - 1}}) {
    EXPECT_THROW(back.deserialize(buf, cut), Kel::SizeError) << cut;
  }
  EXPECT_EQ(back, push);
}

TEST(LfibIpLookupVia, VrfNameBufferAndBinaryForm) {
  LfibViaKey key(LFib::sourceBgp, viaTypeIpLookup, 3);
  LfibIpLookupVia red(key, L3::VrfName("red"), payloadTypeIpv4);
  EXPECT_EQ(red.vrfName(), L3::VrfName("red"));
  EXPECT_EQ(red.vrfNameBuffers(), 4u);  // the name and its zero byte
  EXPECT_EQ(red.vrfNameBuffer(3), 0);

  std::string longest(100, 'x');
  LfibIpLookupVia full(key, L3::VrfName(longest), payloadTypeIpv6);
  EXPECT_EQ(full.vrfName().stringValue(), longest);
  EXPECT_EQ(full.vrfNameBuffers(), 101u);
  // A buffer of 101 name bytes (no zero byte) does not make a name.
  full.vrfNameBufferIs(100, 'y');
  EXPECT_EQ(rangeError([&] { full.vrfName(); }),
            "VrfName::value::bytes > VrfName::maxLength not allowed");
  EXPECT_EQ(LfibIpLookupVia().vrfName(), L3::VrfName());

  uint8_t buf[256];
  EXPECT_EQ(red.serializeLen(), 23u + 4);
  ASSERT_EQ(red.serialize(buf), 27u);
  LfibIpLookupVia back;
  EXPECT_EQ(back.deserialize(buf, 27), 27u);
  EXPECT_EQ(back, red);
  EXPECT_THROW(back.deserialize(buf, 26), Kel::SizeError);
  buf[16] = 102;  // the buffer's count, above its capacity
  EXPECT_THROW(back.deserialize(buf, sizeof(buf)), Kel::SizeError);
}

TEST(LfibElements, DumpLines) {
  LfibViaSetKey setKey(LFib::sourceLdp, 4, viaTypeMplsIp, viaSetTypeEcmp);
  LfibRoute route(RouteKey(100), setKey, LFib::sourceLdp,
                  FwdEqvClass(Netbase::IpGenPrefix("10.0.0.0/8")), 3);
  EXPECT_EQ(route.pondString(),
            "[Value('Mpls::RouteKey', ** {'label': 100})] "
            "Value('Mpls::LfibViaSetKey', ** {'source': sourceLdp, 'index': 4, 'viaType': "
            "viaTypeMplsIp, 'viaSetType': viaSetTypeEcmp}) sourceLdp "
            "Value('Mpls::FwdEqvClass', ** {'fecType': fecTypePrefix, 'prefix': 10.0.0.0/8}) 3");
  LfibViaSet set(setKey);
  set.viaKeyIs(0, mplsViaKey(1));
  set.backupViaSetKeyIs(setKey);
  EXPECT_EQ(set.pondString(), "[" + Kel::valueToStrep(setKey) + "] viaTypeMplsIp");

  LfibMplsVia swap(mplsViaKey(1), IpGenAddr("10.0.0.1"), Netbase::labelActionSwap,
                   UnboundedMplsLabelOperation(Netbase::labelActionSwap, {200}), false);
  swap.intfIs(IntfId("Ethernet1"));
  EXPECT_EQ(swap.pondString(),
            "[" + Kel::valueToStrep(mplsViaKey(1)) +
                "] nextHop 10.0.0.1 labelAction labelActionSwap labelStack labelActionSwap 200 "
                "intf Ethernet1 payloadType payloadTypeMpls skipEgressAcl False ttlMode "
                "ttlModeUniform weight 0");
  LfibIpLookupVia lookup(LfibViaKey(LFib::sourceBgp, viaTypeIpLookup, 3), L3::VrfName("red"),
                         payloadTypeIpv4);
  EXPECT_TRUE(lookup.pondString().ends_with("] vrfName 'red' payloadType payloadTypeIpv4"));
}

// The graceful-restart states dump every attribute, the initial values included.
TEST(LibProducerGrState, DumpShowsEveryAttribute) {
  auto dump = [](const auto& state, int indent) {
    Kel::DumpContext context;
    state->dumpState(context, indent);
    return context.text();
  };
  auto s = libProducerGrStateFactory(LFib::sourceBgpLu);
  EXPECT_EQ(dump(s, 0),
            "LibProducerGrState sourceBgpLu\n  tunnelProducer=no\n  inputReady=no\n"
            "  fibSmReady=no\n  lfibGenSmReady=no\n  fibSmBacklogEmpty=yes\n"
            "  lfibGenSmBacklogEmpty=no\n  tunnelTableSeqNum=0\n");
  s->inputReadyIs(true);
  s->tunnelProducerIs(true);
  s->tunnelTableSeqNumIs(18446744073709551615ull);
  EXPECT_EQ(dump(s, 3),
            "   LibProducerGrState sourceBgpLu\n     tunnelProducer=yes\n     inputReady=yes\n"
            "     fibSmReady=no\n     lfibGenSmReady=no\n     fibSmBacklogEmpty=yes\n"
            "     lfibGenSmBacklogEmpty=no\n     tunnelTableSeqNum=18446744073709551615\n");

  auto l = lfibProducerGrStateFactory(LFib::sourceStatic);
  l->inputReadyIs(true);
  EXPECT_EQ(dump(l, 2), "  LfibProducerGrState sourceStatic\n    inputReady=yes\n");
}

}  // namespace
