// Programming each part: what is checked, erased, written, verified and counted.
#include "tests/programmer/part_on_board.h"

namespace quil::tests {
namespace {

using Kind = board::LoaderFault::Kind;
using Wear = board::McuFlash::Wear;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;

class ProgrammerFlash : public testing::TestWithParam<const char*> {
  protected:
    PartOnBoard on{GetParam()};
};

TEST_P(ProgrammerFlash, WritesVerifiesAndStartsAnotherImage) {
    const Bytes image = on.imageOf("V2.0.0", 9000);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
    EXPECT_EQ(on.cells(image.size()), image);
    EXPECT_EQ(on.runs(), "V2.0.0");
    EXPECT_THAT(on.board().violations(), IsEmpty());
    EXPECT_EQ(report.statistics.troubles(), 0U) << textOf(report);
    EXPECT_STREQ(report.part->name, GetParam());
}

TEST_P(ProgrammerFlash, LeavesAnEqualImageAlone) {
    const Bytes image = on.imageOf("V2.0.0", 9000);
    on.put(image);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kAlreadyCurrent) << textOf(report);
    EXPECT_EQ(report.statistics.pagesErased, 0U);
    EXPECT_EQ(on.runs(), "V2.0.0");
}

TEST_P(ProgrammerFlash, DryRunTellsThePagesAndChangesNothing) {
    const Bytes before = on.cells(9000);
    on.settings.dryRun = true;
    const Report report = on.flash(on.imageOf("V2.0.0", 9000));
    EXPECT_EQ(report.outcome, Outcome::kDone);
    EXPECT_EQ(report.plan.pages.size(), report.plan.pagesOfImage);
    EXPECT_GT(report.plan.time, seconds(0));
    EXPECT_EQ(on.cells(9000), before);
    EXPECT_EQ(on.runs(), "V1.0.0");
}

TEST_P(ProgrammerFlash, OtherPartThanTheExpectedOneIsRefused) {
    const bool isN32 = on.settings.chip == "n32g45x";
    on.settings.chip = on.settings.chip == "gd32f303" ? "gd32f470" : "gd32f303";
    const Report report = on.flash(on.imageOf("V2.0.0", 2000));
    EXPECT_EQ(report.outcome, Outcome::kRefused);
    EXPECT_THAT(report.reason,
                isN32 ? HasSubstr("no answer from the boot loader") : HasSubstr("not a gd32f"));
    EXPECT_EQ(on.runs(), "V1.0.0");
}

TEST_P(ProgrammerFlash, ImageThatNoPartStartsIsRefusedBeforeAnythingIsErased) {
    Bytes even = on.imageOf("V2.0.0", 2000), outside = even, large(on.part().flashSize() + 4);
    even[4] &= 0xFE;
    outside[3] = 0x10;
    for (const auto& [image, reason] :
         {std::pair(even, "is even"), std::pair(outside, "the RAM"),
          std::pair(large, "bytes, the flash"), std::pair(Bytes{}, "is empty")}) {
        const Report report = on.flash(image);
        EXPECT_EQ(report.outcome, Outcome::kRefused);
        EXPECT_THAT(report.reason, HasSubstr(reason));
        EXPECT_EQ(report.statistics.pagesErased, 0U);
    }
    EXPECT_EQ(on.runs(), "V1.0.0");
}

TEST_P(ProgrammerFlash, AsIsProgramsAnImageThatNoPartStarts) {
    Bytes even = on.imageOf("V2.0.0", 2000);
    even[4] &= 0xFE;
    on.settings.asIs = true;
    EXPECT_EQ(on.flash(even).outcome, Outcome::kProgrammed);
    EXPECT_EQ(on.cells(even.size()), even);
}

TEST_P(ProgrammerFlash, BlocksOfFfAreNotSent) {
    Bytes image = on.imageOf("V2.0.0", 4096);
    std::fill(image.begin() + 1024, image.end(), 0xFF);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
    EXPECT_EQ(report.statistics.bytesWritten, 1024U);
    EXPECT_EQ(on.cells(image.size()), image);
}

TEST_P(ProgrammerFlash, ProgressIsMonotoneFrequentAndWholeOnlyAtASuccess) {
    double reached = 0;
    programmer::Nanos last = on.board().now(), longest{0};
    on.callbacks.progress = [&](const programmer::Progress& progress) {
        EXPECT_GE(progress.done, reached);
        reached = progress.done;
        longest = std::max(longest, on.board().now() - last);
        last = on.board().now();
    };
    EXPECT_EQ(on.flash(on.imageOf("V2.0.0", 9000)).outcome, Outcome::kProgrammed);
    EXPECT_EQ(reached, 1);
    EXPECT_LE(longest, milliseconds(250));
    reached = 0;
    on.add({.kind = Kind::kNack, .times = -1});
    EXPECT_NE(on.flash(on.imageOf("V3.0.0", 9000)).outcome, Outcome::kProgrammed);
    EXPECT_LT(reached, 1);
}

TEST_P(ProgrammerFlash, LongestErasesShowProgressAsOften) {
    programmer::Nanos last = on.board().now(), longest{0};
    on.callbacks.progress = [&](const programmer::Progress&) {
        longest = std::max(longest, on.board().now() - last);
        last = on.board().now();
    };
    on.chip().flash().takeLongestTimes();
    const Report report = on.session([](auto& session) { return session.eraseEverything(); });
    EXPECT_EQ(report.outcome, Outcome::kDone) << textOf(report);
    EXPECT_EQ(report.statistics.troubles(), 0U) << textOf(report);
    EXPECT_LE(longest, milliseconds(250));
    const Bytes image = on.imageOf("V2.0.0", 3000);
    const Report flashed = on.flash(image);
    EXPECT_EQ(flashed.outcome, Outcome::kProgrammed) << textOf(flashed);
    EXPECT_EQ(flashed.statistics.troubles(), 0U) << textOf(flashed);
    EXPECT_LE(longest, milliseconds(250));
}

// The first address is of the block that is written last.
TEST_P(ProgrammerFlash, WornCellIsRefusedWithItsAddress) {
    const Bytes image = on.imageOf("V2.0.0", 2000);
    for (const auto& [at, isLow] : {std::pair(0x60U, true), std::pair(0x61U, false),
                                    std::pair(0x344U, true), std::pair(0x345U, false)}) {
        SCOPED_TRACE(at);
        const auto bits = static_cast<uint8_t>(isLow ? image[at] : ~image[at]);
        ASSERT_NE(bits, 0);
        on.chip().flash().wear(at, isLow ? Wear{.stuckLow = bits} : Wear{.stuckHigh = bits});
        const Report report = on.flash(image);
        EXPECT_EQ(report.outcome, Outcome::kFailedLoaderWaits) << textOf(report);
        char address[16];
        // The CRC command has words.
        const uint32_t told = on.settings.chip == "n32g45x" ? at & ~3U : at;
        snprintf(address, sizeof(address), "0x%08x", 0x08000000 + told);
        EXPECT_THAT(report.reason, HasSubstr(address));
        EXPECT_LE(report.statistics.pagesErased, 6U);
        EXPECT_EQ(on.runs(), "");
        on.chip().flash().wear(at, {});
    }
}

TEST(ProgrammerTimes, EqualImageOf64KibTakesLessThan7SecondsAndNoErase) {
    PartOnBoard on("gd32f303");
    const Bytes image = on.imageOf("V2.0.0", 65536);
    on.put(image);
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kAlreadyCurrent);
    EXPECT_LE(report.statistics.took, milliseconds(6900));
    EXPECT_EQ(report.statistics.pagesErased, 0U);
}

TEST(ProgrammerTimes, PageThatDiffersAloneIsWrittenWithTheVectorTables) {
    PartOnBoard on("gd32f303");
    Bytes image = on.imageOf("V2.0.0", 65536);
    on.put(image);
    image[5 * 2048 + 700] ^= 0xFF;
    on.settings.asIs = true;
    const Report report = on.flash(image);
    EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
    EXPECT_EQ(report.statistics.pagesErased, 2U);
    EXPECT_EQ(report.statistics.pagesWritten, 2U);
    EXPECT_EQ(on.cells(image.size()), image);
}

INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerFlash, testing::ValuesIn(kEveryPart),
                         [](const auto& part) { return std::string(part.param); });

}  // namespace
}  // namespace quil::tests
