#include <unistd.h>

#include <cstdlib>
#include <ext/stdio_filebuf.h>
#include <iostream>

#include "tools/quilctl/cli.h"

int main(int argc, char** argv) {
    // Answers go out on a descriptor of their own: the library prints its progress on descriptor 1,
    // and that is turned away while a board is powered.
    __gnu_cxx::stdio_filebuf<char> buffer(dup(STDOUT_FILENO), std::ios::out);
    std::ostream out(&buffer);
    const bool styled = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    const bool progress = isatty(STDERR_FILENO) != 0;
    return quil::tools::run(quil::tools::kBoardProgram, argc, argv,
                            {std::cin, out, std::cerr, styled, progress});
}
