// The installed tree is all that a component outside of this project needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "board/core/temporary_directory.h"
#include "testing/build.h"
#include "testing/program_output.h"

namespace quil::tests {

namespace {

constexpr char kWhatTheProgramsPrint[] =
    "checksum 0x0173\n"
    "body 0 04 03 02 01 00 00 00 00\n"
    "parse 0\n"
    "product product, module 42\n"
    "polynom 0x04C11DB7, fd -1\n"
    "command 00 CMD_GET               \n"
    "item 1 RTC\n"
    "register 0\n"
    "notified of 3 bytes\n"
    "invoke 3\n"
    "answer of 0\n"
    "convert 0, command 0x01020304\n";

std::string consumerBuiltWith(const std::string& way) {
    const board::TemporaryDirectory scratch("quil-install");
    return outputOf("'" QUIL_BIN_DIR "/build_consumer' '" + scratch.path().string() + "' " + way);
}

}  // namespace

TEST(InstalledTree, ServesProgramsInCAndCxxThroughItsCmakePackage) {
    EXPECT_EQ(consumerBuiltWith("cmake"), kWhatTheProgramsPrint);
}

TEST(InstalledTree, ServesProgramsInCAndCxxThroughPkgConfig) {
    EXPECT_EQ(consumerBuiltWith("pkg-config"), kWhatTheProgramsPrint);
}

}  // namespace quil::tests
