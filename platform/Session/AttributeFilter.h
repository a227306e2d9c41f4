// Cli::Session::AttributeFilter: the attributes, by name ("route"), that an attribute copy
// (Cli::Session::EntityCopy::doCopyEntityAttrs) leaves out. A copy handler that copies one
// attribute its own way lets the generic copy do the others through a filter that names
// that one.
//
// The filter applies to the attributes of the entity handed to the copy, not to those of
// its nested entities. Names are matched exactly; a name that the copied type does not
// declare filters nothing.
//
// Held through Kel::Ptr by the handler that owns it. Single-threaded: used on the reactor
// thread of its owner.
#pragma once

#include <string_view>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"

namespace Cli::Session {

class AttributeFilter : public Kel::Entity {
 public:
  KEL_ENTITY(AttributeFilter, "Cli::Session::AttributeFilter");
  using Ptr = Kel::Ptr<AttributeFilter>;
  using PtrConst = Kel::Ptr<const AttributeFilter>;
  class NotifieeConst : public Kel::NotifieeOf<AttributeFilter> {
   public:
    virtual void onAttributeName(const Kel::String& name) { (void)name; }
  };

  // The names left out: attributeNameIs("route", true) adds one.
  KEL_SET_ATTR(Kel::String, attributeName, AttributeName)

  // Whether a copy leaves out the attribute `name`.
  bool filtered(std::string_view name) const { return attributeName(Kel::String(name)); }
};

inline AttributeFilter::Ptr attributeFilterFactory() { return Kel::make<AttributeFilter>(); }

}  // namespace Cli::Session
