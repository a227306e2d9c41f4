// Cli::Session::Session: one configuration session. It holds candidate copies of running
// configuration entities, by path; the caller edits the candidates, and commit() copies
// each onto its running entity through the copy service (Cli::Session::EntityCopy), which
// asks the registered copy handlers first. Until then the running configuration, and its
// readers, see nothing of the session.
//
//   auto session = Cli::Session::sessionFactory("s1", entityCopy);
//   auto input = session->candidateIs("routing/mpls/route/input/cli", running);
//   input->routeDel(key);
//   for (const auto& done : session->commit()) { ... done.path, done.byHandler ... }
//
// Life: a session is open until commit() or abort(); then it holds nothing and refuses
// further use (Kel::InternalException). It holds its candidates and the running entities
// they were taken from; the caller owns the running entities too.
//
// Single-threaded: used on the reactor thread that owns the running configuration.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

#include "Kel/Entity.h"
#include "Kel/Enum.h"
#include "Kel/Exception.h"
#include "Kel/Ptr.h"
#include "Session/EntityCopy.h"

namespace Cli::Session {

KEL_ENUM(SessionState, "Cli::Session::SessionState",
         (sessionOpen, 0),
         (sessionCommitted, 1),
         (sessionAborted, 2));

// What commit() did for one path.
struct CommitEntry {
  std::string path;
  bool byHandler = false;  // a copy handler did the copy, not the generic copy
  friend bool operator==(const CommitEntry&, const CommitEntry&) = default;
};

class Session : public Kel::Entity {
 public:
  KEL_ENTITY(Session, "Cli::Session::Session");
  using Ptr = Kel::Ptr<Session>;
  // Makes the empty entity into which a candidate of `running` is copied.
  template <class E>
  using Factory = std::function<Kel::Ptr<E>(const E& running)>;

  // `entityCopy` must not be null.
  Session(std::string name, EntityCopy::Ptr entityCopy);

  const std::string& name() const noexcept { return name_; }
  SessionState state() const noexcept { return state_; }

  // The candidate of `path`, taken from `running` on the first call: a new E (from
  // `factory`; else E(), or E(running->name()) for an entity constructed from its name)
  // into which running is copied whole by the generic copy. A later call for the same
  // path returns the candidate it made. Throws Kel::InternalException when the session is
  // not open, when `running` is null, or when the path already holds a candidate of
  // another running entity.
  template <Kel::DescribedEntity E>
  Kel::Ptr<E> candidateIs(const std::string& path, const Kel::Ptr<E>& running,
                          Factory<E> factory = nullptr);
  // The candidate of `path`; null when there is none (or, typed, of another type).
  Kel::Ptr<Kel::Entity> candidate(const std::string& path) const;
  template <class E>
  Kel::Ptr<E> candidate(const std::string& path) const {
    return Kel::ptrDynamicCast<E>(candidate(path));
  }
  size_t candidates() const noexcept { return entries_.size(); }
  // Drops the candidate of `path`, if any: commit() leaves that entity alone.
  void candidateDel(const std::string& path);

  // Copies every candidate onto its running entity, in path order, and closes the
  // session; returns, per path, whether a handler did the copy. When a copy throws, the
  // exception passes through and the session stays open with all its candidates: the
  // entities copied before it keep their new state.
  std::vector<CommitEntry> commit();
  // Drops every candidate and closes the session. Throws when it is not open.
  void abort();

 private:
  struct Entry {
    Kel::Ptr<Kel::Entity> running;
    Kel::Ptr<Kel::Entity> candidate;
  };
  void checkOpen() const;
  // The entry of `path`, which must hold `running`; null when there is none.
  const Entry* entryOf(const std::string& path, const Kel::Entity* running) const;

  std::string name_;
  EntityCopy::Ptr entityCopy_;
  SessionState state_ = sessionOpen;
  std::map<std::string, Entry> entries_;
};

inline Session::Ptr sessionFactory(std::string name, EntityCopy::Ptr entityCopy) {
  return Kel::make<Session>(std::move(name), std::move(entityCopy));
}

template <Kel::DescribedEntity E>
Kel::Ptr<E> Session::candidateIs(const std::string& path, const Kel::Ptr<E>& running,
                                 Factory<E> factory) {
  if (const Entry* entry = entryOf(path, running.get())) {
    return Kel::ptrCast<E>(entry->candidate);
  }
  Kel::Ptr<E> made;
  if (factory) {
    made = factory(*running);
  } else if constexpr (std::is_default_constructible_v<E>) {
    made = Kel::make<E>();
  } else if constexpr (requires { E(running->name()); }) {
    made = Kel::make<E>(running->name());
  }
  KEL_ASSERT(made, fmt::format("no candidate made for {} (a {} needs a factory)", path,
                               E::kelTypeName));
  entityCopy_->registerType<E>();
  entityCopy_->doCopyEntityAttrs(*made, *running);
  entries_[path] = Entry{running, made};
  return made;
}

}  // namespace Cli::Session
