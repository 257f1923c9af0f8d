#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>

#include "tools/quilctl/cli.h"

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // writing to a closed pipe then fails with EPIPE, which is reported
    const bool styled = isatty(STDOUT_FILENO) != 0 && getenv("NO_COLOR") == nullptr;
    return quil::tools::run(quil::tools::kDeviceProgram, argc, argv,
                            {std::cin, std::cout, std::cerr, styled});
}
