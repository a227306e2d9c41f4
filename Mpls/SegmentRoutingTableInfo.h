// Pond::SegmentRouting::TableInfo: how the tables of a segment-routing Status are sized
// in shared memory, by mount type (the mount role).
//
// A writer reserves the rows of MPLS_SR_STATUS_TABLES: 10240 SR routes, 2048 prefix
// segments, 1024 global blocks, 2048 adjacency segments and 1024 area segments per address
// family. The adjacency and area segments are variable-length records (see
// Mpls/SegmentRouting.h) in a record heap of 8 KiB (adjacency) or 4 KiB (area) chunks, one
// size class per chunk. Each adjacency table gets 1 MiB: 512 bytes a row on average, which
// holds its 2048 rows as point-to-point adjacencies (28 bytes) or as LAN adjacencies of up
// to 30 neighbours (376 bytes), with chunks to spare for the other size classes in use; 128 rows of 512 neighbours would fill it. The area tables keep Pond's
// default of 256 bytes a row (an area segment with 64 originators takes 420). The whole
// set is about 5 MiB in /dev/shm; with rows of the largest size stored as they are, the
// adjacency tables alone would take 34 MB.
//
// A reader gets zero capacities: it takes the sizes the writer gave the segments.
#pragma once

#include "Mpls/SegmentRouting.h"
#include "Pond/MountGroup.h"

namespace Pond::SegmentRouting::TableInfo {

// The record heap of each adjacency segment table.
inline constexpr uint64_t kAdjSegmentHeapBytes = uint64_t{1} << 20;

// The sizing of every table of a Status mounted as `mountType`.
Status::Sizing srStatusInfo(Pond::Role mountType);

}  // namespace Pond::SegmentRouting::TableInfo
