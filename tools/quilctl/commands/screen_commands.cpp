#include <errno.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/screen_file.h"
#include "tools/quilctl/files/validators.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

Bytes bytesOfFile(const fs::path& path) {
    const std::string content = readInput(path.string());
    return Bytes(content.begin(), content.end());
}

ScreenFrames inAll(const ScreenFile& file) {
    ScreenFrames all{0, 0};
    for (const ScreenFileBlock& block : file.blocks) {
        for (const ScreenFrames& frames : block.frames) {
            all.count += frames.count;
            all.size += frames.count * frames.size;
        }
    }
    return all;
}

void addBlock(Result& result, const ScreenFileBlock& block) {
    char line[96];
    snprintf(line, sizeof(line), "%2zu  0x%06zx  0x%08X  %6zu  %-19s  ",
             result.json["blocks"].size(), block.offset, block.address, block.data.size(),
             block.kind.c_str());
    result.text << line << block.sent;
    if (!block.remark.empty()) result.text << " (" << block.remark << ")";
    result.text << '\n';
    result.json["blocks"].push_back({{"offset", block.offset},
                                     {"address", block.address},
                                     {"length", block.data.size()},
                                     {"kind", block.kind},
                                     {"sent", block.sent},
                                     {"remark", block.remark}});
}

struct ShowArguments {
    std::string file;
};

void showScreen(const Cli& /*cli*/, const ShowArguments& arguments, Result& result) {
    const Bytes bytes = bytesOfFile(arguments.file);
    const ScreenFile file = readScreenFile(bytes);
    result.json = {{"count", file.count}, {"size", file.size}, {"blocks", Json::array()}};
    result.text << " #  offset    address     length  kind                 what is sent\n";
    for (const ScreenFileBlock& block : file.blocks) addBlock(result, block);
    const ScreenFrames all = inAll(file);
    result.text << file.blocks.size() << (file.blocks.size() == 1 ? " block, " : " blocks, ")
                << file.size << " bytes; sent for them: " << all.count << " frames, " << all.size
                << " bytes\n";
    if (!file.damage) return;
    result.json["damage"] = {{"offset", file.damage->offset}, {"reason", file.damage->reason}};
    char offset[24];
    snprintf(offset, sizeof(offset), "0x%06zx", file.damage->offset);
    throw Failure(kBadData,
                  arguments.file + ": damaged at offset " + offset + ": " + file.damage->reason);
}

// The address that a block file's name gives: its last eight hexadecimal digits.
uint32_t addressIn(const fs::path& file) {
    constexpr size_t kDigits = 8;
    const std::string stem = file.stem().string();
    const std::string digits = stem.size() < kDigits ? "" : stem.substr(stem.size() - kDigits);
    const auto address = digits.empty() ? std::nullopt : parseNumber("0x" + digits, UINT32_MAX);
    if (!address) {
        throw Failure(kBadData,
                      file.string() + ": the name must end in the address, as in 03-10400000.bin");
    }
    return static_cast<uint32_t>(*address);
}

std::vector<fs::path> blockFilesIn(const std::string& directory) {
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        if (entry.path().extension() == ".bin") files.push_back(entry.path());
    }
    if (error) throw failureOf(kBadData, directory + " cannot be read", error.value());
    std::sort(files.begin(), files.end());
    return files;
}

void writeFile(const std::string& file, const Bytes& content) {
    errno = 0;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()),
              static_cast<std::streamsize>(content.size()));
    if (!out.flush()) throw failureOf(kNotWritten, file + " cannot be written", errno);
}

Bytes partitionOf(const std::string& directory, const std::vector<ScreenFilePart>& parts) {
    try {
        return buildScreenFile(parts);
    } catch (const std::runtime_error& error) {
        throw Failure(kBadData, directory + ": " + error.what());
    }
}

struct BuildArguments {
    std::string directory, target;
};

void build(const Cli& /*cli*/, const BuildArguments& arguments, Result& result) {
    std::vector<ScreenFilePart> parts;
    for (const fs::path& file : blockFilesIn(arguments.directory)) {
        parts.push_back({addressIn(file), bytesOfFile(file)});
    }
    const Bytes partition = partitionOf(arguments.directory, parts);
    writeFile(arguments.target, partition);
    result.json = {
        {"file", arguments.target}, {"blocks", parts.size()}, {"size", partition.size()}};
    result.text << arguments.target << ": " << parts.size() << " blocks, " << partition.size()
                << " bytes\n";
}

void addShow(CLI::App& screen, Cli& cli) {
    const auto [command, arguments] = addVerb(
        screen, cli,
        {"show", "Print a partition's blocks",
         "Example: quilctl screen show my-board/rootfs/dev/block/by-name/screen", kNoBoardOption},
        showScreen);
    command.add_option("FILE", arguments.file, "The partition's content")
        ->required()
        ->check(CLI::ExistingFile);
}

void addBuild(CLI::App& screen, Cli& cli) {
    const auto [command, arguments] =
        addVerb(screen, cli,
                {"build", "Make a partition from block files: 00-10018000.bin, 01-10B00000.bin, ..",
                 "Example: quilctl screen build blocks screen.img", kNoBoardOption},
                build);
    command
        .add_option("DIR", arguments.directory, "Where the block files are; they go by their names")
        ->required()
        ->check(CLI::ExistingDirectory);
    command.add_option("OUT", arguments.target, "The partition to write")->required();
}

}  // namespace

void addScreenCommands(CLI::App& app, Cli& cli) {
    CLI::App& screen = addGroup(app, {"screen", "Partitions of screen parameters",
                                      "Example: quilctl screen show screen.img"});
    addShow(screen, cli);
    addBuild(screen, cli);
}

}  // namespace quil::tools
