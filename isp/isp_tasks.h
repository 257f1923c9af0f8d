// Whole programming sessions with the MCU, each of them seconds to minutes long.
//
// A session owns the port in `fd` from its opening to its closing, and leaves the MCU restarted
// into its application whatever the outcome. One session at a time, on one thread; the hosting
// component keeps `fw_updating` raised meanwhile.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Programs the MCU with the image at `file_path`, over the device `uart_path`, by the protocol that
// `chip_serial` asks for: "gd32" or "stm32" in it, else "n32". None of the texts is changed.
// Returns 0 (also when no protocol applies), -1 for an argument that is empty or contains "UNDEF",
// or the session's result: 15 from the STM32/GD32 one, -1 or 255 from the N32 one.
QUIL_EXPORT int mcu_isp_fw_update(char* file_path, char* uart_path, char* chip_serial);

// Erases and writes an STM32 or GD32 part. Returns 0 or 15.
QUIL_EXPORT int mcu_tool_isp_task(const char* file_path, const char* uart_path);

// A session around the one boot-loader command `cmd`, for tools. `file_path`: the image to write
// (0x31), or the file whose size says how much to read to "/opt/test2.bin" (0x11) or to erase
// (0x44). Returns 0 or 15; for 0x43 and 0x92 the status of the last read, 0 or 3.
QUIL_EXPORT int task(unsigned cmd, const char* file_path, const char* uart_path);

#ifdef __cplusplus
}  // extern "C"
#endif
