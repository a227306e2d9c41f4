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

Tables::Tables(Kel::Ptr<Pond::MountGroup> group, Handlers handlers, std::string what,
               const Pond::TableSizing& sizing, std::string_view typeName)
    : group_(std::move(group)), what_(std::move(what)), handlers_(std::move(handlers)) {
  const bool writer = group_->role() == Pond::Role::writer;
  auto add = [&](const std::string& name, const Pond::TableSizing& s, const TableOps* ops) {
    auto slot = std::make_unique<Slot>();
    slot->name = name;
    slot->table = std::make_unique<Table>(group_, name, writer ? s : Pond::TableSizing{0});
    slot->ops = ops;
    tables_.emplace(name, std::move(slot));
  };
  Pond::TableSizing meta;
  meta.capacity = 4;
  add(std::string(kMeta), meta, nullptr);
  if (const std::string held = this->typeName(); writer && !typeName.empty() && !held.empty() &&
                                                  held != typeName) {
    throw Error(fmt::format("{} holds a {}, not a {}", what_, held, typeName));
  }
  for (const auto& [name, ops] : handlers_) {
    add(name, sizing, &ops);
  }
}

Tables::Slot& Tables::slot(std::string_view name) const {
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
  Table& t = *slot(table).table;
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
    slot(table).table->erase(StoredKey::of(key));
  }
}

bool Tables::has(std::string_view table, std::string_view key) const {
  return StoredKey::fits(key) && slot(table).table->contains(StoredKey::of(key));
}

bool Tables::allOpened() const {
  for (const auto& [name, slot] : tables_) {
    if (!slot->table->opened()) {
      return false;
    }
  }
  return true;
}

std::string Tables::typeName() const {
  StoredRecord r;
  return slot(kMeta).table->find(kTypeNameKey, r) ? r.value() : std::string();
}

void Tables::typeNameIs(std::string_view name) {
  slot(kMeta).table->upsert(StoredRecord(kTypeNameKey, std::string(name)));
}

namespace {

void applyBytes(const TableOps& ops, const std::string& what, const std::string& table,
                const StoredKey& key, const std::string* value) {
  const std::string_view bytes = key.view();
  Kel::ByteReader in(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  try {
    ops.apply(in, value);
  } catch (const Kel::Exception& e) {
    Kel::log(STATEHUB_ROW_UNREADABLE, fmt::format("{}: a row of table {} does not decode: {}",
                                                  what, Kel::quoted(table), e.what()));
  }
}

}  // namespace

void Tables::applyRow(const Slot& slot, const StoredKey& key) {
  const bool present = slot.table->find(key, scratch_);
  applyBytes(*slot.ops, what_, slot.name, key, present ? &scratch_.value() : nullptr);
}

void Tables::applyAll(const std::string* table) {
  for (const auto& [name, slot] : tables_) {
    if (slot->ops && (!table || *table == name)) {
      slot->table->forEach([&](const StoredRecord& r) {
        applyBytes(*slot->ops, what_, name, r.key(), &r.value());
      });
    }
  }
}

void Tables::prune(const Slot& slot) {
  std::vector<StoredKey> gone;
  slot.ops->keys([&](std::string_view key) {
    if (StoredKey::fits(key)) {
      const StoredKey k = StoredKey::of(key);
      if (!slot.table->contains(k)) {
        gone.push_back(k);
      }
    }
  });
  for (const StoredKey& k : gone) {
    applyRow(slot, k);
  }
}

void Tables::followChanges(std::function<bool()> live,
                           std::function<void(const std::string&)> opened) {
  for (const auto& [name, slotPtr] : tables_) {
    Slot* s = slotPtr.get();
    if (s->ops) {
      s->table->changeHandlerIs(
          [this, s, live](const StoredKey& k) {
            if (live()) {
              applyRow(*s, k);
            }
          },
          false);
      s->table->resyncHandlerIs([this, s, live] {
        if (live()) {
          prune(*s);
        }
      });
    }
    if (!s->ops) {
      s->table->changeHandlerIs([opened, s](const StoredKey&) { opened(s->name); });
    }
    s->table->mountHandlerIs([opened, s] { opened(s->name); });
  }
}

}  // namespace Statehub::internal
