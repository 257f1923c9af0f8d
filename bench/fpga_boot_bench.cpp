// A whole start of a Heron board's FPGA with a pending update, in board time and in the
// workstation's.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <string>

#include "board/board.h"
#include "config/config_info.h"
#include "fpga/load_process.h"
#include "testing/library_state.h"

namespace {

using Seconds = std::chrono::duration<double>;

// The sum of the library's own pauses, in seconds.
double pausesOf(quil::board::Board& board) {
    double seconds = 0;
    for (const auto& event : board.trace().events(quil::board::EventKind::kSleep)) {
        seconds += std::stod(event.text);
    }
    return seconds;
}

struct Boot {
    bool ok = false;
    double took = 0;  // board time, in seconds as below
    double remainder = 0;
};

Boot bootOnce() {
    const quil::tests::FreshLibrary library;
    quil::tests::networkIsUp();
    quil::board::Board board;
    board.properties().set("persist.quil.system.fpga.fw.update", "1");
    Boot boot;
    boot.ok = parseConfigInfo() == 0 && fpgaLoadProcessHeron() == 0;
    boot.took = Seconds(board.now()).count();
    boot.remainder = boot.took - Seconds(board.deviceTime()).count() - pausesOf(board);
    return boot;
}

// Counters: board_s is the length of the boot in board time. remainder_us is the part of it that is
// neither a pause of the library nor the devices' own time; it has to be 0. speed is board time
// divided by real time.
void heronBoot(benchmark::State& state) {
    double boardTime = 0, realTime = 0, remainder = 0;
    for (auto _ : state) {
        // Read while no board is powered: during a boot, this clock shows board time.
        const auto start = std::chrono::steady_clock::now();
        const Boot boot = bootOnce();
        realTime += Seconds(std::chrono::steady_clock::now() - start).count();
        if (!boot.ok) {
            state.SkipWithError("the FPGA does not come up");
            break;
        }
        boardTime += boot.took;
        remainder += boot.remainder;
    }
    const auto runs = static_cast<double>(state.iterations());
    state.counters["board_s"] = boardTime / runs;
    state.counters["remainder_us"] = std::round(remainder / runs * 1e9) / 1e3;
    state.counters["speed"] = boardTime / realTime;
}

BENCHMARK(heronBoot)->Unit(benchmark::kMillisecond);

}  // namespace
