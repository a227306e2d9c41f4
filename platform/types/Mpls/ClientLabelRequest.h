// Mpls::ClientLabelRequest: what a client agent asks the label manager for. Each client
// publishes one, named after itself, at "mpls/labelRequest/<client>" of the state
// database; every request identifier in `request` asks for one block of 16384 labels,
// which the agent answers in Mpls::Api::Status (labelBlockAllocation[client].block[id]).
// Removing an identifier, or the whole entity, gives the block back.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <string>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"

namespace Mpls {

class ClientLabelRequest : public Kel::Entity {
 public:
  KEL_ENTITY(ClientLabelRequest, "Mpls::ClientLabelRequest");
  using Ptr = Kel::Ptr<ClientLabelRequest>;
  class NotifieeConst : public Kel::NotifieeOf<ClientLabelRequest> {
   public:
    virtual void onRequest(const Kel::String& id) { (void)id; }
  };
  explicit ClientLabelRequest(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_SET_ATTR(Kel::String, request, Request)

 private:
  Kel::String name_;
};

inline ClientLabelRequest::Ptr clientLabelRequestFactory(const std::string& name) {
  return Kel::make<ClientLabelRequest>(Kel::String(name));
}

// The label-request directory of the state database: a client publishes its request at
// "<labelRequestDirPath>/<client>".
inline constexpr const char* labelRequestDirPath = "mpls/labelRequest";

}  // namespace Mpls
