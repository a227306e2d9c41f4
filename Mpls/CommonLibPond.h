// CommonLibPond::LabelBindingTable: an MPLS label binding table in shared memory, as the
// label-distribution agent publishes it for the agents of other processes. It holds which
// labels this router binds to which FECs, which labels each peer router advertised, to
// which peers the local bindings were advertised, which FECs are filtered, and when each
// FEC's bindings last changed, as seven tables of one mount group:
//
//   localLbtLabel         LocalLbtLabelKey {fec, label}     a label of a local binding
//   localLbtAdvertisedTo  LdpIdentifierFecKey {peer, fec}   the local binding of fec was
//                                                           advertised to the peer
//   localLbtFilteredFec   FwdEqvClass                       a filtered local FEC
//   localLbtLastUpdate    FwdEqvClass -> lastUpdate         when a local binding changed
//   peerLbtLabel          PeerLbtLabelKey {router, fec, label}
//   peerLbtFilteredFec    RouterIdFecKey {router, fec}
//   peerLbtLastUpdate     RouterIdFecKey -> lastUpdate
//
// A time stamp is in seconds; a binding without one (0 or infinity) has no row.
//
// One process writes the tables (CommonLibProducerSm, and LdpLibAdvertisementProducerSm
// for localLbtAdvertisedTo), others read them (CommonLibConsumerSm,
// LdpLibAdvertisementConsumerSm): the role of the mount group given to mountGroupIs()
// decides which. The factory mounts nothing; the caller mounts the group named
// mountGroupName(name).
//
// Sizing. Rows are key-only where they can be, 28 to 48 bytes (a FEC is 28), stored as
// they are: with its slot head and bucket a row costs at most 72 bytes of shared memory,
// plus its share of the change log (65536 entries of 48 to 56 bytes unless the Sizing says
// otherwise). A writer mounts with a Sizing sized for its bindings (kDefaultCapacity rows
// per table by default). A reader that falls further behind than the change log holds
// resynchronises from the whole table: a writer that publishes bursts larger than the log
// while its readers are busy gives its label tables a longer one.
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
#include "types/Mpls/RouterId.h"
#include "types/Netbase/MplsLabel.h"

namespace CommonLibPond {

class LocalLbtLabelKey {
 public:
  KEL_VALUE(LocalLbtLabelKey, "CommonLibPond::LocalLbtLabelKey",
            (Mpls::FwdEqvClass, fwdEqvClass),
            (Netbase::MplsLabel, label));
};

class PeerLbtLabelKey {
 public:
  KEL_VALUE(PeerLbtLabelKey, "CommonLibPond::PeerLbtLabelKey",
            (Mpls::RouterId, routerId),
            (Mpls::FwdEqvClass, fwdEqvClass),
            (Netbase::MplsLabel, label));
};

class RouterIdFecKey {
 public:
  KEL_VALUE(RouterIdFecKey, "CommonLibPond::RouterIdFecKey",
            (Mpls::RouterId, routerId),
            (Mpls::FwdEqvClass, fwdEqvClass));
};

class LdpIdentifierFecKey {
 public:
  KEL_VALUE(LdpIdentifierFecKey, "CommonLibPond::LdpIdentifierFecKey",
            (Ldp::LdpIdentifier, ldpIdentifier),
            (Mpls::FwdEqvClass, fwdEqvClass));
};

// Rows. pondString() is a row's line in dumps: "[<key's text form>]", then the time stamp
// of the last-update rows.

class LocalLbtLabelEntry {
 public:
  KEL_VALUE(LocalLbtLabelEntry, "CommonLibPond::LocalLbtLabelEntry", (LocalLbtLabelKey, key));
  std::string pondString() const;
};

class PeerLbtLabelEntry {
 public:
  KEL_VALUE(PeerLbtLabelEntry, "CommonLibPond::PeerLbtLabelEntry", (PeerLbtLabelKey, key));
  std::string pondString() const;
};

class RouterIdFecEntry {
 public:
  KEL_VALUE(RouterIdFecEntry, "CommonLibPond::RouterIdFecEntry", (RouterIdFecKey, key));
  std::string pondString() const;
};

class LdpIdentifierFecEntry {
 public:
  KEL_VALUE(LdpIdentifierFecEntry, "CommonLibPond::LdpIdentifierFecEntry",
            (LdpIdentifierFecKey, key));
  std::string pondString() const;
};

class FecEntry {
 public:
  KEL_VALUE(FecEntry, "CommonLibPond::FecEntry", (Mpls::FwdEqvClass, key));
  std::string pondString() const;
};

class LocalLbtLastUpdateEntry {
 public:
  KEL_VALUE(LocalLbtLastUpdateEntry, "CommonLibPond::LocalLbtLastUpdateEntry",
            (Mpls::FwdEqvClass, key),
            (double, lastUpdate));
  std::string pondString() const;
};

class PeerLbtLastUpdateEntry {
 public:
  KEL_VALUE(PeerLbtLastUpdateEntry, "CommonLibPond::PeerLbtLastUpdateEntry",
            (RouterIdFecKey, key),
            (double, lastUpdate));
  std::string pondString() const;
};

// The rows a writer reserves per table unless its Sizing says otherwise.
inline constexpr uint32_t kDefaultCapacity = 65536;

// The tables (see KEL_POND_TABLE_SET in Pond/KelPond.h).
#define COMMON_LIB_POND_LBT_TABLES(T)                                                              \
  T(localLbtLabel, LocalLbtLabel, ::CommonLibPond::LocalLbtLabelKey,                               \
    ::CommonLibPond::LocalLbtLabelEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)            \
  T(localLbtAdvertisedTo, LocalLbtAdvertisedTo, ::CommonLibPond::LdpIdentifierFecKey,              \
    ::CommonLibPond::LdpIdentifierFecEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)         \
  T(localLbtFilteredFec, LocalLbtFilteredFec, ::Mpls::FwdEqvClass,                                 \
    ::CommonLibPond::FecEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)                      \
  T(localLbtLastUpdate, LocalLbtLastUpdate, ::Mpls::FwdEqvClass,                                   \
    ::CommonLibPond::LocalLbtLastUpdateEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)       \
  T(peerLbtLabel, PeerLbtLabel, ::CommonLibPond::PeerLbtLabelKey,                                  \
    ::CommonLibPond::PeerLbtLabelEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)             \
  T(peerLbtFilteredFec, PeerLbtFilteredFec, ::CommonLibPond::RouterIdFecKey,                       \
    ::CommonLibPond::RouterIdFecEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)              \
  T(peerLbtLastUpdate, PeerLbtLastUpdate, ::CommonLibPond::RouterIdFecKey,                         \
    ::CommonLibPond::PeerLbtLastUpdateEntry, kelNoCheck, ::CommonLibPond::kDefaultCapacity)

class LabelBindingTable : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LabelBindingTable>;
  using PtrConst = Kel::PtrConst<LabelBindingTable>;

  // on<Table>(key) per table, onMountStatus(), onMountGroup().
  class NotifieeConst : public Kel::NotifieeOf<LabelBindingTable> {
   public:
    KEL_POND_TABLE_NOTIFIEES(COMMON_LIB_POND_LBT_TABLES)
  };

  explicit LabelBindingTable(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  // The collections, Sizing, mountGroupIs(group[, sizing]), mountGroup(), tableForEach(),
  // dumpTables().
  KEL_POND_TABLE_SET(COMMON_LIB_POND_LBT_TABLES)

  // A table set keeps nothing of its parent: it is found by its name.
  void handleParent(const Kel::Ptr<Kel::Entity>& parent) override { (void)parent; }

 private:
  std::string name_;
};

Kel::Ptr<LabelBindingTable> labelBindingTableFactory(const std::string& name);

// The mount group of the table set `name`: "mpls/lbt/<name>". The name is one path
// component (1 to 64 letters, digits, '_' and '-'; Pond/MountGroup.h).
std::string mountGroupName(std::string_view name);

}  // namespace CommonLibPond
