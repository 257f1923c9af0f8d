// The options with which a command reaches an MCU: the board's serial device, or one of this
// workstation.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tools/quilctl/cli.h"
#include "tools/quilctl/programming/lent_port.h"

namespace quil::tools {

inline constexpr char kPortHelp[] =
    "--port: the board's own serial device (default), or one of this workstation:\n"
    "then the MCU behind it is programmed, in real time. Its MCU_BOOT0 and MCU_NRST\n"
    "can hang at the device's RTS and DTR (--boot0, --nrst: \"rts\" is set while the\n"
    "line is 1, \"-rts\" while it is 0; most adapters turn a set line into a low\n"
    "pin). Without them start the MCU in its boot loader before, and reset it\n"
    "afterwards. A device whose name is the board's own is reached through a link\n"
    "to it.\n";

struct PortArguments {
    std::string port;  // empty: the board's
    ModemWiring wiring;
};

void addPortOptions(CLI::App& command, PortArguments& arguments);

bool isOnWorkstation(const std::string& port);

// The board's own MCU has its own wires, and a real one has no use for `boardOptions`.
void refuseIdleOptions(const Cli& cli, const PortArguments& arguments, bool isOnBoard,
                       unsigned boardOptions);

}  // namespace quil::tools
