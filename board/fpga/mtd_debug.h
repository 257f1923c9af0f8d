// The MTD tool of the vendor image: "mtd_debug erase|write|read|info /dev/mtd0 ...".
#pragma once

#include "board/devices/shell.h"
#include "board/fpga/serial_flash.h"

namespace quil::board {

inline constexpr char kMtdDebugFile[] = "/vendor/bin/mtd_debug";

// Without the tool's file in the board's file system the shell does not find it.
void addMtdDebug(BoardServices&, Shell&, SerialFlash&);

}  // namespace quil::board
