#include <stdio.h>
#include <unistd.h>

#include <exception>
#include <ext/stdio_filebuf.h>
#include <iostream>

#include "bench/mcu_bench.h"

int main() {
    // The library prints its progress to standard output. That is discarded; the report goes to
    // the original standard output.
    __gnu_cxx::stdio_filebuf<char> buffer(dup(STDOUT_FILENO), std::ios::out);
    std::ostream report(&buffer);
    if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
    try {
        const bool isAsPredicted = quil::bench::mcuProgramming(report);
        const bool isBeside = quil::bench::programmerBeside(report);
        return isAsPredicted && isBeside ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "quil_mcu_bench: " << error.what() << '\n';
        return 1;
    }
}
