#include "tools/quilctl/files/product_rules.h"

#include <ctype.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <optional>

#include "board/board.h"
#include "board/core/bytes.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "tools/quilctl/files/fpga_file.h"
#include "tools/quilctl/output/nearest_words.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/programming/contract_checks.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

constexpr char kProduct[] = "[product] product", kUart[] = "[mcu] mcu_uart_path",
               kBaud[] = "[mcu] mcu_baud_rate", kChip[] = "[mcu] mcu_serial",
               kMcuVersion[] = "[mcu] mcu_fw_version", kMcuImage[] = "[mcu] mcu_fw_path",
               kFpgaVersion[] = "[fpga] fpga_fw_version", kFpgaImage[] = "[fpga] fpga_fw_path",
               kDriver[] = "[fpga] fpga_drv_path", kItems[] = "[self_test] self_test_items";
constexpr std::array<const char*, 5> kLines = {
    "[fpga] fpga_control_gpio", "[fpga] fpga_config_gpio", "[fpga] fpga_done_gpio",
    "[mcu_wdt] mcu_wdt_switch", "[mcu_wdt] mcu_wdt_pulse"};
constexpr std::array<const char*, 2> kBlocks = {"[block] fpga_parameter", "[block] hex_parameter"};

constexpr char kProgrammedAgain[] = "each boot programs the MCU again";

class Rules {
  public:
    Rules(const ProductValues& values, const fs::path& root) : mValues(values), mRoot(root) {}

    std::vector<ProductProblem> apply() {
        judgeProduct();
        judgeLines();
        judgeUart();
        judgeDriver();
        judgeRate();
        judgeChip();
        judgeVersions();
        judgeItems();
        if (mRoot.empty()) return std::move(mProblems);
        judgeBlocks();
        judgeMcuImage();
        judgeFpgaImage();
        return std::move(mProblems);
    }

  private:
    // Empty when the file does not have the key, which is a finding of its own.
    std::string text(const char* key) const {
        const auto value = mValues.find(key);
        return value == mValues.end() ? "" : value->second.text;
    }
    bool has(const char* key) const { return mValues.count(key) != 0; }
    bool isKestrel() const { return text(kProduct) == nameOf(board::Product::kKestrel); }

    void add(const char* key, const std::string& what, const std::string& right,
             const std::string& atBoot, bool isWarning = false) {
        mProblems.push_back({mValues.at(key).line, key, what, isWarning, right, atBoot});
    }

    void judgeProduct();
    void judgeLines();
    void judgeUart();
    void judgeDriver();
    void judgeRate();
    void judgeChip();
    void judgeVersions();
    void judgeItems();
    void judgeItem(const std::string& item, std::vector<long>& seen);
    void judgeBlocks();
    void judgeMcuImage();
    void judgeFpgaImage();
    std::optional<std::string> contentOf(const char* key, const std::string& atBoot);

    const ProductValues& mValues;
    const fs::path& mRoot;
    std::vector<ProductProblem> mProblems;
};

void Rules::judgeProduct() {
    if (!has(kProduct) || board::productByName(text(kProduct))) return;
    std::vector<std::string> names;
    for (const FpgaPlace& place : fpgaPlaces()) names.emplace_back(nameOf(place.product));
    const auto nearest = nearestWords(text(kProduct), names);
    add(kProduct, "there is no product '" + text(kProduct) + "'",
        nearest.empty() ? "Heron, Kestrel or Wren_t507" : "did you mean " + nearest.front() + "?",
        "no load sequence belongs to it: the FPGA is not loaded");
}

void Rules::judgeLines() {
    for (size_t i = 0; i < kLines.size(); ++i) {
        const std::string number = text(kLines[i]);
        if (parseNumber(number, INT32_MAX).value_or(0) == 0) continue;  // a finding of its own
        const auto same = std::find_if(kLines.begin(), kLines.begin() + i,
                                       [&](const char* other) { return text(other) == number; });
        if (same == kLines.begin() + i) continue;
        add(kLines[i], number + " is " + *same + " as well", "a line for each signal",
            "no step notices it: what drives one signal drives the other");
    }
}

void Rules::judgeUart() {
    const std::string path = text(kUart);
    const bool isOthers = path == board::kFpgaDevice || path == board::kFlashDevice;
    if (isOthers) {
        add(kUart, path + " is no serial device", "the device that the MCU is connected to",
            "the MCU and the FPGA take each other's bytes: the load of the FPGA fails");
    } else if (!path.empty() && path.front() == '/' && path.rfind("/dev/", 0) != 0) {
        add(kUart, path + " is no device", "a path below /dev/",
            "the service does not come up: it has no link to the MCU");
    }
}

void Rules::judgeDriver() {
    if (!has(kDriver) || text(kDriver) == board::kFpgaDevice) return;
    add(kDriver, "the board has no '" + text(kDriver) + "'", board::kFpgaDevice,
        isKestrel() ? "the platform cannot load the FPGA" : "nothing: only a Kestrel reads it",
        !isKestrel());
}

// The updater waits half a second for the version, which takes a request of 35 bytes and an answer
// of 64.
void Rules::judgeRate() {
    constexpr long kTooSlow = 1200;
    const auto rate = parseNumber(text(kBaud), kTooSlow);
    if (!rate || (*rate != 300 && *rate != kTooSlow)) return;
    add(kBaud, text(kBaud) + " is too slow: the MCU's version does not arrive in time",
        "2400 or faster", kProgrammedAgain);
}

void Rules::judgeChip() {
    const std::string chip = text(kChip);
    if (!has(kChip) || board::partNamedIn(chip) != nullptr) return;
    std::vector<std::string> names;
    for (const board::McuPart& part : board::mcuParts()) names.emplace_back(part.name);
    std::string lower = chip;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    const auto nearest = nearestWords(lower, names);
    const bool isSt = chip.find("gd32") != chip.npos || chip.find("stm32") != chip.npos;
    const bool isN32 = !isSt && chip.find("n32") != chip.npos;
    add(kChip, "there is no part '" + chip + "'",
        nearest.empty() ? "gd32f303, gd32f470, gd32e503, stm32h750 or n32g45x"
                        : "did you mean " + nearest.front() + "?",
        isSt           ? "an update runs the STM32 and GD32 session, whatever the part is"
        : isN32        ? "an update runs the N32 session, whatever the part is"
        : chip.empty() ? "an update of the MCU that is due fails"
                       : "an update that is due programs nothing and counts as done");
}

void Rules::judgeVersions() {
    constexpr size_t kFpgaVersionMax = 20;  // characters that an image's header has room for
    const std::string mcu = text(kMcuVersion);
    const std::string never = std::string("it never equals what the MCU answers: ");
    if (has(kMcuVersion) && (mcu.empty() || mcu.size() > board::kMcuImageVersionMax)) {
        add(kMcuVersion,
            mcu.empty() ? "the version is empty"
                        : std::to_string(mcu.size()) + " characters, the MCU reports 15",
            "the version of the image, 1 to 15 characters", never + kProgrammedAgain);
    }
    if (text(kFpgaVersion).size() > kFpgaVersionMax) {
        add(kFpgaVersion,
            std::to_string(text(kFpgaVersion).size()) + " characters, an image has room for 20",
            "the version of the image", "nothing: only the log names it", true);
    }
}

void Rules::judgeItems() {
    const std::string items = text(kItems);
    if (!has(kItems)) return;
    if (items.empty() || items.find("UNDEF") != items.npos) {
        return add(kItems, "'" + items + "' is not set", "numbers of items, as in 1-2-5",
                   "the self-test tests nothing and says that it passed");
    }
    std::vector<long> seen;
    for (size_t at = 0; at <= items.size();) {
        const size_t end = std::min(items.find('-', at), items.size());
        if (end > at) judgeItem(items.substr(at, end - at), seen);
        at = end + 1;
    }
    if (!seen.empty()) return;
    add(kItems, "'" + items + "' names no item", "numbers of items, as in 1-2-5",
        "the self-test refuses to run");
}

void Rules::judgeItem(const std::string& item, std::vector<long>& seen) {
    constexpr long kItemMost = 9;
    const auto number = parseNumber(item, kItemMost);
    if (number && std::count(seen.begin(), seen.end(), static_cast<long>(*number)) != 0) {
        add(kItems, "item " + item + " stands twice", "each item once",
            "it runs once, and the record counts it twice", true);
    } else if (!number || *number == 0) {
        const int read = atoi(item.c_str());
        const bool isRead = read >= 1 && read <= kItemMost;
        add(kItems, "'" + item + "' is no item", "numbers from 1 to 9 with - between them",
            isRead ? "item " + std::to_string(read) + " runs, and nothing behind it in the word"
                   : "it tests nothing, and the self-test says nothing of it");
    }
    seen.push_back(number ? static_cast<long>(*number) : 0);
}

void Rules::judgeBlocks() {
    for (const char* key : kBlocks) {
        std::error_code error;
        const std::string name = text(key);
        if (!has(key)) continue;
        if (!name.empty() && fs::is_regular_file(mRoot / "dev/block/by-name" / name, error)) {
            continue;
        }
        add(key, "the board has no partition '" + name + "'", "a name in /dev/block/by-name",
            isKestrel() ? "the screen parameters are not sent" : "nothing: only a Kestrel reads it",
            !isKestrel());
    }
}

// The content of a board's file; what is wrong with the file is added.
std::optional<std::string> Rules::contentOf(const char* key, const std::string& atBoot) {
    const std::string path = text(key);
    if (path.empty() || path.front() != '/') return std::nullopt;  // a finding of its own
    auto content = board::readWholeFile(mRoot / fs::path(path).relative_path());
    if (!content) add(key, "the board has no file " + path, "a path of a firmware image", atBoot);
    return content;
}

void Rules::judgeMcuImage() {
    const auto image = contentOf(kMcuImage, "an update of the MCU that is due fails");
    const board::McuPart* part = board::partNamedIn(text(kChip));
    if (!image || part == nullptr) return;
    if (image->size() > part->flashSize()) {
        return add(kMcuImage,
                   std::to_string(image->size()) + " bytes, a " + part->name + " has " +
                       std::to_string(part->flashSize()),
                   "an image that fits", "an update that is due fails after it has erased the MCU");
    }
    std::string flash = *image;
    flash.resize(part->flashSize(), '\xFF');
    const board::McuImageCheck check = board::checkMcuImage(*part, board::bytesOf(flash));
    if (!check.problem.empty()) {
        return add(kMcuImage, "no image for a " + std::string(part->name) + ": " + check.problem,
                   "an image for the part", "after an update that is due the MCU does not start");
    }
    for (const auto& problem : contractProblems(board::bytesOf(*image), text(kChip))) {
        add(kMcuImage, problem.what, sizesForContract(text(kChip)),
            "in an update that is due " + problem.then);
    }
    const std::string version = text(kMcuVersion);
    const bool isJudged = version.empty() || version.size() > board::kMcuImageVersionMax;
    if (isJudged || version == check.version) return;
    add(kMcuVersion, "'" + version + "', and the image is " + check.version, check.version,
        std::string("after an update it is still another: ") + kProgrammedAgain);
}

void Rules::judgeFpgaImage() {
    const std::string failure = isKestrel() ? "the FPGA is not loaded"
                                            : "an update of the FPGA fails; a Heron's has erased "
                                              "the flash by then";
    const auto image = contentOf(kFpgaImage, failure);
    if (!image) return;
    const FpgaFile file = checkFpgaFile(*image);
    for (const FpgaPlace& place : fpgaPlaces()) {
        if (text(kProduct) != nameOf(place.product)) continue;
        const std::string obstacle = obstacleFor(file, place);
        if (!obstacle.empty()) return add(kFpgaImage, obstacle, "a good FPGA image", failure);
    }
    if (!file.image.problem.empty() || !has(kFpgaVersion)) return;
    if (file.image.version == text(kFpgaVersion)) return;
    add(kFpgaVersion, "'" + text(kFpgaVersion) + "', and the image is " + file.image.version,
        file.image.version, "nothing: only the log names it", true);
}

}  // namespace

std::vector<ProductProblem> applyProductRules(const ProductValues& values, const fs::path& root) {
    return Rules(values, root).apply();
}

}  // namespace quil::tools
