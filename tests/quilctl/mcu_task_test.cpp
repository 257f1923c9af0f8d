// quilctl mcu task: one boot-loader command, and what was answered to it in words.
#include <gmock/gmock.h>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

using testing::HasSubstr;
using testing::IsEmpty;

class QuilctlMcuTask : public QuilctlRun {};

TEST_F(QuilctlMcuTask, GetNamesTheBootLoadersVersionAndCommands) {
    for (const char* command : {"get", "0x00"}) {
        const Said said = quilctl({"mcu", "task", command});
        EXPECT_EQ(said.code, tools::kOk);
        EXPECT_EQ(said.out,
                  "boot loader       answers\n"
                  "get               boot loader 3.0, commands: get, get-version, get-id, "
                  "read-memory, go, write-memory, extended-erase, write-protect, write-unprotect, "
                  "readout-protect, readout-unprotect\n"
                  "result            0\n");
        EXPECT_THAT(said.err, IsEmpty());
    }
}

TEST_F(QuilctlMcuTask, LibrarysLinesAreShownWhenAskedFor) {
    const Said said = quilctl({"--log-level", "D", "mcu", "task", "get"});
    EXPECT_THAT(said.err, HasSubstr(": recvbuf[3] = [0x11] : CMD_READ_MEMORY        \n"));
}

TEST_F(QuilctlMcuTask, WriteNamesThePartThePagesAndTheBytes) {
    EXPECT_EQ(quilctl({"mcu", "task", "write-memory"}).out,
              "boot loader       answers\n"
              "get-pid           part 0x46455633: gd32f303\n"
              "extended-erase    4 pages, 0 to 3\n"
              "write-memory      8192 bytes from 0x08000000\n"
              "result            0\n");
    EXPECT_THAT(quilctl({"--product", "Kestrel", "mcu", "task", "write-memory"}).out,
                HasSubstr("get-id            part 0x0450: stm32h750\n"));
}

TEST_F(QuilctlMcuTask, ReadSaysHowMuchItReadFromWhere) {
    const auto result = resultOf(quilctl({"--json", "mcu", "task", "read-memory"}));
    EXPECT_EQ(result["answers"][1]["asked"], "read-memory");
    EXPECT_EQ(result["answers"][1]["said"], "8192 bytes from 0x08000000");
    EXPECT_EQ(result["answers"][1]["bytes"], 8192);
    EXPECT_EQ(result["answers"].size(), 2U);
}

TEST_F(QuilctlMcuTask, ProtectionIsTakenAway) {
    EXPECT_THAT(quilctl({"mcu", "task", "write-unprotect"}).out,
                HasSubstr("write-unprotect   no sector is protected from writing\n"));
    EXPECT_THAT(quilctl({"mcu", "task", "readout-unprotect"}).out,
                HasSubstr("readout-unprotect the flash is not protected from reading\n"));
}

TEST_F(QuilctlMcuTask, CommandThatIsRefusedFailsWithWhatWasRefused) {
    const Said said = quilctl({"--product", "Kestrel", "mcu", "task", "erase"});
    EXPECT_EQ(said.code, tools::kFailed);  // an STM32 knows the extended erase only
    EXPECT_EQ(
        said.out,
        "boot loader       answers\nerase             refused (NACK)\nresult            15\n");
    EXPECT_EQ(said.err, "quilctl: mcu task erase: result 15: erase: refused (NACK)\n");
}

TEST_F(QuilctlMcuTask, CommandThatTheSessionDoesNotSendIsNotSaidToBeAnswered) {
    const Said said = quilctl({"mcu", "task", "0x02"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "boot loader       answers\n(a session around 0x02 sends nothing more)\n"
              "result            0\n");
}

}  // namespace quil::tests
