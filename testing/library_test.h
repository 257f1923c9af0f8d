// The fixture of most tests of the library: a powered board, and a library in the state in which it
// was loaded.
#pragma once

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "board/board.h"
#include "config/config_info.h"
#include "mculink/uart.h"
#include "service/quil_service_manager.h"
#include "testing/bytes.h"
#include "testing/captured_output.h"
#include "testing/library_state.h"

namespace quil::tests {

inline constexpr char kHeronUart[] = "/dev/ttyS3";
inline constexpr char kMcuImage[] = "/vendor/firmware/mcu_Heron.bin";

class LibraryTest : public testing::Test {
  protected:
    void setLogLevel(const std::string& level) {
        board.properties().set("persist.quil.device.log.level", level);
    }

    // Parses the board's product file, then clears the log.
    void parseProduct() {
        ASSERT_EQ(parseConfigInfo(), 0);
        board.clearLog();
    }

    // The same, and opens the MCU link as the hosting component does.
    void openLink() {
        parseProduct();
        config_info->mcu_fd = sdk_uart_init(kHeronUart, 115200);
        ASSERT_GE(config_info->mcu_fd, 0);
    }

    const FreshLibrary library;
    board::Board board;
};

// Makes public the members that tests read or set.
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
