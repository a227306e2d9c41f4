// Entity collections kept in Pond shared-memory tables, and table sets: entities whose
// collections are the tables of one mount group, each table declared once.
//
// Table sets. A table set lists its tables in one macro, one entry per table:
//
//   #define LFIB_HW_STATUS_TABLES(T) <backslash>
//     T(unprogrammedRoute, UnprogrammedRoute, RouteKey, RouteInfo, kelNoCheck, 4096) <backslash>
//     T(viaSet, ViaSet, LfibViaSetKey, LfibViaSetInfo, kelNoCheck, 4096)
//
// an entry being (name, Name, key type, row type, check, rows a writer reserves). The
// entity then says KEL_POND_TABLE_SET(LFIB_HW_STATUS_TABLES) in its body and
// KEL_POND_TABLE_NOTIFIEES(LFIB_HW_STATUS_TABLES) in its NotifieeConst, and gets:
//   - for every table, the collection of KEL_POND_COLL below, kept in the table "name";
//   - Sizing, a struct with one Pond::TableSizing per table, named after it and set to
//     the declared capacity: what a writer that creates the tables reserves (a reader
//     takes the sizes from the tables). sizingFor(role) gives the sizing of a mount role:
//     the declared one for a writer, zero capacities (take the segment's) for a reader;
//   - mountGroupIs(group, sizing, changes): attaches every table to its table in `group`
//     (null detaches them all) and announces onMountGroup; the group's role makes the
//     entity a writer or a reader of every table. A reader follows the tables' changes
//     (KelPond::Changes::followed, the default) or only reads them
//     (KelPond::Changes::ignored: no notifications, and opening a table costs no walk of
//     its rows; what a one-shot lookup wants). A writer group creates the tables, or attaches
//     to those a previous writer left (Pond::SegmentError when their sizes differ: the
//     entity is then left partly attached; drop it). Giving the group already attached
//     does nothing. mountGroup() is the group attached;
//   - tableForEach(f): f(KelPond::TableRef<K, T>) for every table, in declaration order;
//   - tableCorruptionHandlerIs(handler): every mounted table's corruption handler (what a
//     reader does with a row or structure it finds damaged; by default the system log);
//   - tableVersions(): the sum of the tables' versions, which every change raises: a
//     reader that finds it unchanged across a walk of several tables saw no change;
//   - dumpTables(context, indent): every table's rows in key order, under a header
//     "<name>s #<count>" (see KelPond::dumpRows);
//   - kelTableCount, the number of tables.
// The NotifieeConst gets onName(const K&) per table, onMountStatus() (a table was opened,
// or opened again after its group was replaced: readers) and onMountGroup().
//
// Collections. Inside an entity class (with its NotifieeConst, see Kel/Entity.h, which must
// also declare `virtual void onMountStatus() {}`):
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

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kel/DumpContext.h"
#include "Kel/Entity.h"
#include "Pond/MountGroup.h"
#include "Pond/PondMap.h"

namespace KelPond {

// Whether a reading collection announces its table's changes.
enum class Changes { followed, ignored };

// How a shared-memory collection is placed: its group (whose role decides writer or
// reader), its table's name, for a writer its size, for a reader whether it follows the
// table's changes.
class CollectionControl : public Kel::Entity {
 public:
  CollectionControl(Kel::Ptr<Pond::MountGroup> group, std::string table, Pond::TableSizing sizing,
                    Changes changes = Changes::followed)
      : group_(std::move(group)), table_(std::move(table)), sizing_(sizing), changes_(changes) {}
  const Kel::Ptr<Pond::MountGroup>& group() const noexcept { return group_; }
  const std::string& table() const noexcept { return table_; }
  const Pond::TableSizing& sizing() const noexcept { return sizing_; }
  Changes changes() const noexcept { return changes_; }

 private:
  Kel::Ptr<Pond::MountGroup> group_;
  std::string table_;
  Pond::TableSizing sizing_;
  Changes changes_;
};

// The control of `table` in `group`; null without a group (a collection given a null
// control is detached).
inline Kel::Ptr<CollectionControl> collectionControlFactory(Kel::Ptr<Pond::MountGroup> group,
                                                            std::string table,
                                                            Pond::TableSizing sizing = {},
                                                            Changes changes = Changes::followed) {
  if (!group) {
    return nullptr;
  }
  return Kel::make<CollectionControl>(std::move(group), std::move(table), sizing, changes);
}

// One table of a table set, as tableForEach() hands it out: its name and the table (null
// while the set has no mount group).
template <class K, class T>
struct TableRef {
  using Key = K;
  using Row = T;
  std::string_view name;
  const ::Pond::PondMap<K, T>* table;

  uint32_t size() const { return table ? table->size() : 0; }
  uint32_t capacity() const { return table ? table->capacity() : 0; }
  uint64_t version() const { return table ? table->version() : 0; }
  template <class F>
  void forEach(F&& f) const {
    if (table) {
      table->forEach(std::forward<F>(f));
    }
  }
};

// The header line of one collection in a dump: "<name>s #<count>", indented.
void dumpHeader(Kel::DumpContext& context, int indent, std::string_view name, size_t count);

// A header "<name>s #<count>" indented by `indent` blanks, then one line per row in key
// order (storage order differs between the writer and readers), indented by indent + 2:
// the row's pondString().
template <class K, class T>
void dumpRows(Kel::DumpContext& context, int indent, const TableRef<K, T>& ref) {
  std::vector<T> rows;
  rows.reserve(ref.size());
  ref.forEach([&](const T& row) { rows.push_back(row); });
  std::sort(rows.begin(), rows.end(), [](const T& a, const T& b) { return a.key() < b.key(); });
  dumpHeader(context, indent, ref.name, rows.size());
  for (const T& row : rows) {
    context.printf("%*c%s\n", indent + 2, ' ', row.pondString());
  }
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
      if (control->changes() == ::KelPond::Changes::followed) {                         \
        name##_->changeHandlerIs([this](const K& k) { name##Notify(k); });              \
      }                                                                                 \
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

// Table sets (see the top of this file).
#define KEL_POND_TABLE_COLL(name, Name, K, T, check, capacity) KEL_POND_COLL(K, T, name, Name, check)
#define KEL_POND_TABLE_SIZING(name, Name, K, T, check, capacity) \
  ::Pond::TableSizing name{capacity};
#define KEL_POND_TABLE_SIZING_EACH(name, Name, K, T, check, capacity) f(#name, name);
#define KEL_POND_TABLE_MOUNT(name, Name, K, T, check, capacity) \
  name##ControlIs(                                                    \
      ::KelPond::collectionControlFactory(kelMountGroup_, #name, sizing.name, changes));
#define KEL_POND_TABLE_REF(name, Name, K, T, check, capacity) \
  f(::KelPond::TableRef<K, T>{#name, name##_.get()});
#define KEL_POND_TABLE_COUNT(name, Name, K, T, check, capacity) +1
#define KEL_POND_TABLE_CORRUPTION(name, Name, K, T, check, capacity) \
  if (name##_) {                                                     \
    name##_->corruptionHandlerIs(handler);                           \
  }
#define KEL_POND_TABLE_NOTIFIEE(name, Name, K, T, check, capacity) \
  virtual void on##Name(const K& key) { (void)key; }

#define KEL_POND_TABLE_NOTIFIEES(TABLES) \
  TABLES(KEL_POND_TABLE_NOTIFIEE)        \
  virtual void onMountStatus() {}        \
  virtual void onMountGroup() {}

#define KEL_POND_TABLE_SET(TABLES)                                                        \
  TABLES(KEL_POND_TABLE_COLL)                                                             \
                                                                                          \
 public:                                                                                  \
  static constexpr size_t kelTableCount = 0 TABLES(KEL_POND_TABLE_COUNT);                 \
  struct Sizing {                                                                         \
    TABLES(KEL_POND_TABLE_SIZING)                                                         \
    template <class F>                                                                    \
    void forEach(F&& f) {                                                                 \
      TABLES(KEL_POND_TABLE_SIZING_EACH)                                                  \
    }                                                                                     \
  };                                                                                      \
  static Sizing sizingFor(::Pond::Role role) {                                            \
    Sizing sizing;                                                                        \
    if (role == ::Pond::Role::reader) {                                                   \
      sizing.forEach([](std::string_view, ::Pond::TableSizing& s) { s.capacity = 0; });   \
    }                                                                                     \
    return sizing;                                                                        \
  }                                                                                       \
  void mountGroupIs(::Kel::Ptr<::Pond::MountGroup> group) {                               \
    mountGroupIs(std::move(group), Sizing());                                             \
  }                                                                                       \
  void mountGroupIs(::Kel::Ptr<::Pond::MountGroup> group, const Sizing& sizing,          \
                    ::KelPond::Changes changes = ::KelPond::Changes::followed) {          \
    if (group == kelMountGroup_) {                                                        \
      return;                                                                             \
    }                                                                                     \
    kelMountGroup_ = std::move(group);                                                    \
    TABLES(KEL_POND_TABLE_MOUNT)                                                          \
    kelNotify(&NotifieeConst::onMountGroup);                                              \
  }                                                                                       \
  const ::Kel::Ptr<::Pond::MountGroup>& mountGroup() const noexcept {                     \
    return kelMountGroup_;                                                                \
  }                                                                                       \
  template <class F>                                                                      \
  void tableForEach(F&& f) const {                                                        \
    TABLES(KEL_POND_TABLE_REF)                                                            \
  }                                                                                       \
  /* Every table's corruption handler (Pond::TableCore), for the tables mounted now. */   \
  void tableCorruptionHandlerIs(const std::function<void(const std::string&)>& handler) {  \
    TABLES(KEL_POND_TABLE_CORRUPTION)                                                     \
  }                                                                                       \
  /* The sum of the tables' versions: unchanged, no table changed. */                    \
  uint64_t tableVersions() const {                                                        \
    uint64_t sum = 0;                                                                     \
    tableForEach([&](const auto& ref) { sum += ref.version(); });                         \
    return sum;                                                                           \
  }                                                                                       \
  void dumpTables(::Kel::DumpContext& context, int indent) const {                        \
    tableForEach([&](const auto& ref) { ::KelPond::dumpRows(context, indent, ref); });    \
  }                                                                                       \
                                                                                          \
 private:                                                                                 \
  ::Kel::Ptr<::Pond::MountGroup> kelMountGroup_;                                          \
                                                                                          \
 public:
