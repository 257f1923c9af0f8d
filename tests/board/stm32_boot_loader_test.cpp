// The boot loader of STM32 and GD32 parts against AN3155, byte by byte.
#include "tests/board/boot_loader_test.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class Stm32BootLoader : public BoardBootLoaderTest {
  protected:
    void start(const char* part = "gd32f303", speed_t speed = B115200,
               tcflag_t parity = PARENB | PARODD) {
        powerOn(part, speed, parity);
        reset(1);
        ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    }

    void write(const Bytes& address, Bytes data) {
        ASSERT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
        ASSERT_THAT(exchange(address), ElementsAre(kAck));
        data.insert(data.begin(), static_cast<uint8_t>(data.size() - 1));
        uint8_t check = 0;
        for (const uint8_t byte : data) check ^= byte;
        data.push_back(check);
        lastAnswer = exchange(data);
    }

    Bytes read(const Bytes& address, uint8_t count);

    Bytes lastAnswer;
};

const Bytes kBase = {0x08, 0x00, 0x00, 0x00, 0x08};  // 0x08000000 with its XOR

TEST_F(Stm32BootLoader, IsSilentOutsideItsSpeeds) {
    powerOn("gd32f303", B230400, PARENB);
    reset(1);
    EXPECT_THAT(exchange({0x7F}), IsEmpty());
    setLine(B1200, PARENB);
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
    setLine(B460800, PARENB);
    board->mcuChip().setFastestRate(460800);
    reset(1);
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_THAT(violations(), IsEmpty());
}

struct FirstByte {
    const char* name;
    Bytes sent;
    const char* measured;
};
void PrintTo(const FirstByte& first, std::ostream* out) { *out << first.name; }

class Stm32BootLoaderMeasures : public Stm32BootLoader,
                                public testing::WithParamInterface<FirstByte> {};

// At 9600 8E1, from the start bit to the next falling edge, which is taken for eight bits.
TEST_P(Stm32BootLoaderMeasures, AnyFirstByteAsIfItWereTheSynchronisationByte) {
    powerOn("gd32f303", B9600, PARENB);
    reset(1);
    EXPECT_THAT(exchange(GetParam().sent), testing::Not(testing::Contains(kAck)));
    EXPECT_EQ(violations().front(),
              std::string("gd32f303: the first byte is ") + GetParam().measured + " bit/s");
    EXPECT_THAT(exchange({0x7F, 0x7F}), testing::Not(testing::Contains(kAck)));
    reset(1);
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, Stm32BootLoaderMeasures,
    testing::Values(FirstByte{"x55", {0x55}, "0x55, measured as 38400"},
                    FirstByte{"xFF", {0xFF}, "0xff, measured as 8533"},
                    FirstByte{"x31", {0x31}, "0x31, measured as 38400"},
                    // No edge in the first byte: up to the next one's start bit, eleven bits.
                    FirstByte{"x00", {0x00, 0x00}, "0x00, measured as 6981"}),
    [](const auto& info) { return std::string(info.param.name); });

struct Parity {
    const char* name;
    tcflag_t flags;
};
void PrintTo(const Parity& parity, std::ostream* out) { *out << parity.name; }

class Stm32BootLoaderLine : public Stm32BootLoader, public testing::WithParamInterface<Parity> {};

TEST_P(Stm32BootLoaderLine, IsTheHostsAtSynchronisationAndStaysSo) {
    start("gd32f303", B57600, GetParam().flags);
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x14, kAck));
    EXPECT_THAT(violations(), IsEmpty());
    setLine(B115200, GetParam().flags);
    exchange({0x02, 0xFD});
    EXPECT_THAT(violations(), testing::Contains("/dev/ttyS3: framing error on the line"));
}

INSTANTIATE_TEST_SUITE_P(Parities, Stm32BootLoaderLine,
                         testing::Values(Parity{"even", PARENB}, Parity{"odd", PARENB | PARODD},
                                         Parity{"none", 0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Stm32BootLoader, RefusesASecondSynchronisationAsACommandWithoutComplement) {
    start();
    EXPECT_THAT(exchange({0x7F}), IsEmpty());
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kNack));
    EXPECT_THAT(violations(), ElementsAre("gd32f303: command 0x7f without its complement"));
    EXPECT_THAT(exchange({0x01, 0xFE}), ElementsAre(kAck, 0x30, 0x00, 0x00, kAck));
}

TEST_F(Stm32BootLoader, GetListsTheVersionAndTheCommands) {
    start();
    EXPECT_THAT(exchange({0x00, 0xFF}), ElementsAre(kAck, 11, 0x30, 0x00, 0x01, 0x02, 0x11, 0x21,
                                                    0x31, 0x44, 0x63, 0x73, 0x82, 0x92, kAck));
}

TEST_F(Stm32BootLoader, Stm32HasItsOwnCommandsAndRefusesTheOthers) {
    start("stm32h750");
    EXPECT_THAT(exchange({0x00, 0xFF}), ElementsAre(kAck, 11, 0x31, 0x00, 0x01, 0x02, 0x11, 0x21,
                                                    0x31, 0x44, 0x63, 0x73, 0x82, 0x92, kAck));
    EXPECT_THAT(exchange({0x06, 0xF9}), ElementsAre(kNack));
    EXPECT_THAT(exchange({0x43, 0xBC}), ElementsAre(kNack));
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x50, kAck));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, GdPartsTellTheirIdentifierLeastByteFirst) {
    start("gd32f303");
    EXPECT_THAT(exchange({0x06, 0xF9}), ElementsAre(kAck, 4, 0x33, 0x56, 0x45, 0x46, kAck));
}

TEST_F(Stm32BootLoader, Gd32F470TellsItsOwnIdentifier) {
    start("gd32f470");
    EXPECT_THAT(exchange({0x06, 0xF9}), ElementsAre(kAck, 4, 0x30, 0x5A, 0x45, 0x4E, kAck));
}

TEST_F(Stm32BootLoader, WritesABlockAndReadsItBack) {
    start();
    write(kBase, {1, 2, 3, 4});
    EXPECT_THAT(lastAnswer, ElementsAre(kAck));
    EXPECT_THAT(flash(0, 6), ElementsAre(1, 2, 3, 4, 0xFF, 0xFF));
    EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kAck));
    EXPECT_THAT(exchange(kBase), ElementsAre(kAck));
    EXPECT_THAT(exchange({5, 0xFA}), ElementsAre(kAck, 1, 2, 3, 4, 0xFF, 0xFF));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, BlockOf256BytesTakesItsProgrammingTime) {
    start();
    ASSERT_THAT(exchange({0x31, 0xCE}), ElementsAre(kAck));
    ASSERT_THAT(exchange(kBase), ElementsAre(kAck));
    Bytes frame(258, 0xA5);
    frame[0] = 0xFF;
    frame[257] = 0xFF;  // the XOR of 256 times 0xA5 is 0; the count's is left
    const auto sent = board->now();
    exchange(frame);
    const auto events = board->trace().events(EventKind::kUartRx);
    // 258 bytes to the part and one back, 11 bits each at 115,200 bit/s; 64 words of 105 us.
    const auto byte = std::chrono::nanoseconds(95486);
    EXPECT_EQ(events.back().at - sent, 259 * byte + std::chrono::microseconds(64 * 105));
}

struct Refusal {
    const char* name;
    std::vector<Bytes> frames;  // all but the last are acknowledged
    const char* violation;      // "": none
};
void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class Stm32BootLoaderRefuses : public Stm32BootLoader,
                               public testing::WithParamInterface<Refusal> {};

TEST_P(Stm32BootLoaderRefuses, AndWaitsForTheNextCommand) {
    start();
    const auto& frames = GetParam().frames;
    for (size_t i = 0; i + 1 < frames.size(); ++i) {
        ASSERT_THAT(exchange(frames[i]), ElementsAre(kAck)) << i;
    }
    EXPECT_THAT(exchange(frames.back()), ElementsAre(kNack));
    if (*GetParam().violation == '\0') {
        EXPECT_THAT(violations(), IsEmpty());
    } else {
        EXPECT_THAT(violations(), ElementsAre(std::string("gd32f303: ") + GetParam().violation));
    }
    EXPECT_THAT(flash(0, 64), Each(0xFF));
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x14, kAck));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, Stm32BootLoaderRefuses,
    testing::Values(
        Refusal{"complement", {{0x31, 0xCF}}, "command 0x31 without its complement"},
        Refusal{"unknown", {{0x50, 0xAF}}, ""},
        Refusal{"addressXor", {{0x31, 0xCE}, {8, 0, 0, 0, 9}}, "the address's XOR is wrong"},
        Refusal{"addressRange",
                {{0x11, 0xEE}, {0x07, 0xFF, 0xFF, 0xFC, 0xFB}},
                "address 0x07fffffc is out of reach"},
        Refusal{"addressAboveFlash",
                {{0x31, 0xCE}, {0x08, 0x08, 0x00, 0x00, 0x00}},
                "address 0x08080000 is out of reach"},
        Refusal{"readOfTheLoadersRam",
                {{0x11, 0xEE}, {0x20, 0x00, 0x01, 0xFC, 0xDD}},
                "address 0x200001fc is out of reach"},
        Refusal{"writeOfTheLoadersRam",
                {{0x31, 0xCE}, {0x20, 0x00, 0x00, 0x00, 0x20}},
                "address 0x20000000 is out of reach"},
        Refusal{"writeOfSystemMemory",
                {{0x31, 0xCE}, {0x1F, 0xFF, 0xF7, 0xE0, 0xF7}},
                "address 0x1ffff7e0 is out of reach"},
        Refusal{"goToSystemMemory",
                {{0x21, 0xDE}, {0x1F, 0xFF, 0xF0, 0x00, 0x10}},
                "address 0x1ffff000 is out of reach"},
        Refusal{"alignment",
                {{0x31, 0xCE}, {8, 0, 0, 2, 10}, {1, 0, 0, 1}},
                "0x08000002 is on no word"},
        Refusal{"halfAWord", {{0x31, 0xCE}, kBase, {1, 7, 7, 1}}, "2 bytes are no multiple of 4"},
        Refusal{"dataXor", {{0x31, 0xCE}, kBase, {1, 7, 7, 0}}, "the data's XOR is wrong"},
        Refusal{"writePastTheEnd",
                {{0x31, 0xCE}, {8, 0x07, 0xFF, 0xFC, 0x0C}, {7, 0, 0, 0, 0, 0, 0, 0, 0, 7}},
                "a write beyond the memory's end"},
        Refusal{"readCount", {{0x11, 0xEE}, kBase, {3, 3}}, "the count lacks its complement"},
        Refusal{"eraseXor", {{0x43, 0xBC}, {0, 1, 2}}, "the page list's XOR is wrong"},
        Refusal{"extendedXor", {{0x44, 0xBB}, {0, 0, 0, 1, 0}}, "the page list's XOR is wrong"},
        Refusal{"bankErase", {{0x44, 0xBB}, {0xFF, 0xFE, 1}}, "no special erase 0xfffe"},
        Refusal{"specialXor", {{0x44, 0xBB}, {0xFF, 0xFF, 1}}, "the erase request's XOR is wrong"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Stm32BootLoader, RefusesToProgramWhatIsNotErased) {
    start();
    write(kBase, {1, 2, 3, 4});
    write(kBase, {1, 2, 3, 4});
    EXPECT_THAT(lastAnswer, ElementsAre(kNack));
    EXPECT_THAT(violations(),
                ElementsAre("gd32f303: programming at 0x08000000, which is not erased"));
}

TEST_F(Stm32BootLoader, ErasesThePagesOfTheList) {
    start();
    write(kBase, Bytes(4, 0));
    write({8, 0, 8, 0, 0}, Bytes(4, 0));
    write({8, 0, 0x10, 0, 0x18}, Bytes(4, 0));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    // Two pages, 0 and 2: two times 20 ms.
    EXPECT_THAT(exchange({0, 1, 0, 0, 0, 2, 3}, 40000), IsEmpty());
    EXPECT_THAT(exchange({}, 2000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
    EXPECT_THAT(flash(2048, 2), Each(0));
    EXPECT_THAT(flash(4096, 2), Each(0xFF));
    ASSERT_THAT(exchange({0x43, 0xBC}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0, 1, 1}), ElementsAre(kAck));
    EXPECT_THAT(flash(2048, 2), Each(0xFF));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, ErasesEverythingByEitherCommand) {
    start();
    write(kBase, Bytes(4, 0));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFF, 0xFF, 0x00}, 2000000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
    write(kBase, Bytes(4, 0));
    ASSERT_THAT(exchange({0x43, 0xBC}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFF, 0x00}, 2000000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
}

TEST_F(Stm32BootLoader, GlobalEraseWithAWrongCheckByteIsAcknowledgedAndErasesNothing) {
    start();
    write(kBase, Bytes(4, 0));
    ASSERT_THAT(exchange({0x43, 0xBC}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFF, 0x01}), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0));
    EXPECT_THAT(violations(), ElementsAre("gd32f303: the global erase's check byte is wrong"));
}

class Stm32BootLoaderOf : public Stm32BootLoader,
                          public testing::WithParamInterface<const char*> {};

TEST_P(Stm32BootLoaderOf, PassesOverPagesThatItHasNot) {
    start(GetParam());
    write(kBase, Bytes(32, 0));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0, 1, 0, 0, 2, 0, 3}, 1500000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 32), Each(0xFF));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_P(Stm32BootLoaderOf, ReadsTheWholePageListBeforeItAnswers) {
    start(GetParam());
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    Bytes list(2 + 2 * 0x201, 0);
    list[0] = 2;  // 0x200 + 1 numbers, all of them 0
    EXPECT_THAT(exchange(list, 200000), IsEmpty());
    EXPECT_THAT(exchange({0x03}), ElementsAre(kNack)) << "the XOR is 2";
    EXPECT_THAT(exchange({0x02, 0xFD}).size(), 5U);
}

// The answer to a read of so many bytes, without its ACK.
Bytes Stm32BootLoader::read(const Bytes& address, uint8_t count) {
    EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kAck));
    EXPECT_THAT(exchange(address), ElementsAre(kAck));
    const auto last = static_cast<uint8_t>(count - 1);
    Bytes answer = exchange({last, static_cast<uint8_t>(~last)});
    EXPECT_EQ(answer.front(), kAck);
    return {answer.begin() + 1, answer.end()};
}

TEST_P(Stm32BootLoaderOf, ReadThatBeginsInTheFlashMayRunPastItsEnd) {
    start(GetParam());
    const uint32_t last = 0x08000000 + board->mcuChip().part().flashSize() - 4;
    Bytes address = {8, static_cast<uint8_t>(last >> 16), 0xFF, 0xFC, 0};
    address[4] = xorOf(address);
    EXPECT_THAT(read(address, 6), ElementsAre(0xFF, 0xFF, 0xFF, 0xFF, 0, 0));
    EXPECT_THAT(violations(),
                ElementsAre(std::string(GetParam()) + ": a read beyond the memory's end"));
}

INSTANTIATE_TEST_SUITE_P(Parts, Stm32BootLoaderOf,
                         testing::Values("gd32f303", "gd32f470", "stm32h750"),
                         [](const auto& info) { return std::string(info.param); });

struct Identity {
    const char* part;
    Bytes sizeAt, idAt, size;
};
void PrintTo(const Identity& identity, std::ostream* out) { *out << identity.part; }

class Stm32BootLoaderTells : public Stm32BootLoader,
                             public testing::WithParamInterface<Identity> {};

TEST_P(Stm32BootLoaderTells, ItsFlashSizeAndUniqueIdInSystemMemory) {
    start(GetParam().part);
    EXPECT_EQ(read(GetParam().sizeAt, 2), GetParam().size);
    EXPECT_THAT(read(GetParam().idAt, 12), ElementsAre(0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57,
                                                       0x58, 0x59, 0x5A, 0x5B, 0x5C));
    EXPECT_THAT(violations(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Identities, Stm32BootLoaderTells,
                         testing::Values(Identity{"gd32f303",
                                                  {0x1F, 0xFF, 0xF7, 0xE0, 0xF7},
                                                  {0x1F, 0xFF, 0xF7, 0xE8, 0xFF},
                                                  {0x00, 0x02}},
                                         Identity{"gd32f470",
                                                  {0x1F, 0xFF, 0x7A, 0x22, 0xB8},
                                                  {0x1F, 0xFF, 0x7A, 0x10, 0x8A},
                                                  {0x00, 0x02}},
                                         Identity{"stm32h750",
                                                  {0x1F, 0xF1, 0xE8, 0x80, 0x86},
                                                  {0x1F, 0xF1, 0xE8, 0x00, 0x06},
                                                  {0x80, 0x00}}),
                         [](const auto& info) { return std::string(info.param.part); });

TEST_F(Stm32BootLoader, BankErasesAreForPartsOfFamiliesWithTwoBanks) {
    start("gd32f470");
    write(kBase, Bytes(4, 0));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFF, 0xFD, 0x02}, 2000000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0)) << "the second bank is empty";
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0xFF, 0xFE, 0x01}, 2000000), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, OptionBytesAreReadAndWrittenAndTakeEffectWithAReset) {
    start();
    const Bytes options = {0x1F, 0xFF, 0xF8, 0x00, 0x18};
    EXPECT_THAT(read(options, 16), ElementsAre(0xA5, 0x5A, 0xFF, 0, 0xFF, 0, 0xFF, 0, 0xFF, 0, 0xFF,
                                               0, 0xFF, 0, 0xFF, 0));
    write({0x1F, 0xFF, 0xF8, 0x08, 0x10}, {0xFD, 0x02, 0xFF, 0x00});
    EXPECT_THAT(lastAnswer, ElementsAre(kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck)) << "it was reset";
    EXPECT_THAT(board->mcuChip().flash().writeProtectedPages(), ElementsAre(2U, 3U));
    write(options, {0x00, 0xFF, 0xFF, 0x00});
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_TRUE(board->mcuChip().flash().readoutProtected());
    EXPECT_THAT(board->mcuChip().flash().writeProtectedPages(), ElementsAre(2U, 3U));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, OptionBytesOfAGd32F470AreThoseOfItsFamily) {
    start("gd32f470");
    const Bytes options = {0x1F, 0xFF, 0xC0, 0x00, 0x20};
    EXPECT_EQ(read(options, 16)[1], 0xAA);
    write({0x1F, 0xFF, 0xC0, 0x08, 0x28}, {0xFE, 0x0F, 0xFF, 0xFF});
    ASSERT_THAT(exchange({}, 100000), ElementsAre(kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_THAT(board->mcuChip().flash().writeProtectedPages(), ElementsAre(0U));
    EXPECT_EQ(read(options, 16)[8], 0xFE);
}

TEST_F(Stm32BootLoader, UnprotectErasesAPartThatWasNotProtectedAsWell) {
    start();
    write(kBase, Bytes(4, 0));
    EXPECT_THAT(exchange({0x92, 0x6D}, 1000000), ElementsAre(kAck));
    EXPECT_THAT(exchange({}, 1000000), ElementsAre(kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
}

TEST_F(Stm32BootLoader, Stm32H750GoesOnWithoutAResetAfterItsOptionBytesChange) {
    start("stm32h750");
    EXPECT_THAT(exchange({0x82, 0x7D}, 400000), ElementsAre(kAck, kAck));
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x50, kAck));
    EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kNack));
    EXPECT_THAT(exchange({0x92, 0x6D}, 1500000), ElementsAre(kAck, kAck));
    EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kAck));
}

TEST_F(Stm32BootLoader, HearsOneByteAndNoMoreWhileItAnswers) {
    start();
    EXPECT_THAT(exchange({0x00, 0xFF, 0x01, 0xFE}),
                ElementsAre(kAck, 11, 0x30, 0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63, 0x73,
                            0x82, 0x92, kAck));
    EXPECT_THAT(violations(), ElementsAre("gd32f303: a byte came during an answer, and was lost"));
    EXPECT_THAT(exchange({0xFE}), ElementsAre(kAck, 0x30, 0x00, 0x00, kAck));
}

TEST_F(Stm32BootLoader, HearsOneByteAndNoMoreWhileItsFlashIsAtWork) {
    start();
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0, 0, 0, 0, 0}, 5000), IsEmpty());
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck));
    EXPECT_THAT(violations(),
                ElementsAre("gd32f303: a byte came while the flash was at work, and was lost"));
    EXPECT_THAT(exchange({0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x14, kAck));
}

TEST_F(Stm32BootLoader, RamIsWrittenAndReadBackAndLostAtAReset) {
    start();
    const Bytes ram = {0x20, 0x00, 0x10, 0x00, 0x30};
    write(ram, {9, 8, 7, 6});
    EXPECT_THAT(lastAnswer, ElementsAre(kAck));
    exchange({0x11, 0xEE});
    exchange(ram);
    EXPECT_THAT(exchange({3, 0xFC}), ElementsAre(kAck, 9, 8, 7, 6));
    reset(1);
    exchange({0x7F});
    exchange({0x11, 0xEE});
    exchange(ram);
    EXPECT_THAT(exchange({1, 0xFE}), ElementsAre(kAck, 0, 0));
}

TEST_F(Stm32BootLoader, ReadoutProtectionRefusesAllThatTouchesMemoryUntilItIsTakenAwayWithIt) {
    start();
    write(kBase, {1, 2, 3, 4});
    EXPECT_THAT(exchange({0x82, 0x7D}), ElementsAre(kAck, kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    for (const Bytes& command :
         {Bytes{0x11, 0xEE}, Bytes{0x21, 0xDE}, Bytes{0x31, 0xCE}, Bytes{0x43, 0xBC},
          Bytes{0x44, 0xBB}, Bytes{0x63, 0x9C}, Bytes{0x73, 0x8C}, Bytes{0x82, 0x7D}}) {
        EXPECT_THAT(exchange(command), ElementsAre(kNack)) << int(command[0]);
    }
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x14, kAck));
    EXPECT_THAT(exchange({0x92, 0x6D}, 2000000), ElementsAre(kAck, kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0x11, 0xEE}), ElementsAre(kAck));
    EXPECT_THAT(flash(0, 2), Each(0xFF));
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, WriteProtectionLetsWritesPassWithoutEffect) {
    start();
    ASSERT_THAT(exchange({0x63, 0x9C}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0, 0, 0}), ElementsAre(kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    EXPECT_THAT(board->mcuChip().flash().writeProtectedPages(), ElementsAre(0U, 1U)) << "4 KiB";
    write(kBase, {1, 2, 3, 4});
    EXPECT_THAT(lastAnswer, ElementsAre(kAck));
    EXPECT_THAT(flash(0, 4), Each(0xFF));
    EXPECT_THAT(exchange({0x73, 0x8C}), ElementsAre(kAck, kAck));
    ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    write(kBase, {1, 2, 3, 4});
    EXPECT_THAT(flash(0, 4), ElementsAre(1, 2, 3, 4));
}

TEST_F(Stm32BootLoader, GoStartsTheApplicationWhereOneStands) {
    start();
    board->mcuChip().flashImage(makeMcuImage(McuKind::kGd32F303, "V4.5.6", 4096));
    ASSERT_THAT(exchange({0x21, 0xDE}), ElementsAre(kAck));
    exchange(kBase);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kApplication);
    EXPECT_EQ(board->mcuChip().version(), "V4.5.6");
}

TEST_F(Stm32BootLoader, GoIntoTheRamLeavesASilentPart) {
    start();
    ASSERT_THAT(exchange({0x21, 0xDE}), ElementsAre(kAck));
    EXPECT_THAT(exchange({0x20, 0x00, 0x10, 0x00, 0x30}), ElementsAre(kAck));
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kElsewhere);
    EXPECT_THAT(exchange({0x02, 0xFD}), IsEmpty());
}

TEST_F(Stm32BootLoader, Boot0DecidesAtTheRiseOfTheResetLineWhatStarts) {
    powerOn("gd32f303");
    board->mcuChip().flashImage(makeMcuImage(McuKind::kGd32F303, "V1.0.0", 4096));
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kNoImage) << "as it was at power-on";
    board->gpio().at("MCU_BOOT0").drive(1);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kNoImage);
    board->gpio().at("MCU_NRST").drive(0);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kInReset);
    EXPECT_THAT(exchange({0x7F}), IsEmpty());
    board->gpio().at("MCU_NRST").drive(1);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kStarting);
    usleep(500);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kBootLoader);
    reset(0);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kApplication);
    EXPECT_EQ(board->mcuChip().version(), "V1.0.0");
    EXPECT_EQ(board->mcuChip().starts().size(), 3U);
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Stm32BootLoader, ResetTearsWhatTheFlashIsAtAndNoImageMeansASilentPart) {
    start();
    board->mcuChip().flashImage(makeMcuImage(McuKind::kGd32F303, "V1.0.0", 8192));
    ASSERT_THAT(exchange({0x44, 0xBB}), ElementsAre(kAck));
    exchange({0, 3, 0, 0, 0, 1, 0, 2, 0, 3, 3}, 10000);
    reset(0);
    EXPECT_EQ(board->mcuChip().state(), McuChip::State::kNoImage);
    EXPECT_EQ(board->mcuChip().version(), "");
    EXPECT_EQ(board->mcuChip().starts().back().as, McuChip::State::kNoImage);
}

struct StepFault {
    const char* name;
    LoaderFault fault;
    std::vector<Bytes> before;  // acknowledged
    Bytes frame;                // the step that fails
};
void PrintTo(const StepFault& fault, std::ostream* out) { *out << fault.name; }

class Stm32BootLoaderFails : public Stm32BootLoader,
                             public testing::WithParamInterface<StepFault> {};

TEST_P(Stm32BootLoaderFails, AtTheStepAndWorksTheNextTime) {
    start();
    board->mcuChip().loaderFaults().add(GetParam().fault);
    for (const Bytes& frame : GetParam().before) ASSERT_THAT(exchange(frame), ElementsAre(kAck));
    const Bytes expected =
        GetParam().fault.kind == LoaderFault::Kind::kNack ? Bytes{kNack} : Bytes{};
    EXPECT_EQ(exchange(GetParam().frame), expected);
    EXPECT_THAT(exchange({0x02, 0xFD}), ElementsAre(kAck, 0x01, 0x04, 0x14, kAck));
    for (const Bytes& frame : GetParam().before) ASSERT_THAT(exchange(frame), ElementsAre(kAck));
    EXPECT_EQ(exchange(GetParam().frame).front(), kAck);
    EXPECT_THAT(violations(), IsEmpty());
}

constexpr auto kMute = LoaderFault::Kind::kSilent, kNacks = LoaderFault::Kind::kNack;
INSTANTIATE_TEST_SUITE_P(
    Steps, Stm32BootLoaderFails,
    testing::Values(
        StepFault{"silentCommand", {kMute, 0x31, LoaderStep::kCommand}, {}, {0x31, 0xCE}},
        StepFault{"nackedCommand", {kNacks, 0x44, LoaderStep::kCommand}, {}, {0x44, 0xBB}},
        StepFault{"silentAddress", {kMute, 0x31, LoaderStep::kAddress}, {{0x31, 0xCE}}, kBase},
        StepFault{"nackedAddress", {kNacks, {}, LoaderStep::kAddress}, {{0x11, 0xEE}}, kBase},
        StepFault{
            "nackedCount", {kNacks, 0x11, LoaderStep::kCount}, {{0x11, 0xEE}, kBase}, {0, 0xFF}},
        StepFault{"silentData",
                  {kMute, 0x31, LoaderStep::kData},
                  {{0x31, 0xCE}, kBase},
                  {3, 5, 5, 5, 5, 3}},
        StepFault{"nackedData", {kNacks, 0x44, LoaderStep::kData}, {{0x44, 0xBB}}, Bytes(5, 0)},
        StepFault{"silentEnd", {kMute, 0x44, LoaderStep::kFinished}, {{0x44, 0xBB}}, Bytes(5, 0)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Stm32BootLoader, SilentSynchronisationIsTriedAgain) {
    powerOn("gd32f303");
    board->mcuChip().loaderFaults().add({.step = LoaderStep::kSync, .after = 0, .times = 2});
    reset(1);
    EXPECT_THAT(exchange({0x7F}), IsEmpty());
    EXPECT_THAT(exchange({0x7F}), IsEmpty());
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
}

TEST_F(Stm32BootLoader, HungLoaderNeedsAReset) {
    start();
    board->mcuChip().loaderFaults().add({.kind = LoaderFault::Kind::kHangs, .command = 0x02});
    EXPECT_THAT(exchange({0x02, 0xFD}), IsEmpty());
    EXPECT_THAT(exchange({0x00, 0xFF}), IsEmpty());
    reset(1);
    EXPECT_THAT(exchange({0x7F}), ElementsAre(kAck));
}

TEST_F(Stm32BootLoader, LateAnswerComesLate) {
    start();
    board->mcuChip().loaderFaults().add({.kind = LoaderFault::Kind::kLate,
                                         .command = 0x31,
                                         .delay = std::chrono::milliseconds(700)});
    EXPECT_THAT(exchange({0x31, 0xCE}, 600000), IsEmpty());
    EXPECT_THAT(exchange({}, 200000), ElementsAre(kAck));
}

}  // namespace
}  // namespace quil::tests
