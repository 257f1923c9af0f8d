#include "fpga/screen/screen_passes.h"

#include <string.h>

#include <algorithm>
#include <iterator>

#include "common/log.h"
#include "common/pause.h"
#include "fpga/spi_frame.h"
#include "fpga/spi_link.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseUs;

int32_t free_routing_topology[20] = {};

namespace quil::fpga {
namespace {

// The counts in the topology header: little-endian words, one every 256 bytes.
constexpr size_t kCountsAt = 3, kCountStride = 256;

constexpr size_t kTopologyUnit = 16;

// Kinds that are sent as one frame of a fixed size.
struct WholeKind {
    uint32_t first, last;
    size_t dataSize;
    const char* announcement;
};
constexpr WholeKind kWholeKinds[] = {
    {kScreenTableFirst, kScreenTableLast, 4096, nullptr},
    {kReceivingFirst, kReceivingLast, 4096, nullptr},
    {kTopologyHeader, kTopologyHeader, 5120, nullptr},
    {kSubPixelTable, kSubPixelTable, 512, nullptr},
    {kNetGapTable1, kNetGapTable1, 4096, "send_netgape_paramter 0x10810000 \n"},
    {kNetGapTable2, kNetGapTable2, 4096, "send_netgape_paramter 0x10820000 \n"},
};
constexpr size_t kLargestData = 5120;

// One frame for each kind, kept for a whole load: after a short block the frame still holds the
// end of the block before it.
struct KindFrames {
    // The braces make it a memset. Otherwise g++ copies 30 KB of zeros stored in the library.
    WriteFrame<kLargestData> of[std::size(kWholeKinds)] = {};
};

constexpr unsigned kGammaFrames = 3;
constexpr size_t kGammaData = 2048;
constexpr uint32_t kGammaStride = 0x10000;

constexpr uint32_t kControlPairAt = 3, kControlByteAt = 11;

void sendWhole(const WholeKind& kind, WriteFrame<kLargestData>& frame,
               const st_func_offset_map_t& row, const PackedData& packed) {
    if (kind.announcement != nullptr) QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s", kind.announcement);
    const size_t length = std::min<size_t>(row.datalen, kind.dataSize);
    putWriteHeader(frame.bytes, row.fpga_addr);
    packed.copy(row.offset, frame.data(), length);
    frame.data()[length] = 0;  // directly after the block's data, not at the frame's end
    spi_send_data(frame.bytes, frameSize(kind.dataSize));
}

void sendGamma(const st_func_offset_map_t& row, const PackedData& packed) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "send_gamma_paramter 0x10400000 \n");
    WriteFrame<kGammaData> frame;
    for (uint32_t i = 0; i < kGammaFrames; ++i) {
        const uint32_t ahead = i * kGammaStride;
        putWriteHeader(frame.bytes, row.fpga_addr + ahead);
        packed.copy(uint64_t{row.offset} + ahead, frame.data(), kGammaData);
        spi_send_data(frame.bytes, sizeof(frame.bytes));
        pauseUs(kStepPauseUs);
        logFrame("send_buff_gamma", frame.bytes, sizeof(frame.bytes));
    }
}

void sendControl(const st_func_offset_map_t& row, const PackedData& packed) {
    WriteFrame<2> pair;
    putWriteHeader(pair.bytes, row.fpga_addr + kControlPairAt);
    packed.copy(uint64_t{row.offset} + kControlPairAt, pair.data(), 2);
    spi_send_data(pair.bytes, sizeof(pair.bytes));
    writeRegister(row.fpga_addr + kControlByteAt, packed.at(uint64_t{row.offset} + kControlByteAt));
}

const st_func_offset_map_t* lastTopologyHeader(int blockCount) {
    const st_func_offset_map_t* header = nullptr;
    for (const st_func_offset_map_t& row : Rows(blockCount)) {
        if (row.fpga_addr == kTopologyHeader) header = &row;
    }
    return header;
}

int32_t topologyCount(const st_func_offset_map_t* header, const PackedData& packed, size_t index) {
    if (header == nullptr) return 0;
    const uint64_t at = uint64_t{header->offset} + kCountsAt + index * kCountStride;
    return packed.at(at) | (packed.at(at + 1) << 8);
}

}  // namespace

void readTopologyCounts(int blockCount, const PackedData& packed) {
    const st_func_offset_map_t* header = lastTopologyHeader(blockCount);
    if (header != nullptr) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s : 0x%x \n", "get_free_routing_topology",
                       header->offset);
    }
    for (size_t i = 0; i < std::size(free_routing_topology); ++i) {
        free_routing_topology[i] = topologyCount(header, packed, i);
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "free_routing_topology[%d] = %d\n", static_cast<int>(i),
                       free_routing_topology[i]);
    }
}

void sendTopologies(int blockCount, const uint8_t* packed) {
    uint8_t index = 0;
    for (const st_func_offset_map_t& row : Rows(blockCount)) {
        if (row.fpga_addr < kTopologyFirst || row.fpga_addr > kTopologyLast) continue;
        // Rows beyond the counts send nothing.
        if (index < std::size(free_routing_topology)) {
            sendTopologyPara(packed, row.offset, row.fpga_addr, free_routing_topology[index]);
        }
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s send successful free_routing_topology[%d] \n",
                       "send_topology_paramter", index);
        ++index;
    }
}

void sendBlocks(int blockCount, const PackedData& packed) {
    KindFrames frames;
    for (const st_func_offset_map_t& row : Rows(blockCount)) {
        for (size_t i = 0; i < std::size(kWholeKinds); ++i) {
            const WholeKind& kind = kWholeKinds[i];
            if (row.fpga_addr < kind.first || row.fpga_addr > kind.last) continue;
            sendWhole(kind, frames.of[i], row, packed);
        }
        if (row.fpga_addr == kGammaBlock) sendGamma(row, packed);
        if (row.fpga_addr == kControlBlock) sendControl(row, packed);
    }
}

}  // namespace quil::fpga

void sendTopologyPara(const unsigned char* src, unsigned offset, unsigned fpgaAddr, int count) {
    using quil::fpga::kTopologyUnit;
    quil::fpga::WriteFrame<kTopologyUnit> frame;
    const quil::fpga::PackedData packed(src);
    for (int i = 0; i < count; ++i) {
        const auto ahead = static_cast<uint32_t>(i) * static_cast<uint32_t>(kTopologyUnit);
        const uint64_t from = uint64_t{offset} + ahead;
        if (from >= quil::fpga::kPartitionSize) return;
        packed.copy(from, frame.data(), kTopologyUnit);
        // Without data the frame goes out as zeros, without a header: deliberate.
        if (src != nullptr) quil::fpga::putWriteHeader(frame.bytes, fpgaAddr + ahead);
        spi_send_data(frame.bytes, sizeof(frame.bytes));
    }
}
