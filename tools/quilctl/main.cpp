#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <ext/stdio_filebuf.h>
#include <iostream>
#include <new>

#include "tools/quilctl/cli.h"
#include "tools/quilctl/session/interruption.h"

namespace {

// A standard output that the caller has closed.
class ClosedOutput : public std::streambuf {
  protected:
    int_type overflow(int_type /*character*/) override {
        errno = EBADF;
        return traits_type::eof();
    }
};

// A standard stream that the caller has closed would give its number to a device of the board.
void holdStandardDescriptors() {
    int held = open("/dev/null", O_RDWR);
    while (held >= 0 && held <= STDERR_FILENO) held = dup(held);
    if (held > STDERR_FILENO) close(held);
}

// An exception on a thread that nobody waits for, or out of a function that must not throw.
[[noreturn]] void endOfAnUncaughtException() {
    std::string why = "no exception";
    try {
        if (std::current_exception()) std::rethrow_exception(std::current_exception());
    } catch (const std::bad_alloc&) {
        why = quil::tools::kNoMemory;
    } catch (const std::exception& error) {
        why = error.what();
    } catch (...) {
        why = "an unknown exception";
    }
    quil::tools::endAtOnce(quil::tools::kInternal, "internal error: " + why);
}

}  // namespace

int main(int argc, char** argv) {
    // Writing to a closed pipe, or beyond the limit of a file's size, then fails and is reported.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    // Answers go out on a descriptor of their own: the library prints its progress on descriptor 1,
    // and that is turned away while a board is powered.
    const int answers = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    holdStandardDescriptors();
    quil::tools::watchForInterruption();
    std::set_terminate(endOfAnUncaughtException);
    __gnu_cxx::stdio_filebuf<char> buffer(answers, std::ios::out);
    ClosedOutput closed;
    std::ostream out(&buffer);
    if (answers < 0) out.rdbuf(&closed);
    quil::tools::InterruptibleInput input(STDIN_FILENO);
    std::istream in(&input);
    in.exceptions(std::ios::badbit);  // throws on what the input throws
    using quil::tools::screenOf;
    return quil::tools::run(quil::tools::kBoardProgram, argc, argv,
                            {in, out, std::cerr, screenOf(STDOUT_FILENO), screenOf(STDERR_FILENO)});
}
