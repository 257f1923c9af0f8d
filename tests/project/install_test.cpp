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

TEST(InstalledTree, HasAQuilctlThatRuns) {
    EXPECT_EQ(consumerBuiltWith("quilctl"), "56 31 2E 30 2E 30\n");
}

namespace {

// The Debian package, unpacked where nothing else is.
class DebianPackage : public testing::Test {
  protected:
    void SetUp() override {
        if (QUIL_SANITIZED || !std::string(QUIL_EMULATOR).empty()) {
            GTEST_SKIP() << "packages are made of the plain build for this machine";
        }
        const auto made = runCommand("cd '" + mScratch.path().string() +
                                     "' && cpack --config '" QUIL_BIN_DIR
                                     "/../CPackConfig.cmake' -B . >log 2>&1 && mkdir root && "
                                     "dpkg-deb -x quilctl_*.deb root || { cat log; false; }");
        ASSERT_EQ(made.status, 0) << made.output;
    }

    // What a command says in the folder above root/.
    std::string said(const std::string& command) const {
        return outputOf("cd '" + mScratch.path().string() + "' && " + command + " 2>&1");
    }

  private:
    const board::TemporaryDirectory mScratch{"quil-package"};
};

constexpr char kElfFiles[] = "root/usr/bin/quilctl root/usr/lib/quil/*.so";

}  // namespace

// One test: to make the package takes seconds.
TEST_F(DebianPackage, RunsWithoutTheBuildTreeAndDependsOnThePackagesThatItNeeds) {
    EXPECT_EQ(said("env -i root/usr/bin/quilctl get 1"), "56 31 2E 30 2E 30\n");
    EXPECT_THAT(said("ldd root/usr/bin/quilctl"), testing::Not(testing::HasSubstr(QUIL_LIB_DIR)));
    EXPECT_EQ(said(std::string("readelf -d ") + kElfFiles +
                   " | grep -o 'R.*PATH.*' | tr ':[]' '\\n\\n\\n' | grep / | "
                   "grep -v -e '^$ORIGIN' -e '^/usr/lib/'"),
              "");
    EXPECT_EQ(said("find root/usr -type f | sed 's/[^/]*$//' | sort -u"),
              "root/usr/bin/\n"
              "root/usr/lib/quil/\n"
              "root/usr/share/bash-completion/completions/\n"
              "root/usr/share/doc/quilctl/\n"
              "root/usr/share/fish/vendor_completions.d/\n"
              "root/usr/share/man/man1/\n"
              "root/usr/share/zsh/vendor-completions/\n");
    EXPECT_EQ(said("ls root/usr/share/doc/quilctl"), "changelog.gz\ncopyright\n");
    EXPECT_THAT(said("zcat root/usr/share/doc/quilctl/changelog.gz"),
                testing::StartsWith(
                    "quilctl (" + said("dpkg-deb -f quilctl_*.deb Version | tr -d '\\n'") + ") "));
    const std::string needed = said(
        std::string("for name in $(readelf -d ") + kElfFiles +
        " | sed -n 's/.*(NEEDED).*\\[\\(.*\\)\\]/\\1/p' | sort -u); do "
        "file=$(ldd root/usr/bin/quilctl | sed -n \"s|.*$name => \\(/[^ ]*\\) .*|\\1|p\"); "
        "case $file in */root/usr/*|'') ;; *) dpkg -S \"*${file#/usr}\" | sed 's/:.*//' ;; esac; "
        "done | sort -u");
    EXPECT_EQ(said("dpkg-deb -f quilctl_*.deb Depends | tr ',' '\\n' | "
                   "sed 's/^ *//; s/ .*//; s/|.*//' | sort -u"),
              needed);
    EXPECT_THAT(needed, testing::HasSubstr("android-libutils\n"));
}

}  // namespace quil::tests
