#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

#include "tools/quilctl/cli.h"
#include "tools/quilctl/files/screen_file.h"
#include "tools/quilctl/files/validators.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

Bytes bytesOfFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(path.string() + " cannot be read");
    return Bytes(std::istreambuf_iterator<char>(in), {});
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

void printTable(std::ostream& out, const ScreenFile& file) {
    char line[320];
    out << " #  offset    address     length  kind                 what is sent\n";
    for (size_t i = 0; i < file.blocks.size(); ++i) {
        const ScreenFileBlock& block = file.blocks[i];
        std::snprintf(line, sizeof line, "%2zu  0x%06zx  0x%08X  %6zu  %-19s  %s%s%s%s\n", i,
                      block.offset, block.address, block.data.size(), block.kind.c_str(),
                      block.sent.c_str(), block.remark.empty() ? "" : " (", block.remark.c_str(),
                      block.remark.empty() ? "" : ")");
        out << line;
    }
    const ScreenFrames all = inAll(file);
    out << file.blocks.size() << (file.blocks.size() == 1 ? " block, " : " blocks, ") << file.size
        << " bytes; sent for them: " << all.count << " frames, " << all.size << " bytes\n";
}

nlohmann::json jsonOf(const ScreenFileBlock& block) {
    return {{"offset", block.offset}, {"address", block.address}, {"length", block.data.size()},
            {"kind", block.kind},     {"sent", block.sent},       {"remark", block.remark}};
}

void printJson(std::ostream& out, const ScreenFile& file) {
    auto blocks = nlohmann::json::array();
    for (const ScreenFileBlock& block : file.blocks) blocks.push_back(jsonOf(block));
    nlohmann::json root = {{"count", file.count}, {"size", file.size}, {"blocks", blocks}};
    if (file.damage) {
        root["damage"] = {{"offset", file.damage->offset}, {"reason", file.damage->reason}};
    }
    out << root.dump() << '\n';
}

int showScreen(const Cli& cli, const std::string& name) {
    const Bytes bytes = bytesOfFile(name);
    const ScreenFile file = readScreenFile(bytes);
    if (cli.options.json) {
        printJson(cli.console.out, file);
    } else {
        printTable(cli.console.out, file);
    }
    if (!file.damage) return kOk;
    char offset[24];
    std::snprintf(offset, sizeof offset, "0x%06zx", file.damage->offset);
    cli.console.err << name << ": damaged at offset " << offset << ": " << file.damage->reason
                    << '\n';
    return kBadData;
}

// The address that a block file's name gives: its last eight hexadecimal digits.
uint32_t addressIn(const fs::path& file) {
    constexpr size_t kDigits = 8;
    const std::string stem = file.stem().string();
    const std::string digits = stem.size() < kDigits ? "" : stem.substr(stem.size() - kDigits);
    const auto address = digits.empty() ? std::nullopt : parseNumber("0x" + digits, UINT32_MAX);
    if (!address) {
        throw std::runtime_error(file.string() +
                                 ": the name must end in the address, as in 03-10400000.bin");
    }
    return static_cast<uint32_t>(*address);
}

std::vector<fs::path> blockFilesIn(const std::string& directory) {
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        if (entry.path().extension() == ".bin") files.push_back(entry.path());
    }
    if (error) throw std::runtime_error(directory + ": " + error.message());
    std::sort(files.begin(), files.end());
    return files;
}

int build(const Cli& cli, const std::string& directory, const std::string& target) {
    Bytes partition;
    std::vector<ScreenFilePart> parts;
    try {
        for (const fs::path& file : blockFilesIn(directory)) {
            parts.push_back({addressIn(file), bytesOfFile(file)});
        }
        partition = buildScreenFile(parts);
    } catch (const std::runtime_error& error) {
        cli.console.err << directory << ": " << error.what() << '\n';
        return kBadData;
    }
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(partition.data()),
              static_cast<std::streamsize>(partition.size()));
    if (!out.flush()) throw std::runtime_error(target + " cannot be written");
    cli.console.out << target << ": " << parts.size() << " blocks, " << partition.size()
                    << " bytes\n";
    return kOk;
}

void addShow(CLI::App& screen, Cli& cli) {
    auto file = std::make_shared<std::string>();
    CLI::App* command = screen.add_subcommand("show", "Print a partition's blocks");
    command->add_option("FILE", *file, "The partition's content")
        ->required()
        ->check(CLI::ExistingFile);
    command->footer("Example: quilctl screen show my-board/rootfs/dev/block/by-name/screen");
    command->callback(
        [&cli, file] { cli.action = [&cli, file] { return showScreen(cli, *file); }; });
}

void addBuild(CLI::App& screen, Cli& cli) {
    auto directory = std::make_shared<std::string>(), target = std::make_shared<std::string>();
    CLI::App* command = screen.add_subcommand(
        "build", "Make a partition from block files: 00-10018000.bin, 01-10B00000.bin, ..");
    command->add_option("DIR", *directory, "Where the block files are; they go by their names")
        ->required()
        ->check(CLI::ExistingDirectory);
    command->add_option("OUT", *target, "The partition to write")->required();
    command->footer("Example: quilctl screen build blocks screen.img");
    command->callback([&cli, directory, target] {
        cli.action = [&cli, directory, target] { return build(cli, *directory, *target); };
    });
}

}  // namespace

void addScreenCommands(CLI::App& app, Cli& cli) {
    CLI::App* screen = app.add_subcommand("screen", "Partitions of screen parameters");
    screen->require_subcommand(1);
    screen->fallthrough();
    screen->footer("Example: quilctl screen show screen.img");
    addShow(*screen, cli);
    addBuild(*screen, cli);
}

}  // namespace quil::tools
