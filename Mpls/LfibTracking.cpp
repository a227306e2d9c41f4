#include "Mpls/LfibTracking.h"

namespace Mpls {

Kel::Ptr<LfibTrackingStatus> lfibTrackingStatusFactory(const std::string& name) {
  return Kel::make<LfibTrackingStatus>(name);
}

}  // namespace Mpls
