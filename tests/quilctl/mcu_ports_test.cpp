// Programs outside of a served board at its MCU's serial line.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

#include <array>

#include "board/core/real_calls.h"
#include "board/mcu/mcu_image.h"
#include "testing/pty_part.h"
#include "tests/quilctl/served_run.h"

namespace quil::tests {
namespace {

using ::quil::board::real;  // these are no calls of the board's own programs
using testing::HasSubstr;
using tools::Descriptor;

// Get of command 1 with label 7, and what the MCU of a new board answers.
const Bytes kAsk = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x07, 0x00, 0x16, 0x00, 0x41,
                    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x71, 0x01};
constexpr char kVersion[] = "V1.0.0";

class QuilctlMcuPorts : public ServedRun {
  protected:
    void serve(int speed = 0) { ServedRun::serve(speed, line); }
    Descriptor opened(const std::filesystem::path& port) const {
        Descriptor descriptor(real().open(port.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        EXPECT_TRUE(descriptor.isOpen());
        return descriptor;
    }
    static void send(const Descriptor& port, const Bytes& bytes) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t count =
                real().write(port.get(), bytes.data() + sent, bytes.size() - sent);
            ASSERT_GT(count, 0);
            sent += static_cast<size_t>(count);
        }
    }
    // All that comes until the text has come.
    static std::string hear(const Descriptor& port, const std::string& until) {
        std::string heard;
        std::array<char, 512> bytes{};
        while (heard.find(until) == std::string::npos) {
            const ssize_t count = real().read(port.get(), bytes.data(), bytes.size());
            if (count <= 0) return heard;
            heard.append(bytes.data(), static_cast<size_t>(count));
        }
        return heard;
    }
    // Until an answer comes: noise is on the way, or a busy machine has torn the frame.
    static void askUntilAnswered(const Descriptor& port) {
        for (std::string heard; heard.find(kVersion) == std::string::npos;) {
            send(port, kAsk);
            pollfd entry{port.get(), POLLIN, 0};
            if (real().poll(&entry, 1, 10) > 0) heard = hear(port, kVersion);
        }
    }
    std::string mcu() const {
        auto server = connection();
        tools::Request status = run({"--json", "status"});
        status.atOnce = true;
        const auto said = answersTo(server, status);
        return tools::Json::parse(said.front().value("out", ""))["result"]["mcu"].dump();
    }
    // The server hears of an open and a close a moment later.
    void awaitMcu(const std::string& what) const {
        while (mcu().find(what) == std::string::npos) std::this_thread::yield();
    }
    CommandRun stm32flash(const std::string& arguments) const {
        return runCommand(std::string(kStm32flash) + " -m 8n1 -b 115200 " + arguments + " '" +
                          adapter.string() + "' 2>&1");
    }

    const std::filesystem::path line = directory / "mcu", adapter = directory / "mcu.boot";
};

TEST_F(QuilctlMcuPorts, FrameOfAnotherProgramIsAnswered) {
    serve();
    const Descriptor port = opened(line);
    send(port, kAsk);
    EXPECT_THAT(hear(port, kVersion), HasSubstr(kVersion));
}

TEST_F(QuilctlMcuPorts, FrameIsAnsweredAlsoInTheWorkstationsTime) {
    constexpr int kSpeed = 1;
    serve(kSpeed);
    askUntilAnswered(opened(line));
}

TEST_F(QuilctlMcuPorts, AnotherProgramHearsWhatTheMcuAnswersToTheHost) {
    serve();
    const Descriptor port = opened(line);
    send(port, kAsk);
    hear(port, kVersion);  // it is known to be open
    EXPECT_EQ(on({"get", "version"}).code, tools::kOk);
    EXPECT_THAT(hear(port, kVersion), HasSubstr(kVersion));
}

TEST_F(QuilctlMcuPorts, Stm32flashWritesVerifiesAndReadsAndTheBoardStartsWhatIsWritten) {
    if (!hasStm32flash()) GTEST_SKIP() << "stm32flash is not installed";
    serve();
    const std::string image =
        ::quil::board::makeMcuImage(::quil::board::McuKind::kGd32F303, "V3.2.1", 3000);
    const CommandRun written = stm32flash("-v -w '" + imageFile(image) + "'");
    EXPECT_EQ(written.status, 0) << written.output;
    EXPECT_THAT(written.output, HasSubstr("(100.00%) Done."));
    awaitMcu("V3.2.1");
    EXPECT_EQ(on({"get", "1"}).out, "56 33 2E 32 2E 31\n");
    const CommandRun read = stm32flash("-S 0x08000000:3000 -r '" + path("copy") + "'");
    EXPECT_EQ(read.status, 0) << read.output;
    EXPECT_EQ(::quil::board::readWholeFile(path("copy")), image);
}

TEST_F(QuilctlMcuPorts, EndThatIsForcedTakesTheLinksAway) {
    serve();
    EXPECT_TRUE(std::filesystem::is_symlink(line));
    tools::removeLeftovers();
    EXPECT_FALSE(std::filesystem::is_symlink(line));
    EXPECT_FALSE(std::filesystem::is_symlink(adapter));
}

TEST_F(QuilctlMcuPorts, McuIsInItsBootLoaderWhileTheAdapterIsOpen) {
    serve();
    {
        const Descriptor first = opened(adapter);
        awaitMcu("boot loader");
        const Descriptor second = opened(adapter);
        on({"power", "cut"});
        on({"power", "on"});
        EXPECT_THAT(mcu(), HasSubstr("boot loader"));
    }
    awaitMcu("application");
    EXPECT_EQ(on({"get", "version"}).code, tools::kOk);
}

TEST_F(QuilctlMcuPorts, NoiseFromOutsideHoldsNoCommandUp) {
    serve();
    std::atomic<bool> ends{false};
    std::thread noise([&] {
        const Descriptor port = opened(line);
        const Bytes bytes(512, 0xA5);
        while (!ends) send(port, bytes);
    });
    for (int i = 0; i < 3; ++i) EXPECT_EQ(on({"fpga", "status"}).code, tools::kOk);
    EXPECT_EQ(on({"power", "cut"}).code, tools::kOk);
    EXPECT_EQ(on({"power", "on"}).code, tools::kOk);
    ends = true;
    noise.join();
    askUntilAnswered(opened(line));
}

// Its port keeps 4,096 bytes.
TEST_F(QuilctlMcuPorts, ProgramThatDoesNotReadHoldsNobodyUp) {
    serve();
    const Descriptor port = opened(line);
    for (int i = 0; i < 200; ++i) send(port, kAsk);
    EXPECT_EQ(on({"get", "version"}).code, tools::kOk);
}

TEST_F(QuilctlMcuPorts, LinksGoWithTheServerAndThoseOfAKilledOneAreReplaced) {
    std::filesystem::create_symlink("/dev/pts/999999", line);
    std::filesystem::create_symlink("/dev/pts/999998", adapter);
    serve();
    EXPECT_TRUE(opened(adapter).isOpen());
    end();
    EXPECT_FALSE(std::filesystem::is_symlink(line));
    EXPECT_FALSE(std::filesystem::is_symlink(adapter));
}

TEST_F(QuilctlMcuPorts, FileInThePlaceOfALinkIsLeftAlone) {
    ::quil::board::writeWholeFile(adapter, "mine");
    board = newBoard();
    const Said said = quilctl({"--board", board, "serve", "--pty", line.string()});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.err, HasSubstr("mcu.boot: in use, and no link to a pseudo terminal"));
    EXPECT_EQ(::quil::board::readWholeFile(adapter), "mine");
    EXPECT_FALSE(std::filesystem::is_symlink(line));
}

}  // namespace
}  // namespace quil::tests
