// Entity collections kept in Pond shared-memory tables.
//
// Inside an entity class (with its NotifieeConst, see Kel/Entity.h, which must also
// declare `virtual void onMountStatus() {}`):
//
//   KEL_POND_COLL(K, T, name, Name, check)
//
// declares the collection `name` of rows T keyed by K (T::key()), stored in the Pond table
// "name" of the entity's mount group, with:
//   name(k)              the row of k, a default row when absent
//   names()              the number of rows
//   nameForEach(f)       f(row) for every row, in the table's storage order;
//   nameForEach(hint, f, maxRows) resumes from a Pond::IterHint
//   nameIs(t)            insert or replace (writer); returns the row stored
//   nameCommit(const T*) the same for a row built in place
//   nameDel(k)           remove (writer); an absent key is no error and announces nothing
//   nameDelAll()         remove every row, each announced
//   nameNotify(k)        announce k to the entity's notifiees (NotifieeConst::onName(k))
//   nameNotifyQuiesced(b) stop (true) or resume (false) announcing
//   nameNotifyMountStatus() announce that the table's mount status changed
//                        (NotifieeConst::onMountStatus())
//   nameControlIs(c)     attach the collection to its table through a CollectionControl
//   nameTable()          the table itself (null before nameControlIs)
//
// Writer: each Is, Commit and Del (1) changes the table, (2) runs `check(key)` (a member
// function of the entity; pass kelNoCheck for none), which may throw, (3) announces the
// key. A check that throws leaves the change in the table and announces nothing.
// Reader: the collection is read-only; the group's processChanges() announces each
// changed key, and the table's opening as a mount status change.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Kel/Entity.h"
#include "Pond/MountGroup.h"
#include "Pond/PondMap.h"

namespace KelPond {

// How a shared-memory collection is placed: its group (whose role decides writer or
// reader), its table's name and, for a writer, its size.
class CollectionControl : public Kel::Entity {
 public:
  CollectionControl(Kel::Ptr<Pond::MountGroup> group, std::string table, Pond::TableSizing sizing)
      : group_(std::move(group)), table_(std::move(table)), sizing_(sizing) {}
  const Kel::Ptr<Pond::MountGroup>& group() const noexcept { return group_; }
  const std::string& table() const noexcept { return table_; }
  const Pond::TableSizing& sizing() const noexcept { return sizing_; }

 private:
  Kel::Ptr<Pond::MountGroup> group_;
  std::string table_;
  Pond::TableSizing sizing_;
};

// The control of `table` in `group`; null without a group (a collection given a null
// control is detached).
inline Kel::Ptr<CollectionControl> collectionControlFactory(Kel::Ptr<Pond::MountGroup> group,
                                                            std::string table,
                                                            Pond::TableSizing sizing = {}) {
  if (!group) {
    return nullptr;
  }
  return Kel::make<CollectionControl>(std::move(group), std::move(table), sizing);
}

}  // namespace KelPond

#define KEL_POND_COLL(K, T, name, Name, check)                                          \
 public:                                                                                \
  T name(const K& k) const { return name##_ ? name##_->lookup(k) : T{}; }               \
  uint32_t name##s() const { return name##_ ? name##_->size() : 0; }                    \
  template <class F>                                                                    \
  void name##ForEach(F&& f) const {                                                     \
    if (name##_) {                                                                      \
      name##_->forEach(std::forward<F>(f));                                             \
    }                                                                                   \
  }                                                                                     \
  template <class F>                                                                    \
  bool name##ForEach(::Pond::IterHint& hint, F&& f, uint32_t maxRows) const {           \
    return name##_ ? name##_->forEach(hint, std::forward<F>(f), maxRows) : true;        \
  }                                                                                     \
  T name##Is(const T& v) {                                                              \
    name##Table_()->upsert(v);                                                          \
    check(v.key());                                                                     \
    name##Notify(v.key());                                                              \
    return v;                                                                           \
  }                                                                                     \
  T name##Commit(const T* v) { return name##Is(*v); }                                   \
  void name##Del(const K& k) {                                                          \
    if (name##Table_()->erase(k)) {                                                     \
      check(k);                                                                         \
      name##Notify(k);                                                                  \
    }                                                                                   \
  }                                                                                     \
  void name##DelAll() {                                                                 \
    std::vector<K> keys;                                                                \
    name##ForEach([&](const T& row) { keys.push_back(row.key()); });                    \
    for (const K& k : keys) {                                                           \
      name##Del(k);                                                                     \
    }                                                                                   \
  }                                                                                     \
  void name##Notify(const K& k) const {                                                 \
    if (!name##Quiesced_) {                                                             \
      kelNotify(&NotifieeConst::on##Name, k);                                           \
    }                                                                                   \
  }                                                                                     \
  void name##NotifyQuiesced(bool quiesced) noexcept { name##Quiesced_ = quiesced; }    \
  void name##NotifyMountStatus() const { kelNotify(&NotifieeConst::onMountStatus); }   \
  void name##ControlIs(const ::Kel::Ptr<::KelPond::CollectionControl>& control) {       \
    name##_.reset();                                                                    \
    name##Control_ = control;                                                           \
    if (!control) {                                                                     \
      return;                                                                           \
    }                                                                                   \
    name##_ = std::make_unique<::Pond::PondMap<K, T>>(control->group(), control->table(), \
                                                      control->sizing());               \
    if (control->group()->role() == ::Pond::Role::reader) {                             \
      name##_->changeHandlerIs([this](const K& k) { name##Notify(k); });                \
      name##_->mountHandlerIs([this] { name##NotifyMountStatus(); });                   \
    }                                                                                   \
  }                                                                                     \
  ::Pond::PondMap<K, T>* name##Table() const noexcept { return name##_.get(); }         \
                                                                                        \
 private:                                                                               \
  ::Pond::PondMap<K, T>* name##Table_() const {                                         \
    if (!name##_) {                                                                     \
      throw ::Pond::NotWriterError(#name " has no shared-memory table attached");        \
    }                                                                                   \
    return name##_.get();                                                               \
  }                                                                                     \
  std::unique_ptr<::Pond::PondMap<K, T>> name##_;                                       \
  ::Kel::Ptr<::KelPond::CollectionControl> name##Control_;                              \
  bool name##Quiesced_ = false;                                                         \
                                                                                        \
 public:

// The check of a collection without one.
#define kelNoCheck(k) (void)(k)
