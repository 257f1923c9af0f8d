#include "fpga/screen/screen_blocks.h"

#include <string.h>

#include <algorithm>

#include "common/big_endian.h"
#include "common/log.h"

using quil::common::getBe32;
using quil::common::kFirmwareUpdateTag;
using quil::fpga::kMostBlocks;
using quil::fpga::kPartitionSize;

st_func_offset_map_t st_func_offset_map_tab[kMostBlocks] = {};

namespace {

constexpr size_t kCountSize = 4;
constexpr size_t kLengthAt = 4, kBlockHeaderSize = 8;

// True if header and data lie inside the image. `at` is never beyond its end.
bool isUsable(const uint8_t* image, size_t at, st_func_offset_map_t& row) {
    if (kPartitionSize - at < kBlockHeaderSize) return false;
    row.fpga_addr = getBe32(image + at);
    row.datalen = getBe32(image + at + kLengthAt);
    return row.fpga_addr != 0 && row.datalen != 0 &&
           row.datalen <= kPartitionSize - at - kBlockHeaderSize;
}

unsigned blockCount(const uint8_t* image, const char* function) {
    unsigned count = getBe32(image);
    if (count > kMostBlocks) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s invalid blocknum = %d, set blocknum as 0\n",
                       function, static_cast<int>(count));
        count = 0;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s blocknum = %d\n", function, static_cast<int>(count));
    return count;
}

}  // namespace

namespace quil::fpga {

void PackedData::copy(uint64_t from, uint8_t* to, size_t count) const {
    if (mBytes == nullptr) {
        putDataToSendCach(nullptr, to, static_cast<unsigned>(count));
        return;
    }
    const auto start = static_cast<size_t>(std::min<uint64_t>(from, kPartitionSize));
    const size_t there = std::min(count, kPartitionSize - start);
    putDataToSendCach(mBytes + start, to, static_cast<unsigned>(there));
    memset(to + there, 0, count - there);
}

uint8_t PackedData::at(uint64_t position) const {
    return mBytes != nullptr && position < kPartitionSize ? mBytes[position] : 0;
}

Rows::Rows(int count)
    : mCount(count < 0 ? 0 : std::min(static_cast<unsigned>(count), kMostBlocks)) {}

void logFrame(const char* label, const uint8_t* frame, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        QUIL_LOG_INFO(kFirmwareUpdateTag, "%s[%d] = 0x%x\n", label, static_cast<int>(i), frame[i]);
    }
}

}  // namespace quil::fpga

void putDataToSendCach(const void* src, void* dst, unsigned len) {
    if (len == 0) return;
    if (src == nullptr || dst == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "dst or src is NULL\n");
        return;
    }
    memmove(dst, src, len);
}

unsigned transUcharArrayToU64(const unsigned char* p) { return p != nullptr ? getBe32(p) : 0; }

int parse_emmc_block(unsigned char* dst, unsigned char* src) {
    if (dst == nullptr || src == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "dst or src is NULL\n");
        return 0;
    }
    const unsigned count = blockCount(src, __func__);
    size_t at = kCountSize, offset = 0;
    for (unsigned i = 0; i < count; ++i) {
        st_func_offset_map_t row = {};
        if (!isUsable(src, at, row)) {
            // The count stays that of the header, deliberately: later steps also walk rows that an
            // earlier load left.
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s invalid fpgaAddr, or datalen.\n", __func__);
            break;
        }
        row.offset = static_cast<uint32_t>(offset);
        st_func_offset_map_tab[i] = row;
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "0x%x / 0x%x / 0x%x \n", row.fpga_addr, row.offset,
                       row.datalen);
        putDataToSendCach(src + at + kBlockHeaderSize, dst + offset, row.datalen);
        offset += row.datalen;
        at += kBlockHeaderSize + row.datalen;
    }
    return static_cast<int>(count);
}
