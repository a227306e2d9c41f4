// Mpls::Api::Status: what the MPLS agent publishes for the other agents, at "mpls/status"
// of the state database: the dynamic label range it hands blocks out of, and every
// client's label blocks by request identifier.
//
//   Mpls::LabelBlock             the first label of a block of 16384 labels
//   Mpls::LabelBlockAllocation   one client's blocks (keyed by the client's name):
//                                block[request identifier]
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <cstdint>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Kel/Value.h"
#include "types/Mpls/LabelRange.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

class LabelBlock {
 public:
  KEL_VALUE(LabelBlock, "Mpls::LabelBlock", (Netbase::MplsLabel, blockStart));
  static constexpr uint32_t size = 16384;
  // The last label of the block.
  uint32_t blockEnd() const noexcept { return blockStart_.value() + size - 1; }
};

class LabelBlockAllocation : public Kel::Entity {
 public:
  KEL_ENTITY(LabelBlockAllocation, "Mpls::LabelBlockAllocation");
  using Ptr = Kel::Ptr<LabelBlockAllocation>;
  class NotifieeConst : public Kel::NotifieeOf<LabelBlockAllocation> {
   public:
    virtual void onBlock(const Kel::String& id) { (void)id; }
  };
  explicit LabelBlockAllocation(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_MAP_ATTR(Kel::String, LabelBlock, block, Block)

 private:
  Kel::String name_;
};

namespace Api {

class Status : public Kel::Entity {
 public:
  KEL_ENTITY(Status, "Mpls::Api::Status");
  using Ptr = Kel::Ptr<Status>;
  class NotifieeConst : public Kel::NotifieeOf<Status> {
   public:
    virtual void onDynamicLabelRange() {}
    virtual void onLabelBlockAllocation(const Kel::String& client) { (void)client; }
  };

  KEL_ATTR(LabelRange, dynamicLabelRange, DynamicLabelRange)
  KEL_ENTITY_COLL_ATTR(Kel::String, LabelBlockAllocation, labelBlockAllocation,
                       LabelBlockAllocation)
};

inline Status::Ptr statusFactory() { return Kel::make<Status>(); }

// Where the MPLS agent publishes its status in the state database.
inline constexpr const char* statusPath = "mpls/status";

}  // namespace Api
}  // namespace Mpls
