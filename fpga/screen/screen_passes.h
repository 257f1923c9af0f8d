// The passes of a load over the first `blockCount` rows of the table.
#pragma once

#include <stdint.h>

#include "common/export.h"
#include "fpga/screen/screen_blocks.h"

#ifdef __cplusplus
extern "C" {
#endif

// How many 16-byte units of each topology block are sent. Rewritten by each load.
extern QUIL_EXPORT int32_t free_routing_topology[20];

// Sends `count` frames of 16 bytes each, from `src` + `offset` on to `fpgaAddr` on, which goes up
// by 16 a frame, and nothing that begins past the packed buffer. Without `src` the frames are 22
// zero bytes.
QUIL_EXPORT void sendTopologyPara(const unsigned char* src, unsigned offset, unsigned fpgaAddr,
                                  int count);

#ifdef __cplusplus
}  // extern "C"

namespace quil::fpga {

// Fills free_routing_topology from the topology header, or with zeros when there is none.
void readTopologyCounts(int blockCount, const PackedData& packed);

// Sends the topology blocks, each as many units as the counts say.
void sendTopologies(int blockCount, const uint8_t* packed);

// Sends every other kind of block that is sent whole, gamma and control.
void sendBlocks(int blockCount, const PackedData& packed);

}  // namespace quil::fpga
#endif
