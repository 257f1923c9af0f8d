#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <set>
#include <stdexcept>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/screen_picture.h"
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

void addBlock(Result& result, size_t index, const ScreenFileBlock& block) {
    char line[96];
    snprintf(line, sizeof(line), "%2zu  0x%06zx  0x%08X  %6zu  %-19s  ", index, block.offset,
             block.address, block.data.size(), block.kind.c_str());
    result.text << line << block.sent;
    if (!block.remark.empty()) result.text << " (" << block.remark << ")";
    result.text << '\n';
}

struct ShowArguments {
    std::string file, svg, png;
};

void writeFile(const std::string& file, std::string_view content) {
    try {
        board::writeWholeFile(file, content);
    } catch (const std::runtime_error& error) {
        throw Failure(kNotWritten, error.what());
    }
}

// Debian's program for it, as a process of its own.
void writePng(const std::string& file, const std::string& svg) {
    const board::TemporaryDirectory scratch("screen");
    const std::string drawn = scratch.path() / "screen.svg", png = scratch.path() / "screen.png";
    writeFile(drawn, svg);
    std::string words[] = {"rsvg-convert", "--output", png, drawn};
    char* const argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                          nullptr};
    pid_t process = -1;
    const int error = posix_spawnp(&process, argv[0], nullptr, nullptr, argv, environ);
    if (error != 0) {
        throw Failure(kNotWritten, file + ": rsvg-convert does not start: " + strerror(error),
                      "install librsvg2-bin, or take --svg");
    }
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    const auto picture = board::readWholeFile(png);
    if (status != 0 || !picture) throw Failure(kNotWritten, file + ": rsvg-convert has failed");
    writeFile(file, *picture);
}

void writePictures(const ShowArguments& arguments, const ScreenPicture& picture, Result& result) {
    const std::string svg = svgOf(picture);
    if (!arguments.svg.empty()) writeFile(arguments.svg, svg);
    if (!arguments.png.empty()) writePng(arguments.png, svg);
    for (const std::string& file : {arguments.svg, arguments.png}) {
        if (!file.empty()) result.json["files"].push_back(file);
    }
}

void throwIfDamaged(const std::string& name, const ScreenFile& file) {
    if (!file.damage) return;
    char offset[24];
    snprintf(offset, sizeof(offset), "0x%06zx", file.damage->offset);
    throw Failure(kBadData, name + ": damaged at offset " + offset + ": " + file.damage->reason);
}

void showScreen(const Cli& cli, const ShowArguments& arguments, Result& result) {
    const Bytes bytes = bytesOfFile(arguments.file);
    const ScreenFile file = readScreenFile(bytes);
    result.json = jsonOf(file);
    result.text << " #  offset    address     length  kind                 what is sent\n";
    for (size_t i = 0; i < file.blocks.size(); ++i) addBlock(result, i, file.blocks[i]);
    const ScreenFrames all = inAll(file);
    result.text << file.blocks.size() << (file.blocks.size() == 1 ? " block, " : " blocks, ")
                << file.size << " bytes; sent for them: " << all.count << " frames, " << all.size
                << " bytes\n";
    const ScreenPicture picture = pictureOf(file);
    const bool isFile = !arguments.svg.empty() || !arguments.png.empty();
    if (!isFile && cli.console.screen.isTerminal) result.text << textPictureOf(picture);
    writePictures(arguments, picture, result);
    throwIfDamaged(arguments.file, file);
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

struct ExtractArguments {
    std::string file, directory;
};

// Names that build takes in the blocks' order.
std::string blockName(size_t index, uint32_t address) {
    char name[40];
    snprintf(name, sizeof(name), "%02zu-%08X.bin", index, address);
    return name;
}

// A build takes all block files of its folder.
void requireNoOthers(const std::string& directory, const ScreenFile& file) {
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw failureOf(kNotWritten, directory + " cannot be made", error.value());
    std::set<fs::path> own;
    for (size_t i = 0; i < file.blocks.size(); ++i) {
        own.insert(blockName(i, file.blocks[i].address));
    }
    for (const fs::path& found : blockFilesIn(directory)) {
        if (own.count(found.filename()) != 0) continue;
        throw Failure(kNotWritten, directory + ": has block files of another partition: " +
                                       found.filename().string());
    }
}

// What lies behind the last block belongs to nobody, and is not kept.
void extract(const Cli& /*cli*/, const ExtractArguments& arguments, Result& result) {
    const Bytes bytes = bytesOfFile(arguments.file);
    const ScreenFile file = readScreenFile(bytes);
    throwIfDamaged(arguments.file, file);
    requireNoOthers(arguments.directory, file);
    for (size_t i = 0; i < file.blocks.size(); ++i) {
        const ScreenFileBlock& block = file.blocks[i];
        writeFile(fs::path(arguments.directory) / blockName(i, block.address),
                  {reinterpret_cast<const char*>(block.data.data()), block.data.size()});
    }
    result.json = {
        {"directory", arguments.directory}, {"files", file.blocks.size()}, {"size", file.size}};
    result.text << arguments.directory << ": " << file.blocks.size() << " files of " << file.size
                << " bytes\n";
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
    writeFile(arguments.target,
              {reinterpret_cast<const char*>(partition.data()), partition.size()});
    result.json = {
        {"file", arguments.target}, {"blocks", parts.size()}, {"size", partition.size()}};
    result.text << arguments.target << ": " << parts.size() << " blocks, " << partition.size()
                << " bytes\n";
}

void addShow(CLI::App& screen, Cli& cli) {
    const auto [command, arguments] = addVerb(
        screen, cli,
        {"show", "Print a partition's blocks",
         "Behind them on a terminal, or in a file, a picture: the topologies, the gamma curves;\n"
         "in a file the blocks, too.\n"
         "Example: quilctl screen show my-board/rootfs/dev/block/by-name/screen\n"
         "         quilctl screen show screen.img --svg screen.svg --png screen.png",
         kNoBoardOption},
        showScreen);
    command.add_option("--svg", arguments.svg, "Write the picture there")
        ->type_name("FILE")
        ->check(outputFile());
    command.add_option("--png", arguments.png, "Write it as pixels (with rsvg-convert)")
        ->type_name("FILE")
        ->check(outputFile());
    command.add_option("FILE", arguments.file, "The partition's content")
        ->required()
        ->check(CLI::ExistingFile);
}

void addExtract(CLI::App& screen, Cli& cli) {
    const auto [command, arguments] =
        addVerb(screen, cli,
                {"extract", "Write a partition's blocks into files, as build takes them",
                 "Example: quilctl screen extract screen.img blocks", kNoBoardOption},
                extract);
    command.add_option("FILE", arguments.file, "The partition's content")
        ->required()
        ->check(CLI::ExistingFile);
    command.add_option("DIR", arguments.directory, "Where they go; it has no others")->required();
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
    command.add_option("OUT", arguments.target, "The partition to write")
        ->required()
        ->check(outputFile());
}

}  // namespace

void addScreenCommands(CLI::App& app, Cli& cli) {
    CLI::App& screen = addGroup(app, {"screen", "Partitions of screen parameters",
                                      "Example: quilctl screen show screen.img"});
    addShow(screen, cli);
    addExtract(screen, cli);
    addBuild(screen, cli);
}

}  // namespace quil::tools
