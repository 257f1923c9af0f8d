// quilctl fpga info, and what is checked before an FPGA's flash is erased.
#include "board/fpga/fpga_image.h"

#include <gmock/gmock.h>

#include "board/fpga/serial_flash.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class QuilctlFpgaImage : public QuilctlRun {
  protected:
    std::string flashOf(const std::string& board) const {
        return *board::readWholeFile(board + "/mtd0");
    }
};

TEST_F(QuilctlFpgaImage, InfoSaysWhatTheHeaderHoldsAndWhereItFits) {
    const Said said = quilctl({"fpga", "info", imageFile(board::makeFpgaImage("V9.9.9", 100000))});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "file       100000 bytes\n"
              "version    V9.9.9\n"
              "image      100000 bytes\n"
              "check      good\n"
              "Heron      fits: the serial flash, as far as an update erases it\n"
              "Kestrel    fits: the platform loads it from the file system at each start\n"
              "Wren_t507  fits: the serial flash\n");
}

TEST_F(QuilctlFpgaImage, InfoOfAnImageThatIsCutOffSaysSo) {
    const std::string whole = board::makeFpgaImage("V9.9.9", 1000);
    const Said said = quilctl({"--json", "fpga", "info", imageFile(whole.substr(0, 999))});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_EQ(resultOf(said)["image_size"], 1000);
    EXPECT_EQ(resultOf(said)["problem"], "the image ends before its size");
    EXPECT_EQ(resultOf(said)["fits"][0]["fits"], false);
}

TEST_F(QuilctlFpgaImage, ImageLargerThanWhatAnUpdateErasesIsRefusedBeforeTheErase) {
    const std::string board = newBoard();
    const std::string before = flashOf(board);
    const std::string large = imageFile(board::makeFpgaImage("V9.9.9", 0xD00001));
    const Said said = quilctl({"--board", board, "fpga", "flash", large});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_EQ(said.err, "quilctl: " + large +
                            " was not written, nothing was erased: it has 13631489 bytes, and "
                            "there is room for 13631488 (--as-is writes it all the same)\n");
    EXPECT_EQ(flashOf(board), before);
}

TEST_F(QuilctlFpgaImage, FileWithoutAHeaderIsRefusedBeforeTheErase) {
    const std::string board = newBoard();
    const std::string before = flashOf(board);
    const Said said = quilctl({"--board", board, "fpga", "flash", imageFile("no image")});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, HasSubstr("nothing was erased: it is no FPGA image: no sync word"));
    EXPECT_EQ(flashOf(board), before);
}

TEST_F(QuilctlFpgaImage, ProductThatDoesNotReadItsFlashIsNotFlashed) {
    const std::string image = imageFile(board::makeFpgaImage("V9.9.9", 1000));
    const Said said = quilctl({"--product", "Kestrel", "fpga", "flash", image});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, HasSubstr("a Kestrel reads no image from its flash"));
}

// The flash tool says why; the FPGA's complaint about an earlier image is none of this run's.
TEST_F(QuilctlFpgaImage, FailureNamesItsOwnReasonAndNotThatOfAnEarlierImage) {
    const std::string board = newBoard();
    ASSERT_EQ(quilctl({"--board", board, "fpga", "flash", "--as-is", imageFile("no image")}).code,
              tools::kFailed);
    const std::string large(size_t{board::SerialFlash::kSize} + 1, 'x');
    const Said said =
        quilctl({"--board", board, "--json", "fpga", "flash", "--as-is", imageFile(large)});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_EQ(resultOf(said)["problem"], "write(): No space left on device");
    EXPECT_THAT(said.err, HasSubstr("the former image is gone"));
}

TEST_F(QuilctlFpgaImage, UpdateAtBootIsAskedForOnlyWithAGoodImage) {
    const std::string board = newBoard();
    const std::string before = flashOf(board);
    board::writeWholeFile(board + "/rootfs/vendor/firmware/fpga_Heron.bin", "no image");
    const Said said = quilctl({"--board", board, "boot", "--update-fpga"});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, HasSubstr("fpga_Heron.bin: it is no FPGA image: no sync word; nothing "
                                    "was erased (--as-is updates all the same)"));
    EXPECT_EQ(flashOf(board), before);
    EXPECT_EQ(quilctl({"--board", board, "boot", "--update-fpga", "--as-is"}).code, tools::kFailed);
    EXPECT_THAT(flashOf(board), Not(before));
}

TEST_F(QuilctlFpgaImage, ProductThatIsNotTheBoardsIsAUsageError) {
    const std::string board = newBoard();
    const Said said = quilctl({"--board", board, "--product", "Kestrel", "get", "1"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.out, IsEmpty());
    EXPECT_EQ(said.err, "quilctl: --product Kestrel: the board in " + board +
                            " is a Heron; leave --product out, or name another board\n");
    EXPECT_EQ(quilctl({"--board", board, "--product", "Heron", "get", "1"}).code, tools::kOk);
}

}  // namespace quil::tests
