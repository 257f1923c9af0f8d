#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>
#include <iostream>

#include "tools/quilctl/cli.h"

namespace {

// A standard stream that the caller has closed would give its number to a device of the board.
void holdStandardDescriptors() {
    int held = open("/dev/null", O_RDWR);
    while (held >= 0 && held <= STDERR_FILENO) held = dup(held);
    if (held > STDERR_FILENO) close(held);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // writing to a closed pipe then fails with EPIPE, which is reported
    // Answers go out on a descriptor of their own: the library prints its progress on descriptor 1,
    // and that is turned away while a board is powered.
    const int answers = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    holdStandardDescriptors();
    __gnu_cxx::stdio_filebuf<char> buffer(answers, std::ios::out);
    std::ostream out(&buffer);
    const bool styled = isatty(STDOUT_FILENO) != 0 && getenv("NO_COLOR") == nullptr;
    const bool progress = isatty(STDERR_FILENO) != 0;
    return quil::tools::run(quil::tools::kBoardProgram, argc, argv,
                            {std::cin, out, std::cerr, styled, progress});
}
