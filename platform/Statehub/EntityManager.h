// Statehub: the state database. Entities are published and mounted by path ("mpls/config",
// "mpls/labelRequest/bgp"), across processes, and outlive their publishers.
//
// A process has one Statehub::EntityManager per instance of the database it uses (the
// instance "default" unless the program is told another one, so that instances run side
// by side). Through it:
//   - publish(path, entity) makes the process the path's one publisher: every change of
//     the entity (attributes, collections, nested entity collections) is published as it
//     is made. What a previous publisher of the path left is loaded into the entity first:
//     a restarted publisher finds its state, and what it then changes reaches readers as
//     ordinary changes. A second live publisher of a path is refused
//     (PublisherExistsError), and so is an entity of another type than the path holds, or
//     an entity published already. A change the tables cannot take (a table full, a key
//     of more than 60 bytes in binary form) throws Statehub::Error from the setter that
//     made it: the entity keeps the change, readers do not see it.
//   - mount(path, entity) fills `entity` as a live replica of what is published at the
//     path, with the same notifications as the original. The mount is pending until the
//     path's state has been read, then complete (Mount::status, with a notification); a
//     path that nobody published yet stays pending until it appears.
//   - mountDir(path) follows a directory (the manager must outlive it): the entities published at "<path>/<name>", each
//     possibly by another process, appear in a Kel::Dir's entityPtr collection once mounted
//     and leave it when they are removed.
// Any entity type declared with the framework's macros and named with KEL_ENTITY can be
// published and mounted: its storage is derived from its attribute descriptors.
//
// Storage is Pond's: one mount group per path, named "statehub/<instance>/<path>", its
// attributes as tables. Published state stays in shared memory when its publisher exits
// or is killed; remove(path) takes it away.
//
// Driving: given an event loop, publications wake their readers after every iteration and
// mounts follow their paths from the loop. Without one, call Publication::flush() and
// Mount::processChanges() (DirMount::processChanges()).
#pragma once

#include <functional>
#include <type_traits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/Enum.h"
#include "Kel/EventLoop.h"
#include "Pond/MountGroup.h"
#include "Pond/TableSizing.h"
#include "Statehub/Error.h"
#include "Statehub/internal/Mirror.h"

namespace Pond {
class GroupWatch;
}

namespace Statehub {

namespace internal {
class Tables;
}

KEL_ENUM(MountStatus, "Statehub::MountStatus",
         (mountPending, 0),
         (mountComplete, 1),
         (mountFailed, 2));

class EntityManager;

// One published entity. Dropping it stops publishing; what was published stays.
class Publication : public Kel::Entity {
 public:
  KEL_ENTITY(Publication, "Statehub::Publication");
  using Ptr = Kel::Ptr<Publication>;
  class NotifieeConst : public Kel::NotifieeOf<Publication> {};
  ~Publication() override;

  const std::string& path() const noexcept { return path_; }
  // Wakes the readers for what changed since the last call.
  void flush();

 private:
  friend class EntityManager;
  // `presence` is set to look in the publication's tables. Throws Statehub::Error, having
  // created nothing, when the path holds another type than `typeName`.
  Publication(std::string path, Kel::Ptr<Pond::MountGroup> group, internal::Handlers handlers,
              const internal::PresencePtr& presence, const std::string& what,
              const Pond::TableSizing& sizing, std::string_view typeName);
  void start(std::string_view typeName, std::unique_ptr<internal::PublisherBase> publisher,
             Kel::EventLoop* loop);

  std::string path_;
  Kel::Ptr<Pond::MountGroup> group_;
  std::unique_ptr<internal::Tables> tables_;
  std::unique_ptr<internal::PublisherBase> publisher_;  // before tables_ in destruction
};

// A replica of what is published at one path.
class MountBase : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<MountBase> {
   public:
    virtual void onStatus() {}
  };
  ~MountBase() override;

  KEL_ATTR(MountStatus, status, Status)
  const std::string& path() const noexcept { return path_; }
  // Why the mount failed (mountFailed): the path holds another entity type.
  const std::string& error() const noexcept { return error_; }
  // Without an event loop: applies what changed; returns how many rows changed.
  size_t processChanges();

 protected:
  // `presence` is set to look in the mount's tables.
  MountBase(std::string path, std::string what, std::string_view typeName,
            Kel::Ptr<Pond::MountGroup> group, internal::Handlers handlers,
            const internal::PresencePtr& presence, Kel::EventLoop* loop);

 private:
  void opened(const std::string& table);
  void checkComplete();

  std::string path_;
  std::string what_;
  std::string typeName_;
  std::string error_;
  Kel::Ptr<Pond::MountGroup> group_;
  std::unique_ptr<internal::Tables> tables_;
  class GroupReactor;
  std::unique_ptr<GroupReactor> groupReactor_;
};

template <class E>
class Mount final : public MountBase {
 public:
  using Ptr = Kel::Ptr<Mount<E>>;
  // The replica.
  const Kel::Ptr<E>& entity() const noexcept { return entity_; }

 private:
  friend class EntityManager;
  Mount(std::string path, std::string what, Kel::Ptr<Pond::MountGroup> group, Kel::Ptr<E> entity,
        Kel::EventLoop* loop,
        internal::PresencePtr presence = std::make_shared<internal::Presence>())
      : MountBase(std::move(path), std::move(what), E::kelTypeName, std::move(group),
                  internal::handlersOf<E>(entity.get(), presence), presence, loop),
        entity_(std::move(entity)) {}
  Kel::Ptr<E> entity_;
};

// A directory of entities of type E: what is published at "<path>/<name>", by name.
class DirMountBase : public Kel::Entity {
 public:
  ~DirMountBase() override;
  const Kel::Ptr<Kel::Dir>& dir() const noexcept { return dir_; }
  // Without an event loop: follows entries appearing and going, and their changes.
  size_t processChanges();

 protected:
  DirMountBase(EntityManager& manager, std::string path);
  void start();
  EntityManager& manager() const noexcept { return manager_; }
  // A mount of the entry `name` at `path`.
  virtual Kel::Ptr<MountBase> mountEntry(const std::string& path, const std::string& name) = 0;
  virtual Kel::Ptr<Kel::Entity> entryEntity(const MountBase& mount) const = 0;

 private:
  class EntryReactor;
  void entryIs(const std::string& group, bool present);

  EntityManager& manager_;
  std::string path_;
  Kel::Ptr<Kel::Dir> dir_;
  std::unique_ptr<Pond::GroupWatch> watch_;
  std::map<std::string, std::unique_ptr<EntryReactor>> entries_;
};

template <class E>
class DirMount final : public DirMountBase {
 public:
  using Ptr = Kel::Ptr<DirMount<E>>;
  using Factory = std::function<Kel::Ptr<E>(const std::string& name)>;

 private:
  friend class EntityManager;
  DirMount(EntityManager& manager, std::string path, Factory factory)
      : DirMountBase(manager, std::move(path)), factory_(std::move(factory)) {}
  Kel::Ptr<MountBase> mountEntry(const std::string& path, const std::string& name) override;
  Kel::Ptr<Kel::Entity> entryEntity(const MountBase& mount) const override {
    return static_cast<const Mount<E>&>(mount).entity();
  }
  Factory factory_;
};

class EntityManager : public Kel::Entity {
 public:
  KEL_ENTITY(EntityManager, "Statehub::EntityManager");
  using Ptr = Kel::Ptr<EntityManager>;
  class NotifieeConst : public Kel::NotifieeOf<EntityManager> {};

  // Throws Statehub::Error for a malformed instance name.
  explicit EntityManager(std::string instance = "default", Kel::EventLoop* loop = nullptr);

  const std::string& instance() const noexcept { return instance_; }
  Kel::EventLoop* loop() const noexcept { return loop_; }

  // The table sizes of a publication: rows per collection (nested ones count the rows of
  // all their entities), and the largest value.
  static Pond::TableSizing defaultSizing();

  template <Kel::DescribedEntity E>
  Publication::Ptr publish(std::string_view path, const Kel::Ptr<E>& entity,
                           const Pond::TableSizing& sizing = defaultSizing()) {
    const std::string what = describe(path);
    if (entity->kelObserver()) {
      throw Error(fmt::format("{}: the entity is published already, at another path (an "
                              "entity has one publisher)", what));
    }
    const auto presence = std::make_shared<internal::Presence>();
    Publication::Ptr p(new Publication(std::string(path), writerGroup(path, what),
                                       internal::handlersOf<E>(entity.get(), presence), presence,
                                       what, sizing, E::kelTypeName));
    p->start(E::kelTypeName,
             std::make_unique<internal::Publisher<E>>(*publicationSink(*p), "", "", entity),
             loop_);
    return p;
  }

  template <Kel::DescribedEntity E>
  typename Mount<E>::Ptr mount(std::string_view path, Kel::Ptr<E> replica) {
    const std::string what = describe(path);
    return typename Mount<E>::Ptr(
        new Mount<E>(std::string(path), what, readerGroup(path), std::move(replica), loop_));
  }
  template <Kel::DescribedEntity E>
  typename Mount<E>::Ptr mount(std::string_view path) {
    return mount<E>(path, Kel::make<E>());
  }

  template <Kel::DescribedEntity E>
  typename DirMount<E>::Ptr mountDir(std::string_view path,
                                     typename DirMount<E>::Factory factory = nullptr) {
    describe(path);
    if constexpr (std::is_default_constructible_v<E>) {
      if (!factory) {
        factory = [](const std::string&) { return Kel::make<E>(); };
      }
    }
    if (!factory) {
      throw Error(fmt::format("{}: {} needs a factory of its entries", describe(path),
                              E::kelTypeName));
    }
    typename DirMount<E>::Ptr d(new DirMount<E>(*this, std::string(path), std::move(factory)));
    d->start();
    return d;
  }

  // The paths published in this instance under `prefix` (all of them for ""), sorted.
  std::vector<std::string> paths(std::string_view prefix = "") const;
  // Whether something is published at `path`.
  bool published(std::string_view path) const;
  // The entity type published at `path` ("Mpls::Config"); "" when nothing is.
  std::string typeNameAt(std::string_view path) const;
  // Removes what is published at `path`; false when nothing was. Its publisher, if alive,
  // keeps writing to its own copy, which nobody sees any more.
  bool remove(std::string_view path);
  // Removes everything published in `instance`; returns how many paths.
  static size_t clear(std::string_view instance);

  // "path 'mpls/config' of statehub 'default'"; throws Statehub::Error naming a malformed
  // path ("use components of 1 to 64 letters, digits, '_' and '-' separated by '/'").
  std::string describe(std::string_view path) const;
  // The Pond mount group of `path`.
  std::string groupName(std::string_view path) const;

 private:
  Kel::Ptr<Pond::MountGroup> writerGroup(std::string_view path, const std::string& what) const;
  Kel::Ptr<Pond::MountGroup> readerGroup(std::string_view path) const;
  static internal::Sink* publicationSink(Publication& p);

  std::string instance_;
  Kel::EventLoop* loop_;
};

template <class E>
Kel::Ptr<MountBase> DirMount<E>::mountEntry(const std::string& path, const std::string& name) {
  return manager().mount<E>(path, factory_(name));
}

}  // namespace Statehub
