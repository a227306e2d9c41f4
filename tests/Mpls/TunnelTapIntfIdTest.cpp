#include "Mpls/TunnelTapIntfId.h"

#include <gtest/gtest.h>

namespace {

using namespace Netbase;

TEST(TunnelTapIntfId, ConstantTypeAndDefault) {
  TunnelTapIntfId tap = MplsTapIntfConstants::tunnelTapIntfId();
  EXPECT_EQ(tap, TunnelTapIntfId("tunnelTap0"));
  EXPECT_EQ(tap.stringValue(), "tunnelTap0");
  EXPECT_EQ(GenericIntfId::typeId(tap), 60u);
  EXPECT_TRUE(tap && TunnelTapIntfId::isTunnelTapIntfId(tap));
  EXPECT_FALSE(TunnelTapIntfId::isTunnelTapIntfId(IntfId("Ethernet1")));
  EXPECT_FALSE(TunnelTapIntfId::isTunnelTapIntfId(IntfId()));
  EXPECT_FALSE(TunnelTapIntfId());
  EXPECT_EQ(TunnelTapIntfId(), TunnelTapIntfId(""));
  EXPECT_LT(TunnelTapIntfId("tunnelTap0"), TunnelTapIntfId("tunnelTap1"));
  EXPECT_THROW(TunnelTapIntfId("tunnelTrap0"), Kel::ParseError);
  EXPECT_EQ(Kel::valueToStrep(tap),
            "Value('Netbase::TunnelTapIntfId', ** {'intfId': 'tunnelTap0'})");
}

}  // namespace
