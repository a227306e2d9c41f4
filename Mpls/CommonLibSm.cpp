#include "Mpls/CommonLibSm.h"

#include "Mpls/internal/LabelBindingMirrorImpl.h"

namespace CommonLibPond {

Kel::TraceFacility CommonLibTraits::producerTrace("CommonLibProducerSm");
Kel::TraceFacility CommonLibTraits::consumerTrace("CommonLibConsumerSm");

Kel::Ptr<CommonLibProducerSm> commonLibProducerSmFactory(
    const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl, const LabelBindingTable::Ptr& tables) {
  return Kel::make<CommonLibProducerSm>(localLbt, peerLbtColl, tables);
}

Kel::Ptr<CommonLibConsumerSm> commonLibConsumerSmFactory(
    const LabelBindingTable::Ptr& tables, const Mpls::LabelBindingTable::Ptr& localLbt,
    const Mpls::LabelBindingTableColl::Ptr& peerLbtColl) {
  return Kel::make<CommonLibConsumerSm>(tables, localLbt, peerLbtColl);
}

}  // namespace CommonLibPond

template class Mpls::internal::LabelBindingProducerSm<CommonLibPond::CommonLibTraits>;
template class Mpls::internal::LabelBindingConsumerSm<CommonLibPond::CommonLibTraits>;
