// Kel::Dir: a directory of entities by name, such as the entries that client agents
// publish under one path of the state database. Its one collection, entityPtr, maps an
// entry's name to the entity; entries come and go with the usual notifications
// (NotifieeConst::onEntityPtr(name)). Entries are kept in name order, so that a scan of
// a large directory can resume after the last name it visited (entityPtrIterAfter).
#pragma once

#include <string>
#include <utility>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"

namespace Kel {

class Dir : public Entity {
 public:
  KEL_ENTITY(Dir, "Kel::Dir");
  using Ptr = Kel::Ptr<Dir>;
  class NotifieeConst : public NotifieeOf<Dir> {
   public:
    virtual void onEntityPtr(const String& name) { (void)name; }
  };

  explicit Dir(std::string name) : name_(std::move(name)) {}
  // The directory's own name (the path it was mounted from).
  const std::string& name() const noexcept { return name_; }

  KEL_ORDERED_MAP_ATTR(String, Kel::Ptr<Entity>, entityPtr, EntityPtr)

 private:
  std::string name_;
};

inline Dir::Ptr dirFactory(std::string name) { return make<Dir>(std::move(name)); }

}  // namespace Kel
