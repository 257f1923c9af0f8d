#include "isp/boot_loader.h"

#include <termios.h>

#include "common/little_endian.h"
#include "common/log.h"
#include "common/pause.h"
#include "isp/serial_port.h"

using quil::common::getLe32;
using quil::common::kFirmwareUpdateTag;
using namespace quil::isp;  // NOLINT: this file is the module's exported front

const isp_cmd_t isp_cmd_arr[14] = {
    {0x00, "CMD_GET               "},
    {0x01, "CMD_GET_VERSION       "},
    {0x02, "CMD_GET_ID            "},
    {0x11, "CMD_READ_MEMORY       "},
    {0x21, "CMD_GO                "},
    {0x31, "CMD_WRITE_MEMORY      "},
    {0x43, "CMD_ERASE             "},
    {0x44, "CMD_EXTENDED_ERASE    "},
    {0x63, "CMD_WRITE_PROTECT     "},
    {0x73, "CMD_WRITE_UNPROTECT   "},
    {0x82, "CMD_READOUT_PROTECT   "},
    {0x92, "CMD_READOUT_UNPROTECT "},
    {0x06, "CMD_GET_PID"},
    {0xFF, nullptr},
};

const char* const str_mcu_type[5] = {"MCU_UNKNOWN", "MCU_GD32F303", "MCU_GD32E503", "MCU_GD32F470",
                                     "MCU_STM32H750"};

namespace {

constexpr uint8_t kSynchronise = 0x7F;
constexpr int kResendsMost = 10, kResendPauseMs = 2;

// Indices of str_mcu_type. No identifier maps to the GD32E503: erasing it works, nothing detects
// it.
enum McuType { kUnknown, kGd32F303, kGd32E503, kGd32F470, kStm32H750 };

// Not reset between sessions: after a failed detection the last detected type applies.
McuType g_mcuType = kUnknown;

struct GdPid {
    uint32_t pid;
    McuType type;
};
constexpr GdPid kGdPids[] = {
    {0x4E455A30, kGd32F470}, {0x4E455630, kGd32F470}, {0x46455633, kGd32F303}};

constexpr uint32_t kStm32H750Pid = 0x450;
constexpr uint8_t kStm32H750Id[] = {0x01, 0x04, 0x50};  // length - 1, identifier
// Longer than the 4 bytes that arrive: the read ends by its time-out, then the rest is flushed.
constexpr int kIdSize = 10;
constexpr int kPidMost = 16;

// The two bytes of a command, and the status of the read of its answer.
int exchangeCommand(uint8_t code, uint8_t& answer) {
    const uint8_t command[] = {code, static_cast<uint8_t>(code ^ 0xFF)};
    writeToPort(command, sizeof(command));
    return mcu_serial_read(&answer, 1);
}

McuType typeOf(uint32_t gdPid) {
    for (const GdPid& row : kGdPids) {
        if (row.pid == gdPid) return row.type;
    }
    return kUnknown;
}

// The number of pages to erase, from page 0, for an image that ends `end` bytes into the flash.
int pageCount(McuType type, int32_t end) {
    constexpr int kFineEnd = 0x80000, kFinePages = 256;
    switch (type) {
        case kGd32F303:
            // A partial last page is not counted, unlike for the other types: deliberate.
            return end < kFineEnd ? end / 2048 : kFinePages + (end - kFineEnd) / 4096;
        case kGd32E503:
            return end / 8192 + 1;
        case kGd32F470:
            return end / 4096 + 1;
        case kStm32H750:
            return 2;
        case kUnknown:
            break;
    }
    return 0;  // the request for all pages
}

// The frame of an extended erase. Its length is kept in 8 bits: from 127 pages on it wraps, and
// further page numbers overwrite the buffer's start.
struct EraseFrame {
    uint8_t bytes[320] = {};
    uint8_t length = 0;  // without the checksum behind it
};

EraseFrame eraseFrame(int count) {
    EraseFrame frame;
    uint8_t at = 0;
    const auto put = [&](int value) {
        frame.bytes[at++] = static_cast<uint8_t>(value >> 8);
        frame.bytes[at++] = static_cast<uint8_t>(value);
    };
    put(count - 1);
    for (int page = 0; page < count; ++page) put(page);
    frame.length = static_cast<uint8_t>(2 + 2 * count);
    uint8_t checksum = 0;
    for (int i = 0; i < frame.length; ++i) checksum ^= frame.bytes[i];
    frame.bytes[frame.length] = checksum;
    return frame;
}

}  // namespace

namespace quil::isp {

uint8_t readAnswer() {
    uint8_t answer = 0;
    mcu_serial_read(&answer, 1);
    return answer;
}

const char* commandName(unsigned code) {
    for (const isp_cmd_t& row : isp_cmd_arr) {
        if (static_cast<uint8_t>(row.code) == code) return row.name;
    }
    return nullptr;
}

}  // namespace quil::isp

int ack_startisp(void) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "wait ack_startisp ... \n");
    if (fd < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcu serial init error. \n");
        return 1;
    }
    uint8_t byte = kSynchronise;
    writeToPort(&byte, 1);
    mcu_serial_read(&byte, 1);  // silence leaves 0x7F, which is no answer
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: mcu_serial_read ACK data:0x%02x\n", __func__, byte);
    if (byte == kAck) return 0;
    return byte == kNack ? 6 : 15;
}

void display_cmd(unsigned code) {
    const char* name = commandName(code);
    if (name == nullptr) return;
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "send cmd [0x%02x] : %s \n", code, name);
}

int ack_sendcmd(unsigned code) {
    const bool isErase = code == kExtendedErase;
    if (isErase) QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: CMD_EXTENDED_ERASE start\n", __func__);
    if (fd < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcu serial init error. \n");
        return -4;
    }
    uint8_t answer = 0;
    int status = exchangeCommand(static_cast<uint8_t>(code), answer);
    if (isErase) {
        // mcu_serial_read has only two results, so this never sends again; a guard.
        for (int i = 0; i < kResendsMost && status != kReadComplete && status != kReadTimedOut;
             ++i) {
            quil::common::pauseMs(kResendPauseMs);
            status = exchangeCommand(kExtendedErase, answer);
        }
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: CMD_EXTENDED_ERASE end\n", __func__);
    }
    if (answer == kAck) return 0;
    return answer == kNack ? -1 : -2;
}

int erasememory_extend(uint32_t addr, uint32_t size) {
    const auto end = static_cast<int32_t>(addr + size - kFlashBase);
    const int count = pageCount(g_mcuType, end);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "CMD_EXTENDED_ERASE: len = %d, page_cnt = %d\n", end, count);
    const EraseFrame frame = eraseFrame(count);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "CMD_EXTENDED_ERASE: send erase pages.\n");
    writeToPort(frame.bytes, frame.length + 1U);
    quil::common::pauseMs(1000);
    const uint8_t answer = readAnswer();
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcu_serial_read ACK data:0x%02x\n", answer);
    if (answer == kAck) return 0;
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, " erasememory_extend ack error! check it !!! \n");
    return -1;
}

uint32_t read_gd_mcu_pid(void) {
    if (ack_sendcmd(kGetPid) != 0) return 0;
    uint8_t answer[1 + kPidMost + 1] = {};  // length, identifier, ACK
    mcu_serial_read(answer, 1);
    int length = answer[0];
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: read gd pid data len = %d\n", __func__, length);
    if (length > kPidMost) {
        length = kPidMost;
        QUIL_LOG_ERROR(kFirmwareUpdateTag,
                       "%s: read gd pid length(%d) is larger than max size(%d), use max size\n",
                       __func__, length, kPidMost);
    }
    mcu_serial_read(answer + 1, length + 1);
    if (answer[1 + length] == kAck) return getLe32(answer + 1);
    // Logs the byte before the wrong one: deliberate.
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: End byte(0x%x) is not equal to 0x79\n", __func__,
                   answer[length]);
    return 0;
}

uint32_t read_st_mcu_pid(void) {
    if (ack_sendcmd(kGetId) != 0) return 0;
    uint8_t answer[kIdSize] = {};
    mcu_serial_read(answer, kIdSize);
    for (size_t i = 0; i < sizeof(kStm32H750Id); ++i) {
        if (answer[i] != kStm32H750Id[i]) return 0;
    }
    return kStm32H750Pid;
}

void mcu_type_detect(void) {
    const uint32_t gdPid = read_gd_mcu_pid();
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: read gd mcu pid = 0x%x\n", __func__, gdPid);
    const McuType gdType = typeOf(gdPid);
    if (gdType != kUnknown) {
        g_mcuType = gdType;
    } else {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: not gd mcu pid = 0x%x\n", __func__, gdPid);
        const uint32_t stPid = read_st_mcu_pid();
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: read st mcu pid = 0x%x\n", __func__, stPid);
        if (stPid == kStm32H750Pid) {
            g_mcuType = kStm32H750;
        } else {
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: not st mcu pid = 0x%x\n", __func__, stPid);
        }
    }
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: clear all unread uart input data\n", __func__);
    tcflush(fd, TCIFLUSH);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: _mcu_type: %s\n", __func__, str_mcu_type[g_mcuType]);
}
