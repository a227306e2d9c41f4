// Ldp::LdpPond::LdpLabelBindingTable: the LDP agent's label binding table in shared
// memory. It holds what CommonLibPond::LabelBindingTable holds (Mpls/CommonLibPond.h),
// with the peers named by their LDP identifier, as seven tables of one mount group:
//
//   localLbtLabel         LdpLocalLbtLabelKey {fec, label}
//   localLbtFilteredFec   FwdEqvClass
//   localLbtLastUpdate    FwdEqvClass -> lastUpdate
//   localLbtAdvertisedTo  LdpIdentifierFecKey {peer, fec}
//   peerLbtLabel          LdpPeerLbtLabelKey {peer, fec, label}
//   peerLbtFilteredFec    LdpIdentifierFecKey {peer, fec}
//   peerLbtLastUpdate     LdpIdentifierFecKey -> lastUpdate
//
// A filter row stands for a filtered FEC that has a binding: the LDP producer writes none
// for a FEC without one. The factory mounts nothing; the caller mounts the group named
// mountGroupName(name).
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "Pond/KelPond.h"
#include "Pond/MountGroup.h"
#include "types/Ldp/LdpIdentifier.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/MplsLabel.h"

namespace Ldp::LdpPond {

class LdpLocalLbtLabelKey {
 public:
  KEL_VALUE(LdpLocalLbtLabelKey, "Ldp::LdpPond::LdpLocalLbtLabelKey",
            (Mpls::FwdEqvClass, fwdEqvClass),
            (Netbase::MplsLabel, label));
};

class LdpPeerLbtLabelKey {
 public:
  KEL_VALUE(LdpPeerLbtLabelKey, "Ldp::LdpPond::LdpPeerLbtLabelKey",
            (Ldp::LdpIdentifier, ldpIdentifier),
            (Mpls::FwdEqvClass, fwdEqvClass),
            (Netbase::MplsLabel, label));
};

class LdpIdentifierFecKey {
 public:
  KEL_VALUE(LdpIdentifierFecKey, "Ldp::LdpPond::LdpIdentifierFecKey",
            (Ldp::LdpIdentifier, ldpIdentifier),
            (Mpls::FwdEqvClass, fwdEqvClass));
};

// Rows; pondString() as in CommonLibPond.

class LdpLocalLbtLabelEntry {
 public:
  KEL_VALUE(LdpLocalLbtLabelEntry, "Ldp::LdpPond::LdpLocalLbtLabelEntry",
            (LdpLocalLbtLabelKey, key));
  std::string pondString() const;
};

class LdpPeerLbtLabelEntry {
 public:
  KEL_VALUE(LdpPeerLbtLabelEntry, "Ldp::LdpPond::LdpPeerLbtLabelEntry",
            (LdpPeerLbtLabelKey, key));
  std::string pondString() const;
};

class LdpFecEntry {
 public:
  KEL_VALUE(LdpFecEntry, "Ldp::LdpPond::LdpFecEntry", (Mpls::FwdEqvClass, key));
  std::string pondString() const;
};

class LdpIdentifierFecEntry {
 public:
  KEL_VALUE(LdpIdentifierFecEntry, "Ldp::LdpPond::LdpIdentifierFecEntry",
            (LdpIdentifierFecKey, key));
  std::string pondString() const;
};

class LdpLocalLbtLastUpdateEntry {
 public:
  KEL_VALUE(LdpLocalLbtLastUpdateEntry, "Ldp::LdpPond::LdpLocalLbtLastUpdateEntry",
            (Mpls::FwdEqvClass, key),
            (double, lastUpdate));
  std::string pondString() const;
};

class LdpPeerLbtLastUpdateEntry {
 public:
  KEL_VALUE(LdpPeerLbtLastUpdateEntry, "Ldp::LdpPond::LdpPeerLbtLastUpdateEntry",
            (LdpIdentifierFecKey, key),
            (double, lastUpdate));
  std::string pondString() const;
};

// The rows a writer reserves per table unless its Sizing says otherwise.
inline constexpr uint32_t kDefaultCapacity = 65536;

#define LDP_POND_LBT_TABLES(T)                                                                     \
  T(localLbtLabel, LocalLbtLabel, ::Ldp::LdpPond::LdpLocalLbtLabelKey,                             \
    ::Ldp::LdpPond::LdpLocalLbtLabelEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)           \
  T(localLbtFilteredFec, LocalLbtFilteredFec, ::Mpls::FwdEqvClass,                                 \
    ::Ldp::LdpPond::LdpFecEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)                     \
  T(localLbtLastUpdate, LocalLbtLastUpdate, ::Mpls::FwdEqvClass,                                   \
    ::Ldp::LdpPond::LdpLocalLbtLastUpdateEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)      \
  T(localLbtAdvertisedTo, LocalLbtAdvertisedTo, ::Ldp::LdpPond::LdpIdentifierFecKey,               \
    ::Ldp::LdpPond::LdpIdentifierFecEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)           \
  T(peerLbtLabel, PeerLbtLabel, ::Ldp::LdpPond::LdpPeerLbtLabelKey,                                \
    ::Ldp::LdpPond::LdpPeerLbtLabelEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)            \
  T(peerLbtFilteredFec, PeerLbtFilteredFec, ::Ldp::LdpPond::LdpIdentifierFecKey,                   \
    ::Ldp::LdpPond::LdpIdentifierFecEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)           \
  T(peerLbtLastUpdate, PeerLbtLastUpdate, ::Ldp::LdpPond::LdpIdentifierFecKey,                     \
    ::Ldp::LdpPond::LdpPeerLbtLastUpdateEntry, kelNoCheck, ::Ldp::LdpPond::kDefaultCapacity)

class LdpLabelBindingTable : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LdpLabelBindingTable>;
  using PtrConst = Kel::PtrConst<LdpLabelBindingTable>;

  // on<Table>(key) per table, onMountStatus(), onMountGroup().
  class NotifieeConst : public Kel::NotifieeOf<LdpLabelBindingTable> {
   public:
    KEL_POND_TABLE_NOTIFIEES(LDP_POND_LBT_TABLES)
  };

  explicit LdpLabelBindingTable(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  // The collections, Sizing, mountGroupIs(group[, sizing]), mountGroup(), tableForEach(),
  // dumpTables().
  KEL_POND_TABLE_SET(LDP_POND_LBT_TABLES)

  // A table set keeps nothing of its parent: it is found by its name.
  void handleParent(const Kel::Ptr<Kel::Entity>& parent) override { (void)parent; }

 private:
  std::string name_;
};

Kel::Ptr<LdpLabelBindingTable> ldpLabelBindingTableFactory(const std::string& name);

// The mount group of the table set `name`: "ldp/lbt/<name>".
std::string mountGroupName(std::string_view name);

}  // namespace Ldp::LdpPond
