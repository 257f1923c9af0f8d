// The boot-loader models checked by an independent program, Debian's stm32flash, over a pseudo
// terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "testing/pty_part.h"

namespace {

using namespace quil::board;
using quil::tests::PtyPart;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

struct Part {
    McuKind kind;
    const char* name;
    const char* identifier;
};
void PrintTo(const Part& part, std::ostream* out) { *out << part.name; }

class BoardStm32flash : public testing::TestWithParam<Part> {
  protected:
    void SetUp() override {
        if (!quil::tests::hasStm32flash()) GTEST_SKIP() << "stm32flash is not installed";
        part = std::make_unique<PtyPart>(
            PtyBridgeOptions{.part = GetParam().kind, .flash = directory / "flash"});
    }
    void TearDown() override {
        if (!part) return;
        EXPECT_THAT(part->rest().violations(), IsEmpty());
    }

    // Runs the program on the port; its output and how it ended.
    std::string output;
    int flash(const std::string& arguments) {
        const quil::tests::CommandRun run = part->stm32flash(arguments);
        output = run.output;
        return run.status;
    }

    // The first bytes of the part's flash.
    std::string cells(size_t size) {
        const auto bytes = part->rest().flash().cells().first(size);
        std::string copy(bytes.begin(), bytes.end());
        part->serve();
        return copy;
    }

    const TemporaryDirectory scratch;
    const std::filesystem::path& directory = scratch.path();
    std::unique_ptr<PtyPart> part;
};

TEST_P(BoardStm32flash, TellsThePartAndItsBootLoader) {
    EXPECT_EQ(flash(""), 0) << output;
    EXPECT_THAT(output, HasSubstr(GetParam().identifier));
}

TEST_P(BoardStm32flash, WritesTwoImagesOneOverTheOtherVerifiesThemAndReadsThemBack) {
    for (const char* version : {"V1.2.3", "V1.2.4"}) {
        const std::string image = makeMcuImage(GetParam().kind, version, 6144);
        writeWholeFile(directory / "image", image);
        EXPECT_EQ(flash("-v -w " + (directory / "image").string()), 0) << output;
        EXPECT_THAT(output, HasSubstr("Wrote and verified address 0x08001800 (100.00%) Done."));
        EXPECT_EQ(flash("-S 0x08000000:6144 -r " + (directory / "copy").string()), 0) << output;
        EXPECT_EQ(readWholeFile(directory / "copy"), image);
    }
}

TEST_P(BoardStm32flash, ErasesEverything) {
    writeWholeFile(directory / "image", makeMcuImage(GetParam().kind, "V1.2.3", 4096));
    EXPECT_EQ(flash("-w " + (directory / "image").string()), 0) << output;
    EXPECT_EQ(flash("-o"), 0) << output;
    EXPECT_THAT(cells(4096), Each('\xFF'));
}

TEST_P(BoardStm32flash, ProtectsThePartAndUnprotectsItWhichErasesIt) {
    writeWholeFile(directory / "image", makeMcuImage(GetParam().kind, "V1.2.3", 4096));
    EXPECT_EQ(flash("-w " + (directory / "image").string()), 0) << output;
    EXPECT_EQ(flash("-j"), 0) << output;
    EXPECT_NE(flash("-S 0x08000000:256 -r " + (directory / "copy").string()), 0) << output;
    EXPECT_EQ(flash("-k"), 0) << output;
    EXPECT_THAT(cells(4096), Each('\xFF'));
    EXPECT_EQ(flash("-v -w " + (directory / "image").string()), 0) << output;
    EXPECT_EQ(flash("-u"), 0) << output;
}

TEST_P(BoardStm32flash, StartsTheApplicationWhichIsSilentUntilTheNextReset) {
    writeWholeFile(directory / "image", makeMcuImage(GetParam().kind, "V1.2.3", 4096));
    EXPECT_EQ(flash("-w " + (directory / "image").string() + " -g 0x08000000"), 0) << output;
    EXPECT_THAT(output, HasSubstr("Starting execution at address 0x08000000... done."));
    EXPECT_EQ(flash(""), 0) << output;
}

INSTANTIATE_TEST_SUITE_P(Parts, BoardStm32flash,
                         testing::Values(Part{McuKind::kGd32F303, "gd32f303", "0x0414"},
                                         Part{McuKind::kGd32F470, "gd32f470", "0x0419"},
                                         Part{McuKind::kGd32E503, "gd32e503", "0x0444"},
                                         Part{McuKind::kStm32H750, "stm32h750", "0x0450"}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
