// Arguments with which each command does its work, for what has to hold for every command.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "board/board_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "tools/quilctl/cli.h"

namespace quil::tests {

struct VerbCase {
    tools::Words arguments;
    bool powersBoard = true;
    int code = tools::kOk;
    // For a command that runs until it is interrupted: the arguments above are ones with which it
    // gives up at once.
    tools::Words serving{};
    bool logs = true;  // the library has a part in it
};

// A trace of a boot with one stage.
inline constexpr char kVerbTrace[] = R"({"traceEvents": [
{"ph": "M", "pid": 1, "tid": 1, "name": "thread_name", "args": {"name": "stages"}},
{"ph": "X", "pid": 1, "tid": 1, "name": "network", "ts": 0, "dur": 860000}]})";

// The files that the arguments name, as far as there are any.
inline void makeVerbFiles(const std::filesystem::path& directory) {
    board::createBoardDirectory(directory / "board", board::Product::kHeron);
    std::filesystem::create_directory(directory / "blocks");
    board::writeWholeFile(directory / "blocks/00-10018000.bin", "block");
    board::writeWholeFile(directory / "screen.img",
                          std::string("\0\0\0\1\x10\1\x80\0\0\0\0\1x", 13));
    board::writeWholeFile(directory / "no.ini", "[mcu]\n");
    board::writeWholeFile(directory / "no.bin", "no image");
    board::writeWholeFile(directory / "trace.json", kVerbTrace);
    board::writeWholeFile(directory / "image.bin",
                          board::makeMcuImage(board::McuKind::kGd32F303, "V2.0.0", 2048));
}

// By the command's words. The files lie in `directory`.
inline std::map<std::string, VerbCase> verbCases(const std::filesystem::path& directory) {
    const auto path = [&directory](const char* name) { return (directory / name).string(); };
    return {
        {"get", {{"1"}}},
        {"set", {{"0x102", "01"}}},
        {"commands list", {{}, false}},
        {"callbacks", {}},
        {"self-test", {}},
        {"power low", {}},
        {"power normal", {}},
        {"config show", {}},
        {"config check", {{path("no.ini")}, false, tools::kBadData}},
        {"frame encode", {{"1"}, false}},
        {"frame decode", {{"55BB"}, false, tools::kBadData}},
        {"board new", {{path("new")}, false}},
        {"board show", {{path("board")}, false}},
        {"board check", {{path("board")}, false}},
        {"board repair", {{path("board")}, false}},
        {"board reset", {{}, false, tools::kUsage}},
        {"boot", {{"--report", path("boot.html")}}},
        {"fpga status", {}},
        {"fpga load", {}},
        {"fpga info", {{path("no.bin")}, false, tools::kBadData}},
        {"fpga flash", {{"--as-is", path("no.bin")}, true, tools::kFailed}},
        {"screen show", {{path("screen.img"), "--svg", path("screen.svg")}, false}},
        {"screen extract", {{path("screen.img"), path("extracted")}, false}},
        {"screen build", {{path("blocks"), path("built.img")}, false}},
        {"mcu version", {}},
        {"mcu update", {{"--installed", "V0.9.0"}}},
        {"mcu flash", {{path("no.bin")}, true, tools::kRefused, {}, false}},
        {"mcu verify", {{path("no.bin")}, true, tools::kFailed, {}, false}},
        {"mcu read", {{path("read.bin"), "--size", "300"}, true, tools::kOk, {}, false}},
        {"mcu info", {{}, true, tools::kOk, {}, false}},
        {"mcu erase", {{"--pages", "1"}, true, tools::kOk, {}, false}},
        {"mcu protect", {{"--sectors", "1"}, true, tools::kOk, {}, false}},
        {"mcu unprotect", {{"--write"}, true, tools::kOk, {}, false}},
        {"mcu rescue", {{}, true, tools::kOk, {}, false}},
        {"mcu program", {{"--chip", "gd32f303", path("image.bin")}}},
        {"mcu task", {{"get"}}},
        {"mcu model",
         {{"--chip", "gd32f303", "--pty", path("none/link")},
          false,
          tools::kNoBoard,
          {"--chip", "gd32f303", "--pty", path("link")}}},
        {"serve", {{"--board", path("none")}, false, tools::kUsage, {"--speed", "max"}}},
        {"page", {{}, false, tools::kUsage}},
        {"status", {{}, false, tools::kUsage}},
        {"monitor", {{}, false, tools::kUsage}},
        {"power cut", {{}, false, tools::kUsage}},
        {"power on", {{}, false, tools::kUsage}},
        {"fault add", {{"link"}, false, tools::kUsage}},
        {"fault list", {{}, false, tools::kUsage}},
        {"fault clear", {{}, false, tools::kUsage}},
        {"trace compare", {{path("trace.json"), path("trace.json")}, false}},
        {"demo", {}},
        {"completion", {{"bash"}, false}},
        {"man", {{"mcu", "update"}, false}},
        {"help", {{"get"}, false}},
    };
}

}  // namespace quil::tests
