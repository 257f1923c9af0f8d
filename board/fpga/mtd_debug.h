// The MTD tool of the vendor image: "mtd_debug erase|write|read /dev/mtd0 ...".
#pragma once

#include "board/devices/shell.h"
#include "board/fpga/serial_flash.h"

namespace quil::board {

inline constexpr char kMtdDebugFile[] = "/vendor/bin/mtd_debug";

// The shell finds the tool only if its file is in the board's file system.
void addMtdDebug(BoardServices&, Shell&, SerialFlash&);

}  // namespace quil::board
