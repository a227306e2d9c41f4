// Ldp::LabelAdvertisementColl: to which LDP peers an LDP agent advertised its local binding
// of each FEC: advertisedTo[fec], an Ldp::LdpIdentifierSet of peers (identifierIs(id, bool),
// identifierDel(id)).
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "types/Ldp/LdpIdentifier.h"
#include "types/Mpls/MplsTypes.h"

namespace Ldp {

class LdpIdentifierSet : public Kel::Entity {
 public:
  KEL_ENTITY(LdpIdentifierSet, "Ldp::LdpIdentifierSet");
  using Ptr = Kel::Ptr<LdpIdentifierSet>;
  class NotifieeConst : public Kel::NotifieeOf<LdpIdentifierSet> {
   public:
    virtual void onIdentifier(const LdpIdentifier& id) { (void)id; }
  };
  explicit LdpIdentifierSet(const Mpls::FwdEqvClass& fec) : fec_(fec) {}
  const Mpls::FwdEqvClass& fec() const noexcept { return fec_; }

  KEL_SET_ATTR(LdpIdentifier, identifier, Identifier)

 private:
  Mpls::FwdEqvClass fec_;
};

class LabelAdvertisementColl : public Kel::Entity {
 public:
  KEL_ENTITY(LabelAdvertisementColl, "Ldp::LabelAdvertisementColl");
  using Ptr = Kel::Ptr<LabelAdvertisementColl>;
  class NotifieeConst : public Kel::NotifieeOf<LabelAdvertisementColl> {
   public:
    virtual void onAdvertisedTo(const Mpls::FwdEqvClass& fec) { (void)fec; }
  };
  KEL_ENTITY_COLL_ATTR(Mpls::FwdEqvClass, LdpIdentifierSet, advertisedTo, AdvertisedTo)
};

inline LabelAdvertisementColl::Ptr labelAdvertisementCollFactory() {
  return Kel::make<LabelAdvertisementColl>();
}

}  // namespace Ldp
