#include "board/board_directory.h"

#include <array>
#include <sstream>
#include <stdexcept>

#include "board/core/whole_file.h"
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
    {
        .product = Product::kHeron,
        .name = "Heron",
        .moduleId = "101",
        .uart = "/dev/ttyS3",
        .baud = 115200,
        .mcu = McuKind::kGd32F303,
        .mcuImageSize = 8192,
        .mcuVersion = "V1.0.0",
        .fpgaVersion = "V2.1.0",
        .fpgaFormer = "V2.0.7",
        .wdtSwitch = 431,
        .wdtPulse = 432,
        .wdtStartup = 1,
        .fpgaControl = 441,
        .fpgaConfig = 442,
        .fpgaDone = 443,
        .selfTestItems = "1-2-3-5",
        .audioCodecs = 1,
    },
    {
        .product = Product::kKestrel,
        .name = "Kestrel",
        .moduleId = "102",
        .uart = "/dev/ttyS1",
        .baud = 115200,
        .mcu = McuKind::kStm32H750,
        .mcuImageSize = 8192,
        .mcuVersion = "V1.2.0",
        .fpgaVersion = "V3.0.2",
        .fpgaFormer = "",
        .wdtSwitch = 451,
        .wdtPulse = 452,
        .wdtStartup = 1,
        .fpgaControl = 461,
        .fpgaConfig = 462,
        .fpgaDone = 463,
        .selfTestItems = "1-3-4-5",
        .audioCodecs = 2,
    },
    {
        .product = Product::kWrenT507,
        .name = "Wren_t507",
        .moduleId = "103",
        .uart = "/dev/ttyS2",
        .baud = 1000000,
        .mcu = McuKind::kN32G45x,
        .mcuImageSize = 8000,
        .mcuVersion = "V2.0.1",
        .fpgaVersion = "V1.4.0",
        .fpgaFormer = "V1.3.2",
        .wdtSwitch = 131,
        .wdtPulse = 132,
        .wdtStartup = 2,
        .fpgaControl = 141,
        .fpgaConfig = 142,
        .fpgaDone = 143,
        .selfTestItems = "1-2-4",
        .audioCodecs = 1,
    },
}};

const ProductRow& rowOf(Product product) { return kProducts.at(static_cast<size_t>(product)); }

std::string productFile(const ProductRow& row) {
    const std::string name = row.name;
    std::ostringstream text;
    text << "; What this board is and where its parts are.\n"
         << "[product]\nproduct = " << name << "\n\n"
         << "[block]\nfpga_parameter = screen\nhex_parameter = hexparam\n\n"
         << "[fpga]\nfpga_fw_path = /vendor/firmware/fpga_" << name << ".bin\n"
         << "fpga_drv_path = /dev/fpga_spi\nfpga_fw_version = " << row.fpgaVersion << "\n"
         << "fpga_control_gpio = " << row.fpgaControl << "\n"
         << "fpga_config_gpio = " << row.fpgaConfig << "\n"
         << "fpga_done_gpio = " << row.fpgaDone << "\n\n"
         << "[mcu]\nmcu_type = 1\nmcu_serial = " << partOf(row.mcu).name << "\n"
         << "mcu_fw_path = /vendor/firmware/mcu_" << name << ".bin\n"
         << "mcu_fw_version = " << row.mcuVersion << "\n"
         << "mcu_uart_path = " << row.uart << "\nmcu_baud_rate = " << row.baud << "\n"
         << "mcu_sock_path = /dev/socket/mcu\n\n"
         << "[mcu_wdt]\nmcu_wdt_switch = " << row.wdtSwitch << "\n"
         << "mcu_wdt_pulse = " << row.wdtPulse << "\n"
         << "mcu_wdt_startup_type = " << row.wdtStartup << "\n\n"
         << "[self_test]\nself_test_items = " << row.selfTestItems << "\n"
         << "audio_num = " << row.audioCodecs << "\n";
    return text.str();
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
    "mtd0                    the serial flash with the FPGA's configuration; what lies behind\n"
    "                        the file's end is erased\n"
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

// The flash holds an older image than the file system. A Kestrel's flash is empty: the platform
// loads its FPGA at each start.
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

}  // namespace quil::board
