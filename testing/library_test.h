// What most tests of the library start from: a powered board and a library as freshly loaded.
#pragma once

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "board/board.h"
#include "config/config_info.h"
#include "mculink/frame.h"
#include "mculink/uart.h"
#include "service/quil_service_manager.h"

namespace quil::tests {

using Bytes = std::vector<uint8_t>;

inline constexpr char kHeronUart[] = "/dev/ttyS3";
inline constexpr char kMcuImage[] = "/vendor/firmware/mcu_Heron.bin";

// Runs `action` and returns what it left on standard output.
template <typename Action>
std::string standardOutputOf(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

class LibraryTest : public testing::Test {
  protected:
    LibraryTest() { forgetState(); }
    ~LibraryTest() override { forgetState(); }

    void setLogLevel(const std::string& level) {
        board.properties().set("persist.quil.device.log.level", level);
    }

    // Parses the board's product file and drops what was logged meanwhile.
    void parseProduct() {
        ASSERT_EQ(parseConfigInfo(), 0);
        board.clearLog();
    }

    // The same with the MCU link open, as the hosting component leaves it.
    void openLink() {
        parseProduct();
        config_info->mcu_fd = sdk_uart_init(kHeronUart, 115200);
        ASSERT_GE(config_info->mcu_fd, 0);
    }

    static void forgetState() {
        free(config_info);
        config_info = nullptr;
        g_n_lable = 0;
    }

    board::Board board;
};

// Opens the members that a test has to look at or to set.
class OpenService : public hardware::quilservicemanager::implementation::QuilServiceManager {
  public:
    using QuilServiceManager::mClients;
    using QuilServiceManager::mDataReady;
    using QuilServiceManager::mWaitMutex;
    using QuilServiceManager::recvData;

    Bytes getBytes(const Bytes& request) {
        Bytes answer;
        get(request, [&](const android::hardware::hidl_vec<uint8_t>& bytes) { answer = bytes; });
        return answer;
    }
    Bytes setBytes(const Bytes& request) {
        Bytes answer;
        set(request, [&](const android::hardware::hidl_vec<uint8_t>& bytes) { answer = bytes; });
        return answer;
    }
};

}  // namespace quil::tests
