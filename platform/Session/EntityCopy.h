// Cli::Session::EntityCopy: the copy service of configuration sessions. It copies one
// entity onto another of the same type, attribute by attribute, and lets copy handlers
// take over the copy of the types they know better.
//
// The generic copy (doCopyEntityAttrs) walks the attribute descriptors of the type
// (Kel/Attribute.h), so no type needs copy code of its own:
//   - a scalar is set to the source's value (which announces nothing when it is equal);
//   - a map, a set or a value collection is rewritten blindly: every element of the
//     destination is deleted, then every element of the source written again, each
//     change announced. Equal contents therefore still announce every element twice;
//     this is why a type with a large collection registers a handler that copies it by
//     difference;
//   - an entity collection keeps the destination's children whose keys the source holds
//     (their identity, and the reactors watching them, survive), deletes the others,
//     adds the missing ones (E(key)) and copies each child recursively.
// Entity references held as values (a Kel::Ptr in a scalar or a map) are copied as
// references. Whatever is not a described attribute (constructor arguments such as a
// name) is not copied.
//
// Runtime types. Handlers and sessions hold entities as Kel::Ptr<Kel::Entity>; the service
// finds the copy of the dynamic type in a registry filled by registerType<E>(), which every
// typed entry point (Session::candidateIs<E>, the typed doCopyEntityAttrs) calls, and
// which also registers the types of E's nested entity collections.
//
// Handlers. A handler (EntityCopyHandler) is registered through a handler directory
// (EntityCopyHandlerDir), an entity that holds it; the directory is asked for its handler
// each time one is needed, so a directory whose handler was removed is skipped. copyEntity
// asks the handlers in registration order, and the first that answers true has done the
// copy; when none does, the generic copy runs. During copyEntity the nested entities of a
// generically copied entity go through the handlers as well, each with its own path
// ("<parent path>/<key>").
//
// Ownership: held through Kel::Ptr by the sessions that use it; it holds its handler
// directories. Single-threaded: used on the reactor thread that owns the configuration.
#pragma once

#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "Kel/Attribute.h"
#include "Kel/Entity.h"
#include "Kel/Exception.h"
#include "Kel/Ptr.h"
#include "Session/AttributeFilter.h"

namespace Cli::Session {

class EntityCopy;

// A copy handler: copies entities of the types it knows in its own way.
class EntityCopyHandler : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<EntityCopyHandler>;
  // Copies `source` onto `destination` (both of the same type; `path` names the source
  // in the session) and returns true, or returns false, having changed nothing, for a
  // type it does not handle. `entityCopy` offers the generic copy (doCopyEntityAttrs).
  virtual bool handleEntity(EntityCopy& entityCopy, const Kel::Ptr<Kel::Entity>& destination,
                            const Kel::Ptr<const Kel::Entity>& source,
                            const std::string& path) = 0;
};

// The entity through which a handler is registered with the service.
class EntityCopyHandlerDir : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<EntityCopyHandlerDir>;
  // The handler the directory holds now; null when it holds none.
  virtual EntityCopyHandler::Ptr entityCopyHandler() const = 0;
};

class EntityCopy : public Kel::Entity {
 public:
  KEL_ENTITY(EntityCopy, "Cli::Session::EntityCopy");
  using Ptr = Kel::Ptr<EntityCopy>;

  // Makes entities of type E (and of the types of its nested entity collections) copyable
  // through the runtime entry points. Registering a type again does nothing.
  template <Kel::DescribedEntity E>
  void registerType();
  // Whether the dynamic type of `entity` is registered.
  bool registered(const Kel::Entity& entity) const;

  // The generic copy of `source` onto `destination`, leaving out the attributes that
  // `filter` names (none when null). Copying an entity onto itself does nothing.
  template <Kel::DescribedEntity E>
  void doCopyEntityAttrs(E& destination, const E& source, const AttributeFilter* filter = nullptr);
  // The same for entities known by their dynamic type. Throws Kel::InternalException when
  // either is null, when their types differ, or when the type is not registered.
  void doCopyEntityAttrs(const Kel::Ptr<Kel::Entity>& destination,
                         const Kel::Ptr<const Kel::Entity>& source,
                         const AttributeFilter* filter = nullptr);

  // Appends `dir` to the handler directories; registering it again does nothing.
  void handlerDirIs(const EntityCopyHandlerDir::Ptr& dir);
  // Removes `dir`; does nothing when it is not registered.
  void handlerDirDel(const EntityCopyHandlerDir::Ptr& dir);
  size_t handlerDirs() const noexcept { return handlerDirs_.size(); }

  // Copies `source` (named `path`) onto `destination`: the handlers first, in
  // registration order, then the generic copy. Returns true when a handler did it.
  // Throws as the runtime doCopyEntityAttrs does, and whatever a handler throws (the
  // copy then stops where it was).
  bool copyEntity(const Kel::Ptr<Kel::Entity>& destination,
                  const Kel::Ptr<const Kel::Entity>& source, const std::string& path);

 private:
  struct TypeOps {
    std::string_view typeName;
    void (*copy)(EntityCopy&, Kel::Entity&, const Kel::Entity&, const AttributeFilter*);
    void (*commit)(EntityCopy&, Kel::Entity&, const Kel::Entity&, const std::string&);
  };

  // The registered type name ("Mpls::RouteConfigInput"), else the compiler's.
  std::string typeName(const Kel::Entity& entity) const;
  const TypeOps& opsOf(const Kel::Entity& destination, const Kel::Entity& source) const;
  // Asks the handlers; true when one did the copy.
  bool askHandlers(const Kel::Ptr<Kel::Entity>& destination,
                   const Kel::Ptr<const Kel::Entity>& source, const std::string& path);

  // The generic copy; `path` is set inside copyEntity, where children meet the handlers.
  template <class E>
  void copyAttrs(E& destination, const E& source, const AttributeFilter* filter,
                 const std::string* path);
  template <class A, class E>
  void copyChildren(E& destination, const E& source, const std::string* path);
  template <class A, class E>
  static void rewrite(E& destination, const E& source);

  std::unordered_map<std::type_index, TypeOps> types_;
  std::vector<EntityCopyHandlerDir::Ptr> handlerDirs_;
};

inline EntityCopy::Ptr entityCopyFactory() { return Kel::make<EntityCopy>(); }

template <Kel::DescribedEntity E>
void EntityCopy::registerType() {
  auto [it, inserted] = types_.try_emplace(std::type_index(typeid(E)));
  if (!inserted) {
    return;
  }
  it->second.typeName = E::kelTypeName;
  it->second.copy = [](EntityCopy& self, Kel::Entity& d, const Kel::Entity& s,
                       const AttributeFilter* filter) {
    self.copyAttrs(static_cast<E&>(d), static_cast<const E&>(s), filter, nullptr);
  };
  it->second.commit = [](EntityCopy& self, Kel::Entity& d, const Kel::Entity& s,
                         const std::string& path) {
    self.copyAttrs(static_cast<E&>(d), static_cast<const E&>(s), nullptr, &path);
  };
  Kel::forEachAttr<E>([&](auto attr) {
    using A = decltype(attr);
    if constexpr (A::kind == Kel::AttrKind::entityColl) {
      registerType<typename A::ChildT>();
    }
  });
}

template <Kel::DescribedEntity E>
void EntityCopy::doCopyEntityAttrs(E& destination, const E& source,
                                   const AttributeFilter* filter) {
  copyAttrs(destination, source, filter, nullptr);
}

template <class E>
void EntityCopy::copyAttrs(E& destination, const E& source, const AttributeFilter* filter,
                           const std::string* path) {
  if (&destination == &source) {
    return;
  }
  Kel::forEachAttr<E>([&](auto attr) {
    using A = decltype(attr);
    if (filter && filter->filtered(A::name)) {
      return;
    }
    if constexpr (A::kind == Kel::AttrKind::scalar) {
      A::set(destination, A::get(source));
    } else if constexpr (A::kind == Kel::AttrKind::entityColl) {
      copyChildren<A>(destination, source, path);
    } else {
      rewrite<A>(destination, source);
    }
  });
}

template <class A, class E>
void EntityCopy::rewrite(E& destination, const E& source) {
  using K = typename A::KeyT;
  std::vector<K> old;
  old.reserve(A::size(destination));
  A::forEach(destination, [&](const K& k, const auto&) { old.push_back(k); });
  for (const K& k : old) {
    A::del(destination, k);
  }
  A::forEach(source, [&](const K& k, const auto& v) {
    if constexpr (A::kind == Kel::AttrKind::valueColl) {
      (void)k;
      A::set(destination, v);
    } else {
      A::set(destination, k, v);
    }
  });
}

template <class A, class E>
void EntityCopy::copyChildren(E& destination, const E& source, const std::string* path) {
  using K = typename A::KeyT;
  using C = typename A::ChildT;
  std::vector<K> gone;
  A::forEach(destination, [&](const K& k, const auto&) {
    if (!A::has(source, k)) {
      gone.push_back(k);
    }
  });
  for (const K& k : gone) {
    A::del(destination, k);
  }
  A::forEach(source, [&](const K& k, const Kel::Ptr<C>& from) {
    Kel::Ptr<C> to = A::add(destination, k);
    if (path && !handlerDirs_.empty()) {
      const std::string childPath = fmt::format("{}/{}", *path, k);
      if (askHandlers(to, from, childPath)) {
        return;
      }
      copyAttrs(*to, *from, nullptr, &childPath);
    } else {
      copyAttrs(*to, *from, nullptr, path);
    }
  });
}

}  // namespace Cli::Session
