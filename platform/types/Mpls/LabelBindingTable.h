// The label bindings a label-distribution agent keeps, as entities:
//
//   Mpls::LabelBinding          one FEC's binding (keyed by the FEC): the labels bound to it
//                               (mplsLabel, a set) and when it last changed (lastUpdate,
//                               seconds; 0 or infinity: no time recorded)
//   Mpls::LabelBindingTable     one router's bindings: binding[fec], the FECs whose binding
//                               is filtered (filteredFec, a set), and the change counter
//   Mpls::LabelBindingTableColl the peers' tables, bindingTable[routerId]
//
// The change counter. Every change of a table, or of a binding while it is in the table,
// raises the table's changeCounter and names the FEC and the label it concerns
// (Mpls::LabelBindingChange), so that a reactor mirroring the table elsewhere knows what to
// look at again without walking it:
//   - a label added to or removed from binding[fec]: (fec, label);
//   - binding[fec] removed: (fec, label) for each label it held, or (fec, null label) when
//     it held none;
//   - binding[fec] added, its lastUpdate changed, fec filtered or no longer: (fec, null
//     label).
// Each change is announced (onChangeCounter) after it is made, before the binding's own
// notifiees hear of it. The counter starts at 0 and only grows.
//
// Both the table and its bindings observe their own attributes for this (Kel::AttrObserver),
// so neither can be published through the state database; label bindings cross processes
// through their shared-memory tables.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Mpls/RouterId.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

class LabelBindingTable;

// What the change counter of a table last counted.
class LabelBindingChange {
 public:
  KEL_VALUE(LabelBindingChange, "Mpls::LabelBindingChange", (uint64_t, counter),
            (FwdEqvClass, fec), (Netbase::MplsLabel, label, Netbase::MplsLabel::nullLabel));
};

class LabelBinding : public Kel::Entity, private Kel::AttrObserver {
 public:
  KEL_ENTITY(LabelBinding, "Mpls::LabelBinding");
  using Ptr = Kel::Ptr<LabelBinding>;
  class NotifieeConst : public Kel::NotifieeOf<LabelBinding> {
   public:
    virtual void onMplsLabel(const Netbase::MplsLabel& label) { (void)label; }
    virtual void onLastUpdate() {}
  };
  explicit LabelBinding(const FwdEqvClass& fec) : fec_(fec) { kelObserverIs(this); }
  const FwdEqvClass& fec() const noexcept { return fec_; }

  KEL_SET_ATTR(Netbase::MplsLabel, mplsLabel, MplsLabel)
  KEL_ATTR(double, lastUpdate, LastUpdate)

  // Whether lastUpdate records a time: neither 0 nor infinity.
  bool hasLastUpdate() const noexcept;

  void handleParent(const Kel::Ptr<Kel::Entity>& parent) override;

 private:
  friend class LabelBindingTable;
  void kelAttrChanged(int index, const void* key) override;

  FwdEqvClass fec_;
  // The table holding this binding; null once it is removed (or before it is added).
  LabelBindingTable* table_ = nullptr;
};

class LabelBindingTable : public Kel::Entity, private Kel::AttrObserver {
 public:
  KEL_ENTITY(LabelBindingTable, "Mpls::LabelBindingTable");
  using Ptr = Kel::Ptr<LabelBindingTable>;
  class NotifieeConst : public Kel::NotifieeOf<LabelBindingTable> {
   public:
    virtual void onBinding(const FwdEqvClass& fec) { (void)fec; }
    virtual void onFilteredFec(const FwdEqvClass& fec) { (void)fec; }
    virtual void onChangeCounter() {}
  };
  // The table of `routerId`'s bindings (the local table: any id, RouterId() by custom).
  explicit LabelBindingTable(const RouterId& routerId = RouterId()) : routerId_(routerId) {
    kelObserverIs(this);
  }
  ~LabelBindingTable() override;
  const RouterId& routerId() const noexcept { return routerId_; }

  KEL_ENTITY_COLL_ATTR(FwdEqvClass, LabelBinding, binding, Binding)
  KEL_SET_ATTR(FwdEqvClass, filteredFec, FilteredFec)
  KEL_ATTR(LabelBindingChange, changeCounter, ChangeCounter)

 private:
  friend class LabelBinding;
  void kelAttrChanged(int index, const void* key) override;
  void kelAttrRemoving(int index, const void* key) override;
  void changed(const FwdEqvClass& fec, Netbase::MplsLabel label);

  RouterId routerId_;
  // The labels of the binding being removed, counted once it is gone.
  std::vector<Netbase::MplsLabel> removing_;
};

inline LabelBindingTable::Ptr labelBindingTableFactory(const RouterId& routerId = RouterId()) {
  return Kel::make<LabelBindingTable>(routerId);
}

class LabelBindingTableColl : public Kel::Entity {
 public:
  KEL_ENTITY(LabelBindingTableColl, "Mpls::LabelBindingTableColl");
  using Ptr = Kel::Ptr<LabelBindingTableColl>;
  class NotifieeConst : public Kel::NotifieeOf<LabelBindingTableColl> {
   public:
    virtual void onBindingTable(const RouterId& routerId) { (void)routerId; }
  };
  KEL_ENTITY_COLL_ATTR(RouterId, LabelBindingTable, bindingTable, BindingTable)
};

inline LabelBindingTableColl::Ptr labelBindingTableCollFactory() {
  return Kel::make<LabelBindingTableColl>();
}

}  // namespace Mpls
