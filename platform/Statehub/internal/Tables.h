// The Pond tables of one entity at one path (see Store.h), for its publisher or for one
// of its readers. Internal to platform/Statehub.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Pond/MountGroup.h"
#include "Pond/PondMap.h"
#include "Statehub/internal/Mirror.h"
#include "Statehub/internal/Store.h"

namespace Statehub::internal {

using Table = Pond::PondMap<StoredKey, StoredRecord>;

class Tables final : public Sink {
 public:
  // `what` names the entity in errors ("path 'mpls/config' of statehub 'default'"). A
  // writer given `typeName` refuses (Statehub::Error) a group that holds another type,
  // before it creates any table of its own there.
  Tables(Kel::Ptr<Pond::MountGroup> group, Handlers handlers, std::string what,
         const Pond::TableSizing& sizing = {}, std::string_view typeName = {});

  // Writer. Throws Statehub::Error naming the path and table when a key is too long or a
  // table full.
  void put(std::string_view table, std::string_view key, std::string_view value) override;
  void erase(std::string_view table, std::string_view key) override;
  // While true, put() leaves rows that already hold the value alone: a restarted
  // publisher rewriting what it loaded changes nothing that readers would hear of.
  void skipUnchangedIs(bool skip) noexcept { skipUnchanged_ = skip; }

  // Whether `table` holds a row under `key`.
  bool has(std::string_view table, std::string_view key) const;
  // Whether every table is open (readers: they appear with the publisher).
  bool allOpened() const;
  // The type name the publisher wrote; empty while unknown.
  std::string typeName() const;
  void typeNameIs(std::string_view name);

  // Applies every row of `table` as it holds it now to the entity (a row that does not
  // decode is reported and skipped); every row of every table when `table` is null.
  void applyAll(const std::string* table = nullptr);
  // Readers: applies every changed row while `live()`; after a resync, also the removal
  // of the rows the replica holds and the table no longer does. `opened(table)` when a
  // table opens (its rows are not announced one by one then), and for every change of the
  // meta table (the publisher writes the type name after it made the tables).
  void followChanges(std::function<bool()> live, std::function<void(const std::string&)> opened);

  const Kel::Ptr<Pond::MountGroup>& group() const noexcept { return group_; }
  const std::string& what() const noexcept { return what_; }

 private:
  struct Slot {
    std::string name;
    std::unique_ptr<Table> table;
    const TableOps* ops = nullptr;  // null for the meta table
  };
  Slot& slot(std::string_view name) const;
  // Applies the row of `key` as `slot`'s table holds it now (null: the row is gone).
  void applyRow(const Slot& slot, const StoredKey& key);
  void prune(const Slot& slot);

  Kel::Ptr<Pond::MountGroup> group_;
  std::string what_;
  Handlers handlers_;
  std::map<std::string, std::unique_ptr<Slot>, std::less<>> tables_;
  StoredRecord scratch_;  // keeps its value's buffer from row to row
  bool skipUnchanged_ = false;
};

}  // namespace Statehub::internal
