// The LFIB's IP-lookup table: for every LFIB route that pops its label and looks the
// payload up in a VRF, the triple (label, VRF name, payload type). LfibIpLookupSm
// (Mpls/LfibIpLookupSm.h) derives it from the LFIB; forwarding agents read it to know in
// which VRF and address family a packet is looked up once its label is popped.
//
// The status is created by the hosting agent (lfibIpLookupStatusFactory) and written only
// by its LfibIpLookupSm.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

// One entry of the table. The whole triple is the key: equality, ordering and hash cover
// all three fields. True when it differs from the default value.
class LfibIpLookupStatusLabelVrfAf {
 public:
  KEL_VALUE(LfibIpLookupStatusLabelVrfAf, "Mpls::LfibIpLookupStatusLabelVrfAf",
            (Netbase::MplsLabel, label),
            (L3::VrfName, vrfName),
            (PayloadType, payloadType));
  explicit operator bool() const { return !(*this == LfibIpLookupStatusLabelVrfAf()); }
};

// labelVrfAf: the set of published triples, at most one per label. A label whose VRF or
// family changes is a deletion of the old triple and an insertion of the new one.
// Accessors: labelVrfAf(v), labelVrfAfs(), labelVrfAfIter(), labelVrfAfIs(v, true),
// labelVrfAfDel(v), labelVrfAfDelAll(); each change is announced (onLabelVrfAf).
class LfibIpLookupStatus : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibIpLookupStatus>;
  using PtrConst = Kel::PtrConst<LfibIpLookupStatus>;

  class NotifieeConst : public Kel::NotifieeOf<LfibIpLookupStatus> {
   public:
    virtual void onLabelVrfAf(const LfibIpLookupStatusLabelVrfAf& v) { (void)v; }
  };

  KEL_SET_ATTR(LfibIpLookupStatusLabelVrfAf, labelVrfAf, LabelVrfAf)
};

Kel::Ptr<LfibIpLookupStatus> lfibIpLookupStatusFactory();

}  // namespace Mpls
