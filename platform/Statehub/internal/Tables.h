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
  Tables(Kel::Ptr<Pond::MountGroup> group, const Handlers& handlers, std::string what,
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

  // Applies the row of `key` in `table`, as the table holds it now, through `handlers`.
  // A row that does not decode is reported and skipped. Every row of the table when `key`
  // is null.
  void apply(const Handlers& handlers, const std::string& table, const StoredKey* key) const;
  // Readers: `changed(table, key)` for every changed row; `opened(table)` when a table
  // opens (its rows are not announced one by one then).
  void handlersIs(std::function<void(const std::string&, const StoredKey&)> changed,
                  std::function<void(const std::string&)> opened);

  const Kel::Ptr<Pond::MountGroup>& group() const noexcept { return group_; }
  const std::string& what() const noexcept { return what_; }

 private:
  Table& table(std::string_view name) const;

  Kel::Ptr<Pond::MountGroup> group_;
  std::string what_;
  std::map<std::string, std::unique_ptr<Table>, std::less<>> tables_;
  bool skipUnchanged_ = false;
};

}  // namespace Statehub::internal
