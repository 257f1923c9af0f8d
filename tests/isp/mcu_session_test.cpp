// Whole programming sessions with each part, as mcu_isp_fw_update runs them: one without a fault,
// and one for each fault at each step.
#include "tests/isp/mcu_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/board_directory.h"
#include "board/mcu/mcu_image.h"

namespace quil::tests {
namespace {

using board::Call;
using board::Fault;
using board::LineFault;
using board::LoaderFault;
using board::LoaderStep;
using board::McuChip;
using board::McuKind;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kOlder = kOlderVersion, kShipped = kShippedVersion;
constexpr char kNothing[] = "";
constexpr auto kPort = kHeronUart;

// One fault, and how the session ends.
struct Mishap {
    std::string name;
    std::vector<LoaderFault> loader = {};
    std::vector<LineFault> line = {};
    std::vector<Fault> calls = {};
    int result;
    const char* runs;                      // the version, afterwards
    std::vector<std::string> errors = {};  // the last ones
    std::string tells = {};                // a line that the debug log has; "": not looked for
};

void PrintTo(const Mishap& mishap, std::ostream* out) { *out << mishap.name; }

// Runs the session after a good one, which left the part's type with the library.
void expectOutcome(McuKind kind, size_t imageSize, const Mishap& mishap) {
    McuSession session(kind, imageSize);
    ASSERT_EQ(session.run(), 0);
    session.forget();
    session.board().properties().set("persist.quil.device.log.level", "D");
    for (const auto& fault : mishap.loader) session.board().mcuChip().loaderFaults().add(fault);
    for (const auto& fault : mishap.line) session.board().mcuUart().addFault(fault);
    for (const auto& fault : mishap.calls) session.board().faults().add(fault);
    EXPECT_EQ(session.run(), mishap.result);
    EXPECT_EQ(session.levels(), session.wholeReset());
    EXPECT_NE(session.board().mcuChip().starts().back().as, McuChip::State::kBootLoader);
    EXPECT_EQ(session.board().mcuChip().version(), mishap.runs);
    EXPECT_EQ(session.lastErrors(mishap.errors.size()), mishap.errors);
    if (!mishap.tells.empty()) {
        EXPECT_THAT(session.board().log(ANDROID_LOG_DEBUG), Contains(mishap.tells));
    }
}

// ---- STM32 and GD32 ---------------------------------------------------------------------------

const std::string kSilence = "mcu_serial_read: read fd(#) 0 Bytes  100 times! \n";
const std::string kStmFailed = "mcu_isp_fw_update: mcu_tool_isp_task failed, ret = 15\n";
const std::string kBlockFailed = "writememory_2mcu: ack_sendcmd(CMD_WRITE_MEMORY) failed";
const std::string kNotWhole = "writememory_2mcu: fw update progress < 100\n";
const std::string kNotGd = "mcu_type_detect: not gd mcu pid = 0x0\n";
const std::string kNotSt = "mcu_type_detect: not st mcu pid = 0x0\n";
const std::string kNoErase = "ack_sendcmd CMD_EXTENDED_ERASE failed.\n";
const std::string kEraseUnsure = " erasememory_extend ack error! check it !!! \n";
const std::string kWriteFailed = "writememory_2mcu failed. ret = -1\n";

LoaderFault at(LoaderFault::Kind kind, uint8_t command, LoaderStep step, int after = 0) {
    LoaderFault fault;
    fault.kind = kind;
    fault.command = command;
    fault.step = step;
    fault.after = after;
    return fault;
}

LoaderFault atSync(LoaderFault::Kind kind, int times) {
    LoaderFault fault;
    fault.kind = kind;
    fault.step = LoaderStep::kSync;
    fault.times = times;
    return fault;
}

LoaderFault late(LoaderFault fault, board::Nanos delay) {
    fault.kind = LoaderFault::Kind::kLate;
    fault.delay = delay;
    return fault;
}

// A fault of the `byte`-th byte that the host receives.
LineFault onAnswer(LineFault::Kind kind, size_t byte, uint8_t value = 0x01) {
    return {kind, false, byte, value, board::Nanos(0)};
}

LineFault onRequest(LineFault::Kind kind, size_t byte) { return {kind, true, byte}; }

using LoaderKind = LoaderFault::Kind;
using LineKind = LineFault::Kind;

constexpr auto kSilent = LoaderKind::kSilent, kNack = LoaderKind::kNack;
constexpr auto kHangs = LoaderKind::kHangs;
constexpr auto kCommand = LoaderStep::kCommand, kAddress = LoaderStep::kAddress;
constexpr auto kData = LoaderStep::kData, kFinished = LoaderStep::kFinished;

const std::vector<Mishap> kStmMishaps = {
    {.name = "PortThatDoesNotOpen",
     .calls = {{.call = Call::kOpen, .path = kPort, .error = EACCES, .times = -1}},
     .result = 15,
     .runs = kOlder,
     .errors = {"mcu_serial_init: Open serial port /dev/ttyS3 failed.\n", kStmFailed},
     .tells = "mcu serial init error. \n"},
    {.name = "OneSilentSynchronisation",
     .loader = {atSync(kSilent, 1)},
     .result = 0,
     .runs = kShipped,
     .tells = "try_times = 2\n"},
    {.name = "SilentSynchronisation",
     .loader = {atSync(kSilent, -1)},
     .result = 15,
     .runs = kOlder,
     .errors = {kSilence, kSilence, kSilence, kStmFailed},
     .tells = "ack_startisp: mcu_serial_read ACK data:0x7f\n"},
    {.name = "OneRefusedSynchronisation",
     .loader = {atSync(kNack, 1)},
     .result = 0,
     .runs = kShipped,
     .tells = "ack_startisp: mcu_serial_read ACK data:0x1f\n"},
    {.name = "RefusedSynchronisation",
     .loader = {atSync(kNack, -1)},
     .result = 15,
     .runs = kOlder,
     .errors = {kStmFailed},
     .tells = "try_times = 1\n"},
    // The boot loader has synchronised already, and takes the next 0x7F as half a command.
    {.name = "CorruptSynchronisation",
     .line = {onAnswer(LineKind::kCorrupt, 0)},
     .result = 15,
     .runs = kOlder,
     .errors = {kSilence, kStmFailed},
     .tells = "ack_startisp: mcu_serial_read ACK data:0x78\n"},
    {.name = "LostSynchronisation",
     .line = {onRequest(LineKind::kLost, 0)},
     .result = 0,
     .runs = kShipped,
     .tells = "try_times = 2\n"},
    // After an unknown identifier, the type of the previous session stays in force.
    {.name = "RefusedIdentification",
     .loader = {at(kNack, 0x06, kCommand), at(kNack, 0x02, kCommand)},
     .result = 0,
     .runs = kShipped,
     .errors = {kNotGd, kNotSt},
     .tells = "mcu_type_detect: read st mcu pid = 0x0\n"},
    {.name = "SilentIdentification",
     .loader = {at(kNack, 0x06, kCommand), at(kSilent, 0x02, kCommand)},
     .result = 0,
     .runs = kShipped,
     .errors = {kNotGd, kSilence, kNotSt},
     .tells = "mcu_type_detect: read gd mcu pid = 0x0\n"},
    {.name = "RefusedErase",
     .loader = {at(kNack, 0x44, kCommand)},
     .result = 15,
     .runs = kOlder,
     .errors = {kStmFailed},
     .tells = kNoErase},
    {.name = "SilentErase",
     .loader = {at(kSilent, 0x44, kCommand)},
     .result = 15,
     .runs = kOlder,
     .errors = {kSilence, kStmFailed},
     .tells = kNoErase},
    // The failed erase is ignored, and programming cells that are not erased spoils them.
    {.name = "RefusedPageList",
     .loader = {at(kNack, 0x44, kData)},
     .result = 0,
     .runs = kNothing,
     .tells = kEraseUnsure},
    {.name = "SilentPageList",
     .loader = {at(kSilent, 0x44, kData)},
     .result = 0,
     .runs = kNothing,
     .errors = {kSilence},
     .tells = kEraseUnsure},
    {.name = "EraseRefusedAtItsEnd",
     .loader = {at(kNack, 0x44, kFinished)},
     .result = 0,
     .runs = kShipped,
     .tells = kEraseUnsure},
    {.name = "EraseSilentAtItsEnd",
     .loader = {at(kSilent, 0x44, kFinished)},
     .result = 0,
     .runs = kShipped,
     .errors = {kSilence},
     .tells = kEraseUnsure},
    {.name = "EraseLate",
     .loader = {late(at(kSilent, 0x44, kFinished), milliseconds(500))},
     .result = 0,
     .runs = kShipped,
     .tells = "mcu_serial_read ACK data:0x79\n"},
    {.name = "EraseThatHangs",
     .loader = {at(kHangs, 0x44, kData)},
     .result = 15,
     .runs = kOlder,
     .errors = {kSilence, kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
    {.name = "ImageThatIsNotThere",
     .calls = {{.call = Call::kAccess, .path = kMcuImage, .error = ENOENT, .times = -1}},
     .result = 15,
     .runs = kNothing,
     .errors = {kNotWhole, kStmFailed},
     .tells = " file not exist, filename /vendor/firmware/mcu_Heron.bin \n"},
    {.name = "NoMemory",
     .calls = {{.call = Call::kMalloc}},
     .result = 15,
     .runs = kNothing,
     .errors = {kStmFailed},
     .tells = "malloc failed. \n"},
    // The failed read is ignored, and zeros are programmed.
    {.name = "ImageThatCannotBeRead",
     .calls = {{.call = Call::kFopen, .path = kMcuImage, .error = EACCES}},
     .result = 0,
     .runs = kNothing,
     .tells = "file open error:/vendor/firmware/mcu_Heron.bin. \n"},
    {.name = "RefusedBlock",
     .loader = {at(kNack, 0x31, kCommand, 1)},
     .result = 15,
     .runs = kNothing,
     .errors = {kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
    {.name = "SilentBlock",
     .loader = {at(kSilent, 0x31, kCommand, 1)},
     .result = 15,
     .runs = kNothing,
     .errors = {kSilence, kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
    // The boot loader takes the data behind the refused address as commands, and refuses them.
    // These refusals are then read as the answers to the following blocks.
    {.name = "RefusedAddress",
     .loader = {at(kNack, 0x31, kAddress, 1)},
     .result = 15,
     .runs = kNothing,
     .errors = {kBlockFailed, kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
    {.name = "SilentAddress",
     .loader = {at(kSilent, 0x31, kAddress, 1)},
     .result = 15,
     .runs = kNothing,
     .errors = {kBlockFailed, kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
    // The answer to the data is ignored: the session succeeds, but the image does not start.
    {.name = "RefusedData",
     .loader = {at(kNack, 0x31, kData, 1)},
     .result = 0,
     .runs = kNothing,
     .tells = "writememory_2mcu: final write mcu internal flash: [100]"},
    {.name = "SilentData",
     .loader = {at(kSilent, 0x31, kData, 1)},
     .result = 0,
     .runs = kNothing,
     .errors = {kSilence},
     .tells = "writememory_2mcu: final write mcu internal flash: [100]"},
    {.name = "DataRefusedAtTheirEnd",
     .loader = {at(kNack, 0x31, kFinished, 1)},
     .result = 0,
     .runs = kShipped,
     .tells = "writememory_2mcu: final write mcu internal flash: [100]"},
    {.name = "DataLate",
     .loader = {late(at(kSilent, 0x31, kFinished, 1), milliseconds(300))},
     .result = 0,
     .runs = kShipped,
     .tells = "writememory_2mcu: final write mcu internal flash: [100]"},
    {.name = "BootLoaderThatHangs",
     .loader = {at(kHangs, 0x31, kData, 1)},
     .result = 15,
     .runs = kNothing,
     .errors = {kSilence, kBlockFailed, kNotWhole, kStmFailed},
     .tells = kWriteFailed},
};

struct Part {
    McuKind kind;
    size_t imageSize;  // of whole pages where a session erases only those
};
constexpr Part kStmParts[] = {
    {McuKind::kGd32F303, 4096}, {McuKind::kGd32F470, 4000}, {McuKind::kStm32H750, 4000}};
constexpr Part kN32Part = {McuKind::kN32G45x, 1000};

void PrintTo(const Part& part, std::ostream* out) { *out << partOf(part.kind).name; }

using StmCase = std::tuple<Part, Mishap>;

std::string nameOfCase(const testing::TestParamInfo<StmCase>& info) {
    return std::string(partOf(std::get<0>(info.param).kind).name) + "_" +
           std::get<1>(info.param).name;
}

class StmSessionMishap : public testing::TestWithParam<StmCase> {};

TEST_P(StmSessionMishap, EndsAsTheContractHasItAndTheMcuIsReset) {
    const auto& [part, mishap] = GetParam();
    expectOutcome(part.kind, part.imageSize, mishap);
}

INSTANTIATE_TEST_SUITE_P(All, StmSessionMishap,
                         testing::Combine(testing::ValuesIn(kStmParts),
                                          testing::ValuesIn(kStmMishaps)),
                         nameOfCase);

// ---- N32 --------------------------------------------------------------------------------------

std::string n32Failed(int result) {
    return "mcu_isp_fw_update: n32_uart_isp_upgrade failed, ret = " + std::to_string(result) + "\n";
}

std::vector<std::string> n32Errors(const std::string& step) {
    return {"n32_program: " + step + " error\n", n32Failed(255)};
}

LoaderFault n32(LoaderKind kind, uint8_t command, int after = 0, int times = 1) {
    LoaderFault fault = at(kind, command, LoaderStep::kCommand, after);
    fault.times = times;
    return fault;
}

// The sizes of the answers before the erase's.
constexpr size_t kHandshakeSize = 9, kInfoSize = 60;

const auto kHandshakeErrors = n32Errors("handShake"), kInfoErrors = n32Errors("N32_Get_info");
const auto kEraseErrors = n32Errors("N32_FLASH_ERASE");
const auto kBlockErrors = n32Errors("N32_FLASH_DWNLD");
constexpr size_t kEraseAt = kHandshakeSize + kInfoSize;

const std::vector<Mishap> kN32Mishaps = {
    {.name = "OneSilentHandshake",
     .loader = {n32(kSilent, 0x01)},
     .result = 0,
     .runs = kShipped,
     .tells = "handShake: try_times=4\n"},
    {.name = "SilentHandshake",
     .loader = {n32(kSilent, 0x01, 0, -1)},
     .result = 255,
     .runs = kOlder,
     .errors = kHandshakeErrors,
     .tells = "handShake: try_times=1\n"},
    {.name = "RefusedHandshake",
     .loader = {n32(kNack, 0x01, 0, -1)},
     .result = 255,
     .runs = kOlder,
     .errors = kHandshakeErrors,
     .tells = "handShake: ack recvBuf[6] = b0\n"},
    {.name = "StrayByteBeforeTheHandshake",
     .line = {onAnswer(LineKind::kExtra, 0, 0x00)},
     .result = 0,
     .runs = kShipped,
     .tells = "handShake: try_times=5\n"},
    {.name = "CorruptHandshake",
     .line = {onAnswer(LineKind::kCorrupt, 8)},
     .result = 0,
     .runs = kShipped,
     .tells = "handShake: try_times=4\n"},
    {.name = "SilentInfo",
     .loader = {n32(kSilent, 0x10)},
     .result = 255,
     .runs = kOlder,
     .errors = kInfoErrors},
    {.name = "RefusedInfo",
     .loader = {n32(kNack, 0x10)},
     .result = 255,
     .runs = kOlder,
     .errors = kInfoErrors},
    {.name = "CorruptInfo",
     .line = {onAnswer(LineKind::kCorrupt, kHandshakeSize + 30)},
     .result = 255,
     .runs = kOlder,
     .errors = kInfoErrors},
    {.name = "SilentErase",
     .loader = {n32(kSilent, 0x30)},
     .result = 255,
     .runs = kOlder,
     .errors = kEraseErrors},
    {.name = "RefusedErase",
     .loader = {n32(kNack, 0x30)},
     .result = 255,
     .runs = kOlder,
     .errors = kEraseErrors},
    // The flash is already erased when the session gives up.
    {.name = "CorruptErase",
     .line = {onAnswer(LineKind::kCorrupt, kEraseAt + 6)},
     .result = 255,
     .runs = kNothing,
     .errors = kEraseErrors},
    {.name = "StrayByteBeforeTheErase",
     .line = {onAnswer(LineKind::kExtra, kEraseAt, 0x00)},
     .result = 255,
     .runs = kNothing,
     .errors = kEraseErrors},
    {.name = "SilentBlock",
     .loader = {n32(kSilent, 0x31, 3)},
     .result = 255,
     .runs = kNothing,
     .errors = kBlockErrors,
     .tells = "N32_FLASH_DWNLD: DataPacketNum = 8\n"},
    {.name = "RefusedBlock",
     .loader = {n32(kNack, 0x31, 3)},
     .result = 255,
     .runs = kNothing,
     .errors = kBlockErrors},
    {.name = "RefusedLastBlock",
     .loader = {n32(kNack, 0x31, 7)},
     .result = 255,
     .runs = kNothing,
     .errors = kBlockErrors},
    {.name = "BlockLate",
     .loader = {late(n32(kSilent, 0x31, 3), milliseconds(500))},
     .result = 0,
     .runs = kShipped},
    {.name = "SilentCrcCheck",
     .loader = {n32(kSilent, 0x32)},
     .result = 255,
     .runs = kShipped,
     .errors = n32Errors("N32_CRC_CHECK")},
    {.name = "RefusedCrcCheck", .loader = {n32(kNack, 0x32)}, .result = 0, .runs = kShipped},
    {.name = "NoMemory",
     .calls = {{.call = Call::kMalloc}},
     .result = -1,
     .runs = kOlder,
     .errors = {"n32_program: malloc failed. \n", n32Failed(-1)}},
    {.name = "ImageThatIsNotThere",
     .calls = {{.call = Call::kAccess, .path = kMcuImage, .error = ENOENT, .times = -1}},
     .result = 0,
     .runs = kNothing,
     .tells = "N32_FLASH_DWNLD: DataPacketNum = 0\n"},
};

class N32SessionMishap : public testing::TestWithParam<Mishap> {};

TEST_P(N32SessionMishap, EndsAsTheContractHasItAndTheMcuIsReset) {
    expectOutcome(kN32Part.kind, kN32Part.imageSize, GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, N32SessionMishap, testing::ValuesIn(kN32Mishaps),
                         [](const auto& info) { return info.param.name; });

// ---- Nothing goes wrong -----------------------------------------------------------------------

class McuSessionOf : public testing::TestWithParam<Part> {};

TEST_P(McuSessionOf, PutsTheImageIntoTheFlashAndStartsIt) {
    McuSession session(GetParam().kind, GetParam().imageSize);
    EXPECT_EQ(session.run(), 0);
    const std::string image = board::makeMcuImage(GetParam().kind, kShipped, GetParam().imageSize);
    const auto cells = session.board().mcuChip().flash().cells();
    EXPECT_EQ(std::string(cells.begin(), cells.begin() + static_cast<long>(image.size())), image);
    EXPECT_EQ(session.board().mcuChip().version(), kShipped);
    EXPECT_EQ(session.levels(), session.wholeReset());
    EXPECT_THAT(session.board().violations(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, McuSessionOf,
                         testing::Values(kStmParts[0], kStmParts[1], kStmParts[2], kN32Part),
                         [](const auto& info) { return partOf(info.param.kind).name; });

TEST(McuSession, HealthyGd32LogsNoError) {
    McuSession session(McuKind::kGd32F303, 4096);
    EXPECT_EQ(session.run(), 0);
    EXPECT_THAT(session.board().log(ANDROID_LOG_ERROR), IsEmpty());
}

TEST(McuSession, HealthyStm32LogsTheErrorsOfItsIdentification) {
    McuSession session(McuKind::kStm32H750, 4000);
    EXPECT_EQ(session.run(), 0);
    EXPECT_THAT(session.lastErrors(9),
                ElementsAre(kNotGd, "mcu_serial_read: read fd(#) 4 Bytes  100 times! \n"));
}

TEST(McuSession, N32WhosePortDoesNotOpenIsNotTouched) {
    McuSession session(McuKind::kN32G45x, 1000);
    session.board().faults().add(
        {.call = Call::kOpen, .path = kPort, .error = EACCES, .times = -1});
    EXPECT_EQ(session.run(), -1);
    EXPECT_THAT(session.levels(), IsEmpty());
    EXPECT_THAT(session.lastErrors(9),
                ElementsAre("set_opt: Open serial port /dev/ttyS3 failed.\n", n32Failed(-1)));
}

}  // namespace
}  // namespace quil::tests
