#include "Mpls/LfibIpLookup.h"

namespace Mpls {

Kel::Ptr<LfibIpLookupStatus> lfibIpLookupStatusFactory() {
  return Kel::make<LfibIpLookupStatus>();
}

}  // namespace Mpls
