#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "board/core/temporary_directory.h"
#include "testing/build.h"
#include "testing/program_output.h"

namespace {

using ::android::hardware::hidl_array;
using ::android::hardware::hidl_vec;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using ::quil::tests::CommandRun;
using ::quil::tests::runCommand;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr char kPackage[] = "quil.hardware.quilservicemanager@1.0";

CommandRun hidlGen(const std::string& arguments, const std::string& interfaces = "interfaces") {
    const std::string command = std::string(QUIL_HIDL_GEN) +
                                " -p " QUIL_SOURCE_DIR
                                " -R -r android.hidl:platform/linux/hal -r quil.hardware:" +
                                interfaces + " " + arguments + " 2>&1";
    return runCommand(command);
}

std::vector<std::string> hashLines(std::istream& text) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    }
    return lines;
}

std::string hexOf(const hidl_array<uint8_t, 32>& hash) {
    std::string text;
    for (size_t i = 0; i < hash.size(); ++i) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", hash[i]);
        text += digits;
    }
    return text;
}

TEST(InterfaceHash, CompilerPrintsTheHashesThatWereReleased) {
    std::ifstream released(QUIL_SOURCE_DIR "/interfaces/current.txt");
    std::istringstream printed(hidlGen(std::string("-L hash ") + kPackage).output);
    const auto expected = hashLines(released);
    ASSERT_THAT(expected,
                ElementsAre(EndsWith("::IQuilServiceCallback"), EndsWith("::IQuilServiceManager")));
    EXPECT_EQ(hashLines(printed), expected);
}

TEST(InterfaceHash, CompilerAcceptsTheDefinitions) {
    const CommandRun run = hidlGen(std::string("-L check ") + kPackage);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "");
}

TEST(InterfaceHash, DefinitionThatChangedAfterItsReleaseIsRefused) {
    const quil::board::TemporaryDirectory scratch;
    const std::filesystem::path copy = scratch.path() / "interfaces";
    std::filesystem::copy(QUIL_SOURCE_DIR "/interfaces", copy,
                          std::filesystem::copy_options::recursive);
    std::ofstream(copy / "quilservicemanager/1.0/IQuilServiceCallback.hal", std::ios::app)
        << "// one more line\n";

    const CommandRun run = hidlGen(std::string("-L check ") + kPackage, copy.string());
    EXPECT_NE(run.status, 0);
    EXPECT_THAT(run.output, HasSubstr("IQuilServiceCallback"));
}

TEST(InterfaceHash, ObjectAnswersTheReleasedHashOfItsInterface) {
    struct Callback : IQuilServiceCallback {
        ::android::hardware::Return<void> hwNotify(const hidl_vec<uint8_t>&) override {
            return ::android::hardware::Void();
        }
    };
    const ::android::sp<IQuilServiceCallback> callback = new Callback;
    std::ifstream released(QUIL_SOURCE_DIR "/interfaces/current.txt");
    const std::string expected = hashLines(released).front().substr(0, 64);

    std::vector<std::string> answered;
    callback->getHashChain([&](const hidl_vec<hidl_array<uint8_t, 32>>& chain) {
        for (const auto& hash : chain) answered.push_back(hexOf(hash));
    });
    ASSERT_EQ(answered.size(), 2u);
    EXPECT_EQ(answered[0], expected);
    EXPECT_THAT(answered[1], ::testing::Ne(std::string(64, '0')));
}

}  // namespace
