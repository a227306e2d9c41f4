// LfibViaIndexAllocator against a writer-role LfibStatus on real shared-memory tables:
// counters per via type and per via set domain, keys in use stepped over, the wrap at
// 0xFFFFFFFF, and the process assertions.
#include <gtest/gtest.h>

#include <string>

#include "Mpls/MplsLfib.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using Domain = LfibViaIndexAllocator::ViaSetKeyIndexDomain;
using WriterLfib = TestSupport::LfibFixture;

LfibViaKey viaKey(LfibViaType type, uint32_t index, LFib::Source source = LFib::sourceLdp) {
  return LfibViaKey(source, type, index);
}

LfibViaSetKey setKey(LfibViaType type, LfibViaSetType setType, uint32_t index,
                     LFib::Source source = LFib::sourceLdp) {
  return LfibViaSetKey(source, index, type, setType);
}

constexpr LfibViaType kAllocatedTypes[] = {viaTypeMplsIp, viaTypeMplsPseudowire, viaTypeIpLookup,
                                           viaTypeExternalFec};

TEST(LfibViaIndexAllocator, CountsPerViaTypeAndPerDomainAndWraps) {
  WriterLfib lfib("counters");
  auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
  EXPECT_EQ(a->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 1));
  EXPECT_EQ(a->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 2));
  for (LfibViaType type : {viaTypeMplsPseudowire, viaTypeIpLookup, viaTypeExternalFec}) {
    EXPECT_EQ(a->getViaKey(type), viaKey(type, 1));
  }
  EXPECT_EQ(a->viaKeyIndex(viaTypeMplsIp), 2u);
  EXPECT_EQ(a->viaKeyIndex(viaTypeVlan), 0u);

  // Via sets count per (viaType, viaSetType), and refuse no via type.
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp),
            setKey(viaTypeMplsIp, viaSetTypeEcmp, 1));
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeUcmp),
            setKey(viaTypeMplsIp, viaSetTypeUcmp, 1));
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsPseudowire, viaSetTypeEcmp),
            setKey(viaTypeMplsPseudowire, viaSetTypeEcmp, 1));
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp),
            setKey(viaTypeMplsIp, viaSetTypeEcmp, 2));
  EXPECT_EQ(a->getViaSetKey(viaTypeEvpnVlanAware, viaSetTypeDefault).index(), 1u);
  EXPECT_EQ(a->viaSetKeyIndex(Domain(viaTypeMplsIp, viaSetTypeEcmp)), 2u);

  // Deleted, a counter starts again from 0: index 1 again, as nothing is stored under it.
  a->viaKeyIndexDel(viaTypeMplsIp);
  EXPECT_EQ(a->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 1));

  // Inc adds modulo 2^32.
  a->viaKeyIndexIs(viaTypeMplsIp, 0xFFFFFFFE);
  EXPECT_EQ(a->viaKeyIndexInc(viaTypeMplsIp, 3), 1u);
  EXPECT_EQ(a->viaSetKeyIndexInc(Domain(viaTypeIpLookup, viaSetTypeUcmp), 5), 5u);
  EXPECT_EQ(a->viaSetKeyIndexInc(Domain(viaTypeIpLookup, viaSetTypeUcmp), 0xFFFFFFFF), 4u);

  // Another source's allocator counts on its own and puts its source in its keys.
  auto other = lfibViaIndexAllocatorFactory(LFib::sourceStatic, lfib.status);
  EXPECT_EQ(other->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 1, LFib::sourceStatic));

  // Past the top of the index space: index 0, unless it is taken.
  a->viaKeyIndexIs(viaTypeMplsIp, 0xFFFFFFFF);
  EXPECT_EQ(a->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 0));
  EXPECT_EQ(a->getViaKey(viaTypeMplsIp), viaKey(viaTypeMplsIp, 1));

  lfib.via(viaKey(viaTypeExternalFec, 0));
  a->viaKeyIndexIs(viaTypeExternalFec, 0xFFFFFFFE);
  EXPECT_EQ(a->getViaKey(viaTypeExternalFec), viaKey(viaTypeExternalFec, 0xFFFFFFFF));
  EXPECT_EQ(a->getViaKey(viaTypeExternalFec), viaKey(viaTypeExternalFec, 1));

  lfib.status->viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeEcmp, 0)));
  a->viaSetKeyIndexIs(Domain(viaTypeMplsIp, viaSetTypeEcmp), 0xFFFFFFFF);
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp).index(), 1u);
  a->viaSetKeyIndexIs(Domain(viaTypeMplsIp, viaSetTypeUcmp), 0xFFFFFFFF);
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeUcmp).index(), 0u);
}

TEST(LfibViaIndexAllocator, StepsOverKeysInUse) {
  WriterLfib lfib("inUse");
  LfibStatus& s = *lfib.status;
  for (LfibViaType type : kAllocatedTypes) {
    SCOPED_TRACE(Kel::valueToStrep(type));
    for (uint32_t index : {1, 2, 4}) {
      lfib.via(viaKey(type, index));
    }
    lfib.via(viaKey(type, 3, LFib::sourceStatic));  // another source's: not in use for us
    // A fresh allocator, as after a writer restart.
    auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
    EXPECT_EQ(a->getViaKey(type), viaKey(type, 3));
    EXPECT_EQ(a->viaKeyIndex(type), 3u);
    EXPECT_EQ(a->getViaKey(type), viaKey(type, 5));
    EXPECT_EQ(a->viaKeyIndex(type), 5u);
  }

  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeEcmp, 1)));
  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeEcmp, 2)));
  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeUcmp, 2)));
  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsPseudowire, viaSetTypeEcmp, 1)));
  auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp),
            setKey(viaTypeMplsIp, viaSetTypeEcmp, 3));
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeUcmp),
            setKey(viaTypeMplsIp, viaSetTypeUcmp, 1));
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeUcmp),
            setKey(viaTypeMplsIp, viaSetTypeUcmp, 3));
  EXPECT_EQ(a->viaSetKeyIndex(Domain(viaTypeMplsIp, viaSetTypeUcmp)), 3u);
  EXPECT_EQ(a->getViaSetKey(viaTypeMplsPseudowire, viaSetTypeEcmp).index(), 2u);
}

TEST(LfibViaIndexAllocator, TypesAboveTheLastTakeTheNextIndexUnchecked) {
  // An LFIB without tables: any lookup would find nothing, and a type that were looked up
  // would abort.
  auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfibStatusFactory());
  const auto twelve = static_cast<LfibViaType>(12);
  const auto top = static_cast<LfibViaType>(0x7FFFFFFF);
  EXPECT_EQ(a->getViaKey(twelve), viaKey(twelve, 1));
  EXPECT_EQ(a->getViaKey(twelve), viaKey(twelve, 2));
  EXPECT_EQ(a->getViaKey(top), viaKey(top, 1));
  a->viaKeyIndexIs(twelve, 0xFFFFFFFF);
  EXPECT_EQ(a->getViaKey(twelve).index(), 0u);
}

// A fatal assertion of the allocator, as the process prints it before it aborts.
std::string fatal(const std::string& function, const std::string& expression) {
  return "^Mpls/MplsLfib:[0-9]+ Mpls::" + function + " -- fatal assertion failed\\(" +
         expression + "\\)\n$";
}

TEST(LfibViaIndexAllocatorDeathTest, ViaTypesWithoutAnAllocatedKeyAbort) {
  WriterLfib lfib("unhandled");
  auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
  const std::string getViaKey =
      "LfibViaKey Mpls::LfibViaIndexAllocator::getViaKey\\(Mpls::LfibViaType\\)";
  EXPECT_DEATH(a->getViaKey(viaTypeMplsUnknown),
               fatal(getViaKey, "false && \"Unknown via type\""));
  for (int type = viaTypeVlan; type <= viaTypeReserved; ++type) {
    EXPECT_DEATH(a->getViaKey(static_cast<LfibViaType>(type)),
                 fatal(getViaKey, "false && \"Unsupported via type\""))
        << type;
  }
  EXPECT_DEATH(a->getViaKey(viaTypeMax), fatal(getViaKey, "false && \"Via type not supported\""));
  EXPECT_DEATH(a->getViaKey(static_cast<LfibViaType>(-1)),
               fatal(getViaKey, "false && \"Unknown via type\""));
}

// Walking 2^32 taken indices would take hours. A notifiee moves the counter, at its first
// change, to just below where the search began, as a search through a full space would
// have left it: the allocator must then find its start taken and give up.
class FastForward : public LfibViaIndexAllocator::NotifieeConst {
 public:
  FastForward(const LfibViaIndexAllocator::Ptr& a, uint32_t to) : a_(a), to_(to) { notifierIs(a); }
  void onViaKeyIndex(LfibViaType type) override {
    if (!done_) {
      done_ = true;
      a_->viaKeyIndexIs(type, to_);
    }
  }
  void onViaSetKeyIndex(const Domain& domain) override {
    if (!done_) {
      done_ = true;
      a_->viaSetKeyIndexIs(domain, to_);
    }
  }

 private:
  LfibViaIndexAllocator::Ptr a_;
  uint32_t to_;
  bool done_ = false;
};

TEST(LfibViaIndexAllocatorDeathTest, ExhaustedIndexSpaceAborts) {
  WriterLfib lfib("exhausted");
  LfibStatus& s = *lfib.status;
  lfib.via(viaKey(viaTypeMplsIp, 6));
  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeEcmp, 6)));

  // The start itself free: the search ends there, with no assertion.
  {
    auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
    a->viaKeyIndexIs(viaTypeMplsIp, 5);
    a->viaSetKeyIndexIs(Domain(viaTypeMplsIp, viaSetTypeEcmp), 5);
    FastForward ff(a, 4);
    EXPECT_EQ(a->getViaKey(viaTypeMplsIp).index(), 5u);
    FastForward ffSet(a, 4);
    EXPECT_EQ(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp).index(), 5u);
  }

  lfib.via(viaKey(viaTypeMplsIp, 5));
  s.viaSetIs(LfibViaSet(setKey(viaTypeMplsIp, viaSetTypeEcmp, 5)));
  auto a = lfibViaIndexAllocatorFactory(LFib::sourceLdp, lfib.status);
  a->viaKeyIndexIs(viaTypeMplsIp, 5);
  a->viaSetKeyIndexIs(Domain(viaTypeMplsIp, viaSetTypeEcmp), 5);
  FastForward ff(a, 4);
  EXPECT_DEATH(a->getViaKey(viaTypeMplsIp),
               fatal("LfibViaKey Mpls::LfibViaIndexAllocator::getViaKey\\(Mpls::LfibViaType\\)",
                     "0 && \"No via keys left\""));
  EXPECT_DEATH(a->getViaSetKey(viaTypeMplsIp, viaSetTypeEcmp),
               fatal("LfibViaSetKey Mpls::LfibViaIndexAllocator::getViaSetKey\\(Mpls::"
                     "LfibViaType, Mpls::LfibViaSetType\\)",
                     "0 && \"No via set keys left\""));
}

}  // namespace
