#include "Mpls/MplsCopy.h"

#include <vector>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {
Kel::TraceFacility trace("MplsCopy");
constexpr int kRouteTraceLevel = 8;
}  // namespace

Cli::Session::AttributeFilter::Ptr MplsConfigCopyHandler::filteredAttributeIs() {
  if (!filteredAttribute_) {
    filteredAttribute_ = Cli::Session::attributeFilterFactory();
    filteredAttribute_->attributeNameIs("route", true);
  }
  return filteredAttribute_;
}

bool MplsConfigCopyHandler::handleEntity(Cli::Session::EntityCopy& entityCopy,
                                         const Kel::Ptr<Kel::Entity>& destination,
                                         const Kel::Ptr<const Kel::Entity>& source,
                                         const std::string& path) {
  auto* to = dynamic_cast<RouteConfigInput*>(destination.get());
  const auto* from = dynamic_cast<const RouteConfigInput*>(source.get());
  if (!to || !from) {
    return false;
  }
  KEL_ASSERT(filteredAttribute_, "copy handler used before initialize()");
  if (to == from) {
    return true;
  }
  entityCopy.doCopyEntityAttrs(*to, *from, filteredAttribute_.get());

  // One walk of both collections in key order finds what to delete and what to write;
  // the source is not changed by the copy, so pointers to its routes stay valid.
  std::vector<RouteKeyAndMetric> gone;
  std::vector<const Route*> written;
  const auto& have = to->routeIter();
  auto d = have.begin();
  const auto dEnd = have.end();
  for (const auto& [key, route] : from->routeIter()) {
    for (; d != dEnd && d->first < key; ++d) {
      gone.push_back(d->first);
    }
    if (d != dEnd && !(key < d->first)) {
      if (!(d->second == route)) {
        written.push_back(&route);
      }
      ++d;
    } else {
      written.push_back(&route);
    }
  }
  for (; d != dEnd; ++d) {
    gone.push_back(d->first);
  }

  for (const RouteKeyAndMetric& key : gone) {
    to->routeDel(key);
  }
  if (!trace.enabled(kRouteTraceLevel)) {
    for (const Route* route : written) {
      to->routeIs(*route);
    }
    return true;
  }
  auto next = written.begin();
  for (const auto& [key, route] : from->routeIter()) {
    KEL_TRACE(trace, kRouteTraceLevel, "Copying route {}.route/{} --> {}", path, key, to->name());
    if (next != written.end() && *next == &route) {
      to->routeIs(route);
      ++next;
    }
  }
  return true;
}

MplsConfigCopyHandler::Ptr mplsConfigCopyHandlerFactory() {
  auto handler = Kel::make<MplsConfigCopyHandler>();
  handler->initialize();
  return handler;
}

MplsConfigCopyHandler::Ptr CopyHandlerDir::copyHandlerIs() {
  if (!copyHandler_) {
    copyHandler_ = mplsConfigCopyHandlerFactory();
  }
  return copyHandler_;
}

CopyHandlerDir::Ptr copyHandlerDirFactory(const std::string& name) {
  auto dir = Kel::make<CopyHandlerDir>(name);
  dir->copyHandlerIs();
  return dir;
}

}  // namespace Mpls
