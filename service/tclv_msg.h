// A client's request as parsed from its bytes, and the business type that its command maps to.
//
// Layout of a request, little-endian: cmd (4 bytes), errCode (2), length (2), msgBody (the rest).
#pragma once

#include <stdint.h>

#include <vector>

namespace quil::hardware::quilservicemanager::implementation {

// A request as parsed.
struct tclvMsg {
    uint32_t cmd = 0;              // the command
    uint16_t errCode = 0;          // carried, never interpreted
    uint16_t length = 0;           // bytes in msgBody
    std::vector<uint8_t> msgBody;  // the body
};

// Whose a command is: the MCU's, power control, the self-test, nobody's.
enum hidl_service_type_t : uint32_t {
    HIDL_SERVICE_TYPE_MCU = 1,
    HIDL_SERVICE_TYPE_POWER_CONTROL = 2,
    HIDL_SERVICE_TYPE_SELF_TEST = 3,
    HIDL_SERVICE_TYPE_INVALID = 4,
};

// Commands from here up are never the MCU's. The odd number is what clients were built against.
inline constexpr uint32_t kMcuCommandEnd = 0xF5000002;
inline constexpr uint32_t kCommandLowPower = 0xFFFFFFF0;
inline constexpr uint32_t kCommandNormalPower = 0xFFFFFFF1;
inline constexpr uint32_t kCommandSelfTest = 0xFFFFFFF4;

}  // namespace quil::hardware::quilservicemanager::implementation
