#include <unistd.h>

#include <cstdio>
#include <exception>
#include <ext/stdio_filebuf.h>
#include <iostream>

#include "bench/mcu_bench.h"

int main() {
    // The library prints its progress: that goes nowhere, the report to where it went.
    __gnu_cxx::stdio_filebuf<char> buffer(dup(STDOUT_FILENO), std::ios::out);
    std::ostream report(&buffer);
    if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
    try {
        // The sweep forks: it comes before there is any thread.
        const bool isMended = quil::bench::powerCutSweep(report);
        const bool isAsPredicted = quil::bench::mcuProgramming(report);
        const bool isBeside = quil::bench::stm32flashBeside(report);
        return isMended && isAsPredicted && isBeside ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "quil_mcu_bench: " << error.what() << '\n';
        return 1;
    }
}
