// quilctl mcu flash, verify, read, info, erase, protect, unprotect, rescue.
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/programming/serial_transport.h"

namespace quil::tests {
namespace {

using board::makeMcuImage;
using board::McuKind;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class QuilctlMcuFlash : public QuilctlRun {
  protected:
    QuilctlMcuFlash() { setenv("XDG_STATE_HOME", path("state").c_str(), 1); }
    ~QuilctlMcuFlash() override { unsetenv("XDG_STATE_HOME"); }

    Said mcu(std::vector<std::string> words) {
        words.insert(words.begin(), {"--board", board, "mcu"});
        return quilctl(words);
    }
    std::string flashed() { return board::readWholeFile(board + "/mcu/flash").value_or(""); }

    const std::string board = newBoard();
    const std::string newer = makeMcuImage(McuKind::kGd32F303, "V2.0.0", 9000);
    const std::string image = imageFile(newer);
};

TEST_F(QuilctlMcuFlash, FlashProgramsVerifiesAndTellsWhatRuns) {
    const Said said = mcu({"flash", image});
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_THAT(said.out, StartsWith("mcu flash: programmed and verified, verified by read-back"));
    EXPECT_THAT(said.out, HasSubstr("pages 5 of the image: 0 equal, 5 erased, 5 written\n"));
    EXPECT_THAT(said.out, HasSubstr("runs  V2.0.0\n"));
    EXPECT_THAT(said.err, HasSubstr("verify"));
    EXPECT_EQ(flashed(), newer);
    const auto json = resultOf(mcu({"--json", "flash", image}));
    EXPECT_EQ(json["outcome"], "already_current");
    EXPECT_EQ(json["pages"]["erased"], 0);
    EXPECT_EQ(json["chip"], "gd32f303");
}

TEST_F(QuilctlMcuFlash, DryRunTellsPagesBytesAndTimeAndWritesNothing) {
    const std::string before = flashed();
    const Said said = mcu({"flash", "--dry-run", image});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, ContainsRegex("to do: erase and write 5 of 5 pages, 9000 bytes, about "
                                        "[0-9.]+ s\npages: 0 1 2 3 4\n"));
    EXPECT_EQ(flashed(), before);
}

TEST_F(QuilctlMcuFlash, OutcomeExitCodeAndTextSayTheSame) {
    const Said other = mcu({"--json", "flash", "--chip", "stm32h750", image});
    EXPECT_EQ(other.code, tools::kRefused);
    EXPECT_EQ(resultOf(other)["outcome"], "refused");
    EXPECT_THAT(other.err, HasSubstr("mcu flash: refused, nothing was changed: the part is a "
                                     "gd32f303 (product 0x0414"));
    const Said random = mcu({"flash", imageFile(std::string(4096, 'x'))});
    EXPECT_EQ(random.code, tools::kRefused);
    EXPECT_THAT(random.err, HasSubstr("--as-is does it all the same"));
}

TEST_F(QuilctlMcuFlash, VerifyTellsWhereTheFlashDiffers) {
    const Said said = mcu({"verify", image});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.err, HasSubstr("the flash does not hold the image: 5 of 5 pages, the first "
                                    "at 0x08000000\nquilctl: remedy: quilctl mcu flash IMAGE"));
    EXPECT_EQ(mcu({"flash", image}).code, tools::kOk);
    EXPECT_EQ(mcu({"verify", image}).code, tools::kOk);
}

TEST_F(QuilctlMcuFlash, ReadSavesTheFlash) {
    EXPECT_EQ(mcu({"read", "--size", "8192", path("back.bin")}).code, tools::kOk);
    EXPECT_EQ(board::readWholeFile(path("back.bin")),
              makeMcuImage(McuKind::kGd32F303, "V1.0.0", 8192));
    EXPECT_EQ(mcu({"read", "--address", "0x20000000", path("ram.bin")}).code, tools::kRefused);
    const Said n32 = quilctl({"--product", "Wren_t507", "mcu", "read", path("n32.bin")});
    EXPECT_EQ(n32.code, tools::kRefused);
    EXPECT_THAT(n32.err, HasSubstr("the N32's boot loader cannot read the flash out"));
    EXPECT_FALSE(std::filesystem::exists(path("n32.bin")));
}

TEST_F(QuilctlMcuFlash, ReadWithoutASizeGoesToTheEndOfTheFlash) {
    EXPECT_EQ(mcu({"read", "--address", "0x0807F000", path("end.bin")}).code, tools::kOk);
    EXPECT_EQ(board::readWholeFile(path("end.bin")), std::string(0x1000, '\xFF'));
    const Said tooMany = mcu({"read", "--size", "4294967295", path("all.bin")});
    EXPECT_EQ(tooMany.code, tools::kRefused);
    EXPECT_THAT(tooMany.err, HasSubstr("its size is 524288 bytes"));
}

TEST_F(QuilctlMcuFlash, ReadIntoAFileThatCannotBeWrittenReadsNothing) {
    const Said said = mcu({"read", path("none/back.bin")});
    EXPECT_EQ(said.code, tools::kNotWritten);
    EXPECT_THAT(said.err, HasSubstr("none/back.bin: cannot be written: No such file"));
    EXPECT_THAT(said.err, testing::Not(HasSubstr("read\n")));
}

TEST_F(QuilctlMcuFlash, InfoNamesThePartAndWhatAnImageWouldChange) {
    const Said said = mcu({"info", image});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, HasSubstr("part  gd32f303 (product 0x0414, GD32 0x46455633, boot "
                                    "loader 3.0), 115200 bit/s 8E1\n"));
    EXPECT_THAT(said.out, HasSubstr("flash 524288 bytes in 256 pages"));
    EXPECT_THAT(said.out, HasSubstr("to do: erase and write 5 of 5 pages"));
}

TEST_F(QuilctlMcuFlash, EraseTakesPagesOrAllByName) {
    EXPECT_EQ(mcu({"erase", "--pages", "1,3-4"}).code, tools::kOk);
    std::string expected = makeMcuImage(McuKind::kGd32F303, "V1.0.0", 8192);
    expected.replace(2048, 2048, 2048, '\xFF');
    expected.replace(6144, 2048, 2048, '\xFF');
    EXPECT_EQ(flashed(), expected.substr(0, 6144));
    EXPECT_EQ(mcu({"erase", "--all"}).code, tools::kOk);
    EXPECT_THAT(flashed(), IsEmpty());
    EXPECT_EQ(mcu({"erase"}).code, tools::kUsage);
    EXPECT_THAT(mcu({"erase", "--pages", "900"}).err, HasSubstr("its pages are 0 to 255"));
}

TEST_F(QuilctlMcuFlash, ReadoutProtectionIsLiftedOnlyWhenAsked) {
    EXPECT_EQ(mcu({"protect", "--readout"}).code, tools::kOk);
    const Said refused = mcu({"flash", image});
    EXPECT_EQ(refused.code, tools::kRefused);
    EXPECT_THAT(refused.err,
                HasSubstr("the part is protected against reading\nquilctl: remedy: "
                          "--lift-protection lifts that, and erases all of its flash"));
    EXPECT_EQ(resultOf(mcu({"--json", "info"}))["readout_protected"], true);
    EXPECT_EQ(mcu({"flash", "--lift-protection", image}).code, tools::kOk);
    EXPECT_EQ(flashed(), newer);
}

TEST_F(QuilctlMcuFlash, WriteProtectedPageIsNamedAndUnprotectMendsIt) {
    EXPECT_EQ(mcu({"protect", "--sectors", "0"}).code, tools::kOk);
    const Said refused = mcu({"flash", image});
    EXPECT_EQ(refused.code, tools::kLoaderWaits) << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("quilctl mcu unprotect --write"));
    EXPECT_EQ(mcu({"unprotect", "--write"}).code, tools::kOk);
    EXPECT_EQ(mcu({"flash", image}).code, tools::kOk);
}

TEST_F(QuilctlMcuFlash, RescueTellsWhatIsThereAndMendsIt) {
    ASSERT_EQ(mcu({"flash", image}).code, tools::kOk);
    ASSERT_EQ(mcu({"erase", "--pages", "0,2"}).code, tools::kOk);
    const Said said = mcu({"rescue", image});
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_THAT(said.out, HasSubstr(image + " (V2.0.0): 3 of 5 pages are in the flash\n"));
    EXPECT_THAT(said.out, HasSubstr("mcu_Heron.bin (V1.0.0): 0 of 4 pages are in the flash\n"));
    EXPECT_THAT(said.out, HasSubstr("missing: 2 pages of " + image));
    EXPECT_EQ(flashed(), newer);
}

TEST_F(QuilctlMcuFlash, RescueLeavesAnUnknownApplicationAlone) {
    ASSERT_EQ(mcu({"flash", image}).code, tools::kOk);
    const std::string other = path("other.bin");
    board::writeWholeFile(other, makeMcuImage(McuKind::kGd32F303, "V3.0.0", 4096));
    const Said said = mcu({"rescue", other});
    EXPECT_EQ(said.code, tools::kRefused);
    EXPECT_THAT(said.err, HasSubstr("an application that is none of these"));
    EXPECT_EQ(flashed(), newer);
}

TEST_F(QuilctlMcuFlash, RateThatAnN32HasNotIsAUsageError) {
    const Said said =
        quilctl({"--product", "Wren_t507", "mcu", "flash", "--baud", "115200", image});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("the N32's boot loader has 9600 bit/s only"));
}

TEST_F(QuilctlMcuFlash, OptionsWithoutEffectAreRefused) {
    const Said wired = mcu({"info", "--boot0", "rts"});
    EXPECT_EQ(wired.code, tools::kUsage);
    EXPECT_THAT(wired.err, HasSubstr("--boot0, --nrst: no effect on the board's own MCU"));
    const Said traced = quilctl(
        {"--seed", "3", "--trace", path("trace.txt"), "mcu", "info", "--port", "/dev/null"});
    EXPECT_EQ(traced.code, tools::kUsage);
    EXPECT_THAT(traced.err,
                HasSubstr("--seed, --trace: no effect on the MCU behind --port /dev/null"));
}

TEST_F(QuilctlMcuFlash, ProgressIsAnEventForEachPhase) {
    const Said said = quilctl({"--board", board, "--progress", "json", "mcu", "flash", image});
    for (const char* phase : {"compare", "erase", "write", "verify"}) {
        EXPECT_THAT(said.err, HasSubstr(std::string(R"("event":"phase","phase":")") + phase));
    }
}

size_t opened(const std::filesystem::path& file) {
    size_t count = 0;
    std::error_code gone;  // the iterator's own
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += std::filesystem::read_symlink(entry, gone) == file ? 1 : 0;
    }
    return count;
}

TEST(WakefulCores, HoldTheKernelsRequestAsLongAsTheyLive) {
    const char* const kRequests = "/dev/cpu_dma_latency";
    if (access(kRequests, W_OK) != 0) GTEST_SKIP() << kRequests << " is not for this user";
    {
        const tools::WakefulCores cores;
        EXPECT_EQ(opened(kRequests), 1U);
    }
    EXPECT_EQ(opened(kRequests), 0U);
}

}  // namespace
}  // namespace quil::tests
