#include "tests/swarm/ground.h"

#include <iterator>
#include <sstream>

#include "board/board_directory.h"
#include "board/fpga/fpga_image.h"
#include "board/fpga/screen_partition.h"
#include "board/mcu/mcu_image.h"

namespace quil::swarm {
namespace {

constexpr char kScreenFile[] = "rootfs/dev/block/by-name/screen";

// Replaces the value in the line "key = value".
void setValue(std::string& text, const std::string& key, const std::string& value) {
    const std::string start = "\n" + key + " = ";
    const size_t at = text.find(start) + start.size();
    text.replace(at, text.find('\n', at) - at, value);
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// What it says stays the same.
void changeLook(std::string& line, board::Random& random) {
    const size_t equals = line.find(" = ");
    if (equals != std::string::npos) {
        const char* const kSigns[] = {"=", " =", "= ", "  =  ", " = "};
        line.replace(equals, 3, kSigns[random.below(std::size(kSigns))]);
    }
    const char* const kAfter[] = {"", "", "\n", "\n; note = 1", "\n# note", " "};
    line += kAfter[random.below(std::size(kAfter))];
}

void makeWrong(std::string& line, board::Random& random) {
    const std::string kValues[] = {"",  "-1",        "99999999999", "0",
                                   "x", "/dev/null", " = ",         std::string(300, 'y')};
    const size_t equals = line.find('=');
    line.resize(std::min(line.size(), equals));
    line += "= " + kValues[random.below(std::size(kValues))];
}

std::string damaged(const std::string& text, ProductFile how, board::Random& random) {
    std::vector<std::string> lines = linesOf(text);
    size_t chosen = random.below(lines.size());
    while (lines[chosen].find('=') == std::string::npos) chosen = (chosen + 1) % lines.size();
    std::string result;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (how == ProductFile::kOtherLook) changeLook(lines[i], random);
        if (how == ProductFile::kValueWrong && i == chosen) makeWrong(lines[i], random);
        if (how != ProductFile::kLineLost || i != chosen) result += lines[i] + '\n';
    }
    if (how == ProductFile::kCutOff) result.resize(random.below(result.size()));
    for (int flips = how == ProductFile::kNoise ? 4 : 0; flips > 0; --flips) {
        result[random.below(result.size())] = static_cast<char>(random.next());
    }
    return result;
}

std::string productFileOf(const World& world) {
    std::string text = board::factoryProductFile(world.product);
    setValue(text, "mcu_serial", board::partOf(world.part).name);
    setValue(text, "mcu_fw_version", kShippedMcu);
    setValue(text, "fpga_fw_version", kShippedFpga);
    setValue(text, "self_test_items", world.selfTestItems);
    setValue(text, "audio_num", world.codecs);
    if (world.productFile == ProductFile::kFactory) return text;
    board::Random random(world.seed, "product file's text");
    return damaged(text, world.productFile, random);
}

std::string screenOf(const World& world) {
    std::string content = board::makeScreenPartition(board::factoryScreen());
    if (world.screen == Screen::kEmpty) content.assign(4096, '\0');
    if (world.screen == Screen::kTruncated) content.resize(content.size() / 3);
    if (world.screen == Screen::kNoise) {
        board::Random random(world.seed, "screen");
        for (char& byte : content) byte = static_cast<char>(random.next());
        for (size_t i = 0; i < 3; ++i) content[i] = '\0';  // or there were too many blocks to try
    }
    return content;
}

}  // namespace

std::string Ground::mcuImageOf(const World& world, const char* version) {
    return board::makeMcuImage(world.part, version, world.mcuImage);
}

std::string Ground::fpgaImageOf(const World& world, const char* version) {
    return board::makeFpgaImage(version, world.fpgaImage);
}

board::OverlayStore::Files Ground::keptBefore(const World& world) {
    const char* version = world.mcuIsOlder ? kOlderMcu : kShippedMcu;
    std::string properties = "persist.quil.device.log.level=" + world.logLevel + "\n";
    if (world.fpgaIsPending) properties += "persist.quil.system.fpga.fw.update=1\n";
    const std::string firmware = "rootfs/vendor/firmware/";
    const std::string name(board::nameOf(world.product));
    board::OverlayStore::Files files = {
        {"mcu/flash", world.mcuIsBlank ? "" : mcuImageOf(world, version)},
        {"mtd0", fpgaImageOf(world, kOlderFpga)},
        {"parts", world.parts},
        {"properties", properties},
        {firmware + "mcu_" + name + ".bin", mcuImageOf(world, kShippedMcu)},
        {firmware + "fpga_" + name + ".bin", fpgaImageOf(world, kShippedFpga)},
        {board::kProductFile, productFileOf(world)},
        {kScreenFile, std::nullopt}};
    if (world.screen != Screen::kMissing) files[kScreenFile] = screenOf(world);
    return files;
}

std::shared_ptr<const board::Store> Ground::factoryOf(board::Product product) {
    auto& factory = mFactories[product];
    if (factory == nullptr) factory = board::factoryBoard(product);
    return factory;
}

}  // namespace quil::swarm
