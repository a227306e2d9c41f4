#include "Session/EntityCopy.h"

#include <algorithm>

#include <fmt/format.h>

namespace Cli::Session {

bool EntityCopy::registered(const Kel::Entity& entity) const {
  return types_.contains(std::type_index(typeid(entity)));
}

std::string EntityCopy::typeName(const Kel::Entity& entity) const {
  auto it = types_.find(std::type_index(typeid(entity)));
  return it != types_.end() ? std::string(it->second.typeName) : typeid(entity).name();
}

const EntityCopy::TypeOps& EntityCopy::opsOf(const Kel::Entity& destination,
                                             const Kel::Entity& source) const {
  const std::type_index type(typeid(destination));
  KEL_ASSERT(type == std::type_index(typeid(source)),
             fmt::format("cannot copy a {} onto a {}", typeName(source), typeName(destination)));
  auto it = types_.find(type);
  KEL_ASSERT(it != types_.end(), fmt::format("no copy registered for type {}", type.name()));
  return it->second;
}

void EntityCopy::doCopyEntityAttrs(const Kel::Ptr<Kel::Entity>& destination,
                                   const Kel::Ptr<const Kel::Entity>& source,
                                   const AttributeFilter* filter) {
  KEL_ASSERT(destination && source, "null entity");
  opsOf(*destination, *source).copy(*this, *destination, *source, filter);
}

void EntityCopy::handlerDirIs(const EntityCopyHandlerDir::Ptr& dir) {
  KEL_ASSERT(dir, "null handler directory");
  if (std::find(handlerDirs_.begin(), handlerDirs_.end(), dir) == handlerDirs_.end()) {
    handlerDirs_.push_back(dir);
  }
}

void EntityCopy::handlerDirDel(const EntityCopyHandlerDir::Ptr& dir) {
  std::erase(handlerDirs_, dir);
}

bool EntityCopy::askHandlers(const Kel::Ptr<Kel::Entity>& destination,
                             const Kel::Ptr<const Kel::Entity>& source, const std::string& path) {
  // By index, holding the directory: a handler may register or remove directories.
  for (size_t i = 0; i < handlerDirs_.size(); ++i) {
    const EntityCopyHandlerDir::Ptr dir = handlerDirs_[i];
    if (EntityCopyHandler::Ptr handler = dir->entityCopyHandler();
        handler && handler->handleEntity(*this, destination, source, path)) {
      return true;
    }
  }
  return false;
}

bool EntityCopy::copyEntity(const Kel::Ptr<Kel::Entity>& destination,
                            const Kel::Ptr<const Kel::Entity>& source, const std::string& path) {
  KEL_ASSERT(destination && source, "null entity");
  const TypeOps& ops = opsOf(*destination, *source);
  if (askHandlers(destination, source, path)) {
    return true;
  }
  ops.commit(*this, *destination, *source, path);
  return false;
}

}  // namespace Cli::Session
