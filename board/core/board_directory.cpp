#include "board/core/board_directory.h"

#include <array>
#include <fstream>
#include <stdexcept>

#include "board/fpga/fpga_image.h"
#include "board/fpga/screen_partition.h"
#include "board/mcu/mcu_image.h"

namespace quil::board {
namespace {

struct ProductRow {
    Product product;
    const char* name;
    const char* moduleId;
    const char* uart;
    int baud;
    McuKind mcu;
    size_t mcuImageSize;
    const char* mcuVersion;
    const char* fpgaVersion;
    const char* fpgaFormer;  // the version in the flash
    int wdtSwitch, wdtPulse, wdtStartup;
    int fpgaControl, fpgaConfig, fpgaDone;
    const char* selfTestItems;
    int audioCodecs;
};
constexpr std::array<ProductRow, 3> kProducts = {{
    {Product::kHeron, "Heron", "101", "/dev/ttyS3", 115200, McuKind::kGd32F303, 8192, "V1.0.0",
     "V2.1.0", "V2.0.7", 431, 432, 1, 441, 442, 443, "1-2-3-5", 1},
    {Product::kKestrel, "Kestrel", "102", "/dev/ttyS1", 115200, McuKind::kStm32H750, 8192, "V1.2.0",
     "V3.0.2", "", 451, 452, 1, 461, 462, 463, "1-3-4-5", 2},
    {Product::kWrenT507, "Wren_t507", "103", "/dev/ttyS2", 1000000, McuKind::kN32G45x, 8000,
     "V2.0.1", "V1.4.0", "V1.3.2", 131, 132, 2, 141, 142, 143, "1-2-4", 1},
}};

const ProductRow& rowOf(Product product) { return kProducts.at(static_cast<size_t>(product)); }

std::string productFile(const ProductRow& row) {
    const std::string name = row.name;
    const auto number = [](int value) { return std::to_string(value) + "\n"; };
    return "; What this board is and where its parts are.\n"
           "[product]\nproduct = " +
           name +
           "\n\n"
           "[block]\nfpga_parameter = screen\nhex_parameter = hexparam\n\n"
           "[fpga]\nfpga_fw_path = /vendor/firmware/fpga_" +
           name +
           ".bin\n"
           "fpga_drv_path = /dev/fpga_spi\nfpga_fw_version = " +
           row.fpgaVersion +
           "\n"
           "fpga_control_gpio = " +
           number(row.fpgaControl) + "fpga_config_gpio = " + number(row.fpgaConfig) +
           "fpga_done_gpio = " + number(row.fpgaDone) +
           "\n"
           "[mcu]\nmcu_type = 1\nmcu_serial = " +
           partOf(row.mcu).name +
           "\n"
           "mcu_fw_path = /vendor/firmware/mcu_" +
           name +
           ".bin\n"
           "mcu_fw_version = " +
           row.mcuVersion +
           "\n"
           "mcu_uart_path = " +
           row.uart + "\nmcu_baud_rate = " + number(row.baud) +
           "mcu_sock_path = /dev/socket/mcu\n\n"
           "[mcu_wdt]\nmcu_wdt_switch = " +
           number(row.wdtSwitch) + "mcu_wdt_pulse = " + number(row.wdtPulse) +
           "mcu_wdt_startup_type = " + number(row.wdtStartup) +
           "\n"
           "[self_test]\nself_test_items = " +
           row.selfTestItems +
           "\n"
           "audio_num = " +
           number(row.audioCodecs);
}

constexpr const char kReadme[] =
    "A simulated board. Everything here may be looked at and edited while the board is off.\n"
    "\n"
    "rootfs/                 the board's file system: /vendor/etc/product.ini stands in\n"
    "                        rootfs/vendor/etc/product.ini, and so on\n"
    "rootfs/vendor/firmware/ firmware images of the MCU and the FPGA\n"
    "rootfs/dev/block/by-name/screen  the partition of screen parameters\n"
    "rootfs/sdcard/          the SD card\n"
    "rootfs/opt/             where the boot-loader tool leaves what it reads back\n"
    "mcu/flash               the MCU's flash from its start; what is not there is erased\n"
    "mcu/option_bytes        its protection, where any was ever set\n"
    "mcu/values              what the MCU keeps: one \"command = bytes\" a line, in hex\n"
    "mtd0                    the serial flash with the FPGA's configuration; behind the file's "
    "end\n"
    "                        it is erased\n"
    "parts                   what is wrong with parts: one \"rtc = faulty\" a line; rtc, es8316,\n"
    "                        es8316.0, wifi-ap, wifi-sta, idt6965: healthy, faulty or absent;\n"
    "                        sdcard: present, missing, full or read-only\n"
    "properties              the system properties: one \"name=value\" a line\n"
    "product_information     the module id, decimal text\n";

}  // namespace

std::optional<Product> productByName(std::string_view name) {
    for (const ProductRow& row : kProducts) {
        if (name == row.name) return row.product;
    }
    return std::nullopt;
}

std::string_view nameOf(Product product) { return rowOf(product).name; }

namespace {

constexpr size_t kFpgaImageSize = 65536;

// The flash holds an image that is older than the one in the file system; a Kestrel's FPGA is
// loaded by the platform at each start.
void writeFpgaSide(const std::filesystem::path& dir, const ProductRow& row) {
    const auto root = dir / "rootfs";
    const std::string image = "fpga_" + std::string(row.name) + ".bin";
    writeWholeFile(root / "vendor/firmware" / image,
                   makeFpgaImage(row.fpgaVersion, kFpgaImageSize));
    writeWholeFile(root / "vendor/bin/mtd_debug", "the board's shell does its work\n");
    writeWholeFile(root / "vendor_dlkm/lib/modules/dwmac-meson8b.ko", "a kernel module\n");
    const auto blocks = root / "dev/block/by-name";
    writeWholeFile(blocks / "screen", makeScreenPartition(factoryScreen()));
    writeWholeFile(blocks / "hexparam", std::string(64, '\xA5'));
    const bool bootsFromFlash = row.product != Product::kKestrel;
    writeWholeFile(dir / "mtd0",
                   bootsFromFlash ? makeFpgaImage(row.fpgaFormer, kFpgaImageSize) : "");
}

}  // namespace

void createBoardDirectory(const std::filesystem::path& dir, Product product,
                          std::string_view flashedVersion) {
    namespace fs = std::filesystem;
    const ProductRow& row = rowOf(product);
    const std::string name = row.name;
    std::error_code error;
    for (const char* part :
         {"rootfs/vendor/etc", "rootfs/vendor/firmware", "rootfs/vendor/bin", "rootfs/sdcard",
          "rootfs/opt", "rootfs/vendor_dlkm/lib/modules", "rootfs/dev/block/by-name", "mcu"}) {
        if (fs::exists(dir / part, error)) {
            throw std::runtime_error(dir.string() + ": holds a board already");
        }
        fs::create_directories(dir / part, error);
        if (error) throw std::runtime_error((dir / part).string() + ": " + error.message());
    }
    writeWholeFile(dir / "README", kReadme);
    writeWholeFile(dir / "rootfs/vendor/etc/product.ini", productFile(row));
    writeWholeFile(dir / "rootfs/vendor/firmware" / ("mcu_" + name + ".bin"),
                   makeMcuImage(row.mcu, row.mcuVersion, row.mcuImageSize));
    writeFpgaSide(dir, row);
    const std::string_view flashed = flashedVersion.empty() ? row.mcuVersion : flashedVersion;
    writeWholeFile(dir / "mcu/flash", makeMcuImage(row.mcu, flashed, row.mcuImageSize));
    writeWholeFile(dir / "mcu/values", "");
    writeWholeFile(dir / "properties", "");
    writeWholeFile(dir / "product_information", std::string(row.moduleId) + "\n");
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path, uint64_t most) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return std::nullopt;
    const auto size = std::min<uint64_t>(static_cast<uint64_t>(std::streamoff{file.tellg()}), most);
    std::string content(static_cast<size_t>(size), '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(file.gcount()));
    return content;
}

void writeWholeFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.flush();
    if (!file) throw std::runtime_error(path.string() + ": cannot be written");
}

}  // namespace quil::board
