#include "fuzz/exported_calls.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>

#include "config/config_info.h"
#include "fpga/ddr_recovery.h"
#include "fpga/flash_update.h"
#include "fpga/load_process.h"
#include "fpga/network_bring_up.h"
#include "fpga/screen/net_gap.h"
#include "fpga/screen/screen_blocks.h"
#include "fpga/screen/screen_fixed.h"
#include "fpga/screen/screen_params.h"
#include "fpga/screen/screen_passes.h"
#include "fpga/spi_link.h"
#include "isp/boot_loader.h"
#include "isp/boot_mode.h"
#include "isp/firmware_file.h"
#include "isp/isp_tasks.h"
#include "isp/mcu_update.h"
#include "isp/n32_upgrade.h"
#include "isp/serial_port.h"
#include "mculink/frame.h"
#include "mculink/request.h"
#include "mculink/uart.h"
#include "selftest/self_test.h"
#include "service/control_manager.h"
#include "service/quil_service_manager.h"

namespace quil::fuzz {
namespace {

using A = Arguments;
constexpr unsigned kBlockMost = 5000;  // more than any frame
constexpr int kFramesMost = 40;        // each takes 10 ms

// A count and the block that it is the size of.
struct Sized {
    unsigned size;
    uint8_t* data;
};
Sized sized(A& a, unsigned most = kBlockMost) {
    const unsigned size = a.upTo(most);
    return {size, a.bytes(size)};
}
// A count of any value where there is no block.
Sized sizedOrNull(A& a, unsigned most = kBlockMost) {
    const unsigned size = a.upTo(most);
    uint8_t* data = a.bytes(size, true);
    return {data == nullptr ? a.number() : size, data};
}
// A signed count: at most the block's, or below 0.
int signedCount(A& a, unsigned size) {
    return a.flag() ? static_cast<int>(size) : -static_cast<int>(a.upTo(INT_MAX >> 8));
}
size_t roomFor(int count) { return static_cast<size_t>(std::max(0, count)); }

template <auto kFunction>
int64_t noArguments(A&) {
    return static_cast<int64_t>(kFunction());
}
template <auto kFunction>
int64_t withDescriptor(A& a) {
    return static_cast<int64_t>(kFunction(a.descriptor()));
}
template <auto kFunction>
int64_t withTwoPaths(A& a) {
    const char* file = a.path();
    return kFunction(file, a.path());
}
template <auto kFunction>
int64_t stateRead(A& a) {
    const Sized block = sizedOrNull(a, 600);
    return kFunction(block.data, block.size);
}
template <auto kFunction>
int64_t screenPass(A& a) {
    const int blocks = a.integer();
    kFunction(blocks, a.packed(true));
    return 0;
}
template <auto kFunction>
int64_t testItem(A& a) {
    const char* name = a.text();
    const unsigned size = a.upTo(200);
    auto* room = reinterpret_cast<char*>(a.room(size, true));
    return kFunction(name, room, size);
}

// The header by value, as far as the compiler passes bytes.
template <typename T>
T valueOf(A& a) {
    T value;
    memcpy(&value, a.bytes(sizeof(T)), sizeof(T));
    return value;
}

int64_t packetData(A& a) {
    const auto len = static_cast<uint16_t>(a.upTo(kBlockMost));
    uint8_t* frame = a.room(len + 32U, true);
    const uint8_t* payload = a.bytes(len, true);
    const auto header = valueOf<quil_frame_header_t>(a);
    const auto request = valueOf<quil_request_header_t>(a);
    return quil_packet_data(frame, payload, len, header, request, valueOf<quil_request_body_t>(a));
}
int64_t checksum(A& a) {
    const Sized block = sizedOrNull(a);
    const int len = block.data == nullptr ? a.integer() : signedCount(a, block.size);
    return quil_transfer_checksum(block.data, len);
}
int64_t requestHeader(A& a) {
    uint8_t* header = a.room(12, true);
    const uint32_t type = a.number(), isWrite = a.number(), flag = a.number();
    const auto field = static_cast<uint16_t>(a.number());
    const uint32_t fieldB = a.number();
    return quil_packet_add_request_header(header, type, isWrite, flag, field, fieldB, a.number());
}
int64_t requestBody(A& a) {
    uint8_t* body = a.room(8, true);
    return quil_packet_add_request_body(body, a.number());
}
// Without a payload any length may be asked for: zeros are sent.
int64_t message(A& a) {
    const uint32_t cmd = a.number();
    const auto isWrite = static_cast<uint8_t>(a.number());
    const Sized payload = sizedOrNull(a);
    return send_mcu_message(cmd, isWrite, payload.data, static_cast<uint16_t>(payload.size),
                            a.descriptor());
}
int64_t request(A& a) {
    const Sized payload = sizedOrNull(a);
    auto* param =
        reinterpret_cast<quil_request_param_t*>(a.bytes(sizeof(quil_request_param_t), true));
    return quil_request(payload.data, static_cast<uint16_t>(payload.size), param, a.descriptor());
}
int64_t physicalSend(A& a) {
    const Sized frame = sizedOrNull(a);
    return quil_physical_send(frame.data, frame.size, a.descriptor());
}
int64_t printSend(A& a) {
    const Sized data = sizedOrNull(a, 100);
    printsend(data.data, data.size);
    return 0;
}

// What it opens is closed: a read of a port without settings waits for ever.
template <auto kOpen>
int64_t opening(A& a) {
    const int opened = kOpen(a.path());
    if (opened >= 0) close(opened);
    return std::min(opened, 0);
}
int64_t uartInit(A& a) {
    const char* path = a.path();
    const int opened = sdk_uart_init(path, a.integer());
    a.addDescriptor(opened);
    return std::min(opened, 0);
}
int64_t uartSettings(A& a) {
    const int port = a.descriptor(), baud = a.integer(), flow = a.integer(), bits = a.integer();
    const int stop = a.integer();
    return sdk_uart_cfg(port, baud, flow, bits, stop, a.integer());
}
int64_t uartClose(A& a) {
    const int port = a.descriptor();
    a.removeDescriptor(port);
    return sdk_uart_close(port);
}
int64_t uartWrite(A& a) {
    const int port = a.descriptor();
    const Sized data = sizedOrNull(a);
    return sdk_uart_write(port, data.data, data.size);
}
int64_t uartRead(A& a) {
    const int port = a.descriptor();
    const Sized data = sizedOrNull(a);
    return sdk_uart_read(port, data.data, data.size);
}

// A port that it opened before is closed first, as every session does.
int64_t ispPort(A& a) {
    if (fd >= 0) mcu_serial_close();
    a.removeDescriptor(fd);
    const char* path = a.path();
    const int baud = a.flag() ? 115200 : a.integer(), bits = a.integer(), stop = a.integer();
    const int result = mcu_serial_init(path, baud, bits, stop, a.integer());
    a.addDescriptor(fd);
    return result;
}
int64_t ispClose(A& a) {
    const bool isOpen = std::count(a.descriptors().begin(), a.descriptors().end(), fd) != 0;
    if (!isOpen) fd = -1;
    a.removeDescriptor(fd);
    return mcu_serial_close();
}
int64_t ispWrite(A& a) {
    const Sized data = sizedOrNull(a, 600);
    return mcu_serial_write(data.data, data.size);
}
template <auto kFunction>
int64_t ispRead(A& a) {
    const unsigned size = a.upTo(600);
    uint8_t* room = a.room(size, true);
    return kFunction(room, room == nullptr ? a.integer() : signedCount(a, size));
}
int64_t parity(A& a) {
    const int port = a.descriptor(), bits = a.integer(), stop = a.integer();
    return mcu_set_parity(port, bits, stop, a.integer());
}
int64_t baudRate(A& a) {
    const int port = a.descriptor();
    return mcu_set_baudrate(port, a.number());
}
int64_t memoryRead(A& a) {
    const uint32_t address = a.number();
    const unsigned size = a.upTo(600);
    uint8_t* room = a.room(size, true);
    readmemory_4mcu(address, room, signedCount(a, size));
    return 0;
}
int64_t memoryWrite(A& a) {
    const uint32_t address = a.number();
    const Sized data = sizedOrNull(a, 600);
    return writememory_2mcu(address, data.data,
                            data.data == nullptr ? a.integer() : signedCount(a, data.size));
}
int64_t erase(A& a) {
    const uint32_t address = a.number();
    return erasememory_extend(address, a.number());
}

int64_t fileRead(A& a) {
    const char* path = a.path();
    const int count = signedCount(a, a.upTo(kBlockMost));
    return file_read(path, a.room(roomFor(count)), count);
}
int64_t fileWrite(A& a) {
    const char* path = a.path();
    const Sized data = sized(a);
    return file_write(path, data.data, data.size);
}
int64_t ispUpdate(A& a) {
    char *file = a.path(), *port = a.path();
    constexpr const char* kChips[] = {"gd32f303", "stm32h750", "n32g45x", "UNDEF"};
    if (a.flag()) return mcu_isp_fw_update(file, port, a.text());
    const char* chip = kChips[a.upTo(3)];
    auto* room = reinterpret_cast<char*>(a.room(strlen(chip) + 1));
    return mcu_isp_fw_update(file, port, strcpy(room, chip));
}
int64_t anyTask(A& a) {
    constexpr unsigned kCommands[] = {0x00, 0x01, 0x02, 0x06, 0x11, 0x21, 0x31,
                                      0x43, 0x44, 0x63, 0x73, 0x82, 0x92};
    const unsigned command = a.flag() ? a.number() : kCommands[a.upTo(std::size(kCommands) - 1)];
    const char* file = a.path();
    return task(command, file, a.path());
}
int64_t versionOf(A& a) {
    const int port = a.descriptor();
    return getMcuFwVersion(port, reinterpret_cast<char*>(a.room(92, true)));
}
int64_t mcuUpdate(A& a) {
    if (a.upTo(7) == 7) return mcuFwUpdate(nullptr);
    const int former = a.descriptor();
    int32_t link = former;
    const int result = mcuFwUpdate(&link);
    if (link != former && link >= 0) close(link);
    return result;
}

int64_t spiSend(A& a) {
    const Sized data = sized(a, 600);
    return spi_send_data(data.data, data.size);
}
int64_t parseBlocks(A& a) {
    static auto& packed = *new std::vector<uint8_t>(A::kPackedSize);
    unsigned char* image = a.packed(true);
    return parse_emmc_block(a.flag() || a.flag() ? packed.data() : nullptr, image);
}
int64_t copyBlock(A& a) {
    const Sized from = sizedOrNull(a);
    uint8_t* to = from.data == nullptr ? a.room(1, true) : a.room(from.size, true);
    putDataToSendCach(from.data, to, from.size);
    return 0;
}
int64_t topology(A& a) {
    const uint8_t* source = a.packed(true);
    const unsigned offset = a.flag() ? A::kPackedSize - a.upTo(600) : a.number();
    const unsigned address = a.number();
    sendTopologyPara(source, offset, address, std::min(a.integer(), kFramesMost));
    return 0;
}
int64_t textToFile(A& a) {
    const char* path = a.path();
    return writeToFile(path, a.text());
}
int64_t selfTest(A& a) {
    const unsigned size = a.upTo(kBlockMost);
    unsigned char* room = a.room(std::max(size, 522U), true);
    return static_cast<int>(runSelfTestAndGetResult(room, size));
}

using hardware::quilservicemanager::implementation::HIDL_FETCH_IQuilServiceManager;
using hardware::quilservicemanager::implementation::hidl_service_type_t;
using hardware::quilservicemanager::implementation::QuilServiceManager;
using hardware::quilservicemanager::implementation::tclvMsg;

// The steps of a request, one by one, and what else the service has.
int64_t serviceSteps(A& a) {
    using hardware::quilservicemanager::V1_0::IQuilServiceManager;
    const android::sp<IQuilServiceManager> fetched(HIDL_FETCH_IQuilServiceManager(a.text()));
    const android::sp<QuilServiceManager> service(new QuilServiceManager);
    const Sized data = sized(a, 300);
    const std::vector<uint8_t> bytes(data.data, data.data + data.size);
    tclvMsg msg, *message = a.upTo(7) == 7 ? nullptr : &msg;
    hidl_service_type_t type{}, *typed = a.upTo(7) == 7 ? nullptr : &type;
    service->convertRequestToTclvMsg(bytes, message);
    service->getBusinessTypeByTclvMsg(message, typed);
    service->sendTclvDataToMcu(message, static_cast<uint8_t>(a.number()));
    service->powerControl(message);
    service->lowPowerMode();
    service->normalPowerMode();
    if (message != nullptr) service->selfTest(message);
    service->doWaitMcu();
    service->hwInvoke(bytes);
    service->hwRegistCallback(nullptr);
    service->hwUnRegistCallback(nullptr);
    service->debug(nullptr, {});
    service->wakeUp(bytes);
    const ControlManager control;
    return 0;
}

constexpr int64_t kAnyCount = INT_MAX;
constexpr ExportedCall kCalls[] = {
    {"HIDL_FETCH_IQuilServiceManager", serviceSteps, 0, 0},
    {"ack_sendcmd", [](A& a) { return int64_t{ack_sendcmd(a.number())}; }, -4, 0},
    {"ack_startisp", noArguments<ack_startisp>, 0, 15},
    {"checkES8316State", testItem<checkES8316State>, -1, 0},
    {"checkIDT6965State", testItem<checkIDT6965State>, -1, 0},
    {"checkMcuFwVersion", withDescriptor<checkMcuFwVersion>, 0, 1},
    {"checkRtcState", testItem<checkRtcState>, -1, 0},
    {"checkWifiApState", testItem<checkWifiApState>, -1, 0},
    {"checkWifiStaState", testItem<checkWifiStaState>, -1, 0},
    {"display_cmd", [](A& a) { return display_cmd(a.number()), int64_t{0}; }, 0, 0},
    {"doMcuUpdateByIsp", noArguments<doMcuUpdateByIsp>, -1, 0, true},
    {"erasememory_extend", erase, -1, 0},
    {"file_read", fileRead, 0, 15},
    {"file_size", [](A& a) { return int64_t{file_size(a.path())}; }, 0, kAnyCount},
    {"file_write", fileWrite, 0, 15},
    {"fpgaCheckDDRAndRecovery", noArguments<fpgaCheckDDRAndRecovery>, -1, 0},
    {"fpgaCheckDone", noArguments<fpgaCheckDone>, -4095, 1},
    {"fpgaDwmacConfig", noArguments<fpgaDwmacConfig>, 0, 0},
    {"fpgaEthConfig", noArguments<fpgaEthConfig>, 0, 0},
    {"fpgaFlashFormat", noArguments<fpgaFlashFormat>, -1, 0, true},
    {"fpgaFlashWrite", noArguments<fpgaFlashWrite>, -1, 0, true},
    {"fpgaFwUpdate", noArguments<fpgaFwUpdate>, -1, 0, true},
    {"fpgaLoadProcessHeron", noArguments<fpgaLoadProcessHeron>, -1, 0, true},
    {"fpgaLoadProcessKestrel", noArguments<fpgaLoadProcessKestrel>, -1, 0, true},
    {"fpgaLoadProcessWren_t507", noArguments<fpgaLoadProcessWren_t507>, -1, 0, true},
    {"fpgaLoadScreenParamsBySpi", noArguments<fpgaLoadScreenParamsBySpi>, -1, 0, true},
    {"fpgaNetworkConfig", noArguments<fpgaNetworkConfig>, 0, 0},
    {"fpgaPhyConfig", noArguments<fpgaPhyConfig>, 0, 0},
    {"fpgaPhySgmiiConfig", noArguments<fpgaPhySgmiiConfig>, -1, 0},
    {"getFileSize", [](A& a) { return static_cast<int64_t>(getFileSize(a.path())); }, 0,
     UINT32_MAX},
    {"getMcuFwVersion", versionOf, -1, 0},
    {"mcuFwUpdate", mcuUpdate, -1, 0, true},
    {"mcu_enter_isp_mode", noArguments<mcu_enter_isp_mode>, 0, 0},
    {"mcu_exit_isp_mode", noArguments<mcu_exit_isp_mode>, 0, 0},
    {"mcu_isp_close", noArguments<mcu_isp_close>, 0, 0},
    {"mcu_isp_fw_update", ispUpdate, -1, 255, true},
    {"mcu_isp_init", noArguments<mcu_isp_init>, 0, 0},
    {"mcu_serial_close", ispClose, -1, 0},
    {"mcu_serial_init", ispPort, -1, 0},
    {"mcu_serial_read", ispRead<mcu_serial_read>, 0, 3},
    {"mcu_serial_read_select", ispRead<mcu_serial_read_select>, 1, 5},
    {"mcu_serial_write", ispWrite, 0, kAnyCount},
    {"mcu_set_baudrate", baudRate, -1, 0},
    {"mcu_set_parity", parity, -4, 0},
    {"mcu_tool_isp_task", withTwoPaths<mcu_tool_isp_task>, 0, 15, true},
    {"mcu_type_detect", [](A&) { return mcu_type_detect(), int64_t{0}; }, 0, 0},
    {"n32_uart_isp_upgrade", withTwoPaths<n32_uart_isp_upgrade>, -1, 255, true},
    {"parseAndConfigTestItem", noArguments<parseAndConfigTestItem>, -1, 32},
    {"parseConfigInfo", noArguments<parseConfigInfo>, -1, 0},
    {"parse_emmc_block", parseBlocks, 0, 60},
    {"printsend", printSend, 0, 0},
    {"putDataToSendCach", copyBlock, 0, 0},
    {"quil_get_packet_length", noArguments<quil_get_packet_length>, 30, 30},
    {"quil_packet_add_frame_header",
     [](A& a) { return int64_t{quil_packet_add_frame_header(a.room(10, true))}; }, -1, 0},
    {"quil_packet_add_request_body", requestBody, -1, 0},
    {"quil_packet_add_request_header", requestHeader, -1, 0},
    {"quil_packet_data", packetData, -1, 0},
    {"quil_physical_send", physicalSend, INT_MIN, kBlockMost},
    {"quil_request", request, INT_MIN, kBlockMost},
    {"quil_transfer_checksum", checksum, -1, UINT16_MAX},
    {"readFpgaDdrState", [](A& a) { return int64_t{readFpgaDdrState(a.room(1, true))}; }, -1, 7},
    {"readFpgaSgmiiClockState", stateRead<readFpgaSgmiiClockState>, -1, 606},
    {"readFpgaSgmiiNegotiationState", stateRead<readFpgaSgmiiNegotiationState>, -1, 606},
    {"readRtl8211fsPhyLink", noArguments<readRtl8211fsPhyLink>, -1, 1},
    {"read_gd_mcu_pid", noArguments<read_gd_mcu_pid>, 0, UINT32_MAX},
    {"read_st_mcu_pid", noArguments<read_st_mcu_pid>, 0, 0x450},
    {"readmemory_4mcu", memoryRead, 0, 0},
    {"reset8211FS", noArguments<reset8211FS>, -1, 0},
    {"runSelfTestAndGetResult", selfTest, -1, 522},
    {"sdk_uart_cfg", uartSettings, -1, 0},
    {"sdk_uart_close", uartClose, 0, 0},
    {"sdk_uart_init", uartInit, -1, 0},
    {"sdk_uart_open", opening<sdk_uart_open>, -1, 0},
    {"sdk_uart_read", uartRead, -5, kBlockMost},
    {"sdk_uart_write", uartWrite, -5, kBlockMost},
    {"sendFixedParameter", screenPass<sendFixedParameter>, 0, 0, true},
    {"sendFpgaTxRxReset", noArguments<sendFpgaTxRxReset>, -1, 7},
    {"sendNetGapeEnable", screenPass<sendNetGapeEnable>, 0, 0, true},
    {"sendTopologyPara", topology, 0, 0},
    {"send_mcu_message", message, INT_MIN, kBlockMost},
    {"serialInit",
     [](A&) {
         const int port = serialInit();
         if (port >= 0) close(port);
         return int64_t{0};
     },
     0, 0},
    {"spi_send_data", spiSend, -1, 600},
    {"task", anyTask, 0, 15, true},
    {"testItem6", testItem<testItem6>, -1, 0},
    {"testItem7", testItem<testItem7>, -1, 0},
    {"testItem8", testItem<testItem8>, -1, 0},
    {"testItem9", testItem<testItem9>, -1, 0},
    {"transUcharArrayToU64",
     [](A& a) { return static_cast<int64_t>(transUcharArrayToU64(a.bytes(4, true))); }, 0,
     UINT32_MAX},
    {"writeToFile", textToFile, -1, 0},
    {"writememory_2mcu", memoryWrite, -1, 0},
};

}  // namespace

std::span<const ExportedCall> exportedCalls() { return kCalls; }

}  // namespace quil::fuzz
