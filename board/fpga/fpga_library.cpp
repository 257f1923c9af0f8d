#include "board/fpga/fpga_library.h"

#include <errno.h>
#include <string.h>

#include "board/devices/ini_reader.h"
#include "board/fpga/screen_partition.h"

namespace quil::board {
namespace {

std::string textOrNull(const char* text) { return text != nullptr ? text : "(null)"; }

constexpr char kBlockDevices[] = "/dev/block/by-name/";

}  // namespace

FpgaLibrary::FpgaLibrary(BoardServices& board, const Parts& parts) : mBoard(board), mParts(parts) {
    mBoard.trace.onClear([this] { mTexts.clear(); });
}
FpgaLibrary::~FpgaLibrary() = default;

template <typename Work>
int32_t FpgaLibrary::call(const char* name, const std::string& arguments, Work work) {
    Guard guard(boardLock());
    mBoard.trace.add(EventKind::kVendor, name, arguments);
    if (const auto fault = mBoard.faults.take(Call::kVendor, name)) return -fault->error;
    return work();
}

void FpgaLibrary::keep(std::initializer_list<const char*> texts) {
    Guard guard(boardLock());
    mTexts.insert(mTexts.end(), texts);
}

int32_t FpgaLibrary::setLine(int32_t number, int32_t level) {
    Guard guard(boardLock());
    GpioLine* line = mParts.gpio.find(number);
    if (line == nullptr) return -ENODEV;
    if (level != 0 && level != 1) {
        mBoard.violation("hal", line->name() + " is set to " + std::to_string(level));
        return -EINVAL;
    }
    return -line->drive(level);
}

int32_t FpgaLibrary::readLine(int32_t number) {
    Guard guard(boardLock());
    const GpioLine* line = mParts.gpio.find(number);
    return line != nullptr ? line->read() : -ENODEV;
}

int32_t FpgaLibrary::readSysfs(const char* path, char* buffer, uint32_t size) {
    if (path == nullptr || buffer == nullptr) return -EINVAL;
    Guard guard(boardLock());
    if (const auto fault = mBoard.faults.take(Call::kOpen, path)) return -fault->error;
    if (const int error = mParts.sysfs.refusal(path, true, false)) return -error;
    if (const auto fault = mBoard.faults.take(Call::kRead, path)) {
        if (fault->error != 0) return -fault->error;
        if (fault->shortTo) size = static_cast<uint32_t>(std::min<size_t>(size, *fault->shortTo));
    }
    return static_cast<int32_t>(mParts.sysfs.open(path)->read(buffer, size));
}

bool FpgaLibrary::readFile(const std::string& path, std::vector<uint8_t>* content) {
    if (!BoardServices::isBoards(path.c_str())) return false;
    if (mBoard.faults.take(Call::kOpen, path)) return false;
    std::string bytes;
    if (mBoard.readFile(path, &bytes) != 0) return false;
    content->assign(bytes.begin(), bytes.end());
    return true;
}

int32_t FpgaLibrary::loadProgram(const char* driver, const char* image) {
    keep({driver, image});
    const std::string arguments = textOrNull(driver) + ", " + textOrNull(image);
    return call("hal_fpga_load_program_sync", arguments, [&] {
        std::vector<uint8_t> content;
        if (textOrNull(driver) != kFpgaDevice) return -ENODEV;
        if (!readFile(textOrNull(image), &content)) return -ENOENT;
        return mParts.fpga.load(content).empty() ? 0 : -EIO;
    });
}

int32_t FpgaLibrary::switchGmacToUdp() {
    return call("fpgaSwitchGmacToUdp", "", [&] {
        if (!mParts.fpga.isConfigured()) return -EIO;
        mParts.fpga.setUdpMode();
        return 0;
    });
}

int32_t FpgaLibrary::configureEth1() {
    return call("bi_fpga_eth1_config_kestrel", "", [&] {
        return mParts.network.configure(kKestrelAddress, kKestrelMask) ? 0 : -ENODEV;
    });
}

// Writes each block to its address; unlike the product, the library knows no kinds of blocks.
int32_t FpgaLibrary::sendScreen(const std::string& partition, int64_t byteNanos, const char* how) {
    std::vector<uint8_t> content;
    if (!mParts.fpga.isConfigured()) return -EIO;
    if (!readFile(partition, &content)) return -ENOENT;
    const auto blocks = readScreenPartition(content);
    if (blocks.empty()) return -EINVAL;
    for (const ScreenBlock& block : blocks) {
        mBoard.spendDeviceTime(Nanos(byteNanos * static_cast<int64_t>(block.data.size())), how);
        mParts.fpga.writeMemory(block.address, block.data);
    }
    return 0;
}

int32_t FpgaLibrary::loadScreenByUdp(const char* parameters, const char* hexParameters) {
    keep({parameters, hexParameters});
    const std::string arguments = textOrNull(parameters) + ", " + textOrNull(hexParameters);
    return call("bi_fpga_load_screen_params_by_udp", arguments, [&] {
        std::vector<uint8_t> hexContent;
        if (!mParts.network.eth1().up) return -ENETDOWN;
        if (!readFile(kBlockDevices + textOrNull(hexParameters), &hexContent)) return -ENOENT;
        mParts.fpga.setUdpMode();
        return sendScreen(kBlockDevices + textOrNull(parameters), kUdpByteNanos, "udp");
    });
}

int32_t FpgaLibrary::loadParameters() {
    return call("bi_fpga_load_parameter", "",
                [&] { return sendScreen(kScreenPartition, Fpga::kSpiByte.count(), "spi"); });
}

int32_t FpgaLibrary::updateProgram() {
    return call("bi_fpga_active_update_program", "", [&] { return reprogram(); });
}

// Writes the image that the product file names.
int32_t FpgaLibrary::reprogram() {
    IniReader reader;
    std::string text;
    mBoard.readFile("/vendor/etc/product.ini", &text);
    const int handle = reader.loadText(text);
    const std::string* path = reader.find(handle, "fpga", "fpga_fw_path");
    std::vector<uint8_t> image;
    if (path == nullptr || !readFile(*path, &image) || image.empty()) return -ENOENT;
    constexpr uint32_t kSector = SerialFlash::kSector;
    const auto sectors = static_cast<uint32_t>((image.size() + kSector - 1) / kSector);
    GpioLine& control = mParts.fpga.lines().control;
    control.drive(0);
    const int erased = mParts.flash.erase(0, sectors * kSector);
    const int programmed = erased != 0 ? erased : mParts.flash.program(0, image);
    control.drive(1);
    if (programmed != 0) return -programmed;
    const Nanos takes = Fpga::kConfigureByte * static_cast<int64_t>(image.size());
    mBoard.spendDeviceTime(Fpga::kClearing + takes, "fpga configuration");
    return mParts.fpga.isConfigured() ? 0 : -EIO;
}

}  // namespace quil::board
