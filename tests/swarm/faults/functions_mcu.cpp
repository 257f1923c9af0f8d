// The MCU: each exported function, what it takes to call it, and the failures that it reports.
#include <string.h>
#include <unistd.h>

#include "isp/boot_loader.h"
#include "isp/boot_mode.h"
#include "isp/firmware_file.h"
#include "isp/isp_tasks.h"
#include "isp/mcu_update.h"
#include "isp/n32_upgrade.h"
#include "isp/serial_port.h"
#include "mculink/request.h"
#include "mculink/uart.h"
#include "tests/swarm/faults/functions.h"

namespace quil::faults {
namespace {

using board::Board;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kImage[] = "/vendor/firmware/mcu_Heron.bin", kScratch[] = "/opt/scratch.bin";

// What prepares.

void linked(Board& board) {
    parsed(board);
    config_info->mcu_fd = sdk_uart_init(kUart, 115200);
    board.runFor(milliseconds(100));  // the MCU starts
}
void shippedAndLinked(Board& board) {
    linked(board);
    memcpy(config_info->mcu_fw_version, swarm::kOlderMcu, sizeof(swarm::kOlderMcu));
}
void answered(Board& board) {
    linked(board);
    board.mcu().sendUnsolicited({1, 2, 3, 4}, 0xEE);
    board.runFor(seconds(1));
}
void opened(Board& board) {
    parsed(board);
    mcu_serial_init(kUart, 115200, 8, 1, 'O');
}
void atLoader(Board& board) {
    opened(board);
    mcu_isp_init();
    board.runFor(milliseconds(500));
}
void synchronised(Board& board) {
    atLoader(board);
    ack_startisp();
}
void detected(Board& board) {
    synchronised(board);
    mcu_type_detect();
}
void erasing(Board& board) {
    detected(board);
    ack_sendcmd(0x44);
}
void erased(Board& board) {
    erasing(board);
    erasememory_extend(0x08000000, 2048);
}
// What closes.

void closeLink(Board& /*board*/) { close(config_info->mcu_fd); }
void closePort(Board& /*board*/) { close(fd); }
void leaveLoader(Board& /*board*/) {
    close(fd);
    mcu_isp_close();
}

// What is called.

// A descriptor is as good as another.
int64_t openedBy(int descriptor) {
    if (descriptor < 0) return descriptor;
    close(descriptor);
    return 0;
}

int64_t request(Board& /*board*/) {
    constexpr std::array<uint8_t, 3> kPayload = {1, 2, 3};
    return send_mcu_message(1, 0, kPayload.data(), kPayload.size(), config_info->mcu_fd);
}

int64_t describedRequest(Board& /*board*/) {
    quil_request_param_t parameters{};
    parameters.req_type = parameters.field_a = 1;
    return quil_request(nullptr, 0, &parameters, config_info->mcu_fd);
}

template <unsigned Command>
int64_t diagnosticTask(Board& /*board*/) {
    return task(Command, kImage, kUart);
}

int64_t updateMcu(Board& /*board*/) {
    const int former = config_info->mcu_fd;
    const int64_t result = mcuFwUpdate(&config_info->mcu_fd);
    if (config_info->mcu_fd != former) close(former);
    return result;
}

int64_t updateByFamily(Board& /*board*/) {
    return mcu_isp_fw_update(config_info->mcu_fw_path, config_info->mcu_uart_path,
                             config_info->mcu_serial);
}

int64_t packet(Board& /*board*/) {
    return quil_packet_data(g_bytes.data(), nullptr, 0, {}, {}, {});
}

// One write or read: what it transfers is the result.
std::vector<Fails> transfer(Call call, std::vector<Fails> others = {}) {
    others.insert(others.end(),
                  {{call, -1, "", "E"}, {call, 0, "", "short 0"}, {call, 1, "", "short 1"}});
    return others;
}

std::vector<Function> uartFunctions() {
    const std::vector<Fails> settings = {{Call::kTcgetattr, -1}, {Call::kTcsetattr, -1}};
    // Of the three fcntl of the link's opening the last two only clear a flag.
    const std::vector<Fails> link = {{Call::kOpen, -1},
                                     {Call::kFcntl, -1, "", "", 0, 0},
                                     {Call::kTcgetattr, -1},
                                     {Call::kTcsetattr, -1}};
    return {
        {"sdk_uart_open",
         parsed,
         [](Board&) { return openedBy(sdk_uart_open(kUart)); },
         {{Call::kOpen, -1}, {Call::kFcntl, -1}}},
        {"sdk_uart_init",
         parsed,
         [](Board&) { return openedBy(sdk_uart_init(kUart, 115200)); },
         {{Call::kOpen, -1}, {Call::kFcntl, -1}, {Call::kTcgetattr, -1}, {Call::kTcsetattr, -1}}},
        {"sdk_uart_cfg", linked,
         [](Board&) -> int64_t { return sdk_uart_cfg(config_info->mcu_fd, 9600, 0, 8, 1, 'N'); },
         settings, closeLink},
        {"sdk_uart_close", linked,
         [](Board&) -> int64_t { return sdk_uart_close(config_info->mcu_fd); }},
        {"sdk_uart_write", linked,
         [](Board&) -> int64_t { return sdk_uart_write(config_info->mcu_fd, "abc", 3); },
         transfer(Call::kWrite), closeLink},
        {"sdk_uart_read", answered,
         [](Board&) -> int64_t { return sdk_uart_read(config_info->mcu_fd, g_bytes.data(), 4); },
         transfer(Call::kRead), closeLink},
        {"serialInit", parsed, [](Board&) { return openedBy(serialInit()); }, link},
    };
}

std::vector<Function> requestFunctions() {
    return {
        {"send_mcu_message", linked, request, transfer(Call::kWrite, {{Call::kMalloc, -1}}),
         closeLink},
        {"quil_request", linked, describedRequest, transfer(Call::kWrite, {{Call::kMalloc, -1}}),
         closeLink},
        {"quil_physical_send", linked,
         [](Board&) -> int64_t {
             return quil_physical_send(g_bytes.data(), 32, config_info->mcu_fd);
         },
         transfer(Call::kWrite), closeLink},
        {"quil_packet_data", nothing, packet},
        {"quil_packet_add_frame_header", nothing,
         [](Board&) -> int64_t { return quil_packet_add_frame_header(g_bytes.data()); }},
        {"quil_packet_add_request_header", nothing,
         [](Board&) -> int64_t {
             return quil_packet_add_request_header(g_bytes.data(), 1, 0, 0, 1, 0, 0);
         }},
        {"quil_packet_add_request_body", nothing,
         [](Board&) -> int64_t { return quil_packet_add_request_body(g_bytes.data(), 1); }},
        {"quil_get_packet_length", nothing, plain<quil_get_packet_length>},
        {"quil_transfer_checksum", nothing,
         [](Board&) -> int64_t { return quil_transfer_checksum(g_bytes.data(), 0); }},
        {"printsend", nothing,
         [](Board&) -> int64_t {
             printsend(g_bytes.data(), 8);
             return 0;
         }},
    };
}

std::vector<Function> portFunctions() {
    const std::vector<Fails> settings = {{Call::kTcgetattr, -1}, {Call::kTcsetattr, -1}};
    return {
        {"mcu_serial_init",
         parsed,
         [](Board&) -> int64_t { return mcu_serial_init(kUart, 115200, 8, 1, 'O'); },
         {{Call::kOpen, -1}, {Call::kTcgetattr, -1}, {Call::kTcsetattr, -1}},
         closePort},
        {"mcu_set_baudrate", opened, [](Board&) -> int64_t { return mcu_set_baudrate(fd, 9600); },
         settings, closePort},
        {"mcu_set_parity",
         opened,
         [](Board&) -> int64_t { return mcu_set_parity(fd, 8, 1, 'E'); },
         {{Call::kTcgetattr, -1}, {Call::kTcsetattr, -4}},
         closePort},
        {"mcu_serial_close", opened, plain<mcu_serial_close>, {{Call::kClose, -1}}},
        {"mcu_serial_write",
         opened,
         [](Board&) -> int64_t { return mcu_serial_write(g_bytes.data(), 3); },
         {{Call::kWrite, 2, "", "E"},
          {Call::kWrite, 0, "", "short 0"},
          {Call::kWrite, 1, "", "short 1"}},
         closePort},
        {"mcu_serial_read",
         opened,
         [](Board&) -> int64_t { return mcu_serial_read(g_bytes.data(), 1); },
         {},
         closePort},
        {"mcu_serial_read_select",
         synchronised,
         [](Board&) -> int64_t {
             constexpr std::array<uint8_t, 2> kGet = {0x00, 0xFF};
             static_cast<void>(write(fd, kGet.data(), kGet.size()) == 0);
             return mcu_serial_read_select(g_bytes.data(), 2);
         },
         {{Call::kSelect, 4}, {Call::kWrite, 5}},
         leaveLoader},
        {"mcu_isp_init", parsed, plain<mcu_isp_init>, {}, [](Board&) { mcu_isp_close(); }},
        {"mcu_isp_close", atLoader, plain<mcu_isp_close>, {}, closePort},
        {"mcu_enter_isp_mode",
         parsed,
         plain<mcu_enter_isp_mode>,
         {},
         [](Board&) { mcu_exit_isp_mode(); }},
        {"mcu_exit_isp_mode", parsed, plain<mcu_exit_isp_mode>},
    };
}

std::vector<Function> commandFunctions() {
    return {
        {"ack_startisp",
         atLoader,
         plain<ack_startisp>,
         {{Call::kWrite, 15, "", "E"},
          {Call::kWrite, 15, "", "short 0"},
          {Call::kWrite, 15, "", "lost"}},
         leaveLoader},
        {"display_cmd", nothing,
         [](Board&) -> int64_t {
             display_cmd(0x11);
             return 0;
         }},
        {"ack_sendcmd",
         synchronised,
         [](Board&) -> int64_t { return ack_sendcmd(0x31); },
         {{Call::kWrite, -2}},
         leaveLoader},
        {"erasememory_extend",
         erasing,
         [](Board&) -> int64_t { return erasememory_extend(0x08000000, 2048); },
         {{Call::kWrite, -1}},
         leaveLoader},
        {"writememory_2mcu",
         erased,
         [](Board&) -> int64_t { return writememory_2mcu(0x08000000, g_bytes.data(), 552); },
         {{.call = Call::kWrite, .result = -1, .orSucceeds = true}},
         leaveLoader},
        {"readmemory_4mcu",
         synchronised,
         [](Board&) -> int64_t {
             readmemory_4mcu(0x08000000, g_bytes.data(), 300);
             return 0;
         },
         {},
         leaveLoader},
        {"read_gd_mcu_pid", synchronised, plain<read_gd_mcu_pid>, {{Call::kWrite, 0}}, leaveLoader},
        {"read_st_mcu_pid", synchronised, plain<read_st_mcu_pid>, {}, leaveLoader},
        {"mcu_type_detect",
         synchronised,
         [](Board&) -> int64_t {
             mcu_type_detect();
             return 0;
         },
         {},
         leaveLoader},
    };
}

// A session reports 15 for whatever stops it. What goes astray on the line, or on the lines
// that start the boot loader, may do so or not: answers to data are not looked at.
std::vector<Fails> session(int64_t result, std::vector<Fails> others = {}) {
    for (const Call call : {Call::kOpen, Call::kTcgetattr, Call::kTcsetattr, Call::kSystem,
                            Call::kGpioSet, Call::kWrite}) {
        others.push_back({.call = call, .result = result, .orSucceeds = true});
    }
    return others;
}

std::vector<Function> taskFunctions() {
    // Programs an image, which has to be there and to fit the memory.
    const std::vector<Fails> programs =
        session(15, {{Call::kAccess, 15, "", "", 0, 0}, {Call::kStat, 15}, {Call::kMalloc, 15}});
    // Returns how the last byte was read.
    const std::vector<Fails> reads = session(15, {{Call::kTcgetattr, 0}, {Call::kTcsetattr, 0}});
    // Its steps are not tried again, but for the handshake.
    const std::vector<Fails> n32 =
        session(255, {{Call::kOpen, -1, kUart},
                      {Call::kMalloc, -1},
                      {.call = Call::kRead, .result = 255, .orSucceeds = true},
                      {.call = Call::kPoll, .result = 255, .orSucceeds = true}});
    return {
        {"mcu_isp_fw_update", parsed, updateByFamily, programs},
        {"mcu_tool_isp_task", parsed,
         [](Board&) -> int64_t { return mcu_tool_isp_task(kImage, kUart); }, programs},
        {"n32_uart_isp_upgrade", parsed,
         [](Board&) -> int64_t { return n32_uart_isp_upgrade(kImage, kUart); }, n32, nullptr,
         board::McuKind::kN32G45x},
        {"task-get", parsed, diagnosticTask<0x00>, session(15)},
        {"task-read", parsed, diagnosticTask<0x11>, session(15, {{Call::kMalloc, 15}})},
        {"task-write", parsed, diagnosticTask<0x31>, programs},
        {"task-erase", parsed, diagnosticTask<0x43>, reads},
        {"task-extended-erase", parsed, diagnosticTask<0x44>, session(15)},
        {"task-write-unprotect", parsed, diagnosticTask<0x73>, session(15)},
        {"task-readout-unprotect", parsed, diagnosticTask<0x92>, reads},
    };
}

std::vector<Function> updateFunctions() {
    return {
        {"file_size",
         parsed,
         [](Board&) -> int64_t { return file_size(kImage); },
         {{Call::kAccess, 0}, {Call::kStat, 0}}},
        {"file_read",
         parsed,
         [](Board&) -> int64_t { return file_read(kImage, g_bytes.data(), 100); },
         {{Call::kAccess, 15}, {Call::kFopen, 15}}},
        {"file_write",
         parsed,
         [](Board&) -> int64_t { return file_write(kScratch, g_bytes.data(), 100); },
         {{Call::kFopen, 15}}},
        {"getMcuFwVersion",
         linked,
         [](Board&) -> int64_t { return getMcuFwVersion(config_info->mcu_fd, g_text.data()); },
         {{Call::kWrite, -1, "", "E"}},
         closeLink},
        {"checkMcuFwVersion",
         linked,
         [](Board&) -> int64_t { return checkMcuFwVersion(config_info->mcu_fd); },
         {},
         closeLink},
        {"checkMcuFwVersion-equal",
         shippedAndLinked,
         [](Board&) -> int64_t { return checkMcuFwVersion(config_info->mcu_fd); },
         {{Call::kWrite, 1}, {Call::kRead, 1}},
         closeLink},
        {"doMcuUpdateByIsp",
         linked,
         plain<doMcuUpdateByIsp>,
         {{Call::kAccess, -1, "", "", 0, 0}},
         closeLink},
        {"mcuFwUpdate",
         linked,
         updateMcu,
         {{Call::kAccess, -1, "", "", 0, 0},
          {Call::kOpen, -1, kUart, "", 1},
          {Call::kFcntl, -1, "", "", 0, 0},
          {Call::kTcgetattr, -1, "", "", 2},
          {Call::kTcsetattr, -1, "", "", 2}},
         closeLink},
    };
}

}  // namespace

std::vector<Function> mcuFunctions() {
    return joined({uartFunctions(), requestFunctions(), portFunctions(), commandFunctions(),
                   taskFunctions(), updateFunctions()});
}

}  // namespace quil::faults
