// What the programmer writes, Debian's stm32flash reads back, and the other way round: over the
// boot-loader model behind a pseudo terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "board/mcu/pty_bridge.h"
#include "programmer/session.h"
#include "testing/bytes.h"
#include "testing/program_output.h"
#include "testing/pty_part.h"
#include "tools/quilctl/programming/serial_transport.h"

namespace quil::tests {
namespace {

using programmer::Outcome;

constexpr size_t kExchangeSize = 20000;

class ProgrammerExchange : public testing::TestWithParam<board::McuKind> {
  protected:
    void SetUp() override {
        if (!hasStm32flash()) GTEST_SKIP() << kStm32flash << " is not installed";
        server = std::thread([this] { bridge.run(); });
    }
    void TearDown() override {
        bridge.stop();
        if (server.joinable()) server.join();
    }
    std::string path(const char* name) const { return (scratch.path() / name).string(); }
    void awaitClose() const {
        while (bridge.inUse()) std::this_thread::yield();  // the close resets the part
    }

    template <typename Work>
    programmer::Report session(Work work) {
        programmer::Report report;
        {
            tools::SerialTransport transport(path("port"), [](bool, bool) { return false; });
            programmer::Session session(transport, {.chip = board::partOf(GetParam()).name});
            report = work(session);
        }
        awaitClose();
        return report;
    }
    int stm32flash(const std::string& arguments) {
        const auto run = runCommand(std::string(kStm32flash) + " -m 8n1 -b 115200 " + arguments +
                                    " " + path("port") + " 2>&1");
        said = run.output;
        awaitClose();
        return run.status;
    }

    const board::TemporaryDirectory scratch{"exchange"};
    board::PtyBridge bridge{
        {.part = GetParam(), .flash = scratch.path() / "flash", .link = scratch.path() / "port"}};
    std::thread server;
    std::string said;
};

TEST_P(ProgrammerExchange, Stm32flashReadsWhatTheProgrammerWrote) {
    const std::string image = board::makeMcuImage(GetParam(), "V1.2.3", kExchangeSize);
    const Bytes bytes(image.begin(), image.end());
    const auto report = session([&](programmer::Session& one) { return one.flash(bytes); });
    ASSERT_EQ(report.outcome, Outcome::kProgrammed) << report.reason;
    ASSERT_EQ(stm32flash("-S 0x08000000:20000 -r " + path("copy")), 0) << said;
    EXPECT_EQ(board::readWholeFile(path("copy")), image);
}

TEST_P(ProgrammerExchange, ProgrammerReadsWhatStm32flashWrote) {
    const std::string image = board::makeMcuImage(GetParam(), "V1.2.3", kExchangeSize);
    board::writeWholeFile(path("image"), image);
    ASSERT_EQ(stm32flash("-w " + path("image")), 0) << said;
    Bytes bytes;
    const auto report = session([&](programmer::Session& one) {
        return one.read(programmer::kFlashBase, kExchangeSize, bytes);
    });
    ASSERT_EQ(report.outcome, Outcome::kDone) << report.reason;
    EXPECT_EQ(textOf(bytes), image);
    // The port has its settings already, but for the parity, which a pseudo terminal never has.
    const auto again = session([&](programmer::Session& one) { return one.verify(bytes); });
    EXPECT_EQ(again.outcome, Outcome::kAlreadyCurrent) << again.reason;
}

INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerExchange,
                         testing::Values(board::McuKind::kGd32F303, board::McuKind::kGd32F470,
                                         board::McuKind::kGd32E503, board::McuKind::kStm32H750),
                         [](const auto& info) { return board::partOf(info.param).name; });

}  // namespace
}  // namespace quil::tests
