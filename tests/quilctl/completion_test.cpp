// Completions and manual pages, read by the shells and by a checker of manual pages.
#include <gmock/gmock.h>

#include "board/core/whole_file.h"
#include "testing/program_output.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class QuilctlCompletion : public QuilctlRun {
  protected:
    // Writes the script of a shell; "" when that shell is not here.
    std::string script(const std::string& shell) const {
        if (outputOf("command -v " + shell).empty()) return "";
        board::writeWholeFile(directory / shell, quilctl({"completion", shell}).out);
        return path(shell.c_str());
    }

    // What bash offers for the last of the words, one a line.
    std::string offeredByBash(const std::string& words) const {
        board::writeWholeFile(directory / "ask",
                              "source " + script("bash") + "\nCOMP_WORDS=(quilctl " + words +
                                  ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_quilctl\n"
                                  "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
        return outputOf("cd '" + directory.string() + "' && bash --norc ask 2>&1");
    }

    std::string offeredByFish(const std::string& line) const {
        return outputOf("HOME='" + directory.string() + "' fish --no-config -c 'source " +
                        script("fish") + "; complete -C \"" + line + "\"' 2>&1");
    }
};

TEST_F(QuilctlCompletion, BashOffersCommandsOptionsAndTheirValues) {
    EXPECT_THAT(offeredByBash("''"),
                AllOf(HasSubstr("get\n"), HasSubstr("mcu\n"), HasSubstr("boot\n")));
    EXPECT_EQ(offeredByBash("conf"), "config\n");
    EXPECT_THAT(offeredByBash("mcu ''"), AllOf(HasSubstr("update\n"), Not(HasSubstr("boot\n"))));
    EXPECT_EQ(offeredByBash("mcu update --inst"), "--installed\n");
    EXPECT_EQ(offeredByBash("mcu update --jso"), "--json\n");
    EXPECT_EQ(offeredByBash("--product ''"), "Heron\nKestrel\nWren_t507\n");
    EXPECT_EQ(offeredByBash("get 1 --product = K"), "Kestrel\n");
    EXPECT_EQ(offeredByBash("--product Heron mcu program --chip gd32f4"), "gd32f470\n");
    EXPECT_THAT(offeredByBash("--trace ''"),
                AllOf(HasSubstr("text:\n"), HasSubstr("json:\n"), HasSubstr("vcd:\n")));
    EXPECT_EQ(offeredByBash("--log-level ''"), "D\nI\nW\nE\n");
    EXPECT_EQ(offeredByBash("completion z"), "zsh\n");
    EXPECT_EQ(offeredByBash("boot --fault dd"), "ddr\nddr-late\n");
    EXPECT_EQ(offeredByBash("self-test --break wifi"), "wifi-ap\nwifi-sta\n");
}

TEST_F(QuilctlCompletion, BashOffersFilesWhereAFileIsMeant) {
    board::writeWholeFile(directory / "image.bin", "x");
    EXPECT_EQ(offeredByBash("fpga flash ima"), "image.bin\n");
    EXPECT_EQ(offeredByBash("--trace ima"), "image.bin\n");
    EXPECT_EQ(offeredByBash("--product ima"), "\n");
}

TEST_F(QuilctlCompletion, FishOffersCommandsOptionsAndTheirValues) {
    if (script("fish").empty()) GTEST_SKIP() << "no fish";
    EXPECT_THAT(offeredByFish("quilctl mcu u"), HasSubstr("update\tBring the MCU"));
    EXPECT_THAT(offeredByFish("quilctl mcu program --chip gd32f4"), StartsWith("gd32f470\t"));
    EXPECT_EQ(offeredByFish("quilctl --product Heron --log-level D conf"),
              "config\tThe product configuration\n");
    EXPECT_THAT(offeredByFish("quilctl mcu update --inst"), HasSubstr("--installed\t"));
    EXPECT_THAT(offeredByFish("quilctl --product K"), StartsWith("Kestrel\t"));
}

TEST_F(QuilctlCompletion, ScriptsAreSoundForTheirShells) {
    for (const char* shell : {"bash", "zsh", "fish"}) {
        if (script(shell).empty()) continue;
        EXPECT_EQ(outputOf(std::string(shell) + " -n " + path(shell) + " 2>&1; echo $?"), "0\n")
            << shell;
    }
}

TEST_F(QuilctlCompletion, ZshLoadsItsScriptAsACompletion) {
    if (script("zsh").empty()) GTEST_SKIP() << "no zsh";
    EXPECT_EQ(outputOf("HOME='" + directory.string() +
                       "' zsh -f -c 'autoload -U compinit && compinit -D -u && source " +
                       path("zsh") + " && print $_comps[quilctl]' 2>&1"),
              "_quilctl\n");
}

TEST_F(QuilctlCompletion, EveryManualPageIsWithoutFindings) {
    if (outputOf("command -v mandoc").empty()) GTEST_SKIP() << "no mandoc";
    EXPECT_EQ(quilctl({"man", "--into", path("man1")}).code, tools::kOk);
    EXPECT_EQ(outputOf("cd '" + path("man1") + "' && mandoc -T lint -W warning *.1 2>&1"), "");
    EXPECT_TRUE(std::filesystem::exists(path("man1/quilctl-mcu-update.1")));
}

TEST_F(QuilctlCompletion, ManualPageHasTheOptionsAndTheProgramsHasTheExitCodes) {
    const std::string page = quilctl({"man", "mcu", "program"}).out;
    EXPECT_THAT(page, AllOf(HasSubstr(".TH QUILCTL\\-MCU\\-PROGRAM 1 "), HasSubstr("\\-\\-chip"),
                            HasSubstr("One of: gd32f303, gd32f470")));
    const std::string program = quilctl({"man"}).out;
    for (const tools::ExitCodeRow& row : tools::kExitCodes) {
        EXPECT_THAT(program, HasSubstr("\\fB" + std::to_string(row.code) + "\\fR\n"));
    }
    EXPECT_THAT(program, HasSubstr("QUIL_BOARD"));
    EXPECT_EQ(quilctl({"man", "mcu", "fly"}).code, tools::kUsage);
    EXPECT_THAT(quilctl({"completion", "csh"}).err, HasSubstr("csh"));
}

}  // namespace
}  // namespace quil::tests
