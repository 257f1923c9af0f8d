// The commands by which a programming session drives the lines of the MCU.
#pragma once

namespace quil::tests {

inline constexpr char kBoot0High[] = "echo 1 > /sys/class/quilgpios/MCU_BOOT0/value";
inline constexpr char kBoot0Low[] = "echo 0 > /sys/class/quilgpios/MCU_BOOT0/value";
inline constexpr char kResetHigh[] = "echo 1 > /sys/class/quilgpios/MCU_NRST/value";
inline constexpr char kResetLow[] = "echo 0 > /sys/class/quilgpios/MCU_NRST/value";

}  // namespace quil::tests
