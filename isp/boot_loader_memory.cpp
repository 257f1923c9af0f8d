// Reading and writing the MCU's memory in blocks.
#include <stdio.h>
#include <string.h>

#include "common/big_endian.h"
#include "common/log.h"
#include "isp/boot_loader.h"
#include "isp/serial_port.h"
#include "isp/xor_of.h"

using quil::common::kFirmwareUpdateTag;
using namespace quil::isp;  // NOLINT: this file is the module's exported front

namespace {

constexpr int kWriteBlock = 256,
              kReadBlock = 255;  // 255 although the protocol allows 256: deliberate

// How `size` bytes are split.
struct Rounds {
    int count;
    int last;  // bytes of the last round; 0 when it is a whole block

    Rounds(const void* buffer, int size, int block)
        : count(size / block + (size % block != 0 ? 1 : 0)), last(size % block) {
        if (buffer == nullptr || size < 0) count = 0;
    }
    int sizeOf(int round, int block) const {
        return round == count - 1 && last != 0 ? last : block;
    }
};

// 0 for an empty image.
uint32_t percentOf(uint32_t done, int size) {
    return size == 0 ? 0 : 100 * done / static_cast<uint32_t>(size);
}

// Only the answer to the command counts; the answer to the address is ignored.
void sendAddress(uint32_t address) {
    uint8_t bytes[5];
    quil::common::putBe32(bytes, address);
    bytes[4] = xorOf(bytes, 4);
    writeToPort(bytes, sizeof(bytes));
    readAnswer();
}

void sendBlock(const uint8_t* data, int count) {
    uint8_t block[320] = {static_cast<uint8_t>(count - 1)};
    memcpy(block + 1, data, static_cast<size_t>(count));
    const size_t length = static_cast<size_t>(count) + 1;
    writeToPort(block, length);
    const uint8_t checksum = xorOf(block, length);
    writeToPort(&checksum, 1);
    readAnswer();  // ignored, too
}

bool askForBlock(int count) {
    const auto length = static_cast<uint8_t>(count - 1);
    const uint8_t request[] = {length, static_cast<uint8_t>(length ^ 0xFF)};
    writeToPort(request, sizeof(request));
    return readAnswer() == kAck;
}

void showReadProgress(uint32_t done, int size) {
    if (size == 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "\r error len = 0 ");
    } else {
        const uint32_t percent = percentOf(done, size);
        printf("\r read mcu internal flash: [%u%%]", percent);
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: read mcu internal flash: [%u%%]\n",
                       "readmemory_4mcu", percent);
    }
    fflush(stdout);
}

}  // namespace

int writememory_2mcu(uint32_t addr, uint8_t* data, int size) {
    const Rounds rounds(data, size, kWriteBlock);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag,
                   "%s: w_addr=0x%08x, w_size=%d, all_len=%d, w_times=%d, w_last=%d\n", __func__,
                   addr, kWriteBlock, size, rounds.count, rounds.last);
    uint32_t done = 0;
    for (int round = 0; round < rounds.count; ++round) {
        // After a refused block the next round repeats it, so the last block is never written.
        if (ack_sendcmd(kWriteMemory) != 0) {
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: ack_sendcmd(CMD_WRITE_MEMORY) failed",
                           __func__);
            continue;
        }
        sendAddress(addr + done);
        const int count = rounds.sizeOf(round, kWriteBlock);
        sendBlock(data + done, count);
        done += static_cast<uint32_t>(count);
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "\r write mcu internal flash: [%u%%]",
                       percentOf(done, size));
        fflush(stdout);
    }
    const uint32_t percent = percentOf(done, size);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: final write mcu internal flash: [%u]", __func__,
                   percent);
    if (percent > 99) return 0;
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: fw update progress < 100\n", __func__);
    return -1;
}

void readmemory_4mcu(uint32_t addr, uint8_t* buf, int size) {
    const Rounds rounds(buf, size, kReadBlock);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "w_size=%d, all_len=%d, w_times=%d, w_last=%d\n", kReadBlock,
                   size, rounds.count, rounds.last);
    uint32_t done = 0;
    for (int round = 0; round < rounds.count; ++round) {
        if (ack_sendcmd(kReadMemory) != 0) continue;
        sendAddress(addr + done);
        const int count = rounds.sizeOf(round, kReadBlock);
        if (!askForBlock(count)) break;
        mcu_serial_read(buf + done, count);
        done += static_cast<uint32_t>(count);
        showReadProgress(done, size);
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "\n readmemory_4mcu end.. \n");
}
