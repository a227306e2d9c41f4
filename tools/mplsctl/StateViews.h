// What mplsctl shows of an entity of the state database whose type it learns only from
// the path: a mount of the path with the entity's text form, its JSON form and its flat
// lines, for every entity type that mplsctl knows.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

class StateView {
 public:
  virtual ~StateView() = default;
  virtual Statehub::MountBase& mount() const = 0;
  // The text form: the type name, then one line per attribute and element, nested
  // entities indented under their key.
  virtual std::string text() const = 0;
  // {"type": ..., "path": ..., "attributes": {...}}: scalars by name; collections as
  // objects keyed by the element key's text; numbers and booleans as JSON's own, other
  // values as their text form.
  virtual nlohmann::json json() const = 0;
  // One line per attribute and element, each naming its whole place in the entity
  // ("labelBlockAllocation['bgp'].block['r1']: Value(...)"), sorted.
  virtual std::vector<std::string> lines() const = 0;
};

// A mount of `path` (published with `typeName`); null when mplsctl does not know the type.
std::unique_ptr<StateView> stateView(Statehub::EntityManager& manager, const std::string& path,
                                     const std::string& typeName);
// The entity types mplsctl shows.
std::vector<std::string> stateViewTypes();

// Reads `mount` (no event loop) until it is complete; throws CommandError when it fails
// or is still pending after `patience`.
void awaitMount(Statehub::MountBase& mount, const std::string& what,
                std::chrono::milliseconds patience = std::chrono::seconds(5));

// The entity manager of the instance `statehub` (on `loop`, if any); CommandError for a
// malformed instance name.
Statehub::EntityManager::Ptr managerOf(const std::string& statehub, Kel::EventLoop* loop);

// Publishes `entity` at `path` (having loaded what is published there); CommandError when
// the state database refuses (another live publisher, another entity type).
template <class E>
Statehub::Publication::Ptr publishAs(Statehub::EntityManager& manager, const std::string& path,
                                     const Kel::Ptr<E>& entity);

template <class E>
Statehub::Publication::Ptr publishAs(Statehub::EntityManager& manager, const std::string& path,
                                     const Kel::Ptr<E>& entity) {
  try {
    return manager.publish(path, entity);
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
}

}  // namespace Mplsctl
