// Coming into step with a boot loader over a bad line, and in any state that it may be in.
#include <unistd.h>

#include "host/wire_frame.h"
#include "testing/whole.h"
#include "tests/programmer/part_on_board.h"

namespace quil::tests {
namespace {

using programmer::Session;

constexpr int kMostResets = 2;

class ProgrammerConnect : public testing::TestWithParam<const char*> {
  protected:
    ProgrammerConnect() {
        on.lines = [this, drive = on.lines](bool boot0, bool nrst) {
            if (boot0 && !nrst) ++resets;
            return drive(boot0, nrst);
        };
    }
    Report info() {
        resets = 0;
        return on.session([](Session& session) { return session.info(); });
    }

    PartOnBoard on{GetParam()};
    int resets = 0;
};

// One byte in a hundred is flipped, lost or doubled, in each direction.
TEST_P(ProgrammerConnect, NoisyLinesTakeAtMostTwoResets) {
    constexpr uint64_t kSeeds = 1000, kSample = 25;
    for (uint64_t seed = 0; seed < kSeeds; seed += strideOf(kSample)) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        on.board().mcuUart().addNoise(seed, {.flipped = 4000, .dropped = 3000, .doubled = 3000});
        const Report report = info();
        ASSERT_EQ(report.outcome, Outcome::kDone) << textOf(report);
        ASSERT_STREQ(report.part->name, GetParam());
        ASSERT_LE(resets, kMostResets) << textOf(report);
    }
}

// A part in its boot loader whose lines nobody drives.
class ProgrammerWithoutLines : public testing::Test {
  protected:
    ProgrammerWithoutLines() {
        on.lines = [](bool, bool) { return false; };
    }
    void startLoader() {
        tools::boardLines()(true, false);
        tools::boardLines()(true, true);
        on.board().runFor(std::chrono::milliseconds(5));
    }
    Report info() {
        return on.session([](Session& session) { return session.info(); });
    }
    void send(const Bytes& bytes) {
        tools::SerialTransport port(on.board().mcuUart().path(), on.lines);
        port.setMode({});
        port.write(bytes);
        on.board().runFor(std::chrono::milliseconds(5));
    }

    PartOnBoard on{"gd32f303"};
};

TEST_F(ProgrammerWithoutLines, BootLoaderThatIsSynchronisedAlreadyIsUsedAsItIs) {
    startLoader();
    ASSERT_EQ(info().outcome, Outcome::kDone);
    const Report again = info();
    EXPECT_EQ(again.outcome, Outcome::kDone) << textOf(again);
    EXPECT_EQ(again.statistics.times(Trouble::kAlreadySynchronised), 1U);
}

TEST_F(ProgrammerWithoutLines, RequestThatWasHalfSentIsCompletedWrongly) {
    const Bytes before = on.cells(8192);
    startLoader();
    ASSERT_EQ(info().outcome, Outcome::kDone);
    // Half a command; a write up to its address; a page list up to its count.
    for (const Bytes& half : {Bytes{0x11}, Bytes{0x31, 0xCE, 0x08, 0x00, 0x00, 0x00, 0x08},
                              Bytes{0x44, 0xBB, 0x00, 0x01}}) {
        send(half);
        const Report report = info();
        EXPECT_EQ(report.outcome, Outcome::kDone) << textOf(report);
        EXPECT_EQ(report.statistics.times(Trouble::kHalfCommand), 1U) << textOf(report);
    }
    EXPECT_EQ(on.cells(8192), before);
}

TEST_F(ProgrammerWithoutLines, ApplicationThatAnswersIsToldFromASilentPart) {
    on.settings.link.applicationRequest = host::buildFrame({.command = 1});
    const Report running = info();
    EXPECT_EQ(running.outcome, Outcome::kRefused);
    EXPECT_EQ(running.reason, "the application answers, not the boot loader");
    EXPECT_EQ(running.statistics.times(Trouble::kApplication), 1U);
    on.put({});
    tools::boardLines()(false, false);
    tools::boardLines()(false, true);
    EXPECT_EQ(info().reason, "no answer from the boot loader");
}

// A line on which somebody else talks without a pause, with a clock of its own.
class BusyLine : public programmer::Transport {
  public:
    void write(std::span<const uint8_t> bytes) override { pass(mMode.timeOf(bytes.size())); }
    size_t read(std::span<uint8_t> into, programmer::Nanos deadline) override {
        std::fill(into.begin(), into.end(), 0x55);
        pass(into.empty() ? deadline - mNow : mMode.timeOf(into.size()));
        return into.size();
    }
    bool lines(bool /*boot0*/, bool /*nrst*/) override { return true; }
    void setMode(const programmer::LineMode& mode) override { mMode = mode; }
    programmer::Nanos now() const override { return mNow; }

  private:
    void pass(programmer::Nanos time) {
        mNow += time;
        if (mNow > std::chrono::hours(1)) throw programmer::PortError("listened for an hour");
    }

    programmer::LineMode mMode;
    programmer::Nanos mNow{0};
};

TEST(ProgrammerBusyLine, IsGivenUpAsOneOnWhichNoBootLoaderAnswers) {
    BusyLine line;
    const Report report = Session(line, {}).info();
    EXPECT_EQ(report.outcome, Outcome::kRefused);
    EXPECT_THAT(report.reason, testing::HasSubstr("no answer from the boot loader"));
}

TEST(ProgrammerRates, RateThatThePartDoesNotMeasureIsSteppedDown) {
    PartOnBoard on("stm32h750");
    on.settings.link.baud = 460800;
    std::vector<std::string> said;
    on.callbacks.say = [&said](const std::string& text) { said.push_back(text); };
    const Bytes image = on.imageOf("V2.0.0", 2000);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
    EXPECT_EQ(report.line.baud, 115200);
    EXPECT_EQ(report.statistics.times(Trouble::kRateStep), 2U);
    ASSERT_EQ(said.size(), 2U);
    EXPECT_EQ(said[0], "no synchronisation at 460800 bit/s: on with 230400");
    EXPECT_EQ(on.cells(image.size()), image);
}

TEST(ProgrammerRates, RateWithTooManyBadAnswersIsSteppedDown) {
    PartOnBoard on("gd32f303");
    int written = 0;
    on.habit.onWrite = [&written](Bytes& bytes, const programmer::LineMode& mode) {
        if (mode.baud > 57600 && ++written % 8 == 0) bytes.front() ^= 0x20;
    };
    std::vector<std::string> said;
    on.callbacks.say = [&said](const std::string& text) { said.push_back(text); };
    const Bytes image = on.imageOf("V2.0.0", 9000);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
    EXPECT_EQ(report.line.baud, 57600);
    ASSERT_EQ(said.size(), 1U);
    EXPECT_THAT(said[0],
                testing::MatchesRegex("16 bad answers of [0-9]+ at 115200 bit/s: on with 57600"));
    EXPECT_EQ(on.cells(image.size()), image);
}

// Such a part synchronises, and then hears nothing that makes sense.
TEST(ProgrammerParity, AnotherOneThanThePartsIsToldAndReplaced) {
    for (const char parity : {'N', 'O'}) {
        PartOnBoard on("gd32f303");
        on.habit.onWrite = [parity](Bytes& bytes, const programmer::LineMode& mode) {
            if (mode.parity != parity && bytes != Bytes{0x7F}) bytes.clear();
        };
        std::vector<std::string> said;
        on.callbacks.say = [&said](const std::string& text) { said.push_back(text); };
        const Report report = on.session([](Session& session) { return session.info(); });
        EXPECT_EQ(report.outcome, Outcome::kDone) << textOf(report);
        EXPECT_EQ(report.statistics.times(Trouble::kWrongParity), 1U);
        EXPECT_EQ(report.line.parity, parity);
        EXPECT_THAT(said, testing::ElementsAre(std::string("the boot loader hears parity ") +
                                               parity + ", not E"));
    }
}

class ProgrammerIdentity : public ProgrammerConnect {};

TEST_P(ProgrammerIdentity, PartIsFoundWithoutBeingExpected) {
    on.settings.chip = "";
    const Report report = info();
    EXPECT_EQ(report.outcome, Outcome::kDone) << textOf(report);
    EXPECT_STREQ(report.part->name, GetParam());
}

TEST_P(ProgrammerIdentity, UnknownPartIsAnErrorWithItsNumber) {
    const bool isN32 = std::string(GetParam()) == "n32g45x";
    const Bytes before = on.cells(4096);
    if (!isN32) on.settings.chip = "";
    on.habit.onRead = [](std::span<uint8_t> heard) {
        const bool isId = heard.size() == 3 && heard[2] == 0x79;  // behind ACK and length
        const bool isName = heard.size() == 60 && heard[2] == 0x10;
        if (isId) heard[0] ^= 0x20;
        if (isName) std::swap(heard[6], heard[7]);
    };
    const Report report = on.flash(on.imageOf("V2.0.0", 2000));
    EXPECT_EQ(report.outcome, Outcome::kRefused);
    EXPECT_THAT(report.reason, testing::StartsWith(isN32 ? "unknown part: '3n2g45x'"
                                                         : "unknown part: product 0x24"));
    EXPECT_EQ(on.cells(4096), before);
}

TEST_P(ProgrammerIdentity, ApplicationThatRunsIsNamedWhereNobodyDrivesTheLines) {
    on.lines = [](bool, bool) { return false; };
    on.settings.link.applicationRequest = host::buildFrame({.command = 1});
    const Report report = info();
    EXPECT_EQ(report.reason, "the application answers, not the boot loader");
    EXPECT_EQ(report.statistics.times(Trouble::kApplication), 1U);
}

INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerIdentity, testing::ValuesIn(kEveryPart),
                         [](const auto& part) { return std::string(part.param); });
INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerConnect, testing::ValuesIn(kEveryPart),
                         [](const auto& part) { return std::string(part.param); });

}  // namespace
}  // namespace quil::tests
