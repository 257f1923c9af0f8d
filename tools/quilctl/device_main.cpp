#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "tools/quilctl/cli.h"

int main(int argc, char** argv) {
    const bool styled = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    return quil::tools::run(quil::tools::kDeviceProgram, argc, argv,
                            {std::cin, std::cout, std::cerr, styled});
}
