// The host's end of the MCU's serial line, for the tests of the boot-loader models. It drives the
// GPIO lines and transfers bytes with C library calls only.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "testing/bytes.h"

namespace quil::tests {

class BoardBootLoaderTest : public testing::Test {
  protected:
    static constexpr uint8_t kAck = 0x79, kNack = 0x1F;

    ~BoardBootLoaderTest() override {
        if (mFd >= 0) close(mFd);
    }

    // Powers a board with this part and an empty flash, and opens the line with these settings.
    void powerOn(const char* part, speed_t speed = B115200, tcflag_t parity = PARENB | PARODD) {
        board::createBoardDirectory(directory(), board::Product::kHeron);
        setPart(part);
        std::filesystem::remove(directory() / "mcu/flash");
        board = std::make_unique<board::Board>(directory());
        mFd = open("/dev/ttyS3", O_RDWR | O_NOCTTY);
        ASSERT_GE(mFd, 0);
        setLine(speed, parity);
    }

    void setLine(speed_t speed, tcflag_t parity) const {
        termios settings{};
        settings.c_cflag = CS8 | CREAD | CLOCAL | parity;
        cfsetispeed(&settings, speed);
        cfsetospeed(&settings, speed);
        ASSERT_EQ(tcsetattr(mFd, TCSANOW, &settings), 0);
    }

    void reset(int boot0) {
        board->gpio().at("MCU_BOOT0").drive(boot0);
        board->gpio().at("MCU_NRST").drive(0);
        usleep(1000);
        board->gpio().at("MCU_NRST").drive(1);
        usleep(1000);
    }

    // Sends the request and returns the bytes that arrive within `wait`.
    Bytes exchange(const Bytes& request, useconds_t wait = 50000) const {
        EXPECT_EQ(write(mFd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        for (useconds_t slept = 0; slept < wait; slept += 500000) {
            usleep(std::min<useconds_t>(500000, wait - slept));
        }
        Bytes answer(4096);
        const ssize_t got = read(mFd, answer.data(), answer.size());
        answer.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return answer;
    }

    int fd() const { return mFd; }
    std::vector<std::string> violations() const { return board->violations(); }
    Bytes flash(uint32_t offset, size_t size) const {
        const auto cells = board->mcuChip().flash().cells().subspan(offset, size);
        return {cells.begin(), cells.end()};
    }

    const std::filesystem::path& directory() const { return mScratch.path(); }

  private:
    const board::TemporaryDirectory mScratch;

  protected:
    std::unique_ptr<board::Board> board;

  private:
    void setPart(const std::string& part) const {
        const auto file = directory() / "rootfs/vendor/etc/product.ini";
        std::string text = board::readWholeFile(file).value();
        text.replace(text.find("gd32f303"), 8, part);
        board::writeWholeFile(file, text);
    }

    std::filesystem::path mDirectory;
    int mFd = -1;
};

}  // namespace quil::tests
