#include "board/board_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "board/core/directory_lock.h"
#include "board/core/real_calls.h"
#include "board/core/whole_file.h"
#include "board/devices/ini_reader.h"
#include "board/fpga/fpga_image.h"
#include "board/fpga/screen_partition.h"
#include "board/mcu/mcu_chip.h"
#include "board/mcu/mcu_image.h"

namespace quil::board {

namespace fs = std::filesystem;

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

constexpr size_t kFormatMost = 100;  // bytes of its file that count

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
    "product_information     the module id, decimal text\n"
    "format                  of this directory; a newer one is refused\n"
    "lock                    who uses the board, while a program does\n"
    "*.quil-new              what a killed program did not finish writing\n"
    "*.damaged               what a repair kept aside\n";

}  // namespace

std::optional<Product> productByName(std::string_view name) {
    for (const ProductRow& row : kProducts) {
        if (name == row.name) return row.product;
    }
    return std::nullopt;
}

std::string_view nameOf(Product product) { return rowOf(product).name; }

std::optional<Product> productOf(const fs::path& boardDirectory) {
    IniReader reader;
    const int handle = reader.load(boardDirectory / kProductFile);
    return productOf(reader, handle, readWholeFile(boardDirectory / "product_information"));
}

std::optional<Product> productOf(const IniReader& reader, int productFile,
                                 const std::optional<std::string>& moduleId) {
    if (const std::string* name = reader.find(productFile, "product", "product")) {
        if (const auto product = productByName(*name)) return product;
    }
    for (const ProductRow& row : kProducts) {
        if (moduleId == std::string(row.moduleId) + "\n") return row.product;
    }
    return std::nullopt;
}

std::string factoryProductFile(Product product) { return productFile(rowOf(product)); }

std::vector<std::string> factoryFolders() {
    return {"mcu",
            "rootfs",
            "rootfs/dev",
            "rootfs/dev/block",
            "rootfs/dev/block/by-name",
            "rootfs/opt",
            "rootfs/sdcard",
            "rootfs/vendor",
            "rootfs/vendor/bin",
            "rootfs/vendor/etc",
            "rootfs/vendor/firmware",
            "rootfs/vendor_dlkm",
            "rootfs/vendor_dlkm/lib",
            "rootfs/vendor_dlkm/lib/modules"};
}

// The flash holds an older image than the file system. A Kestrel's flash is empty: the platform
// loads its FPGA at each start.
std::vector<FactoryFile> factoryFiles(Product product, std::string_view flashedMcuVersion) {
    constexpr size_t kFpgaImageSize = 65536;
    const ProductRow& row = rowOf(product);
    const std::string name = row.name;
    const std::string flashed(flashedMcuVersion.empty() ? row.mcuVersion : flashedMcuVersion);
    const auto text = [](std::string content) { return [content] { return content; }; };
    const auto mcuImage = [&row](const std::string& version) {
        return [&row, version] { return makeMcuImage(row.mcu, version, row.mcuImageSize); };
    };
    const auto fpgaImage = [](const std::string& version) {
        return [version] { return version.empty() ? "" : makeFpgaImage(version, kFpgaImageSize); };
    };
    return {
        {"README", text(kReadme)},
        {kLockFile, text("")},
        {kProductFile, text(productFile(row))},
        {"rootfs/vendor/firmware/mcu_" + name + ".bin", mcuImage(row.mcuVersion)},
        {"rootfs/vendor/firmware/fpga_" + name + ".bin", fpgaImage(row.fpgaVersion)},
        {"rootfs/vendor/bin/mtd_debug", text("the board's shell does its work\n")},
        {"rootfs/vendor_dlkm/lib/modules/dwmac-meson8b.ko", text("a kernel module\n")},
        {"rootfs/dev/block/by-name/screen", [] { return makeScreenPartition(factoryScreen()); }},
        {"rootfs/dev/block/by-name/hexparam", text(std::string(64, '\xA5'))},
        {"mtd0", fpgaImage(row.fpgaFormer)},
        {"mcu/flash", mcuImage(flashed)},
        {"mcu/values", text("")},
        {"properties", text("")},
        {"product_information", text(std::string(row.moduleId) + "\n")},
    };
}

std::shared_ptr<MemoryStore> factoryBoard(Product product, std::string_view flashedMcuVersion) {
    MemoryStore::Files files;
    for (const FactoryFile& file : factoryFiles(product, flashedMcuVersion)) {
        files[file.name] = file.content();
    }
    const auto folders = factoryFolders();
    return std::make_shared<MemoryStore>(std::move(files),
                                         std::set<std::string>(folders.begin(), folders.end()));
}

BoardFormat formatOf(const fs::path& boardDirectory) {
    std::error_code ignored;
    const fs::path file = boardDirectory / kFormatFile;
    if (!fs::exists(fs::symlink_status(file, ignored))) return {};
    return formatOfText(readWholeFile(file, kFormatMost).value_or(""));
}

BoardFormat formatOfText(const std::string& text) {
    std::istringstream words(text.substr(0, kFormatMost));
    BoardFormat format{0};
    std::string quil, board, state;
    if (!(words >> quil >> board >> format.number) || quil != "quil" || board != "board") {
        return {0};
    }
    if (words >> state && state == "unfinished") words >> format.unfinished;
    return format;
}

std::string textOf(const BoardFormat& format) {
    return "quil board " + std::to_string(format.number) +
           (format.unfinished.empty() ? "" : " unfinished " + format.unfinished) + "\n";
}

void requireBoard(const fs::path& dir) {
    std::error_code ignored;
    const BoardFormat format = formatOf(dir);
    if (!format.unfinished.empty()) {
        throw std::runtime_error(dir.string() + ": half a board, its making was interrupted " +
                                 "(quilctl board repair finishes it)");
    }
    if (format.number > kBoardFormat) {
        throw std::runtime_error(dir.string() + ": a board of format " +
                                 std::to_string(format.number) + "; this program knows format " +
                                 std::to_string(kBoardFormat));
    }
    if (format.number < 1) {
        throw std::runtime_error((dir / kFormatFile).string() +
                                 ": says no format (quilctl board repair writes it anew)");
    }
    if (!fs::is_directory(dir / "rootfs", ignored)) {
        throw std::runtime_error(dir.string() + ": not a board directory (no rootfs in it)");
    }
}

namespace {

// Claims an empty or new directory for a board, and takes back what it made unless the board gets
// finished.
class Making {
  public:
    Making(const fs::path& dir, Keeping keeping) : mDir(dir), mStore(dir, keeping) {
        if (dir.empty()) throw std::runtime_error("a board needs a directory: the name is empty");
        mMade = firstMissing(fs::absolute(dir));
        std::error_code error;
        fs::create_directories(dir, error);
        const bool isEmpty = !error && fs::is_empty(dir, error);
        if (error) throw std::system_error(error, dir.string() + ": cannot be made");
        if (!isEmpty) requireNoHalf();
        if (!isEmpty) throw std::runtime_error(dir.string() + ": not empty, as a new board's is");
    }
    ~Making() {
        std::error_code ignored;
        if (mFinished) return;
        if (!mMade.empty()) fs::remove_all(mMade, ignored);
        if (!mMade.empty() || !mIsClaimed) return;
        for (const auto& entry : fs::directory_iterator(mDir, ignored)) {
            fs::remove_all(entry.path(), ignored);
        }
    }
    Making(const Making&) = delete;
    Making& operator=(const Making&) = delete;

    // Of two programs that make a board in one place, the second one fails here.
    void claim(Product product) {
        const fs::path file = mDir / kFormatFile;
        const int fd = real().open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        const int error = errno;
        if (fd < 0 && error == EEXIST) mMade.clear();  // all is the other's now
        if (fd < 0) throw std::system_error(error, std::generic_category(), file.string());
        real().close(fd);
        mIsClaimed = true;
        put(kFormatFile, textOf({kBoardFormat, std::string(nameOf(product))}));
    }
    void makeFolder(const std::string& name) { fs::create_directory(mDir / name); }
    void put(const std::string& name, const std::string& content) { mStore.replace(name, content); }
    void finish() {
        put(kFormatFile, textOf(BoardFormat()));
        mFinished = true;
    }

  private:
    static fs::path firstMissing(fs::path dir) {
        std::error_code ignored;
        fs::path missing;
        for (; !dir.empty() && !fs::exists(dir, ignored); dir = dir.parent_path()) missing = dir;
        return missing;
    }
    void requireNoHalf() const {
        if (!formatOf(mDir).unfinished.empty()) requireBoard(mDir);
    }

    const fs::path mDir;
    DirectoryStore mStore;
    fs::path mMade;  // the topmost folder that was missing
    bool mIsClaimed = false, mFinished = false;
};

}  // namespace

void createBoardDirectory(const fs::path& dir, Product product, std::string_view flashedVersion,
                          Keeping keeping) {
    Making board(dir, keeping);
    board.claim(product);
    for (const std::string& folder : factoryFolders()) board.makeFolder(folder);
    for (const FactoryFile& file : factoryFiles(product, flashedVersion)) {
        board.put(file.name, file.content());
    }
    board.finish();
}

void resetBoardDirectory(const fs::path& dir, Product product, Keeping keeping) {
    DirectoryStore store(dir, keeping);
    store.replace(kFormatFile, textOf({kBoardFormat, std::string(nameOf(product))}));
    for (const std::string& folder : factoryFolders()) fs::create_directories(dir / folder);
    for (const FactoryFile& file : factoryFiles(product)) {
        if (file.name != kLockFile) store.replace(file.name, file.content());
    }
    for (const char* state : {"parts", "mcu/option_bytes"}) fs::remove(dir / state);
    store.replace(kFormatFile, textOf(BoardFormat()));
}

}  // namespace quil::board
