// cmake/android-armv7.cmake, as far as it goes without an NDK and a platform tree: a tool chain
// file with the workstation's clang, and an empty tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "board/core/temporary_directory.h"
#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

const std::string kPackage = "quil.hardware.quilservicemanager@1.0";

// What CMake says to a configuration with the tool chain file.
std::string configured(const fs::path& directory, const std::string& tree) {
    return outputOf("cmake -G Ninja -S '" + projectRoot().string() + "' -B '" +
                    (directory / "build").string() + "' -DANDROID_NDK='" + directory.string() +
                    "' -DANDROID_TREE='" + tree + "' -DCMAKE_TOOLCHAIN_FILE='" +
                    (projectRoot() / "cmake/android-armv7.cmake").string() + "' 2>&1");
}

void makeNdk(const fs::path& directory) {
    fs::create_directories(directory / "build/cmake");
    std::ofstream(directory / "build/cmake/android.toolchain.cmake")
        << "set(CMAKE_C_COMPILER clang-14)\nset(CMAKE_CXX_COMPILER clang++-14)\n";
}

}  // namespace

TEST(AndroidNdk, ToolChainFileOffersEveryModule) {
    const board::TemporaryDirectory directory("ndk");
    makeNdk(directory.path());
    fs::create_directories(directory.path() / "tree/system/libhidl/transport");
    const std::string said = configured(directory.path(), (directory.path() / "tree").string());
    EXPECT_THAT(said, HasSubstr("Build files have been written"));
    const std::string all =
        outputOf("ninja -C '" + (directory.path() / "build").string() + "' -t targets all");
    for (const std::string& file : {"lib/" + kPackage + "-impl.so", "lib/" + kPackage + ".so",
                                    "bin/" + kPackage + "-service", std::string("bin/quilctl")}) {
        EXPECT_THAT(all, HasSubstr("\n" + file + ": "));
    }
    EXPECT_THAT(all, testing::Not(HasSubstr("quilboard")));
}

TEST(AndroidNdk, WithoutATreeItSaysWhatIsMissing) {
    const board::TemporaryDirectory directory("ndk");
    makeNdk(directory.path());
    EXPECT_THAT(configured(directory.path(), "/nowhere"),
                HasSubstr("does not name a tree: '/nowhere'"));
}

}  // namespace quil::tests
