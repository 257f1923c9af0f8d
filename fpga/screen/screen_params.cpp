#include "fpga/screen/screen_params.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <iterator>

#include "common/heap_block.h"
#include "common/log.h"
#include "fpga/screen/net_gap.h"
#include "fpga/screen/screen_blocks.h"
#include "fpga/screen/screen_fixed.h"
#include "fpga/screen/screen_passes.h"
#include "fpga/spi_frame.h"
#include "fpga/spi_link.h"

using quil::common::allocateClearedBlock;
using quil::common::kFirmwareUpdateTag;
using quil::fpga::kPartitionSize;
using quil::fpga::PackedData;

uint8_t buffer[1056] = {};

namespace {

constexpr char kPartition[] = "/dev/block/by-name/screen";

constexpr uint8_t kControlOn[quil::fpga::frameSize(1)] = {0x02, 0x10, 0x00, 0x01, 0x00, 0x01, 0x00};

// What the network side has received once it is up: this word, and three pairs that are not zero.
constexpr size_t kWordAt = 22;
constexpr uint8_t kWord[] = {0x00, 0x03, 0x00, 0x01};
constexpr size_t kPairsAt[] = {33, 41, 47};
constexpr time_t kNetworkWaitS = 4;

// Returns the bytes read, or a negative number.
int readPartition(uint8_t* image) {
    constexpr char kStep[] = "read_screen_paramter";
    const int partition = open(kPartition, O_RDONLY);
    if (partition < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: open %s failed !!!\n", kStep, kPartition);
        return -1;
    }
    const auto size = static_cast<int>(read(partition, image, kPartitionSize));
    if (size < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: read fd(%d) error(%s)\n", kStep, partition,
                       strerror(errno));
    }
    close(partition);
    return size;
}

// Another thread writes `buffer`.
uint8_t received(size_t at) { return __atomic_load_n(&buffer[at], __ATOMIC_ACQUIRE); }

bool isNetworkUp() {
    for (size_t i = 0; i < std::size(kWord); ++i) {
        if (received(kWordAt + i) != kWord[i]) return false;
    }
    for (const size_t at : kPairsAt) {
        if (received(at) == 0 && received(at + 1) == 0) return false;
    }
    return true;
}

time_t monotonicSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Polls without a sleep and yields to other threads in between. Returns false after 4 whole
// seconds.
bool waitForNetwork() {
    const time_t start = monotonicSeconds();
    while (!isNetworkUp()) {
        if (monotonicSeconds() - start >= kNetworkWaitS) return false;
        sched_yield();
    }
    return true;
}

void enableNetGap(int blockCount, const uint8_t* packed, const char* function) {
    if (waitForNetwork()) {
        sendNetGapeEnable(blockCount, packed);
        QUIL_LOG_INFO(kFirmwareUpdateTag, "already net enable\n");
    } else {
        // The message has always said 3.
        QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: More than 3 second passed, continuing...\n",
                      function);
        sendNetGapeEnable(blockCount, packed);
    }
}

}  // namespace

int fpgaLoadScreenParamsBySpi(void) {
    const auto image = allocateClearedBlock<uint8_t>(kPartitionSize);
    const auto data = allocateClearedBlock<uint8_t>(kPartitionSize);
    if (image == nullptr || data == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag,
                       "%s: could not allocate memory for the cach || cachPureData!\n", __func__);
        return -1;
    }
    const int size = readPartition(image.get());
    if (size < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: failed to read screen paramter\n", __func__);
        return -1;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: read screen data size %d\n", __func__, size);
    const int blockCount = parse_emmc_block(data.get(), image.get());
    if (blockCount < 1) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: parse_emmc_block, blockNum = %d\n", __func__,
                       blockCount);
        return -1;
    }
    const PackedData packed(data.get());
    quil::fpga::readTopologyCounts(blockCount, packed);
    quil::fpga::sendTopologies(blockCount, data.get());
    quil::fpga::sendBlocks(blockCount, packed);
    sendFixedParameter(blockCount, data.get());
    quil::fpga::sendFixedFrame(kControlOn, sizeof(kControlOn));
    enableNetGap(blockCount, data.get(), __func__);
    return 0;
}
