#include "Statehub/EntityManager.h"

#include <fmt/format.h>

#include "Kel/Quote.h"
#include "Pond/Exception.h"
#include "Pond/GroupWatch.h"
#include "Statehub/internal/Tables.h"

namespace Statehub {

namespace {

constexpr std::string_view kRoot = "statehub";

bool validComponent(std::string_view c) {
  if (c.empty() || c.size() > 64) {
    return false;
  }
  for (char ch : c) {
    if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
          ch == '_' || ch == '-')) {
      return false;
    }
  }
  return true;
}

bool validPath(std::string_view path) {
  if (path.empty()) {
    return false;
  }
  size_t start = 0;
  while (true) {
    const size_t slash = path.find('/', start);
    if (!validComponent(path.substr(start, slash - start))) {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    start = slash + 1;
  }
}

// The longest path: Pond's group names take 255 characters, "statehub/<instance>/" first.
size_t maxPathLength(std::string_view instance) { return 255 - kRoot.size() - 2 - instance.size(); }

}  // namespace

// ---------------------------------------------------------------------------------------
// Publication

namespace {

// Where a nested entity's row checks that the entity is still there.
internal::Presence presenceIn(const internal::Tables& tables) {
  return [&tables](std::string_view table, std::string_view key) { return tables.has(table, key); };
}

}  // namespace

Publication::Publication(std::string path, Kel::Ptr<Pond::MountGroup> group,
                         internal::Handlers handlers,
                         const internal::PresencePtr& presence, const std::string& what,
                         const Pond::TableSizing& sizing, std::string_view typeName)
    : path_(std::move(path)), group_(std::move(group)) {
  tables_ = std::make_unique<internal::Tables>(group_, std::move(handlers), what, sizing, typeName);
  *presence = presenceIn(*tables_);
}

Publication::~Publication() {
  publisher_.reset();
  if (group_) {
    group_->loopIs(nullptr);
    group_->publish();
  }
}

void Publication::start(std::string_view typeName,
                        std::unique_ptr<internal::PublisherBase> publisher, Kel::EventLoop* loop) {
  // What a previous publisher left, into the entity; then the entity, as it now stands,
  // into the tables.
  tables_->applyAll();
  tables_->typeNameIs(typeName);
  publisher_ = std::move(publisher);
  tables_->skipUnchangedIs(true);
  publisher_->start();
  tables_->skipUnchangedIs(false);
  group_->publish();
  if (loop) {
    group_->loopIs(loop);
  }
}

void Publication::flush() { group_->publish(); }

// ---------------------------------------------------------------------------------------
// MountBase

// Hears of the group becoming ready (its publisher's first publish).
class MountBase::GroupReactor : public Pond::MountGroup::NotifieeConst {
 public:
  GroupReactor(MountBase* mount, const Kel::Ptr<Pond::MountGroup>& group) : mount_(mount) {
    notifierIs(group);
  }
  void onReady() override { mount_->checkComplete(); }

 private:
  MountBase* mount_;
};

MountBase::MountBase(std::string path, std::string what, std::string_view typeName,
                     Kel::Ptr<Pond::MountGroup> group, internal::Handlers handlers,
                     const internal::PresencePtr& presence, Kel::EventLoop* loop)
    : path_(std::move(path)),
      what_(std::move(what)),
      typeName_(typeName),
      group_(std::move(group)),
      tables_(std::make_unique<internal::Tables>(group_, std::move(handlers), what_)) {
  *presence = presenceIn(*tables_);
  tables_->followChanges([this] { return status() != mountFailed; },
                         [this](const std::string& table) { opened(table); });
  groupReactor_ = std::make_unique<GroupReactor>(this, group_);
  if (loop) {
    group_->loopIs(loop);
  }
  checkComplete();
}

MountBase::~MountBase() {
  groupReactor_.reset();
  group_->loopIs(nullptr);
}

void MountBase::opened(const std::string& table) {
  if (table == internal::kMeta) {
    checkComplete();
    return;
  }
  if (status() != mountFailed) {
    tables_->applyAll(&table);
  }
  checkComplete();
}

void MountBase::checkComplete() {
  if (status() != mountPending) {
    return;
  }
  const std::string held = tables_->typeName();
  if (!held.empty() && held != typeName_) {
    error_ = fmt::format("{} holds a {}, not a {}", what_, held, typeName_);
    statusIs(mountFailed);
    return;
  }
  if (group_->ready() && tables_->allOpened() && !held.empty()) {
    statusIs(mountComplete);
  }
}

size_t MountBase::processChanges() {
  const size_t n = group_->processChanges();
  checkComplete();
  return n;
}

// ---------------------------------------------------------------------------------------
// DirMountBase

// One entry of a directory: its mount, and what puts its entity in the directory once the
// mount is complete.
class DirMountBase::EntryReactor : public MountBase::NotifieeConst {
 public:
  EntryReactor(DirMountBase* dir, std::string name, Kel::Ptr<MountBase> mount)
      : dir_(dir), name_(std::move(name)) {
    notifierIs(mount);
    onStatus();
  }
  void onStatus() override {
    if (notifier()->status() == mountComplete) {
      dir_->dir_->entityPtrIs(Kel::String(name_), dir_->entryEntity(*notifier()));
    }
  }
  MountBase& mount() const { return const_cast<MountBase&>(*notifier()); }

 private:
  DirMountBase* dir_;
  std::string name_;
};

DirMountBase::DirMountBase(EntityManager& manager, std::string path)
    : manager_(manager), path_(std::move(path)), dir_(Kel::dirFactory(path_)) {}

DirMountBase::~DirMountBase() {
  entries_.clear();
  if (watch_) {
    watch_->loopIs(nullptr);
  }
}

void DirMountBase::start() {
  watch_ = std::make_unique<Pond::GroupWatch>(manager_.groupName(path_));
  watch_->handlerIs([this](const std::string& group, bool present) { entryIs(group, present); });
  for (const std::string& group : watch_->groups()) {
    entryIs(group, true);
  }
  if (manager_.loop()) {
    watch_->loopIs(manager_.loop());
  }
}

void DirMountBase::entryIs(const std::string& group, bool present) {
  // Entries are one component below the directory: "<dir>/<name>", nothing deeper.
  const std::string prefix = manager_.groupName(path_) + "/";
  if (group.size() <= prefix.size() || group.compare(0, prefix.size(), prefix) != 0) {
    return;
  }
  const std::string name = group.substr(prefix.size());
  if (name.find('/') != std::string::npos) {
    return;
  }
  if (!present) {
    entries_.erase(name);
    dir_->entityPtrDel(Kel::String(name));
    return;
  }
  if (!entries_.contains(name)) {
    entries_.emplace(name, std::make_unique<EntryReactor>(this, name,
                                                          mountEntry(path_ + "/" + name, name)));
  }
}

size_t DirMountBase::processChanges() {
  watch_->processEvents();
  size_t n = 0;
  for (auto& [name, entry] : entries_) {
    n += entry->mount().processChanges();
  }
  return n;
}

// ---------------------------------------------------------------------------------------
// EntityManager

EntityManager::EntityManager(std::string instance, Kel::EventLoop* loop)
    : instance_(std::move(instance)), loop_(loop) {
  if (!validComponent(instance_)) {
    throw Error(fmt::format("invalid statehub instance name {}: use 1 to 64 letters, digits, "
                            "'_' and '-'", Kel::quoted(instance_)));
  }
}

Pond::TableSizing EntityManager::defaultSizing() {
  Pond::TableSizing s;
  s.capacity = 65536;
  return s;
}

std::string EntityManager::describe(std::string_view path) const {
  if (!validPath(path) || path.size() > maxPathLength(instance_)) {
    throw Error(fmt::format("invalid statehub path {}: use components of 1 to 64 letters, "
                            "digits, '_' and '-' separated by '/', at most {} characters",
                            Kel::quoted(path), maxPathLength(instance_)));
  }
  return fmt::format("path '{}' of statehub '{}'", path, instance_);
}

std::string EntityManager::groupName(std::string_view path) const {
  return fmt::format("{}/{}/{}", kRoot, instance_, path);
}

Kel::Ptr<Pond::MountGroup> EntityManager::writerGroup(std::string_view path,
                                                      const std::string& what) const {
  try {
    return Pond::MountGroup::writer(groupName(path));
  } catch (const Pond::WriterExistsError& e) {
    throw PublisherExistsError(fmt::format("{} has a publisher already: {}", what, e.what()));
  } catch (const Pond::SegmentError& e) {
    throw Error(fmt::format("{}: {}", what, e.what()));
  }
}

Kel::Ptr<Pond::MountGroup> EntityManager::readerGroup(std::string_view path) const {
  return Pond::MountGroup::reader(groupName(path));
}

internal::Sink* EntityManager::publicationSink(Publication& p) { return p.tables_.get(); }

std::vector<std::string> EntityManager::paths(std::string_view prefix) const {
  const std::string root = fmt::format("{}/{}", kRoot, instance_);
  std::vector<std::string> out;
  for (const std::string& group :
       Pond::MountGroup::groupsUnder(prefix.empty() ? root : root + "/" + std::string(prefix))) {
    out.push_back(group.substr(root.size() + 1));
  }
  return out;
}

bool EntityManager::published(std::string_view path) const {
  describe(path);
  const std::string group = groupName(path);
  for (const std::string& g : Pond::MountGroup::groupsUnder(group.substr(0, group.rfind('/')))) {
    if (g == group) {
      return true;
    }
  }
  return false;
}

std::string EntityManager::typeNameAt(std::string_view path) const {
  return internal::Tables(readerGroup(path), {}, describe(path)).typeName();
}

bool EntityManager::remove(std::string_view path) {
  describe(path);
  return Pond::MountGroup::removeSegments(groupName(path)) > 0;
}

size_t EntityManager::clear(std::string_view instance) {
  const EntityManager m{std::string(instance)};
  size_t removed = 0;
  for (const std::string& path : m.paths()) {
    removed += Pond::MountGroup::removeSegments(m.groupName(path)) > 0;
  }
  return removed;
}

}  // namespace Statehub
