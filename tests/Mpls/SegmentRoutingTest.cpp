// The segment-routing rows, their text and binary forms, the label arithmetic of a global
// block, IS-IS areas, and the table set written and read back through shared memory (a
// reader in another process: MplsctlSrTest.cpp).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Mpls/SegmentRouting.h"
#include "Mpls/SegmentRoutingTableInfo.h"
#include "Pond/MountGroup.h"
#include "support/TestUtil.h"

namespace {

using namespace Pond::SegmentRouting;
using Mpls::LabelRange;
using Mpls::RouterId;
using Netbase::IpGenPrefix;
using Netbase::MplsLabel;
using Routing::Isis::AreaId;
using TestSupport::errorText;
using TestSupport::expectTextForm;

const SegmentIdentifier kIndex5 = SegmentIdentifier::index(5);
const RouterId kR1(0x0a000001, 0);

AdjacencySegment adjacency(uint32_t srcId, uint32_t neighbors) {
  AdjacencySegment a;
  a.keyIs(AdjacencySegmentKey(SegmentIdentifier::absolute(24000 + srcId), srcId));
  a.flagsIs(0x30);
  for (uint32_t i = 0; i < neighbors; ++i) {
    a.ngbIs(i, AdjSegmentNeighbor(0x192168001000 + i, 10 + i));
  }
  return a;
}

AreaSegment area(const char* id, uint32_t originators) {
  AreaSegment a;
  a.keyIs(AreaId(id));
  a.sidIs(kIndex5);
  a.flagsIs(AreaSegmentFlags(5u));  // isIpv6, isLocal
  a.fecIdIs(7);
  for (uint32_t i = 0; i < originators; ++i) {
    a.originatorIs(i, RouterId(0x0a000001 + i, 0));
  }
  return a;
}

TEST(SegmentRouting, TextForms) {
  const IpGenPrefix p("10.0.0.1/32");
  expectTextForm(PrefixSegment(p, kIndex5, kR1, 0x40, 2, 0, 7),
                 "Value('Pond::SegmentRouting::PrefixSegment', ** {'key': 10.0.0.1/32, "
                 "'sid': Value('Mpls::SegmentRouting::SegmentIdentifier', ** {'value': 5, "
                 "'isValue': False}), 'rtrid': Value('Mpls::RouterId', ** {'rtrId': 167772161, "
                 "'lblSpace': 0}), 'flags': 64, 'level': 2, 'protectionMode': 0, "
                 "'protectionSrlg': 7})");
  expectTextForm(SrRoute(IpGenPrefix("2001:db8::/32"), 12, 1, 10, 0, true, false),
                 "Value('Pond::SegmentRouting::SrRoute', ** {'prefix': 2001:db8::/32, "
                 "'fecId': 12, 'routeType': 1, 'metricPref': 10, 'srcVrfId': 0, "
                 "'deferredForMicroloopPrevention': True, 'popAndLookupRoute': False})");
  expectTextForm(adjacency(7, 1),
                 "Value('Pond::SegmentRouting::AdjacencySegment', ** {'key': "
                 "Value('Pond::SegmentRouting::AdjacencySegmentKey', ** {'sid': "
                 "Value('Mpls::SegmentRouting::SegmentIdentifier', ** {'value': 24007, "
                 "'isValue': True}), 'srcId': 7}), 'flags': 48, 'ngb': "
                 "[Value('Pond::SegmentRouting::AdjSegmentNeighbor', ** {'systemId': "
                 "27631269449728, 'metric': 10})]})");
  expectTextForm(area("49.0001", 1),
                 "Value('Pond::SegmentRouting::AreaSegment', ** {'key': 49.0001, 'sid': "
                 "Value('Mpls::SegmentRouting::SegmentIdentifier', ** {'value': 5, 'isValue': "
                 "False}), 'flags': Value('Pond::SegmentRouting::AreaSegmentFlags', ** "
                 "{'isIpv6': True, 'isValue': False, 'isLocal': True}), 'fecId': 7, "
                 "'originator': [Value('Mpls::RouterId', ** {'rtrId': 167772161, "
                 "'lblSpace': 0})]})");
  expectTextForm(GlobalBlock(kR1, LabelRange(16000, 8000)),
                 "Value('Pond::SegmentRouting::GlobalBlock', ** {'key': Value('Mpls::RouterId', "
                 "** {'rtrId': 167772161, 'lblSpace': 0}), 'labelRange': "
                 "Value('Mpls::LabelRange', ** {'base': 16000, 'size': 8000})})");
  EXPECT_EQ(adjacency(7, 2).pondString(),
            "[label 24007/7] flags 0x30 neighbours 1921.6800.1000/10 1921.6800.1001/11");
  EXPECT_EQ(area("49.0001", 2).pondString(),
            "[49.0001] index 5 ipv6 local fec 7 originators 10.0.0.1:0 10.0.0.2:0");
}

TEST(SegmentRouting, AreaIds) {
  for (const char* text : {"49", "49.0001", "49.0001.0002", "47.0005.80ff.f800.0000.0108.01", "-"}) {
    expectTextForm(AreaId(text), text);
  }
  EXPECT_EQ(AreaId("490001"), AreaId("49.0001"));
  EXPECT_EQ(AreaId("49.00.01").stringValue(), "49.0001");
  EXPECT_LT(AreaId("49"), AreaId("49.0001"));
  EXPECT_LT(AreaId("49.0001"), AreaId("49.0002"));
  for (const char* bad : {"", "4", "49.", ".49", "49..01", "49.0g", "00.0000.0000.0000.0000.0000.0000.00"}) {
    EXPECT_FALSE(AreaId::parse(bad)) << bad;
  }
  EXPECT_EQ(errorText<Kel::RangeException>([] { AreaId(std::vector<uint8_t>(14, 0)); }),
            "AreaId::len < 1 or > AreaId::maxLength not allowed");
}

TEST(SegmentRouting, IndicesAndLabelRangeAreBounded) {
  AdjacencySegment a;
  a.ngbIs(511, AdjSegmentNeighbor(1, 1));
  EXPECT_EQ(errorText<Kel::RangeException>([&] { a.ngbIs(512, AdjSegmentNeighbor(1, 1)); }),
            "AdjSegmentNbrIdx::value < AdjSegmentNbrIdx::min or > AdjSegmentNbrIdx::max not "
            "allowed");
  EXPECT_EQ(a.ngbs(), 512u);
  AreaSegment s;
  s.originatorIs(63, kR1);
  EXPECT_EQ(errorText<Kel::RangeException>([&] { s.originatorIs(64, kR1); }),
            "AreaSegOrigIndex::value < AreaSegOrigIndex::min or > AreaSegOrigIndex::max not "
            "allowed");
  EXPECT_EQ(errorText<Kel::RangeException>([] { LabelRange(0x100000, 1); }),
            "LabelRange::base > Netbase::MplsLabel::max not allowed");
}

TEST(SegmentRouting, GlobalBlockLabels) {
  const GlobalBlock block(kR1, LabelRange(16000, 8000));
  EXPECT_EQ(block.mplsLabel(SegmentIdentifier::index(0)), MplsLabel(16000));
  EXPECT_EQ(block.mplsLabel(SegmentIdentifier::index(7999)), MplsLabel(23999));
  EXPECT_TRUE(block.mplsLabel(SegmentIdentifier::index(8000)).isNull());
  EXPECT_EQ(block.mplsLabel(SegmentIdentifier::index(8000)).value(), 1048576u);
  EXPECT_EQ(block.mplsLabel(SegmentIdentifier::absolute(0x1fffff)), MplsLabel(0xfffff));
  // A block reaching past the label space: beyond 0x800000 is refused by the label type.
  const GlobalBlock huge(kR1, LabelRange(0xfffff, 0xffffffff));
  EXPECT_EQ(huge.mplsLabel(SegmentIdentifier::index(0x800000 - 0xfffff)).value(), 0x800000u);
  EXPECT_EQ(errorText<Kel::RangeException>(
                [&] { huge.mplsLabel(SegmentIdentifier::index(0x800001 - 0xfffff)); }),
            "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");

  PrefixSegment p;
  for (uint8_t mode : {0, 1, 2, 3}) {
    p.protectionModeIs(mode);
    EXPECT_EQ(p.needProtection(), mode != 2) << int(mode);
  }
}

// Records round trip, hold only their slots in use, and refuse what does not decode.
TEST(SegmentRouting, BinaryForms) {
  auto roundTrip = [](const auto& row, uint32_t expectedLen) {
    std::vector<uint8_t> bytes(row.serializeLen());
    EXPECT_EQ(row.serialize(bytes.data()), expectedLen);
    EXPECT_EQ(bytes.size(), expectedLen);
    std::decay_t<decltype(row)> back;
    EXPECT_EQ(back.deserialize(bytes.data(), bytes.size()), expectedLen);
    EXPECT_EQ(back, row);
    EXPECT_THROW(back.deserialize(bytes.data(), bytes.size() - 1), Kel::SizeError);
    return bytes;
  };
  roundTrip(adjacency(7, 1), 28);
  roundTrip(adjacency(7, 512), AdjacencySegment::kMaxLen);
  roundTrip(area("49.0001.0002", 64), AreaSegment::kMaxLen);
  std::vector<uint8_t> bytes = roundTrip(area("49.0001", 1), 42);
  bytes[13] = 14;  // the area's length
  AreaSegment back;
  EXPECT_THROW(back.deserialize(bytes.data(), bytes.size()), Kel::SizeError);
}

// The table set in shared memory: a writer's rows as a reader of the same group sees them,
// with a notification per changed key, and the sizes of each mount type.
TEST(SegmentRouting, StatusTablesWrittenAndRead) {
  const std::string name = "t" + std::to_string(::getpid()) + "-status";
  const std::string group = statusGroupName(name);
  Pond::MountGroup::removeSegments(group);
  EXPECT_EQ(group, "sr/status/" + name);
  EXPECT_THROW(statusGroupName("a/b"), Pond::SegmentError);

  const Status::Sizing writerSizing = TableInfo::srStatusInfo(Pond::Role::writer);
  EXPECT_EQ(writerSizing.srRoute.capacity, 10240u);
  EXPECT_EQ(writerSizing.v6AdjSegment.capacity, 2048u);
  EXPECT_EQ(writerSizing.v4AreaSegment.capacity, 1024u);
  EXPECT_EQ(TableInfo::srStatusInfo(Pond::Role::reader).prefixSegment.capacity, 0u);
  {
    Status::Ptr writer = statusFactory(name);
    writer->mountGroupIs(Pond::MountGroup::writer(group), writerSizing);
    Status::Ptr reader = statusFactory(name);
    reader->mountGroupIs(Pond::MountGroup::reader(group),
                         TableInfo::srStatusInfo(Pond::Role::reader));
    struct Seen : Status::NotifieeConst {
      std::vector<std::string> keys;
      void onV4AdjSegment(const AdjacencySegmentKey& k) override {
        keys.push_back("adj " + std::to_string(k.srcId()));
      }
      void onGlobalBlock(const RouterId& k) override { keys.push_back("block " + k.stringValue()); }
    } seen;
    seen.notifierIs(reader);

    writer->globalBlockIs(GlobalBlock(kR1, LabelRange(16000, 8000)));
    writer->v4AdjSegmentIs(adjacency(1, 512));
    writer->v4AdjSegmentIs(adjacency(2, 1));
    writer->v6AreaSegmentIs(area("49.0001", 3));
    writer->v4AdjSegmentDel(adjacency(1, 0).key());
    writer->mountGroup()->publish();
    reader->mountGroup()->processChanges();

    EXPECT_EQ(seen.keys, (std::vector<std::string>{"block 10.0.0.1:0", "adj 1", "adj 2", "adj 1"}));
    EXPECT_EQ(reader->globalBlock(kR1).labelRange(), LabelRange(16000, 8000));
    EXPECT_EQ(reader->v4AdjSegments(), 1u);
    EXPECT_EQ(reader->v4AdjSegment(adjacency(2, 0).key()), adjacency(2, 1));
    EXPECT_EQ(reader->v6AreaSegment(AreaId("49.0001")), area("49.0001", 3));
    EXPECT_EQ(reader->v4AreaSegments(), 0u);
    EXPECT_EQ(reader->v4AdjSegmentTable()->capacity(), 2048u);
    EXPECT_EQ(reader->v4AdjSegmentTable()->heapBytes(), TableInfo::kAdjSegmentHeapBytes);
  }
  Pond::MountGroup::removeSegments(group);
}

}  // namespace
