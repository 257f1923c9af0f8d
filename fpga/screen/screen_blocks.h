// The screen partition's blocks: their table, and the packed data behind them. The partition's
// layout stands in fpga/screen/screen_params.h.
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

// Indexes the partition image `src` into st_func_offset_map_tab and packs its data into `dst`, both
// of 2 MiB. Stops at a block without address or length, or longer than what is left of the image.
// Returns the block count of the header all the same, 0 when that is above 60.
QUIL_EXPORT int parse_emmc_block(unsigned char* dst, unsigned char* src);

// Copies `len` bytes between ranges that do not overlap; nothing when one of the two is null.
QUIL_EXPORT void putDataToSendCach(const void* src, void* dst, unsigned len);

// The 32-bit value at `p`, most significant byte first; 0 without `p`. 32 bits, whatever the name
// says.
QUIL_EXPORT unsigned transUcharArrayToU64(const unsigned char* p);

#ifdef __cplusplus
}  // extern "C"

namespace quil::fpga {

inline constexpr size_t kPartitionSize = 0x200000;  // and that of the packed data
inline constexpr unsigned kMostBlocks = 60;

inline constexpr uint32_t kControlBlock = 0x10000100;
inline constexpr uint32_t kTopologyHeader = 0x10018000;
inline constexpr uint32_t kTopologyFirst = 0x10B00000, kTopologyLast = 0x10B4C000;
inline constexpr uint32_t kReceivingFirst = 0x10200000, kReceivingLast = 0x10204000;
inline constexpr uint32_t kScreenTableFirst = 0x10300000, kScreenTableLast = 0x10313000;
inline constexpr uint32_t kGammaBlock = 0x10400000;
inline constexpr uint32_t kNetGapTable1 = 0x10810000, kNetGapTable2 = 0x10820000;
inline constexpr uint32_t kSubPixelTable = 0x10A43000;
inline constexpr uint32_t kSubPixelSettings = 0x10A45000;

inline constexpr unsigned kStepPauseUs = 100000;  // behind gamma, sub-pixel and net-gap frames

// The packed buffer, which a table row can point past: rows outlive their load, and their
// neighbours' lengths.
class PackedData {
  public:
    explicit PackedData(const uint8_t* bytes) : mBytes(bytes) {}

    // Zeros past the end. Without a buffer `to` stays as it is, and the log says so.
    void copy(uint64_t from, uint8_t* to, size_t count) const;
    // 0 past the end and without a buffer.
    uint8_t at(uint64_t position) const;

  private:
    const uint8_t* mBytes;
};

// The first `count` rows of the table, for a range-based loop; no more than there are.
class Rows {
  public:
    explicit Rows(int count);
    const st_func_offset_map_t* begin() const { return st_func_offset_map_tab; }
    const st_func_offset_map_t* end() const { return st_func_offset_map_tab + mCount; }

  private:
    unsigned mCount;
};

// Logs each byte of a frame at information level, as "label[index] = 0xvalue".
void logFrame(const char* label, const uint8_t* frame, size_t size);

}  // namespace quil::fpga
#endif
