#include "fpga/spi_link.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <quil_hal.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "common/heap_block.h"
#include "common/log.h"
#include "common/pause.h"
#include "fpga/spi_frame.h"

using quil::common::allocateClearedBlock;
using quil::common::kFirmwareUpdateTag;
using quil::common::pauseUs;
using quil::common::putBe32;
using quil::fpga::frameSize;
using quil::fpga::kAddressAt;
using quil::fpga::kCommandAt;
using quil::fpga::kWriteCommand;
using quil::fpga::sendFixedFrame;

namespace {

constexpr char kDevice[] = "/dev/fpga_spi";
constexpr useconds_t kBeforeWriteUs = 10000;
static_assert(O_RDWR == 2, "the driver takes no other mode");

// A read is a buffer of command, address, one byte without meaning and the data, which the driver
// overwrites.
constexpr uint8_t kReadCommand = 0x0B;
constexpr unsigned kReadDataAt = 6;
constexpr unsigned kReadMost = INT_MAX - kReadDataAt;  // so that the result can tell the length

constexpr uint32_t kDdrState = 0x00001016;
constexpr uint32_t kSgmiiClockState = 0x00001100;
constexpr uint32_t kSgmiiNegotiationState = 0x00001103;

struct ResetStep {
    uint8_t frame[frameSize(1)];
    const char* failure;
    useconds_t pauseUs;  // afterwards
};
constexpr ResetStep kResetPulse[] = {
    {{kWriteCommand, 0x00, 0x00, 0x11, 0x01, 0x00, 0x00}, "%s: send_tx_reset_low failed\n", 0},
    {{kWriteCommand, 0x00, 0x00, 0x11, 0x02, 0x00, 0x00}, "%s: send_rx_reset_low failed\n", 5000},
    {{kWriteCommand, 0x00, 0x00, 0x11, 0x01, 0x01, 0x00}, "%s: send_tx_reset_high failed\n", 0},
    {{kWriteCommand, 0x00, 0x00, 0x11, 0x02, 0x01, 0x00}, "%s: send_rx_reset_high failed\n", 0},
};

constexpr char kPhyRegister[] = "/sys/class/ethernet/quilphyreg";
constexpr char kPhyLinkUp[] = "0x907";
constexpr unsigned kPhyTextMost = 64;

// Fills the buffer in one `read` and logs what came.
int fillAndLog(const char* function, int device, uint8_t* buffer, unsigned count) {
    const auto result = static_cast<int>(read(device, buffer, count));
    if (result < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: read spi port %s failed, return %d.\n", function,
                       kDevice, result);
        return result;
    }
    for (unsigned i = 0; i < count; ++i) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: send_data[%d] = 0x%02x\n", function,
                       static_cast<int>(i), buffer[i]);
    }
    return result;
}

int transferRead(const char* function, uint8_t* buffer, unsigned count) {
    const int device = open(kDevice, O_RDWR);
    if (device < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: open spi port %s failed.\n", function, kDevice);
        return -1;
    }
    const int result = fillAndLog(function, device, buffer, count);
    close(device);
    return result;
}

int readState(const char* function, uint32_t address, uint8_t* data, unsigned length) {
    if (data == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: data_buf is NULL!\n", function);
        return -1;
    }
    const unsigned count = length + kReadDataAt;
    const auto block = length <= kReadMost ? allocateClearedBlock<uint8_t>(count) : nullptr;
    uint8_t* buffer = block.get();
    if (buffer == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: could not allocate memory for the send_data!\n",
                       function);
        return -1;
    }
    buffer[kCommandAt] = kReadCommand;
    putBe32(buffer + kAddressAt, address);
    const int result = transferRead(function, buffer, count);
    if (result >= 0) memcpy(data, buffer + kReadDataAt, length);
    return result;
}

}  // namespace

int quil::fpga::sendFixedFrame(const uint8_t* frame, unsigned size) {
    return spi_send_data(const_cast<uint8_t*>(frame), size);  // the transfer only reads it
}

int quil::fpga::writeRegister(uint32_t address, uint8_t value) {
    WriteFrame<1> frame;
    putWriteHeader(frame.bytes, address);
    frame.data()[0] = value;
    return spi_send_data(frame.bytes, sizeof(frame.bytes));
}

int spi_send_data(void* buf, unsigned count) {
    const int device = open(kDevice, O_RDWR);
    if (device < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: open %s failed !!!\n", __func__, kDevice);
        return -1;
    }
    pauseUs(kBeforeWriteUs);
    const auto result = static_cast<int>(write(device, buf, count));
    if (result < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: write fd(%d) error(%s)\n", __func__, device,
                       strerror(errno));
    }
    close(device);
    return result;
}

int readFpgaSgmiiClockState(unsigned char* data_buf, unsigned len) {
    return readState(__func__, kSgmiiClockState, data_buf, len);
}

int readFpgaSgmiiNegotiationState(unsigned char* data_buf, unsigned len) {
    return readState(__func__, kSgmiiNegotiationState, data_buf, len);
}

int readFpgaDdrState(unsigned char* state) { return readState(__func__, kDdrState, state, 1); }

int sendFpgaTxRxReset(void) {
    int result = -1;
    for (const ResetStep& step : kResetPulse) {
        result = sendFixedFrame(step.frame, sizeof(step.frame));
        if (result < 0) QUIL_LOG_ERROR(kFirmwareUpdateTag, step.failure, __func__);
        if (step.pauseUs != 0) pauseUs(step.pauseUs);
    }
    return result;
}

int readRtl8211fsPhyLink(void) {
    if (access(kPhyRegister, F_OK) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "<%s> the path %s not exist!\n", __func__, kPhyRegister);
        return -1;
    }
    char text[kPhyTextMost + 1] = {};  // one more byte, so that the text always ends inside
    if (hal_sys_read(kPhyRegister, text, kPhyTextMost) < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "<%s> phylink_path error!\n", __func__);
        return -1;
    }
    text[kPhyTextMost] = '\0';
    QUIL_LOG_INFO(kFirmwareUpdateTag, "<%s> get phylink value:'%s' (length: %zu)\n", __func__, text,
                  strlen(text));
    return strstr(text, kPhyLinkUp) != nullptr ? 1 : 0;
}
