#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "tools/quilctl/cli.h"

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // writing to a closed pipe then fails with EPIPE, which is reported
    using quil::tools::screenOf;
    return quil::tools::run(
        quil::tools::kDeviceProgram, argc, argv,
        {std::cin, std::cout, std::cerr, screenOf(STDOUT_FILENO), screenOf(STDERR_FILENO)});
}
