// MplsConfigCopyHandler: the copy handler of configuration sessions for the static MPLS
// route configuration (Mpls::RouteConfigInput). The session service's generic copy would
// rewrite the whole `route` collection on every commit, announcing every route to
// RouteConfigMergeSm and its readers; this handler copies it by difference instead, so a
// commit announces only the routes that were removed, added or changed.
//
// handleEntity copies the input's other attributes with the generic copy (through
// filteredAttribute, which names "route"), then walks the two route collections in key
// order side by side: it first deletes from the destination every route whose key the
// source lacks (routeDel), then writes every source route that the destination lacks or
// holds with another value (routeIs). Routes equal on both sides are not written. With
// trace level 8 of facility "MplsCopy" on, every source route is traced as
//   "Copying route <path>.route/<key> --> <destination's name>".
//
// CopyHandlerDir is the directory entity through which the handler is registered with the
// session service (Cli::Session::EntityCopy::handlerDirIs).
//
// Ownership: the directory holds its handler, the handler its filter; the session service
// holds the directories registered with it. Single-threaded: used on the reactor thread
// that owns the running configuration.
#pragma once

#include <string>
#include <utility>

#include "Kel/Entity.h"
#include "Kel/Ptr.h"
#include "Session/AttributeFilter.h"
#include "Session/EntityCopy.h"
#include "types/Mpls/RouteConfig.h"

namespace Mpls {

class MplsConfigCopyHandler : public Cli::Session::EntityCopyHandler {
 public:
  KEL_ENTITY(MplsConfigCopyHandler, "Mpls::MplsConfigCopyHandler");
  using Ptr = Kel::Ptr<MplsConfigCopyHandler>;

  // The filter of the generic copy: it names "route". Null until initialize() or
  // filteredAttributeIs().
  const Cli::Session::AttributeFilter::Ptr& filteredAttribute() const noexcept {
    return filteredAttribute_;
  }
  // Creates the filter if there is none, and returns it.
  Cli::Session::AttributeFilter::Ptr filteredAttributeIs();
  void filteredAttributeDel() noexcept { filteredAttribute_ = nullptr; }
  // Sets the handler up for use (creates its filter).
  void initialize() { filteredAttributeIs(); }

  // Copies `source` onto `destination` when both are Mpls::RouteConfigInput and returns
  // true; returns false, having changed nothing, for any other type. Requires the filter
  // (initialize()): without it throws Kel::InternalException.
  bool handleEntity(Cli::Session::EntityCopy& entityCopy,
                    const Kel::Ptr<Kel::Entity>& destination,
                    const Kel::Ptr<const Kel::Entity>& source, const std::string& path) override;

 private:
  Cli::Session::AttributeFilter::Ptr filteredAttribute_;
};

// A new, initialized handler.
MplsConfigCopyHandler::Ptr mplsConfigCopyHandlerFactory();

class CopyHandlerDir : public Cli::Session::EntityCopyHandlerDir {
 public:
  KEL_ENTITY(CopyHandlerDir, "Mpls::CopyHandlerDir");
  using Ptr = Kel::Ptr<CopyHandlerDir>;

  explicit CopyHandlerDir(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  // The handler; null when the directory holds none.
  const MplsConfigCopyHandler::Ptr& copyHandler() const noexcept { return copyHandler_; }
  // Creates the handler (mplsConfigCopyHandlerFactory) if there is none, and returns it.
  MplsConfigCopyHandler::Ptr copyHandlerIs();
  // Removes the handler: the session service then skips this directory.
  void copyHandlerDel() noexcept { copyHandler_ = nullptr; }

  Cli::Session::EntityCopyHandler::Ptr entityCopyHandler() const override { return copyHandler_; }

 private:
  std::string name_;
  MplsConfigCopyHandler::Ptr copyHandler_;
};

// A directory named `name` holding a new handler.
CopyHandlerDir::Ptr copyHandlerDirFactory(const std::string& name);

}  // namespace Mpls
