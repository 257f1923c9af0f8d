// The faults of the boot-loader models: one test for each kind, on the line and in the flash.
#include "tests/board/boot_loader_test.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using FaultKind = LoaderFault::Kind;

const Bytes kFlashStart = {0x08, 0x00, 0x00, 0x00, 0x08};
const Bytes kFourBytes = {3, 0xF1, 0xF2, 0xF3, 0xF4, 3 ^ 0xF1 ^ 0xF2 ^ 0xF3 ^ 0xF4};

class BoardLoaderFault : public BoardBootLoaderTest {
  protected:
    void start() {
        powerOn("gd32f303");
        synchronise();
    }
    void synchronise() {
        reset(1);
        ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    }
    void add(const LoaderFault& fault) { board->mcuChip().loaderFaults().add(fault); }
    // The answer to the data of a write at the start of the flash.
    Bytes write() {
        EXPECT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
        EXPECT_THAT(exchange(kFlashStart), ElementsAre(kAck));
        return exchange(kFourBytes);
    }
    Bytes read() {
        EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kAck));
        EXPECT_THAT(exchange(kFlashStart), ElementsAre(kAck));
        return exchange({3, 0xFC});
    }
    bool hearsCommands() { return exchange({0x02, 0xFD}) == Bytes{kAck, 1, 0x04, 0x14, kAck}; }
};

TEST_F(BoardLoaderFault, AckThatIsLostLetsTheCommandGoOn) {
    start();
    add({.kind = FaultKind::kAckLost, .command = 0x31, .step = LoaderStep::kAddress});
    ASSERT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
    EXPECT_THAT(exchange(kFlashStart), IsEmpty());
    EXPECT_THAT(exchange(kFourBytes), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), ElementsAre(0xF1, 0xF2, 0xF3, 0xF4));
}

TEST_F(BoardLoaderFault, NackAfterTheWorkIsDoneLeavesItDone) {
    start();
    add({.kind = FaultKind::kNack, .command = 0x31, .step = LoaderStep::kFinished});
    EXPECT_THAT(write(), ElementsAre(kNack));
    EXPECT_THAT(flash(0, 4), ElementsAre(0xF1, 0xF2, 0xF3, 0xF4));
    EXPECT_TRUE(hearsCommands());
}

TEST_F(BoardLoaderFault, JunkComesBeforeTheAnswer) {
    start();
    add({.kind = FaultKind::kJunk, .command = 0x31, .step = LoaderStep::kFinished});
    EXPECT_THAT(write(), ElementsAre(0x00, kAck));
    add({.kind = FaultKind::kJunk, .command = 0x11, .step = LoaderStep::kCount, .value = 0xA5});
    EXPECT_THAT(read(), ElementsAre(0xA5, kAck, 0xF1, 0xF2, 0xF3, 0xF4));
}

TEST_F(BoardLoaderFault, DamagedAckIsAnotherByte) {
    start();
    add({.kind = FaultKind::kDamagedAck, .command = 0x31, .step = LoaderStep::kFinished});
    EXPECT_THAT(write(), ElementsAre(0xBC));
    EXPECT_TRUE(hearsCommands());
}

TEST_F(BoardLoaderFault, BusyPartHearsOneByteAndAnswersInTheEnd) {
    start();
    add({.kind = FaultKind::kBusy,
         .command = 0x31,
         .step = LoaderStep::kFinished,
         .delay = seconds(3)});
    EXPECT_THAT(write(), IsEmpty());
    EXPECT_THAT(exchange({0x02, 0xFD}, 2000000), IsEmpty());
    EXPECT_THAT(exchange({}, 1000000), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFD}), ElementsAre(kAck, 1, 0x04, 0x14, kAck));
}

TEST_F(BoardLoaderFault, FlippedBitIsInTheReplyAndNotInTheFlash) {
    start();
    write();
    add({.kind = FaultKind::kFlippedBit,
         .command = 0x11,
         .step = LoaderStep::kCount,
         .at = 2,
         .value = 0x40});
    EXPECT_THAT(read(), ElementsAre(kAck, 0xF1, 0xF2, 0xB3, 0xF4));
    EXPECT_THAT(read(), ElementsAre(kAck, 0xF1, 0xF2, 0xF3, 0xF4));
}

TEST_F(BoardLoaderFault, ShortReplyLacksItsLastByte) {
    start();
    write();
    add({.kind = FaultKind::kShortReply, .command = 0x11, .step = LoaderStep::kCount});
    EXPECT_THAT(read(), ElementsAre(kAck, 0xF1, 0xF2, 0xF3));
    EXPECT_TRUE(hearsCommands());
}

TEST_F(BoardLoaderFault, WrongCellIsTheFirstThatCouldHoldTheBits) {
    start();
    add({.kind = FaultKind::kWrongCell, .command = 0x31, .step = LoaderStep::kData, .value = 0x02});
    EXPECT_THAT(write(), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), ElementsAre(0xF1, 0xF0, 0xF3, 0xF4));
}

TEST_F(BoardLoaderFault, ResetBeforeAnAnswerMeansASilentPartThatWantsToSynchronise) {
    start();
    add({.kind = FaultKind::kReset, .command = 0x31, .step = LoaderStep::kAddress});
    ASSERT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
    EXPECT_THAT(exchange(kFlashStart), IsEmpty());
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_EQ(board->mcuChip().starts().back().as, McuChip::State::kBootLoader);
}

TEST_F(BoardLoaderFault, ResetInAFlashOperationTearsIt) {
    start();
    board->mcuChip().flashImage(std::string(4096, '\0'));
    add({.kind = FaultKind::kReset, .command = 0x44, .step = LoaderStep::kData});
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0, 1, 0, 0, 0, 1, 0}, 1000000), IsEmpty());
    EXPECT_THAT(flash(0, 4096), testing::Contains(0x00)) << "the erase was never finished";
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
}

TEST_F(BoardLoaderFault, NthWriteIsCountedFromTheFaultOn) {
    start();
    add({.kind = FaultKind::kNack, .command = 0x31, .step = LoaderStep::kCommand, .after = 2});
    EXPECT_THAT(write(), ElementsAre(kAck));
    EXPECT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
    exchange({0, 0, 0, 0, 1});
    EXPECT_THAT(exchange({0x31, 0xCE}), ElementsAre(kNack));
    EXPECT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
}

TEST_F(BoardLoaderFault, WornCellsKeepTheirBitsThroughErasesWritesAndPowerCycles) {
    start();
    board->mcuChip().flash().wear(1, {.stuckLow = 0x02});
    board->mcuChip().flash().wear(3, {.stuckHigh = 0x08});
    EXPECT_THAT(write(), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), ElementsAre(0xF1, 0xF0, 0xF3, 0xFC));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    ASSERT_THAT(exchange({0, 0, 0, 0, 0}, 500000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), ElementsAre(0xFF, 0xFD, 0xFF, 0xFF));
    EXPECT_THAT(violations(), IsEmpty());
    board.reset();
    board = std::make_unique<Board>(directory());
    EXPECT_THAT(flash(0, 4), ElementsAre(0xFF, 0xFD, 0xFF, 0xFF));
}

TEST_F(BoardLoaderFault, NoiseOfASeedIsTheSameEachTimeAndOtherwiseAnother) {
    const auto heardWith = [this](uint64_t seed) {
        board.reset();
        for (const auto& entry : std::filesystem::directory_iterator(directory())) {
            std::filesystem::remove_all(entry);
        }
        start();
        board->mcuUart().addNoise(seed, {.flipped = 20000, .dropped = 20000, .doubled = 20000});
        Bytes heard;
        for (int i = 0; i < 20; ++i) {
            const Bytes answer = exchange({0x01, 0xFE}, 5000);
            heard.insert(heard.end(), answer.begin(), answer.end());
        }
        return heard;
    };
    const Bytes first = heardWith(1);
    EXPECT_EQ(first, heardWith(1));
    EXPECT_NE(first, heardWith(2));
}

TEST(BoardLineNoise, FlipsDropsAndDoublesAtItsRates) {
    LineNoise noise(7, {.flipped = 100000, .dropped = 200000, .doubled = 300000});
    size_t flipped = 0, dropped = 0, doubled = 0;
    for (int i = 0; i < 10000; ++i) {
        const auto heard = noise.arriving(0x79);
        dropped += heard.empty() ? 1 : 0;
        doubled += heard == Bytes{0x79, 0x79} ? 1 : 0;
        flipped += heard.size() == 1 && heard[0] != 0x79 ? 1 : 0;
    }
    EXPECT_NEAR(static_cast<double>(flipped), 1000, 100);
    EXPECT_NEAR(static_cast<double>(dropped), 2000, 150);
    EXPECT_NEAR(static_cast<double>(doubled), 3000, 150);
}

const Bytes kN32Hello = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x25, 0x80, 0x5B};
const Bytes kN32Hello0 = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x5E};

struct FaultyAnswer {
    const char* name;
    LoaderFault fault;
    Bytes answer;
};
void PrintTo(const FaultyAnswer& faulty, std::ostream* out) { *out << faulty.name; }

class BoardN32Fault : public BoardBootLoaderTest,
                      public testing::WithParamInterface<FaultyAnswer> {};

TEST_P(BoardN32Fault, ChangesOneAnswer) {
    powerOn("n32g45x", B9600, 0);
    reset(1);
    board->mcuChip().loaderFaults().add(GetParam().fault);
    EXPECT_EQ(exchange(kN32Hello, 200000), GetParam().answer);
    reset(1);
    EXPECT_EQ(exchange(kN32Hello, 200000), kN32Hello0);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, BoardN32Fault,
    testing::Values(FaultyAnswer{"lost", {FaultKind::kSilent, 0x01, LoaderStep::kFinished}, {}},
                    FaultyAnswer{"junk",
                                 {FaultKind::kJunk, 0x01, LoaderStep::kFinished},
                                 {0x00, 0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x5E}},
                    FaultyAnswer{"damaged",
                                 {FaultKind::kDamagedAck, 0x01, LoaderStep::kFinished},
                                 {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xBC, 0x00, 0x5E}},
                    FaultyAnswer{"short",
                                 {FaultKind::kShortReply, 0x01, LoaderStep::kFinished},
                                 {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00}},
                    FaultyAnswer{"refused",
                                 {FaultKind::kNack, 0x01, LoaderStep::kFinished},
                                 {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xB0, 0x08, 0x46}},
                    FaultyAnswer{"reset", {FaultKind::kReset, 0x01, LoaderStep::kCommand}, {}},
                    FaultyAnswer{"busy",
                                 {FaultKind::kBusy, 0x01, LoaderStep::kFinished, 0, 1, seconds(3)},
                                 {}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quil::tests
