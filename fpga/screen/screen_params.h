// The LED screen's parameters: blocks in the raw partition "/dev/block/by-name/screen", written
// into the FPGA over SPI.
//
// The partition, 2 MiB at most, multi-byte fields most significant byte first:
//
//   offset  size  field
//        0     4  block count, 0 to 60
//        4        the blocks, back to back: address (4), data length (4), neither of them 0, data
//
// The data parts are packed one behind the other into a second buffer of 2 MiB, which the
// functions below take as `data`. They read zeros past its end. Results of transfers are ignored: a
// sequence always runs to its end. The tables are shared by all and not guarded: one load at a
// time.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// A row of st_func_offset_map_tab.
typedef struct st_func_offset_map {
    uint32_t fpga_addr;  // the block kind, and where its data belongs
    uint32_t datalen;    // bytes
    uint32_t offset;     // of the data in the packed buffer, bytes
} st_func_offset_map_t;

static_assert(sizeof(st_func_offset_map_t) == 12, "binding");

// The blocks of the latest load, in partition order. Rows behind them keep what an earlier load
// left there.
extern QUIL_EXPORT st_func_offset_map_t st_func_offset_map_tab[60];

// How many 16-byte units of each topology block are sent. Rewritten by each load.
extern QUIL_EXPORT int32_t free_routing_topology[20];

// What the network side last received, written by its thread; byte order and content are those of
// the network protocol. sendNetGapeEnable waits for its first answer here.
extern QUIL_EXPORT uint8_t buffer[1056];

// Reads the partition and writes all of it to the FPGA. Returns 0, or -1 when the partition cannot
// be read or holds no block. Blocks for seconds: 10 ms a transfer, 3 s for the net gap, up to 4 s
// for the network side.
QUIL_EXPORT int fpgaLoadScreenParamsBySpi(void);

// Indexes the partition image `src` into st_func_offset_map_tab and packs its data into `dst`, both
// of 2 MiB. Stops at a block without address or length, or longer than what is left of the image.
// Returns the block count of the header all the same, 0 when that is above 60.
QUIL_EXPORT int parse_emmc_block(unsigned char* dst, unsigned char* src);

// Sends `count` frames of 16 bytes each, from `src` + `offset` on to `fpgaAddr` on, which goes up
// by 16 a frame, and nothing that begins past the packed buffer. Without `src` the frames are 22
// zero bytes.
QUIL_EXPORT void sendTopologyPara(const unsigned char* src, unsigned offset, unsigned fpgaAddr,
                                  int count);

// Sends the registers that are the same for every screen, then single bytes of the first
// `blockNum` blocks of the table.
QUIL_EXPORT void sendFixedParameter(int blockNum, const unsigned char* data);

// Sends the sub-pixel settings of the first `blockNum` blocks of the table, 3 s from now, and
// switches the net gap on.
QUIL_EXPORT void sendNetGapeEnable(int blockNum, const unsigned char* data);

// Copies `len` bytes between ranges that do not overlap; nothing when one of the two is null.
QUIL_EXPORT void putDataToSendCach(const void* src, void* dst, unsigned len);

// The 32-bit value at `p`, most significant byte first; 0 without `p`. 32 bits, whatever the name
// says.
QUIL_EXPORT unsigned transUcharArrayToU64(const unsigned char* p);

#ifdef __cplusplus
}  // extern "C"
#endif
