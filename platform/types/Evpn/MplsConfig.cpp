#include "types/Evpn/MplsConfig.h"

namespace Evpn {

Kel::Ptr<MplsConfig> mplsConfigFactory() { return Kel::make<MplsConfig>(); }

}  // namespace Evpn
