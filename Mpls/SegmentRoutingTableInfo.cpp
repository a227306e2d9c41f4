#include "Mpls/SegmentRoutingTableInfo.h"

namespace Pond::SegmentRouting::TableInfo {

Status::Sizing srStatusInfo(Pond::Role mountType) {
  Status::Sizing sizing = Status::sizingFor(mountType);
  if (mountType == Pond::Role::writer) {
    sizing.v4AdjSegment.heapBytes = kAdjSegmentHeapBytes;
    sizing.v6AdjSegment.heapBytes = kAdjSegmentHeapBytes;
  }
  return sizing;
}

}  // namespace Pond::SegmentRouting::TableInfo
