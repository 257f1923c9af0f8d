// The boot loader of the N32G45x, frame by frame. Check bytes and CRCs come from an independent
// program.
#include "tests/board/boot_loader_test.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kHandshake = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x25, 0x80, 0x5B};
const Bytes kGetInfo = {0xAA, 0x55, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xEF};
// Pages 0 to 31.
const Bytes kErase = {0xAA, 0x55, 0x30, 0x00, 0x10, 0x00, 0x00, 0x00, 0x20,
                      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF};
// 0 to 15 at 0x08000000.
const Bytes kDownload = {0xAA, 0x55, 0x31, 0x00, 0x24, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                         0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09,
                         0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0xCA, 0x46, 0x1B, 0x08, 0x7D};
const Bytes kCheckCrc = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0xCA, 0x46, 0x1B, 0x08, 0x00, 0x00,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x10, 0x00, 0x00, 0x00, 0x52};

// Why a request was refused: the second byte of the status.
enum class N32Refusal : uint8_t {
    kCheckByte = 1,
    kCommand,
    kParameter,
    kLength,
    kBlockCrc,
    kFlash,
    kFlashCrc,
    kFault
};

class N32BootLoader : public BoardBootLoaderTest {
  protected:
    void start() {
        powerOn("n32g45x", B9600, 0);
        reset(1);
        ASSERT_EQ(board->mcuChip().state(), McuChip::State::kBootLoader);
    }
    // The nine bytes of an answer without payload.
    static Bytes answer(uint8_t command, uint8_t status0, uint8_t status1) {
        Bytes bytes = {0xAA, 0x55, command, 0, 0, 0, status0, status1, 0};
        for (size_t i = 0; i < 8; ++i) bytes[8] ^= bytes[i];
        return bytes;
    }
    static Bytes good(uint8_t command) { return answer(command, 0xA0, 0x00); }
    static Bytes bad(uint8_t command, N32Refusal why) {
        return answer(command, 0xB0, static_cast<uint8_t>(why));
    }
    static Bytes changed(Bytes frame, size_t at, uint8_t value) {
        frame.back() ^= frame[at] ^ value;
        frame[at] = value;
        return frame;
    }
};

TEST_F(N32BootLoader, AnswersAHandshakeAtItsSpeed) {
    start();
    EXPECT_THAT(exchange(kHandshake, 200000),
                ElementsAre(0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x5E));
    EXPECT_EQ(exchange(changed(kHandshake, 9, 0x81), 200000), bad(0x01, N32Refusal::kParameter));
    EXPECT_THAT(violations(), ElementsAre("n32g45x: another speed than 9600"));
}

TEST_F(N32BootLoader, HearsNothingButNoiseAtAnotherSpeed) {
    start();
    setLine(B19200, 0);
    EXPECT_THAT(exchange(kHandshake, 200000), IsEmpty());
    EXPECT_THAT(violations(), testing::Contains("/dev/ttyS3: framing error on the line"));
}

TEST_F(N32BootLoader, TellsItsInformationIn60Bytes) {
    start();
    const Bytes info = exchange(kGetInfo, 200000);
    ASSERT_EQ(info.size(), 60U);
    EXPECT_THAT(Bytes(info.begin(), info.begin() + 6),
                ElementsAre(0xAA, 0x55, 0x10, 0x00, 51, 0x00));
    EXPECT_THAT(Bytes(info.begin() + 57, info.begin() + 59), ElementsAre(0xA0, 0x00));
    uint8_t check = 0;
    for (const uint8_t byte : info) check ^= byte;
    EXPECT_EQ(check, 0);
}

TEST_F(N32BootLoader, ErasesProgramsAndChecks) {
    start();
    board->mcuChip().flashImage(std::string(size_t{40} * 2048, '\0'));
    // 27 bytes, 32 pages of 20 ms, 2 ms, 9 bytes.
    EXPECT_THAT(exchange(kErase, 28125 + 640000), IsEmpty());
    EXPECT_EQ(exchange({}, 2000 + 9375), good(0x30));
    EXPECT_THAT(flash(0, 65536), Each(0xFF));
    EXPECT_THAT(flash(65536, 16), Each(0));
    EXPECT_EQ(exchange(kDownload, 200000), good(0x31));
    EXPECT_THAT(flash(0, 17),
                ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 255));
    EXPECT_EQ(exchange(kCheckCrc, 100000), good(0x32));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(N32BootLoader, AnswersADownloadAfterTheHostsFlush) {
    start();
    EXPECT_THAT(exchange(kDownload, 100000), IsEmpty());
    tcflush(fd(), TCIFLUSH);
    EXPECT_EQ(exchange({}, 50000), good(0x31));
}

TEST_F(N32BootLoader, WrongCrcOfTheFlashIsToldAndNoViolation) {
    start();
    EXPECT_EQ(exchange(kCheckCrc, 100000), bad(0x32, N32Refusal::kFlashCrc));
    EXPECT_THAT(violations(), IsEmpty());
}

struct RefusedFrame {
    const char* name;
    Bytes frame;
    uint8_t reason;
    const char* violation;
};
void PrintTo(const RefusedFrame& refused, std::ostream* out) { *out << refused.name; }

class N32BootLoaderRefuses : public N32BootLoader,
                             public testing::WithParamInterface<RefusedFrame> {
  public:
    static Bytes with(Bytes frame, size_t at, uint8_t value) {
        return changed(std::move(frame), at, value);
    }
    static Bytes wrongCheckByte(Bytes frame) {
        frame.back() ^= 1;
        return frame;
    }
};

TEST_P(N32BootLoaderRefuses, AndSaysWhy) {
    start();
    EXPECT_EQ(exchange(GetParam().frame, 200000),
              answer(GetParam().frame[2], 0xB0, GetParam().reason));
    EXPECT_THAT(violations(), ElementsAre(std::string("n32g45x: ") + GetParam().violation));
    EXPECT_THAT(flash(0, 64), Each(0xFF));
    EXPECT_EQ(exchange(kHandshake, 200000), good(0x01));
}

using Row = N32BootLoaderRefuses;
INSTANTIATE_TEST_SUITE_P(
    Frames, N32BootLoaderRefuses,
    testing::Values(
        RefusedFrame{"checkByte", Row::wrongCheckByte(kDownload), 1, "the check byte is wrong"},
        RefusedFrame{"command", Row::with(kHandshake, 2, 0x02), 2, "no such command"},
        RefusedFrame{"secondCommandByte", Row::with(kHandshake, 3, 1), 2, "no such command"},
        RefusedFrame{"key", Row::with(kDownload, 12, 1), 4, "the payload is not this command's"},
        RefusedFrame{"erasePages", Row::with(kErase, 9, 1), 3,
                     "an erase of a page that the part has not"},
        RefusedFrame{"address", Row::with(kDownload, 9, 9), 3, "an address outside the flash"},
        RefusedFrame{"alignment", Row::with(kDownload, 6, 8), 3, "an address outside the flash"},
        RefusedFrame{"blockCrc", Row::with(kDownload, 30, 0x55), 5, "the block's CRC is wrong"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(N32BootLoader, RefusesToProgramWhatIsNotErased) {
    start();
    EXPECT_EQ(exchange(kDownload, 200000), good(0x31));
    EXPECT_EQ(exchange(kDownload, 200000), bad(0x31, N32Refusal::kFlash));
    EXPECT_THAT(violations(),
                ElementsAre("n32g45x: programming at 0x08000000, which is not erased"));
}

TEST_F(N32BootLoader, RequestThatBreaksOffIsDropped) {
    start();
    exchange({kErase.begin(), kErase.begin() + 15}, 150000);
    EXPECT_EQ(exchange(kHandshake, 200000), good(0x01));
    EXPECT_THAT(violations(), ElementsAre("n32g45x: a request broke off"));
}

TEST_F(N32BootLoader, NoiseBeforeARequestIsPassedOverAndTold) {
    start();
    Bytes noisy = {0x12, 0x34};
    noisy.insert(noisy.end(), kHandshake.begin(), kHandshake.end());
    EXPECT_EQ(exchange(noisy, 200000), good(0x01));
    EXPECT_THAT(violations(), ElementsAre("n32g45x: bytes that start no request"));
}

TEST_F(N32BootLoader, WrongCellIsInTheFlashAndInItsCrcAlthoughTheDownloadSucceeds) {
    start();
    board->mcuChip().loaderFaults().add({.kind = LoaderFault::Kind::kWrongCell, .command = 0x31});
    EXPECT_EQ(exchange(kDownload, 400000), good(0x31));
    EXPECT_THAT(flash(0, 4), ElementsAre(0, 0, 2, 3));
    EXPECT_EQ(exchange(kCheckCrc, 100000), bad(0x32, N32Refusal::kFlashCrc));
}

TEST_F(N32BootLoader, ResetInADownloadTearsItAndAnswersNothing) {
    start();
    board->mcuChip().loaderFaults().add({.kind = LoaderFault::Kind::kReset, .command = 0x31});
    EXPECT_THAT(exchange(kDownload, 400000), IsEmpty());
    EXPECT_EQ(flash(15, 1)[0], 0xFF);
    EXPECT_EQ(exchange(kHandshake, 200000), good(0x01));
}

TEST_F(N32BootLoader, FaultsSilenceRefuseDelayOrHangACommand) {
    start();
    using Kind = LoaderFault::Kind;
    LoaderFaults& faults = board->mcuChip().loaderFaults();
    faults.add({.kind = Kind::kSilent, .command = 0x01});
    faults.add({.kind = Kind::kNack, .command = 0x01});
    faults.add({.kind = Kind::kLate, .command = 0x01, .delay = std::chrono::milliseconds(300)});
    faults.add({.kind = Kind::kHangs, .command = 0x10});
    EXPECT_THAT(exchange(kHandshake, 200000), IsEmpty());
    EXPECT_EQ(exchange(kHandshake, 200000), bad(0x01, N32Refusal::kFault));
    EXPECT_THAT(exchange(kHandshake, 200000), IsEmpty());
    EXPECT_EQ(exchange({}, 200000), good(0x01));
    EXPECT_THAT(exchange(kGetInfo, 200000), IsEmpty());
    EXPECT_THAT(exchange(kHandshake, 200000), IsEmpty());
    EXPECT_THAT(violations(), IsEmpty());
}

}  // namespace
}  // namespace quil::tests
