// The passes of a load over the first `blockCount` rows of the table.
#pragma once

#include "fpga/screen/screen_blocks.h"

namespace quil::fpga {

// Fills free_routing_topology from the topology header, or with zeros when there is none.
void readTopologyCounts(int blockCount, const PackedData& packed);

// Sends the topology blocks, each as many units as the counts say.
void sendTopologies(int blockCount, const uint8_t* packed);

// Sends every other kind of block that is sent whole, gamma and control.
void sendBlocks(int blockCount, const PackedData& packed);

}  // namespace quil::fpga
