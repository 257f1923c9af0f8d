#include "isp/n32_upgrade.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

#include "common/heap_block.h"
#include "common/little_endian.h"
#include "common/log.h"
#include "common/monotonic_clock.h"
#include "common/pause.h"
#include "common/stdout_message.h"
#include "isp/boot_mode.h"
#include "isp/firmware_file.h"
#include "isp/serial_port.h"
#include "isp/xor_of.h"

using quil::common::allocateClearedBlock;
using quil::common::getLe32;
using quil::common::kFirmwareUpdateTag;
using quil::common::monotonicMs;
using quil::common::pauseMs;
using quil::common::printFlushed;
using quil::common::putLe16;
using quil::common::putLe32;
using quil::isp::xorOf;

namespace {

constexpr int kStepFailed = 255, kNoPortOrMemory = -1;
constexpr uint32_t kFlashBase = 0x08000000;

// Names in messages: a message whose text names the step carries the sequence's name, the others
// the step's.
constexpr char kSequence[] = "n32_program";
constexpr char kSetOpt[] = "set_opt";
constexpr char kHandShake[] = "handShake";
constexpr char kDownload[] = "N32_FLASH_DWNLD";

enum Command : uint8_t {
    kCommandHandShake = 0x01,
    kCommandGetInfo = 0x10,
    kCommandErase = 0x30,
    kCommandDownload = 0x31,
    kCommandCrcCheck = 0x32,
};

constexpr uint8_t kMagic[] = {0xAA, 0x55}, kStatusOk[] = {0xA0, 0x00};
constexpr size_t kLengthAt = 4, kParameterAt = 6, kPayloadAt = 10;
constexpr size_t kLeadSize = 16;  // zero bytes that most payloads start with
constexpr size_t kBlock = 128, kPadding = 16, kWord = 4;
constexpr size_t kFrameMost = kPayloadAt + kLeadSize + kBlock + kWord + 1;
static_assert(kFrameMost == 159, "the longest frame is a whole block's");
constexpr size_t kAnswerSize = 9, kInfoSize = 60;
constexpr int64_t kPatienceMs = 3000;

constexpr int kHandShakeAttempts = 5;
constexpr uint8_t kHandShakeParameter[] = {0x00, 0x00, 0x25, 0x80};
constexpr uint8_t kNoParameter[] = {0x00, 0x00, 0x00, 0x00};
constexpr uint8_t kEraseParameter[] = {0x00, 0x00, 0x20, 0x00};

constexpr uint32_t kCrcStart = 0xFFFFFFFF, kCrcPolynomial = 0x04C11DB7;

uint8_t g_sendBuffer[kFrameMost];
uint8_t g_receiveBuffer[kInfoSize + 1];

// Covers all blocks sent since the library was loaded; deliberately not reset between upgrades.
uint32_t g_runningCrc = kCrcStart;

// CRC-32 as the CRC unit of STM32-class parts has it: whole words, most significant bit first, no
// reflection, no final XOR.
uint32_t crcOf(uint32_t crc, const uint8_t* data, size_t count) {
    for (size_t at = 0; at < count; at += kWord) {
        crc ^= getLe32(data + at);
        for (int bit = 0; bit < 32; ++bit) {
            crc = (crc & 0x80000000) != 0 ? (crc << 1) ^ kCrcPolynomial : crc << 1;
        }
    }
    return crc;
}

// Builds a request of `length` zero bytes of payload; returns where the payload stands.
uint8_t* startFrame(Command command, const uint8_t (&parameter)[4], size_t length) {
    memset(g_sendBuffer, 0, sizeof(g_sendBuffer));
    memcpy(g_sendBuffer, kMagic, sizeof(kMagic));
    g_sendBuffer[sizeof(kMagic)] = command;
    putLe16(g_sendBuffer + kLengthAt, static_cast<uint16_t>(length));
    memcpy(g_sendBuffer + kParameterAt, parameter, sizeof(parameter));
    return g_sendBuffer + kPayloadAt;
}

void sendFrame(size_t length) {
    const size_t end = kPayloadAt + length;
    g_sendBuffer[end] = xorOf(g_sendBuffer, end);
    quil::isp::writeToPort(g_sendBuffer, end + 1);
}

// One read of what comes within 3 s, whether the port could be set to end its reads then or not. A
// handled signal takes nothing from that time.
ssize_t readInTime(uint8_t* to, size_t count) {
    pollfd port = {fd, POLLIN, 0};
    const int64_t deadlineMs = monotonicMs() + kPatienceMs;
    for (int64_t leftMs = kPatienceMs; fd >= 0 && leftMs > 0; leftMs = deadlineMs - monotonicMs()) {
        const ssize_t ready = poll(&port, 1, static_cast<int>(leftMs));
        const ssize_t got = ready > 0 ? read(fd, to, count) : ready;
        if (got >= 0 || errno != EINTR) return got;
    }
    return 0;
}

// Reads up to `count` bytes. Clears the buffer first, so that silence cannot look like the last
// answer.
size_t readSome(size_t count) {
    memset(g_receiveBuffer, 0, sizeof(g_receiveBuffer));
    const ssize_t got = readInTime(g_receiveBuffer, count);
    return got > 0 ? static_cast<size_t>(got) : 0;
}

// Reads until a short answer is whole, or nothing comes for 3 s. Returns how much came.
size_t readAnswer() {
    size_t got = readSome(kAnswerSize);
    while (got > 0 && got < kAnswerSize) {
        const ssize_t more = readInTime(g_receiveBuffer + got, kAnswerSize - got);
        if (more <= 0) break;
        got += static_cast<size_t>(more);
    }
    return got;
}

bool startsAnAnswer(const uint8_t* at) { return memcmp(at, kMagic, sizeof(kMagic)) == 0; }

// Whether a good answer of `size` bytes stands at `at`. The boot loader's complement of the XOR of
// the bytes between the magic and the check is the same rule: 0xAA ^ 0x55 is 0xFF.
bool isGoodAnswer(const uint8_t* at, size_t size) {
    const size_t check = size - 1;
    return startsAnAnswer(at) && at[check] == xorOf(at, check) &&
           memcmp(at + check - sizeof(kStatusOk), kStatusOk, sizeof(kStatusOk)) == 0;
}

bool readGoodAnswer() {
    return readAnswer() == kAnswerSize && isGoodAnswer(g_receiveBuffer, kAnswerSize);
}

// Looks for an answer in the first `got` bytes: stray bytes may stand before it.
bool findGoodAnswer(size_t got, size_t size) {
    for (size_t at = 0; at + size <= got; ++at) {
        if (startsAnAnswer(g_receiveBuffer + at)) return isGoodAnswer(g_receiveBuffer + at, size);
    }
    return false;
}

bool openPort(const char* uart_path) {
    const char* shown = uart_path != nullptr ? uart_path : "(null)";
    fd = uart_path != nullptr ? open(uart_path, O_RDWR | O_NOCTTY) : -1;
    if (fd < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: Open serial port %s failed.\n", kSetOpt, shown);
        return false;
    }
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: open %s fd = %d\n", kSetOpt, shown, fd);
    return true;
}

// 9600 8N1, raw; a read waits up to 3 s for its first byte. Failures do not end the upgrade.
void setPort() {
    termios port = {};
    if (tcgetattr(fd, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: tcgetattr failed\n", kSetOpt);
    }
    port.c_iflag = 0;
    port.c_oflag = 0;
    port.c_lflag = 0;
    memset(port.c_cc, 0, sizeof(port.c_cc));
    port.c_cflag = CS8 | CREAD | CLOCAL;
    cfsetispeed(&port, B9600);
    cfsetospeed(&port, B9600);
    port.c_cc[VTIME] = 30;
    port.c_cc[VMIN] = 0;
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: tcsetattr failed\n", kSetOpt);
    }
}

bool handShakeOnce() {
    startFrame(kCommandHandShake, kHandShakeParameter, 0);
    sendFrame(0);
    pauseMs(200);
    const size_t got = readSome(kAnswerSize + 1);
    if (findGoodAnswer(got, kAnswerSize)) {
        QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: ACK ok\n", kHandShake);
        return true;
    }
    for (size_t i = 0; i < kAnswerSize; ++i) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: ack recvBuf[%d] = %02x\n", kHandShake,
                       static_cast<int>(i), g_receiveBuffer[i]);
    }
    return false;
}

bool handShake() {
    for (int attempts = kHandShakeAttempts; attempts > 0; --attempts) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: try_times=%d\n", kHandShake, attempts);
        if (handShakeOnce()) return true;
    }
    return false;
}

bool getInfo() {
    startFrame(kCommandGetInfo, kNoParameter, 0);
    sendFrame(0);
    pauseMs(200);
    if (!findGoodAnswer(readSome(kInfoSize + 1), kInfoSize)) return false;
    puts("get info ok ");
    fflush(stdout);
    return true;
}

bool eraseFlash() {
    startFrame(kCommandErase, kEraseParameter, kLeadSize);
    sendFrame(kLeadSize);
    pauseMs(100);
    return readGoodAnswer();
}

// Sends one block of `count` bytes to `address`. The running checksum includes refused blocks. The
// flush drops bytes that arrived during the pause; the answer that counts comes later. Returns
// whether it is a good one.
bool sendBlock(uint32_t address, const uint8_t* block, size_t count) {
    uint8_t parameter[4];
    putLe32(parameter, address);
    const size_t length = kLeadSize + count + kWord;
    uint8_t* payload = startFrame(kCommandDownload, parameter, length);
    memcpy(payload + kLeadSize, block, count);
    putLe32(payload + kLeadSize + count, crcOf(kCrcStart, block, count));
    g_runningCrc = crcOf(g_runningCrc, block, count);
    sendFrame(length);
    pauseMs(100);
    tcflush(fd, TCIFLUSH);
    return readGoodAnswer();
}

bool blockFailed(int line) {
    printFlushed("func %s,line %d\n", kDownload, line);
    return false;
}

void showProgress(uint32_t done, uint32_t size, int block, int blocks) {
    QUIL_LOG_INFO(kFirmwareUpdateTag, "write mcu internal flash: [%u%%]\n", 100 * done / size);
    fflush(stdout);
    printFlushed("%s  %d %d \n", kDownload, block, blocks);
}

void printAnswer() {
    printf("ack  data:");
    for (size_t i = 0; i < kAnswerSize; ++i) printf(" %02x", g_receiveBuffer[i]);
    putchar('\n');
    fflush(stdout);
}

// The rest of the image, padded with 0xFF to whole 16 bytes.
bool downloadLast(uint32_t address, const uint8_t* rest, size_t count) {
    uint8_t block[kBlock];
    memset(block, 0xFF, sizeof(block));
    memcpy(block, rest, count);
    const bool accepted = sendBlock(address, block, (count + kPadding - 1) / kPadding * kPadding);
    printAnswer();
    return accepted || blockFailed(__LINE__);
}

bool download(const uint8_t* image, uint32_t size) {
    const size_t rest = size % kBlock;
    const auto blocks = static_cast<uint8_t>(size / kBlock + (rest != 0 ? 1 : 0));
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: DataPacketNum = %u\n", kDownload, blocks);
    uint32_t done = 0;
    for (int block = 0; block < blocks - 1; ++block) {
        if (!sendBlock(kFlashBase + done, image + done, kBlock)) return blockFailed(__LINE__);
        done += kBlock;
        showProgress(done, size, block, blocks);
    }
    return rest == 0 || downloadLast(kFlashBase + done, image + done, rest);
}

// Any answer that starts with the magic passes, whatever the boot loader found.
bool checkCrc(uint32_t size) {
    uint8_t parameter[4];
    putLe32(parameter, g_runningCrc);
    const size_t length = kLeadSize + 2 * kWord;
    uint8_t* payload = startFrame(kCommandCrcCheck, parameter, length);
    putLe32(payload + kLeadSize, kFlashBase);
    const bool isWhole = size % kBlock == 0;
    const uint32_t padding = isWhole ? 0 : kPadding - size % kPadding;  // 16 for a multiple of 16
    putLe32(payload + kLeadSize + kWord, size + padding);
    sendFrame(length);
    pauseMs(20);
    tcflush(fd, TCIFLUSH);
    readAnswer();
    return startsAnAnswer(g_receiveBuffer);
}

int failedStep(const char* step) {
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s error\n", kSequence, step);
    return kStepFailed;
}

int program(const uint8_t* image, uint32_t size) {
    if (!handShake()) return failedStep("handShake");
    if (!getInfo()) return failedStep("N32_Get_info");
    if (!eraseFlash()) return failedStep("N32_FLASH_ERASE");
    if (!download(image, size)) return failedStep("N32_FLASH_DWNLD");
    if (!checkCrc(size)) return failedStep("N32_CRC_CHECK");
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: N32_CRC_CHECK success\n", kSequence);
    return 0;
}

int programFile(const char* file_path) {
    const int size = file_size(file_path);
    const auto image =
        size < 0 ? nullptr : allocateClearedBlock<uint8_t>(static_cast<size_t>(size));
    if (image == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: malloc failed. \n", kSequence);
        return kNoPortOrMemory;
    }
    file_read(file_path, image.get(), size);
    return program(image.get(), static_cast<uint32_t>(size));
}

}  // namespace

int n32_uart_isp_upgrade(const char* file_path, const char* uart_path) {
    if (!openPort(uart_path)) return kNoPortOrMemory;
    setPort();
    mcu_enter_isp_mode();
    const int result = programFile(file_path);
    close(fd);
    mcu_exit_isp_mode();
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: exit isp mode\n", kSequence);
    return result;
}
