// The fuzz targets. Each passes arbitrary bytes to one place that reads bytes from outside, and
// throws a Finding when a condition does not hold afterwards. An input always has the same outcome:
// a target makes its own board for each input.
#pragma once

#include <stdint.h>

#include <span>

namespace quil::fuzz {

// What the parts of a board find in their files, and `board check`.
void boardFiles(std::span<const uint8_t> input);
// The exported functions by their signatures.
void exportedFunctions(std::span<const uint8_t> input);
// host/frame_assembler: the MCU's byte stream, cut into pieces.
void frameAssembler(std::span<const uint8_t> input);
// A programming session or an update, and an MCU that answers anything.
void mcuSession(std::span<const uint8_t> input);
// product.ini, as the library reads it and as quilctl checks it.
void productFile(std::span<const uint8_t> input);
// The programmer, and a boot loader that answers anything.
void programmerSession(std::span<const uint8_t> input);
// quilctl: records of the self-test, FPGA images, names of commands and of traces.
void quilctlFiles(std::span<const uint8_t> input);
// quilctl: numbers, hexadecimal bytes, `frame decode`.
void quilctlValues(std::span<const uint8_t> input);
// The service's set and get, up to the MCU and back.
void request(std::span<const uint8_t> input);
// The partition of screen parameters: quilctl's reader of it, and a load.
void screenPartition(std::span<const uint8_t> input);
// A served board's socket and its page's server: whatever is said to them.
void servedRequests(std::span<const uint8_t> input);
// The board's shell: a line's parsing and its run.
void shellLine(std::span<const uint8_t> input);
// quilctl: what a serial line carried, from traces, logs and waveforms.
void wireStreams(std::span<const uint8_t> input);

struct Target {
    const char* name;  // also of the source file, the program and the corpus
    void (*run)(std::span<const uint8_t> input);
};
inline constexpr Target kTargets[] = {
    {"board_files", boardFiles},
    {"exported_functions", exportedFunctions},
    {"frame_assembler", frameAssembler},
    {"mcu_session", mcuSession},
    {"product_file", productFile},
    {"programmer_session", programmerSession},
    {"quilctl_files", quilctlFiles},
    {"quilctl_values", quilctlValues},
    {"request", request},
    {"screen_partition", screenPartition},
    {"served_requests", servedRequests},
    {"shell_line", shellLine},
    {"wire_streams", wireStreams},
};

}  // namespace quil::fuzz
