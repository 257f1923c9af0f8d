// A whole start of a Heron board's FPGA with a pending update, in board time and in the
// workstation's.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <initializer_list>
#include <string>
#include <utility>

#include "board/board.h"
#include "config/config_info.h"
#include "fpga/load_process.h"
#include "fpga/screen/screen_params.h"

namespace {

using Seconds = std::chrono::duration<double>;

// What the library itself has asked for.
double pausesOf(quil::board::Board& board) {
    double seconds = 0;
    for (const auto& event : board.trace().events(quil::board::EventKind::kSleep)) {
        seconds += std::stod(event.text);
    }
    return seconds;
}

// The network side has come up before: its thread is none of this boot.
void networkIsUp() {
    const std::initializer_list<std::pair<size_t, uint8_t>> received = {
        {23, 3}, {25, 1}, {33, 1}, {41, 1}, {47, 1}};
    for (const auto& [at, value] : received) buffer[at] = value;
}

struct Boot {
    bool ok = false;
    double took = 0;  // board time, in seconds as below
    double remainder = 0;
};

Boot bootOnce() {
    quil::board::Board board;
    board.properties().set("persist.quil.system.fpga.fw.update", "1");
    Boot boot;
    boot.ok = parseConfigInfo() == 0 && fpgaLoadProcessHeron() == 0;
    boot.took = Seconds(board.now()).count();
    boot.remainder = boot.took - Seconds(board.deviceTime()).count() - pausesOf(board);
    return boot;
}

// Counters: board_s is the boot's length in board time; remainder_us what of it is neither a pause
// of the library nor the devices' own time, which has to be 0; speed is board time to real time.
void heronBoot(benchmark::State& state) {
    double boardTime = 0, realTime = 0, remainder = 0;
    networkIsUp();
    for (auto _ : state) {
        // Both outside of the board's power, whose clock would be the board's.
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
    free(config_info);
    config_info = nullptr;
}

BENCHMARK(heronBoot)->Unit(benchmark::kMillisecond);

}  // namespace
