// The FPGA, the configuration and the self-test: each exported function, what it takes to call it,
// and the failures that it reports.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

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
#include "selftest/self_test.h"
#include "testing/library_state.h"
#include "tests/swarm/faults/functions.h"

namespace quil::faults {
namespace {

using board::Board;

constexpr char kFpgaImage[] = "/vendor/firmware/fpga_Heron.bin";
constexpr char kResults[] = "/sdcard/self_test_results.txt", kPhy[] = "quilphyreg";

void loaded(Board& board) {
    parsed(board);
    tests::networkIsUp();
    board.runFor(std::chrono::seconds(5));  // the FPGA has loaded itself from its flash
}
void withNetwork(Board& board) {
    loaded(board);
    fpgaPhySgmiiConfig();
}
int64_t sendFrame(Board& /*board*/) {
    std::array<uint8_t, 7> frame = {0x02, 0, 0, 0x11, 0x02, 1, 0};
    return spi_send_data(frame.data(), frame.size());
}

unsigned char* packedBlocks() {
    static std::vector<unsigned char> packed(0x200000);
    return packed.data();
}

void blocksIndexed(Board& board) {
    loaded(board);
    std::vector<unsigned char> raw(0x200000);
    const int partition = open("/dev/block/by-name/screen", O_RDONLY);
    static_cast<void>(read(partition, raw.data(), raw.size()) > 0);
    close(partition);
    parse_emmc_block(packedBlocks(), raw.data());
}

template <int (*Item)(const char*, char*, unsigned)>
int64_t testItem(Board& /*board*/) {
    return Item("name", g_text.data(), 64) * 100 + (strstr(g_text.data(), "OK") ? 1 : 0);
}

template <int (*Reader)(unsigned char*, unsigned)>
int64_t stateRead(Board& /*board*/) {
    return Reader(g_bytes.data(), 2);
}

int64_t runSelfTest(Board& /*board*/) {
    return static_cast<int32_t>(runSelfTestAndGetResult(g_bytes.data(), 1024));
}

std::vector<Function> flashFunctions() {
    // The tool that erases and writes, its device, the image, the lines. Where one of them only
    // seems to have done its work, DONE tells, if anybody looks at it.
    std::vector<Fails> flash = {
        {Call::kAccess, -1, "/vendor/"},       {Call::kFopen, -1, kFpgaImage},
        {Call::kOpen, -1, kFpgaImage},         {Call::kGpioSet, -1, "gpio ", "E"},
        {Call::kSystem, -1, "mtd_debug", "E"}, {Call::kSystem, -1, "mtd_debug", "exit"},
        {Call::kSystem, -1, "mtd_debug", "S"}, {Call::kFlashErase, -1, "", "E"},
        {Call::kFlashProgram, -1, "", "E"},
    };
    for (const Call call :
         {Call::kGpioSet, Call::kSystem, Call::kFlashErase, Call::kFlashProgram}) {
        const char* path = call == Call::kGpioSet ? "gpio " : call == Call::kSystem ? "mtd" : "";
        flash.push_back(
            {.call = call, .result = -1, .path = path, .way = "lost", .orSucceeds = true});
    }
    std::vector<Fails> heron = flash;
    heron.push_back({Call::kVendor, -1, "fpgaSwitchGmacToUdp"});
    return {
        {"getFileSize",
         parsed,
         [](Board&) -> int64_t { return static_cast<int32_t>(getFileSize(kFpgaImage)); },
         {{Call::kFopen, -1}}},
        {"fpgaCheckDone", loaded, plain<fpgaCheckDone>},
        {"fpgaFwUpdate", loaded, plain<fpgaFwUpdate>, flash},
        {"fpgaFlashFormat", loaded, plain<fpgaFlashFormat>, flash},
        {"fpgaFlashWrite",
         [](Board& board) {
             loaded(board);
             fpgaFlashFormat();
         },
         plain<fpgaFlashWrite>, flash},
        {"fpgaLoadProcessHeron", loaded, plain<fpgaLoadProcessHeron>, heron},
    };
}

// One transaction: what it transfers is the result.
std::vector<Fails> transaction(Call call, int nth = 0) {
    return {{Call::kMalloc, -1},
            {Call::kOpen, -1, "", "", nth},
            {call, -1, "", "E", nth},
            {call, 0, "", "short 0", nth},
            {call, 1, "", "short 1", nth}};
}

std::vector<Function> linkFunctions() {
    return {
        {"spi_send_data", loaded, sendFrame, transaction(Call::kWrite)},
        // The last of its four writes is its result.
        {"sendFpgaTxRxReset", loaded, plain<sendFpgaTxRxReset>, transaction(Call::kWrite, 3)},
        {"readFpgaSgmiiClockState", loaded, stateRead<readFpgaSgmiiClockState>,
         transaction(Call::kRead)},
        {"readFpgaSgmiiNegotiationState", loaded, stateRead<readFpgaSgmiiNegotiationState>,
         transaction(Call::kRead)},
        {"readFpgaDdrState", loaded,
         [](Board&) -> int64_t { return readFpgaDdrState(g_bytes.data()); },
         transaction(Call::kRead)},
        {"readRtl8211fsPhyLink",
         withNetwork,
         plain<readRtl8211fsPhyLink>,
         {{Call::kAccess, -1, kPhy},
          {Call::kOpen, -1, kPhy},
          {Call::kRead, -1, kPhy, "E"},
          {Call::kRead, 0, kPhy, "short"}}},
        {"fpgaCheckDDRAndRecovery", loaded, plain<fpgaCheckDDRAndRecovery>},
    };
}

std::vector<Function> networkFunctions() {
    // The PHY's own line and registers decide whether there is a link.
    std::vector<Fails> link = {{Call::kAccess, -1, kPhy},
                               {Call::kOpen, -1, kPhy},
                               {Call::kRead, -1, kPhy},
                               {Call::kOpen, -1, "fpga_spi", "", 4, 4},
                               {Call::kWrite, -1, "fpga_spi", "E", 3, 3}};
    for (const Call call : {Call::kSystem, Call::kOpen, Call::kWrite}) {
        link.push_back({.call = call, .result = -1, .path = "/phyreg", .orSucceeds = true});
    }
    for (const Call call : {Call::kWrite, Call::kGpioSet}) {
        link.push_back({.call = call, .result = -1, .path = "RTL8211FS", .orSucceeds = true});
    }
    link.push_back({Call::kSystem, -1, "insmod"});
    return {
        {"fpgaDwmacConfig", loaded, plain<fpgaDwmacConfig>},
        {"fpgaEthConfig", loaded, plain<fpgaEthConfig>},
        {"fpgaPhyConfig", withNetwork, plain<fpgaPhyConfig>},
        {"reset8211FS",
         loaded,
         plain<reset8211FS>,
         {{Call::kOpen, -1},
          {Call::kWrite, -1, "", "E"},
          {Call::kWrite, -1, "", "short 0"},
          {Call::kGpioSet, -1, "", "E"}}},
        {"fpgaPhySgmiiConfig", loaded, plain<fpgaPhySgmiiConfig>, link},
        {"fpgaNetworkConfig", loaded, plain<fpgaNetworkConfig>},
    };
}

std::vector<Function> screenFunctions() {
    return {
        {"fpgaLoadScreenParamsBySpi",
         loaded,
         plain<fpgaLoadScreenParamsBySpi>,
         {{Call::kMalloc, -1, "", "", 0, 1},
          {Call::kOpen, -1, "screen"},
          {Call::kRead, -1, "screen"}}},
        {"parse_emmc_block", blocksIndexed,
         [](Board&) -> int64_t {
             std::array<unsigned char, 64> raw{};
             return parse_emmc_block(g_bytes.data(), raw.data());
         }},
        {"sendTopologyPara", blocksIndexed,
         [](Board&) -> int64_t {
             sendTopologyPara(packedBlocks(), 0, 0x10B00000, 2);
             return 0;
         }},
        {"sendFixedParameter", blocksIndexed,
         [](Board&) -> int64_t {
             sendFixedParameter(10, packedBlocks());
             return 0;
         }},
        {"sendNetGapeEnable", blocksIndexed,
         [](Board&) -> int64_t {
             sendNetGapeEnable(10, packedBlocks());
             return 0;
         }},
        {"putDataToSendCach", nothing,
         [](Board&) -> int64_t {
             putDataToSendCach("abc", g_bytes.data(), 3);
             return 0;
         }},
        {"transUcharArrayToU64", nothing,
         [](Board&) -> int64_t {
             constexpr std::array<unsigned char, 4> kBytes = {1, 2, 3, 4};
             return transUcharArrayToU64(kBytes.data());
         }},
        {"fpgaLoadProcessKestrel",
         loaded,
         plain<fpgaLoadProcessKestrel>,
         {{Call::kVendor, -1}, {Call::kOpen, -1}}},
        {"fpgaLoadProcessWren_t507",
         loaded,
         plain<fpgaLoadProcessWren_t507>,
         {{Call::kVendor, -1},
          {Call::kOpen, -1},
          {Call::kFlashErase, -1},
          {Call::kFlashProgram, -1},
          {.call = Call::kGpioSet, .result = -1, .orSucceeds = true}}},
    };
}

std::vector<Function> selfTestFunctions() {
    return {
        {"parseConfigInfo",
         nothing,
         plain<parseConfigInfo>,
         {{Call::kMalloc, -1}, {Call::kVendor, -1, "bi_info_get_product_info"}}},
        {"checkRtcState", parsed, testItem<checkRtcState>, {{Call::kProbe, 0}}},
        {"checkES8316State", parsed, testItem<checkES8316State>, {{Call::kProbe, 0}}},
        {"checkWifiApState", parsed, testItem<checkWifiApState>, {{Call::kProbe, 0}}},
        {"checkWifiStaState", parsed, testItem<checkWifiStaState>, {{Call::kProbe, 0}}},
        {"checkIDT6965State", parsed, testItem<checkIDT6965State>, {{Call::kProbe, 0}}},
        {"testItem6", nothing, testItem<testItem6>},
        {"testItem7", nothing, testItem<testItem7>},
        {"testItem8", nothing, testItem<testItem8>},
        {"testItem9", nothing, testItem<testItem9>},
        {"writeToFile",
         parsed,
         [](Board&) -> int64_t { return writeToFile(kResults, "text"); },
         {{Call::kFopen, -1}}},
        {"parseAndConfigTestItem", parsed, plain<parseAndConfigTestItem>},
        {"runSelfTestAndGetResult",
         parsed,
         runSelfTest,
         // "Error" has three letters more than "OK".
         {{Call::kFopen, -1}, {Call::kProbe, 129}}},
    };
}

}  // namespace

std::vector<Function> fpgaFunctions() {
    return joined({flashFunctions(), linkFunctions(), networkFunctions(), screenFunctions(),
                   selfTestFunctions()});
}

}  // namespace quil::faults
