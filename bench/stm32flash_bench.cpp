// stm32flash with the same boot-loader model behind a pseudo terminal, in real time.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/mcu_bench.h"
#include "board/board_directory.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "board/mcu/pty_bridge.h"

namespace quil::bench {
namespace {

namespace fs = std::filesystem;

constexpr char kProgram[] = "/usr/bin/stm32flash";
constexpr size_t kWrittenSize = size_t{64} * 1024;

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Returns whether stm32flash reports that it wrote everything.
bool write(const fs::path& image, const fs::path& port) {
    const std::string command = std::string(kProgram) + " -m 8n1 -b 115200 -w " + image.string() +
                                " " + port.string() + " >/dev/null 2>&1";
    return system(command.c_str()) == 0;
}

}  // namespace

bool stm32flashBeside(std::ostream& out) {
    if (access(kProgram, X_OK) != 0) {
        out << "stm32flash is not installed\n";
        return true;
    }
    const auto kind = board::McuKind::kGd32F470;
    const board::TemporaryDirectory scratch;
    const fs::path& directory = scratch.path();
    board::writeWholeFile(directory / "image.bin", makeMcuImage(kind, "V1.0.0", kWrittenSize));
    board::PtyBridge bridge(
        {.part = kind, .flash = directory / "flash", .link = directory / "port", .realtime = true});
    std::thread server([&bridge] { bridge.run(); });
    const double start = now();
    const bool isDone = write(directory / "image.bin", directory / "port");
    const double seconds = now() - start;
    bridge.stop();
    server.join();
    char text[160];
    snprintf(text, sizeof(text),
             "stm32flash -m 8n1 -b 115200, %zu KiB, gd32f470: %s %.2f s, real time\n",
             kWrittenSize / 1024, isDone ? "took" : "FAILED after", seconds);
    out << text;
    return isDone;
}

}  // namespace quil::bench
