// The name under which a boot-loader model is reached.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/pty_bridge.h"

namespace {

using namespace quil::board;
using testing::HasSubstr;
namespace fs = std::filesystem;

class BoardPtyLink : public testing::Test {
  protected:
    PtyBridgeOptions options() const { return {.flash = directory.path() / "flash", .link = link}; }
    std::string refusal() const {
        try {
            const PtyBridge bridge(options());
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    const TemporaryDirectory directory;
    const fs::path link = directory.path() / "port";
};

TEST_F(BoardPtyLink, NameOfARunningModelIsRefusedToASecondOne) {
    {
        const PtyBridge first(options());
        EXPECT_THAT(refusal(), HasSubstr("port: in use, it leads to " + first.port()));
        EXPECT_EQ(fs::read_symlink(link), first.port());
    }
    EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
}

TEST_F(BoardPtyLink, LinkThatAKilledModelLeftIsReplaced) {
    fs::create_symlink("/dev/pts/999999", link);
    const PtyBridge bridge(options());
    EXPECT_EQ(bridge.staleTarget(), "/dev/pts/999999");
    EXPECT_EQ(fs::read_symlink(link), bridge.port());
}

TEST_F(BoardPtyLink, NameOfAnythingElseIsRefused) {
    writeWholeFile(link, "precious");
    EXPECT_THAT(refusal(), HasSubstr("port: in use, and no link to a pseudo terminal"));
    EXPECT_EQ(readWholeFile(link), "precious");
    fs::remove(link);
    fs::create_symlink("/nonexistent/file", link);
    EXPECT_THAT(refusal(), HasSubstr("no link to a pseudo terminal"));
    EXPECT_TRUE(fs::is_symlink(link));
}

TEST_F(BoardPtyLink, LinkThatIsSomebodyElsesByNowStays) {
    {
        const PtyBridge bridge(options());
        fs::remove(link);
        fs::create_symlink("/dev/null", link);
    }
    EXPECT_EQ(fs::read_symlink(link), "/dev/null");
}

}  // namespace
