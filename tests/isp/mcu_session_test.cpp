// Whole programming sessions with each part, as mcu_isp_fw_update runs them: one that nothing
// disturbs, and one with each thing that can go wrong at each step.
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

// One thing that goes wrong, and what becomes of the session.
struct Mishap {
    std::string name;
    std::vector<LoaderFault> loader;
    std::vector<LineFault> line;
    std::vector<Fault> calls;
    int result;
    const char* runs;                 // the version, afterwards
    std::vector<std::string> errors;  // the last ones
    std::string tells;                // a line of the debug log; "": none is looked for
};

void PrintTo(const Mishap& mishap, std::ostream* out) { *out << mishap.name; }

// What happens to a part that already had a good session, so that the library knows its type.
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

// The byte with that number among those that the host gets.
LineFault onAnswer(LineFault::Kind kind, size_t byte, uint8_t value = 0x01) {
    return {kind, false, byte, value, board::Nanos(0)};
}

LineFault onRequest(LineFault::Kind kind, size_t byte) { return {kind, true, byte}; }

using LoaderKind = LoaderFault::Kind;
using LineKind = LineFault::Kind;

// NOLINTNEXTLINE(readability-function-size): a table
const std::vector<Mishap>& stmMishaps() {
    constexpr auto kSilent = LoaderKind::kSilent, kNack = LoaderKind::kNack;
    constexpr auto kHangs = LoaderKind::kHangs;
    constexpr auto kCommand = LoaderStep::kCommand, kAddress = LoaderStep::kAddress;
    constexpr auto kData = LoaderStep::kData, kFinished = LoaderStep::kFinished;
    static const std::vector<Mishap> mishaps = {
        {"PortThatDoesNotOpen",
         {},
         {},
         {{.call = Call::kOpen, .path = kPort, .error = EACCES, .times = -1}},
         15,
         kOlder,
         {"mcu_serial_init: Open serial port /dev/ttyS3 failed.\n", kStmFailed},
         "mcu serial init error. \n"},
        {"OneSilentSynchronisation",
         {atSync(kSilent, 1)},
         {},
         {},
         0,
         kShipped,
         {},
         "try_times = 2\n"},
        {"SilentSynchronisation",
         {atSync(kSilent, -1)},
         {},
         {},
         15,
         kOlder,
         {kSilence, kSilence, kSilence, kStmFailed},
         "ack_startisp: mcu_serial_read ACK data:0x7f\n"},
        {"OneRefusedSynchronisation",
         {atSync(kNack, 1)},
         {},
         {},
         0,
         kShipped,
         {},
         "ack_startisp: mcu_serial_read ACK data:0x1f\n"},
        {"RefusedSynchronisation",
         {atSync(kNack, -1)},
         {},
         {},
         15,
         kOlder,
         {kStmFailed},
         "try_times = 1\n"},
        // The boot loader is in step already: the next 0x7F is half a command to it.
        {"CorruptSynchronisation",
         {},
         {onAnswer(LineKind::kCorrupt, 0)},
         {},
         15,
         kOlder,
         {kSilence, kStmFailed},
         "ack_startisp: mcu_serial_read ACK data:0x78\n"},
        {"LostSynchronisation",
         {},
         {onRequest(LineKind::kLost, 0)},
         {},
         0,
         kShipped,
         {},
         "try_times = 2\n"},
        // An unknown identifier leaves the type of the session before in force.
        {"RefusedIdentification",
         {at(kNack, 0x06, kCommand), at(kNack, 0x02, kCommand)},
         {},
         {},
         0,
         kShipped,
         {kNotGd, kNotSt},
         "mcu_type_detect: read st mcu pid = 0x0\n"},
        {"SilentIdentification",
         {at(kNack, 0x06, kCommand), at(kSilent, 0x02, kCommand)},
         {},
         {},
         0,
         kShipped,
         {kNotGd, kSilence, kNotSt},
         "mcu_type_detect: read gd mcu pid = 0x0\n"},
        {"RefusedErase", {at(kNack, 0x44, kCommand)}, {}, {}, 15, kOlder, {kStmFailed}, kNoErase},
        {"SilentErase",
         {at(kSilent, 0x44, kCommand)},
         {},
         {},
         15,
         kOlder,
         {kSilence, kStmFailed},
         kNoErase},
        // Nothing is erased, which nobody looks at; programming what is not erased spoils it.
        {"RefusedPageList", {at(kNack, 0x44, kData)}, {}, {}, 0, kNothing, {}, kEraseUnsure},
        {"SilentPageList",
         {at(kSilent, 0x44, kData)},
         {},
         {},
         0,
         kNothing,
         {kSilence},
         kEraseUnsure},
        {"EraseRefusedAtItsEnd",
         {at(kNack, 0x44, kFinished)},
         {},
         {},
         0,
         kShipped,
         {},
         kEraseUnsure},
        {"EraseSilentAtItsEnd",
         {at(kSilent, 0x44, kFinished)},
         {},
         {},
         0,
         kShipped,
         {kSilence},
         kEraseUnsure},
        {"EraseLate",
         {late(at(kSilent, 0x44, kFinished), milliseconds(500))},
         {},
         {},
         0,
         kShipped,
         {},
         "mcu_serial_read ACK data:0x79\n"},
        {"EraseThatHangs",
         {at(kHangs, 0x44, kData)},
         {},
         {},
         15,
         kOlder,
         {kSilence, kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
        {"ImageThatIsNotThere",
         {},
         {},
         {{.call = Call::kAccess, .path = kMcuImage, .error = ENOENT, .times = -1}},
         15,
         kNothing,
         {kNotWhole, kStmFailed},
         " file not exist, filename /vendor/firmware/mcu_Heron.bin \n"},
        {"NoMemory",
         {},
         {},
         {{.call = Call::kMalloc}},
         15,
         kNothing,
         {kStmFailed},
         "malloc failed. \n"},
        // Zeros are programmed: whether the image could be read is not looked at.
        {"ImageThatCannotBeRead",
         {},
         {},
         {{.call = Call::kFopen, .path = kMcuImage, .error = EACCES}},
         0,
         kNothing,
         {},
         "file open error:/vendor/firmware/mcu_Heron.bin. \n"},
        {"RefusedBlock",
         {at(kNack, 0x31, kCommand, 1)},
         {},
         {},
         15,
         kNothing,
         {kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
        {"SilentBlock",
         {at(kSilent, 0x31, kCommand, 1)},
         {},
         {},
         15,
         kNothing,
         {kSilence, kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
        // The data that nobody waits for are commands to the boot loader, and no block fits in
        // between their refusals any more.
        {"RefusedAddress",
         {at(kNack, 0x31, kAddress, 1)},
         {},
         {},
         15,
         kNothing,
         {kBlockFailed, kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
        {"SilentAddress",
         {at(kSilent, 0x31, kAddress, 1)},
         {},
         {},
         15,
         kNothing,
         {kBlockFailed, kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
        // The answer to the data is not looked at: success, and no image that starts.
        {"RefusedData",
         {at(kNack, 0x31, kData, 1)},
         {},
         {},
         0,
         kNothing,
         {},
         "writememory_2mcu: final write mcu internal flash: [100]"},
        {"SilentData",
         {at(kSilent, 0x31, kData, 1)},
         {},
         {},
         0,
         kNothing,
         {kSilence},
         "writememory_2mcu: final write mcu internal flash: [100]"},
        {"DataRefusedAtTheirEnd",
         {at(kNack, 0x31, kFinished, 1)},
         {},
         {},
         0,
         kShipped,
         {},
         "writememory_2mcu: final write mcu internal flash: [100]"},
        {"DataLate",
         {late(at(kSilent, 0x31, kFinished, 1), milliseconds(300))},
         {},
         {},
         0,
         kShipped,
         {},
         "writememory_2mcu: final write mcu internal flash: [100]"},
        {"BootLoaderThatHangs",
         {at(kHangs, 0x31, kData, 1)},
         {},
         {},
         15,
         kNothing,
         {kSilence, kBlockFailed, kNotWhole, kStmFailed},
         kWriteFailed},
    };
    return mishaps;
}

struct Part {
    McuKind kind;
    size_t imageSize;  // whole pages where only those are erased
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
                                          testing::ValuesIn(stmMishaps())),
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

// Bytes of answers before those to the erase.
constexpr size_t kHandshakeSize = 9, kInfoSize = 60;

// NOLINTNEXTLINE(readability-function-size): a table
const std::vector<Mishap>& n32Mishaps() {
    constexpr auto kSilent = LoaderKind::kSilent, kNack = LoaderKind::kNack;
    const auto handShake = n32Errors("handShake"), info = n32Errors("N32_Get_info");
    const auto erase = n32Errors("N32_FLASH_ERASE"), block = n32Errors("N32_FLASH_DWNLD");
    constexpr size_t kEraseAt = kHandshakeSize + kInfoSize;
    static const std::vector<Mishap> mishaps = {
        {"OneSilentHandshake",
         {n32(kSilent, 0x01)},
         {},
         {},
         0,
         kShipped,
         {},
         "handShake: try_times=4\n"},
        {"SilentHandshake",
         {n32(kSilent, 0x01, 0, -1)},
         {},
         {},
         255,
         kOlder,
         handShake,
         "handShake: try_times=1\n"},
        {"RefusedHandshake",
         {n32(kNack, 0x01, 0, -1)},
         {},
         {},
         255,
         kOlder,
         handShake,
         "handShake: ack recvBuf[6] = b0\n"},
        {"StrayByteBeforeTheHandshake",
         {},
         {onAnswer(LineKind::kExtra, 0, 0x00)},
         {},
         0,
         kShipped,
         {},
         "handShake: try_times=5\n"},
        {"CorruptHandshake",
         {},
         {onAnswer(LineKind::kCorrupt, 8)},
         {},
         0,
         kShipped,
         {},
         "handShake: try_times=4\n"},
        {"SilentInfo", {n32(kSilent, 0x10)}, {}, {}, 255, kOlder, info, ""},
        {"RefusedInfo", {n32(kNack, 0x10)}, {}, {}, 255, kOlder, info, ""},
        {"CorruptInfo",
         {},
         {onAnswer(LineKind::kCorrupt, kHandshakeSize + 30)},
         {},
         255,
         kOlder,
         info,
         ""},
        {"SilentErase", {n32(kSilent, 0x30)}, {}, {}, 255, kOlder, erase, ""},
        {"RefusedErase", {n32(kNack, 0x30)}, {}, {}, 255, kOlder, erase, ""},
        // Erased already when the session gives up.
        {"CorruptErase",
         {},
         {onAnswer(LineKind::kCorrupt, kEraseAt + 6)},
         {},
         255,
         kNothing,
         erase,
         ""},
        {"StrayByteBeforeTheErase",
         {},
         {onAnswer(LineKind::kExtra, kEraseAt, 0x00)},
         {},
         255,
         kNothing,
         erase,
         ""},
        {"SilentBlock",
         {n32(kSilent, 0x31, 3)},
         {},
         {},
         255,
         kNothing,
         block,
         "N32_FLASH_DWNLD: DataPacketNum = 8\n"},
        {"RefusedBlock", {n32(kNack, 0x31, 3)}, {}, {}, 255, kNothing, block, ""},
        {"RefusedLastBlock", {n32(kNack, 0x31, 7)}, {}, {}, 255, kNothing, block, ""},
        {"BlockLate",
         {late(n32(kSilent, 0x31, 3), milliseconds(500))},
         {},
         {},
         0,
         kShipped,
         {},
         ""},
        {"SilentCrcCheck",
         {n32(kSilent, 0x32)},
         {},
         {},
         255,
         kShipped,
         n32Errors("N32_CRC_CHECK"),
         ""},
        {"RefusedCrcCheck", {n32(kNack, 0x32)}, {}, {}, 0, kShipped, {}, ""},
        {"NoMemory",
         {},
         {},
         {{.call = Call::kMalloc}},
         -1,
         kOlder,
         {"n32_program: malloc failed. \n", n32Failed(-1)},
         ""},
        {"ImageThatIsNotThere",
         {},
         {},
         {{.call = Call::kAccess, .path = kMcuImage, .error = ENOENT, .times = -1}},
         0,
         kNothing,
         {},
         "N32_FLASH_DWNLD: DataPacketNum = 0\n"},
    };
    return mishaps;
}

class N32SessionMishap : public testing::TestWithParam<Mishap> {};

TEST_P(N32SessionMishap, EndsAsTheContractHasItAndTheMcuIsReset) {
    expectOutcome(kN32Part.kind, kN32Part.imageSize, GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, N32SessionMishap, testing::ValuesIn(n32Mishaps()),
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

TEST(McuSession, AHealthyGd32LogsNoError) {
    McuSession session(McuKind::kGd32F303, 4096);
    EXPECT_EQ(session.run(), 0);
    EXPECT_THAT(session.board().log(ANDROID_LOG_ERROR), IsEmpty());
}

TEST(McuSession, AHealthyStm32LogsTheErrorsOfItsIdentification) {
    McuSession session(McuKind::kStm32H750, 4000);
    EXPECT_EQ(session.run(), 0);
    EXPECT_THAT(session.lastErrors(9),
                ElementsAre(kNotGd, "mcu_serial_read: read fd(#) 4 Bytes  100 times! \n"));
}

TEST(McuSession, AnN32WhosePortDoesNotOpenIsNotTouched) {
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
