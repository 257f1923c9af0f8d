#include "board/fpga/mtd_debug.h"

#include <stdlib.h>
#include <string.h>

#include <array>
#include <limits>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

using Words = std::vector<std::string>;

ProgramResult failed(const char* what, int error) {
    return failure(std::string(what) + ": " + strerror(error));
}

// Decimal, or hexadecimal after "0x", as strtoul() reads it.
std::optional<uint32_t> numberOf(const std::string& word) {
    char* end = nullptr;
    const unsigned long long value = strtoull(word.c_str(), &end, 0);
    if (word.empty() || word.front() == '-' || *end != '\0') return std::nullopt;
    if (value > std::numeric_limits<uint32_t>::max()) return std::nullopt;
    return static_cast<uint32_t>(value);
}

std::string paddedHex(uint32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%.8x", value);
    return text;
}

struct Range {
    uint32_t offset, length;
};

// What the tool works on.
struct Place {
    BoardServices& board;
    SerialFlash& flash;
};

ProgramResult erase(const Place& place, Range range, const Words&) {
    if (const int error = place.flash.erase(range.offset, range.length)) {
        return failed("MEMERASE", error);
    }
    return {0,
            "Erased " + std::to_string(range.length) + " bytes from address " +
                paddedHex(range.offset) + " in flash\n",
            ""};
}

ProgramResult write(const Place& place, Range range, const Words& argv) {
    const std::string& path = argv[5];
    if (const auto fault = place.board.faults.take(Call::kOpen, path)) {
        return failed("fopen()", fault->error);
    }
    std::string content;
    if (const int error = place.board.readFile(path, &content)) return failed("fopen()", error);
    if (content.size() < range.length) return failure("fread(): the file is too short");
    if (const int error = place.flash.program(range.offset, bytesOf(content).first(range.length))) {
        return failed("write()", error);
    }
    return {0,
            "Copied " + std::to_string(range.length) + " bytes from " + path + " to address " +
                paddedHex(range.offset) + " in flash\n",
            ""};
}

ProgramResult read(const Place& place, Range range, const Words& argv) {
    const std::string& path = argv[5];
    const auto cells = place.flash.read(range.offset, range.length);
    if (cells.size() != range.length) return failed("read()", EINVAL);
    if (const auto fault = place.board.faults.take(Call::kOpen, path)) {
        return failed("open()", fault->error);
    }
    if (const int error = place.board.replaceFile(path, textOf(cells))) {
        return failed("open()", error);
    }
    return {0,
            "Copied " + std::to_string(range.length) + " bytes from address " +
                paddedHex(range.offset) + " in flash to " + path + "\n",
            ""};
}

struct Verb {
    const char* name;
    size_t words;
    ProgramResult (*run)(const Place&, Range, const Words&);
};
constexpr std::array<Verb, 3> kVerbs = {
    {{"erase", 5, erase}, {"write", 6, write}, {"read", 6, read}}};

ProgramResult run(const Place& place, const Words& argv) {
    if (!place.board.isFile(kMtdDebugFile)) {
        return {kNotFound, "", argv[0] + ": inaccessible or not found\n"};
    }
    for (const Verb& verb : kVerbs) {
        if (argv.size() != verb.words || argv[1] != verb.name) continue;
        if (argv[2] != kFlashDevice) return failed("open()", ENOENT);
        const auto offset = numberOf(argv[3]), length = numberOf(argv[4]);
        if (offset && length) return verb.run(place, {*offset, *length}, argv);
    }
    return failure("usage: mtd_debug erase|write|read DEVICE OFFSET LENGTH [FILE]");
}

}  // namespace

void addMtdDebug(BoardServices& board, Shell& shell, SerialFlash& flash) {
    shell.add("mtd_debug",
              [place = Place{board, flash}](const Words& argv) { return run(place, argv); });
}

}  // namespace quil::board
