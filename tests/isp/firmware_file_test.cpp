#include "isp/firmware_file.h"

#include <errno.h>

#include <filesystem>

#include "testing/files.h"
#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;
using testing::IsEmpty;

class IspFirmwareFile : public IspTest {
  protected:
    IspFirmwareFile() { setLogLevel("D"); }

    std::string onBoard(const char* path) const { return contentOf(board.hostPath(path)); }
    void failOnce(Call call) {
        board.faults().add({.call = call, .path = kImagePath, .error = EACCES});
    }
};

// Size.

TEST_F(IspFirmwareFile, SizeIsInBytes) {
    writeImage(imageOf(600));
    EXPECT_EQ(file_size(kImagePath), 600);
    EXPECT_THAT(said(), ElementsAre("D get binfile size: 600\n"));
}

TEST_F(IspFirmwareFile, EmptyFileHasSize0) {
    writeImage({});
    EXPECT_EQ(file_size(kImagePath), 0);
    EXPECT_THAT(said(), ElementsAre("D get binfile size: 0\n"));
}

TEST_F(IspFirmwareFile, MissingFileHasSize0) {
    EXPECT_EQ(file_size(kImagePath), 0);
    EXPECT_THAT(said(),
                ElementsAre("D  file not exist, filename /vendor/firmware/mcu_test.bin \n"));
}

TEST_F(IspFirmwareFile, FileThatCannotBeLookedAtHasSize0) {
    writeImage(imageOf(600));
    failOnce(Call::kStat);
    EXPECT_EQ(file_size(kImagePath), 0);
    EXPECT_THAT(said(), ElementsAre("D get binfile size: 0\n"));
}

TEST_F(IspFirmwareFile, FileOf3GibHasANegativeSize) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    EXPECT_EQ(file_size(kImagePath), -1073741824);
    EXPECT_THAT(said(), ElementsAre("D get binfile size: -1073741824\n"));
}

// Reading.

TEST_F(IspFirmwareFile, ReadTakesAsMuchAsWasAskedFor) {
    const Bytes image = imageOf(600);
    writeImage(image);
    Bytes bytes(600, 0xEE);
    EXPECT_EQ(file_read(kImagePath, bytes.data(), 500), 0);
    EXPECT_EQ(bytes, part(image, 0, 500) + Bytes(100, 0xEE));
    EXPECT_THAT(said(), ElementsAre("D fread binfile to binbuff . \n"));
}

TEST_F(IspFirmwareFile, ReadOfNothingOnlyOpensTheFile) {
    writeImage(imageOf(600));
    uint8_t byte = 0xEE;
    for (const int count : {0, -1}) EXPECT_EQ(file_read(kImagePath, &byte, count), 0);
    EXPECT_EQ(byte, 0xEE);
    EXPECT_THAT(said(),
                ElementsAre("D fread binfile to binbuff . \n", "D fread binfile to binbuff . \n"));
}

TEST_F(IspFirmwareFile, ReadOfAMissingFileGives15) {
    uint8_t byte = 0;
    EXPECT_EQ(file_read(kImagePath, &byte, 1), 15);
    EXPECT_THAT(said(), ElementsAre("D  file not exist, binfile /vendor/firmware/mcu_test.bin \n"));
}

TEST_F(IspFirmwareFile, ReadOfAFileThatCannotBeOpenedGives15) {
    writeImage(imageOf(600));
    failOnce(Call::kFopen);
    uint8_t byte = 0;
    EXPECT_EQ(file_read(kImagePath, &byte, 1), 15);
    EXPECT_THAT(said(), ElementsAre("D file open error:/vendor/firmware/mcu_test.bin. \n"));
}

TEST_F(IspFirmwareFile, ReadOfAShorterFileEndsWithAnErrorAnd15) {
    for (const size_t size : {size_t{0}, size_t{599}}) {
        writeImage(imageOf(size));
        board.clearLog();
        Bytes bytes(600);
        EXPECT_EQ(file_read(kImagePath, bytes.data(), 600), 15);
        EXPECT_THAT(said(), ElementsAre("D fread binfile to binbuff . \n",
                                        "E file_read: /vendor/firmware/mcu_test.bin is shorter "
                                        "than 600 bytes\n"));
    }
}

// Writing.

TEST_F(IspFirmwareFile, WriteReplacesTheFile) {
    writeImage(imageOf(600));
    EXPECT_EQ(file_write(kImagePath, "abc", 3), 0);
    EXPECT_EQ(onBoard(kImagePath), "abc");
    EXPECT_THAT(said(),
                ElementsAre("D fwrite binbuff to binfile(/vendor/firmware/mcu_test.bin).\n"));
}

TEST_F(IspFirmwareFile, WriteToWhereNoFileCanBeGives15AndClosesNothing) {
    EXPECT_EQ(file_write("/vendor/no/such/folder/file", "abc", 3), 15);
    EXPECT_THAT(said(), ElementsAre("D file open error:/vendor/no/such/folder/file. \n"));
}

TEST_F(IspFirmwareFile, WriteToWhereNoFileCanBeIsSilentBelowLevelD) {
    setLogLevel("I");
    EXPECT_EQ(file_write("/vendor/no/such/folder/file", "abc", 3), 15);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspFirmwareFile, MissingPathsAreMissingFiles) {
    uint8_t byte = 0;
    EXPECT_EQ(file_size(nullptr), 0);
    EXPECT_EQ(file_read(nullptr, &byte, 1), 15);
    EXPECT_EQ(file_write(nullptr, &byte, 1), 15);
}

TEST_F(IspFirmwareFile, NothingButAShortFileIsSaidBelowDebugLevel) {
    setLogLevel("I");
    writeImage(imageOf(1));
    uint8_t byte = 0;
    file_size(kImagePath);
    file_read(kImagePath, &byte, 1);
    file_write(kImagePath, &byte, 1);
    file_size("/vendor/none");
    file_read("/vendor/none", &byte, 1);
    EXPECT_THAT(said(), IsEmpty());
}

}  // namespace quil::tests
