// A session that is killed, or whose board loses its power, at any event: the next one completes,
// and meanwhile the part never starts a part of an image.
#include <filesystem>

#include "board/core/whole_file.h"
#include "testing/whole.h"
#include "tests/programmer/part_on_board.h"

namespace quil::tests {
namespace {

using board::CutPosition;
using testing::AnyOf;
using testing::Eq;

constexpr char kFirstVersion[] = "V1.0.0", kNextVersion[] = "V2.0.0";
constexpr uint64_t kSample = 37;

class ProgrammerCuts : public testing::TestWithParam<const char*> {
  protected:
    ProgrammerCuts() { on.settings.journal = on.directory() / "journal"; }

    // Both boards begin with the older image.
    void restart() {
        on.powerOff();
        board::writeWholeFile(on.directory() / "mcu/flash", textOf(older));
        std::filesystem::remove(on.settings.journal);
        on.powerOn();
    }
    // What the part starts when it is left alone now.
    std::string startsNow() {
        on.board().gpio().at("MCU_BOOT0").drive(0);
        on.board().gpio().at("MCU_NRST").drive(0);
        on.board().gpio().at("MCU_NRST").drive(1);
        return on.runs();
    }
    void expectThatTheNextSessionCompletes(size_t pagesWrittenBefore = 0) {
        const std::string started = startsNow();
        ASSERT_THAT(started, AnyOf(Eq(""), Eq(kFirstVersion), Eq(kNextVersion)));
        if (started == kFirstVersion) {
            ASSERT_EQ(on.cells(older.size()), older);
        }
        const Report report = on.flash(newer);
        ASSERT_THAT(report.outcome, AnyOf(Outcome::kProgrammed, Outcome::kAlreadyCurrent))
            << textOf(report);
        if (report.outcome == Outcome::kProgrammed) {
            ASSERT_LE(pagesWrittenBefore + report.statistics.pagesWritten,
                      report.plan.pagesOfImage + 1);
        }
        ASSERT_EQ(on.cells(newer.size()), newer);
        ASSERT_EQ(on.runs(), kNextVersion);
        ASSERT_FALSE(std::filesystem::exists(on.settings.journal));
    }

    PartOnBoard on{GetParam()};
    const Bytes older = on.imageOf(kFirstVersion, 2600), newer = on.imageOf(kNextVersion, 2600);
};

TEST_P(ProgrammerCuts, PowerCutAtAnyEventIsMendedByTheNextSession) {
    restart();
    const uint64_t first = on.board().trace().count();
    ASSERT_EQ(on.flash(newer).outcome, Outcome::kProgrammed);
    const uint64_t end = on.board().trace().count();
    for (uint64_t event = first; event < end; event += strideOf(kSample)) {
        for (const auto position :
             {CutPosition::kBefore, CutPosition::kInside, CutPosition::kAfter}) {
            SCOPED_TRACE("event " + std::to_string(event) + ":" + nameOf(position));
            restart();
            on.board().cutPowerAt({event, position});
            const Report cut = on.flash(newer);
            ASSERT_TRUE(on.board().powerIsCut());
            ASSERT_NE(cut.outcome, Outcome::kAlreadyCurrent);
            on.powerOff();
            on.powerOn();
            expectThatTheNextSessionCompletes();
            if (HasFatalFailure()) return;
        }
    }
}

// The board keeps its power: the part is left in whatever phase it is in.
TEST_P(ProgrammerCuts, KillAtAnyCallIsMendedByTheNextSession) {
    restart();
    int calls = 0;
    on.callbacks.cancelled = [&calls] { return ++calls < 0; };
    ASSERT_EQ(on.flash(newer).outcome, Outcome::kProgrammed);
    const int all = calls;
    for (int last = 0; last < all; last += static_cast<int>(strideOf(kSample))) {
        SCOPED_TRACE("call " + std::to_string(last));
        restart();
        calls = 0;
        on.callbacks.cancelled = [&calls, last] { return calls++ >= last; };
        const Report killed = on.flash(newer);
        ASSERT_THAT(killed.outcome, AnyOf(Outcome::kRefused, Outcome::kFailedLoaderWaits));
        ASSERT_EQ(killed.reason, "interrupted");
        on.callbacks.cancelled = nullptr;
        expectThatTheNextSessionCompletes(killed.statistics.pagesWritten);
        if (HasFatalFailure()) return;
    }
}

TEST(ProgrammerJournal, NextRunSaysHowFarItCameAndWritesAtMostOnePageTwice) {
    PartOnBoard on("gd32f303");
    on.settings.journal = on.directory() / "journal";
    on.settings.imageName = "newer.bin";
    const Bytes older = on.imageOf(kFirstVersion, 12000), newer = on.imageOf(kNextVersion, 12000);
    constexpr size_t kPages = 6;
    for (size_t pages = 1; pages < kPages; ++pages) {
        SCOPED_TRACE(pages);
        on.put(older);
        on.callbacks.say = nullptr;
        double done = 0;
        on.callbacks.progress = [&done](const auto& progress) { done = progress.done; };
        on.callbacks.cancelled = [&done, pages] {
            return done > 0.2 + 0.6 * static_cast<double>(pages) / kPages;
        };
        const Report killed = on.flash(newer);
        ASSERT_EQ(killed.outcome, Outcome::kFailedLoaderWaits);
        const auto journal = programmer::Journal(on.settings.journal).interrupted();
        ASSERT_TRUE(journal);
        EXPECT_EQ(journal->image, "newer.bin");
        EXPECT_EQ(journal->part, "gd32f303");
        std::vector<std::string> said;
        on.callbacks.cancelled = nullptr;
        on.callbacks.say = [&said](const std::string& text) { said.push_back(text); };
        const Report next = on.flash(newer);
        EXPECT_EQ(next.outcome, Outcome::kProgrammed);
        EXPECT_LE(killed.statistics.pagesWritten + next.statistics.pagesWritten, kPages + 1);
        EXPECT_GE(next.statistics.pagesEqual, journal->written);
        EXPECT_THAT(said,
                    testing::ElementsAre("an earlier session was interrupted after " +
                                         std::to_string(journal->written) +
                                         " of 6 pages of this image: every page is compared"));
        EXPECT_FALSE(std::filesystem::exists(on.settings.journal));
        EXPECT_EQ(on.cells(newer.size()), newer);
    }
}

TEST(ProgrammerJournal, FileThatIsNoneIsNoInterruption) {
    const board::TemporaryDirectory scratch("journal");
    const auto file = scratch.path() / "journal";
    EXPECT_FALSE(programmer::Journal(file).interrupted());
    for (const char* text : {"", "image x\nsize 5\n", "pages many\n", "\xFF\n\n"}) {
        board::writeWholeFile(file, text);
        EXPECT_FALSE(programmer::Journal(file).interrupted()) << text;
    }
    std::filesystem::remove(file);
    programmer::Journal journal(scratch.path() / "state" / "journal");
    EXPECT_TRUE(journal.begin({"an image.bin", 10, 0xABCD, "gd32f303", 3, 0}));
    journal.written(0);
    const auto found = programmer::Journal(scratch.path() / "state" / "journal").interrupted();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->image, "an image.bin");
    EXPECT_EQ(found->crc, 0xABCDU);
    EXPECT_EQ(found->written, 1U);
    board::writeWholeFile(file, "no folder");
    EXPECT_FALSE(programmer::Journal(file / "journal").begin({})) << "the session goes on";
}

INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerCuts, testing::ValuesIn(kEveryPart),
                         [](const auto& part) { return std::string(part.param); });

}  // namespace
}  // namespace quil::tests
