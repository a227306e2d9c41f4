#include "Statehub/internal/Tables.h"

#include <fmt/format.h>

#include "Kel/Log.h"
#include "Kel/Quote.h"
#include "Pond/Exception.h"
#include "Statehub/Error.h"

namespace Statehub::internal {

namespace {

KEL_LOG_MESSAGE(STATEHUB_ROW_UNREADABLE, "STATEHUB", "ROW_UNREADABLE", Kel::LogSeverity::error,
                "{}",
                "A process mounting an entity of the state database found a row that does not "
                "decode as the entity's attribute, and left the attribute as it was.",
                "Check that the publisher and the reader were built from the same types.");

const StoredKey kTypeNameKey = StoredKey::of(Kel::encoded(uint32_t{0}));

}  // namespace

Tables::Tables(Kel::Ptr<Pond::MountGroup> group, const Handlers& handlers, std::string what,
               const Pond::TableSizing& sizing, std::string_view typeName)
    : group_(std::move(group)), what_(std::move(what)) {
  const bool writer = group_->role() == Pond::Role::writer;
  auto add = [&](const std::string& name, const Pond::TableSizing& s) {
    tables_.emplace(name, std::make_unique<Table>(group_, name, writer ? s : Pond::TableSizing{0}));
  };
  Pond::TableSizing meta;
  meta.capacity = 4;
  add(std::string(kMeta), meta);
  if (const std::string held = this->typeName(); writer && !typeName.empty() && !held.empty() &&
                                                  held != typeName) {
    throw Error(fmt::format("{} holds a {}, not a {}", what_, held, typeName));
  }
  for (const auto& [name, handler] : handlers) {
    add(name, sizing);
  }
}

Table& Tables::table(std::string_view name) const {
  auto it = tables_.find(name);
  if (it == tables_.end()) {
    throw Error(fmt::format("{} has no table {}", what_, Kel::quoted(name)));
  }
  return *it->second;
}

void Tables::put(std::string_view table, std::string_view key, std::string_view value) {
  if (!StoredKey::fits(key)) {
    throw Error(fmt::format("{}: a key of {} takes {} bytes, more than the {} a key may take",
                            what_, Kel::quoted(table), key.size(), StoredKey::kMaxBytes));
  }
  Table& t = this->table(table);
  const StoredKey k = StoredKey::of(key);
  if (skipUnchanged_) {
    StoredRecord held;
    if (t.find(k, held) && held.value() == value) {
      return;
    }
  }
  try {
    t.upsert(StoredRecord(k, std::string(value)));
  } catch (const Pond::TableFullException& e) {
    throw Error(fmt::format("{}: {}", what_, e.what()));
  } catch (const Kel::SizeError& e) {
    throw Error(fmt::format("{}: a value of {} takes {} bytes, more than the {} a value may "
                            "take", what_, Kel::quoted(table), value.size(),
                            StoredRecord::kMaxLen - 1 - key.size()));
  }
}

void Tables::erase(std::string_view table, std::string_view key) {
  if (StoredKey::fits(key)) {
    this->table(table).erase(StoredKey::of(key));
  }
}

bool Tables::has(std::string_view table, std::string_view key) const {
  return StoredKey::fits(key) && this->table(table).contains(StoredKey::of(key));
}

bool Tables::allOpened() const {
  for (const auto& [name, table] : tables_) {
    if (!table->opened()) {
      return false;
    }
  }
  return true;
}

std::string Tables::typeName() const {
  StoredRecord r;
  return table(kMeta).find(kTypeNameKey, r) ? r.value() : std::string();
}

void Tables::typeNameIs(std::string_view name) {
  table(kMeta).upsert(StoredRecord(kTypeNameKey, std::string(name)));
}

void Tables::apply(const Handlers& handlers, const std::string& table, const StoredKey* key) const {
  auto handler = handlers.find(table);
  if (handler == handlers.end()) {
    return;
  }
  auto one = [&](const StoredKey& k, const std::string* value) {
    const std::string_view bytes = k.view();
    Kel::ByteReader in(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    try {
      handler->second(in, value);
    } catch (const Kel::Exception& e) {
      Kel::log(STATEHUB_ROW_UNREADABLE,
               fmt::format("{}: a row of table {} does not decode: {}", what_, Kel::quoted(table),
                           e.what()));
    }
  };
  const Table& t = this->table(table);
  if (key) {
    StoredRecord r;
    const bool present = t.find(*key, r);
    one(*key, present ? &r.value() : nullptr);
  } else {
    t.forEach([&](const StoredRecord& r) { one(r.key(), &r.value()); });
  }
}

void Tables::handlersIs(std::function<void(const std::string&, const StoredKey&)> changed,
                        std::function<void(const std::string&)> opened) {
  for (const auto& [name, table] : tables_) {
    table->changeHandlerIs([changed, &name](const StoredKey& k) { changed(name, k); });
    table->mountHandlerIs([opened, &name] { opened(name); });
  }
}

}  // namespace Statehub::internal
