#include "tests/swarm/ground.h"

#include "board/board_directory.h"
#include "board/core/whole_file.h"
#include "board/fpga/fpga_image.h"
#include "board/fpga/screen_partition.h"
#include "board/mcu/mcu_image.h"

namespace quil::swarm {
namespace {

namespace fs = std::filesystem;

constexpr char kScreenFile[] = "rootfs/dev/block/by-name/screen";

// Replaces the value in the line "key = value".
void setValue(std::string& text, const std::string& key, const std::string& value) {
    const std::string start = "\n" + key + " = ";
    const size_t at = text.find(start) + start.size();
    text.replace(at, text.find('\n', at) - at, value);
}

std::string productFileOf(const World& world, std::string text) {
    setValue(text, "mcu_serial", board::partOf(world.part).name);
    setValue(text, "mcu_fw_version", kShippedMcu);
    setValue(text, "fpga_fw_version", kShippedFpga);
    setValue(text, "self_test_items", world.selfTestItems);
    setValue(text, "audio_num", world.codecs);
    return text;
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

void removeLeftovers(const fs::path& root) {
    std::error_code ignored;
    for (const char* folder : {"sdcard", "opt"}) {
        for (const auto& entry : fs::directory_iterator(root / folder, ignored)) {
            fs::remove(entry.path(), ignored);
        }
    }
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
    return {{"mcu/flash", world.mcuIsBlank ? "" : mcuImageOf(world, version)},
            {"mcu/values", ""},
            {"mtd0", fpgaImageOf(world, kOlderFpga)},
            {"parts", world.parts},
            {"properties", properties}};
}

void Ground::write(Place& place, const std::string& name, const std::string& content) {
    const auto [written, isNew] = place.written.try_emplace(name);
    if (!isNew && written->second == content) return;
    board::writeWholeFile(place.directory.path() / name, content);
    written->second = content;
}

fs::path Ground::prepare(const World& world) {
    std::unique_ptr<Place>& place = mPlaces[world.product];
    if (place == nullptr) {
        place = std::make_unique<Place>();
        board::createBoardDirectory(place->directory.path(), world.product);
        place->productFile =
            board::readWholeFile(place->directory.path() / board::kProductFile).value();
    }
    const fs::path root = place->directory.path() / "rootfs";
    const std::string firmware = "rootfs/vendor/firmware/";
    const std::string name(board::nameOf(world.product));
    removeLeftovers(root);
    write(*place, board::kProductFile, productFileOf(world, place->productFile));
    write(*place, firmware + "mcu_" + name + ".bin", mcuImageOf(world, kShippedMcu));
    write(*place, firmware + "fpga_" + name + ".bin", fpgaImageOf(world, kShippedFpga));
    if (world.screen == Screen::kMissing) {
        fs::remove(place->directory.path() / kScreenFile);
        place->written.erase(kScreenFile);
    } else {
        write(*place, kScreenFile, screenOf(world));
    }
    return place->directory.path();
}

}  // namespace quil::swarm
