// Bridging, L3 and the platform's MPLS types. Their text forms and round trips are covered
// with every other value type by the LFIB model's conformance run; here, their bounds.
#include <gtest/gtest.h>

#include <string>

#include "support/TestUtil.h"
#include "types/Bridging/VlanId.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using L3::VrfName;
using TestSupport::errorText;
using TestSupport::expectTextForm;

std::string rangeText(const std::string& type) {
  return type + "::value < " + type + "::min or > " + type + "::max not allowed";
}

TEST(VlanId, BoundsAndNone) {
  for (int v : {-1, 4096, 1 << 20}) {
    SCOPED_TRACE(v);
    EXPECT_EQ(errorText<Kel::RangeException>([&] { VlanId id(v); }), rangeText("VlanId"));
  }
  EXPECT_EQ(errorText<Kel::RangeException>([] { Kel::strepToValue<VlanId>("70000"); }),
            rangeText("VlanId"));
  EXPECT_EQ(VlanId(4095).value(), 4095);
  EXPECT_EQ(errorText<Kel::RangeException>([] { VlanIdOrNone id(4095); }),
            rangeText("VlanIdOrNone"));
  EXPECT_TRUE(VlanIdOrNone().isNone());
  EXPECT_FALSE(VlanIdOrNone(4094).isNone());
  EXPECT_EQ(VlanIdOrNone::none(), VlanIdOrNone(0));
}

TEST(VrfName, AtMostOneHundredBytesWithoutZeroBytes) {
  const std::string longest(100, 'v');
  VrfName name(longest);
  EXPECT_EQ(name.bytes(), 100u);
  EXPECT_STREQ(name.c_str(), longest.c_str());
  expectTextForm(name, "'" + longest + "'");

  const std::string tooLong = "VrfName::value::bytes > VrfName::maxLength not allowed";
  const std::string over(101, 'v');
  EXPECT_EQ(errorText<Kel::RangeException>([&] { VrfName n(over); }), tooLong);
  EXPECT_EQ(errorText<Kel::RangeException>([&] { Kel::strepToValue<VrfName>("'" + over + "'"); }),
            tooLong);
  // The limit counts the name's bytes, not the characters of its escaped text form.
  const std::string escaped = "'" + std::string(96, 'v') + "\\x01\\n\\'\\\\'";
  EXPECT_EQ(Kel::strepToValue<VrfName>(escaped).bytes(), 100u);
  EXPECT_THROW(VrfName(std::string_view("re\0d", 4)), Kel::RangeException);
  EXPECT_THROW(Kel::strepToValue<VrfName>("'re\\x00d'"), Kel::RangeException);
  for (const char* bad : {"red", "'red", "\"red\"", "'a\\qb'"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Kel::strepToValue<VrfName>(bad), Kel::ParseError);
  }
  EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
}

TEST(MplsTypes, ValuesOtherProcessesRelyOn) {
  // Via types are shared by number with other processes.
  EXPECT_EQ(Mpls::LfibViaTypeInstance("viaTypeExternalFec").value(), 10);
  EXPECT_EQ(Mpls::LfibViaTypeInstance("viaTypeMax").value(), 11);
  EXPECT_EQ(Mpls::PayloadTypeInstance("payloadTypeEthernet").value(), 4);
  EXPECT_EQ(Kel::defaultValue<Mpls::LfibViaType>(), Mpls::viaTypeMplsUnknown);
  // Adjacency indices keep the source in their top 4 bits.
  const Kel::EnumInfo& sources = Kel::enumInfo<Mpls::LFib::Source>();
  for (size_t i = 0; i < sources.count; ++i) {
    EXPECT_LT(sources.entries[i].value, 16) << sources.entries[i].name;
  }
  Mpls::RouteKey key(Netbase::MplsLabel(100));
  EXPECT_EQ(key.topLabel(), Netbase::MplsLabel(100));
  EXPECT_EQ(Mpls::FwdEqvClass(Netbase::IpGenPrefix("10.0.0.0/8")).fecType(), Mpls::fecTypePrefix);
}

}  // namespace
