#include "Mpls/LfibL2Evpn.h"

namespace Mpls {

Kel::Ptr<LfibL2EvpnStatus> lfibL2EvpnStatusFactory() { return Kel::make<LfibL2EvpnStatus>(); }

}  // namespace Mpls
