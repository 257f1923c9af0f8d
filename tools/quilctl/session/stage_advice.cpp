#include "tools/quilctl/session/stage_advice.h"

#include <array>
#include <string_view>

namespace quil::tools {
namespace {

struct StageRow {
    std::string_view stage;
    const char* cause;
    const char* remedy;
};
constexpr std::array<StageRow, 12> kStageAdvice = {{
    {"start-up", "", kServiceRemedy},
    {"configuration", "the product file or the product information cannot be read",
     "quilctl config check names the line and what would be right"},
    {"MCU firmware", "the update did not get through",
     "quilctl mcu update shows the step that fails and what the MCU said"},
    {"FPGA", "no load sequence belongs to this product",
     "set product to Heron, Kestrel or Wren_t507 in product.ini; quilctl config check"},
    {"FPGA flash erased", "the flash was not erased, and has its former image in part or whole",
     "look at /dev/mtd0, /vendor/bin/mtd_debug and fpga_fw_path on the board; then "
     "quilctl boot --update-fpga again"},
    {"FPGA image written", "the flash does not hold the image: the FPGA cannot start from it",
     "look at the image (fpga_fw_path) and the flash; then quilctl boot --update-fpga again"},
    {"FPGA configured", "DONE did not rise within 10 s: the FPGA found no image that it can run",
     "write a good image: quilctl boot --update-fpga, or quilctl fpga flash FILE"},
    {"FPGA memory", "the FPGA's DDR did not come good in three restarts of the FPGA",
     "power the board off and on; a DDR that stays bad is a defect of the board"},
    {"FPGA loaded", "the platform's loader refused the image or did not reach the FPGA",
     "look at the image (fpga_fw_path); quilctl fpga status shows what the FPGA runs"},
    {"screen parameters", "the screen parameters did not reach the FPGA",
     "quilctl screen show FILE tells whether the partition's content is sound"},
    {"network", "the link of the FPGA's network did not come up",
     "look at the cable and its other end; quilctl fpga status shows clock, negotiation and link"},
    {"switch to UDP", "the closed library did not switch the FPGA to UDP",
     "quilctl fpga status shows the link; then quilctl fpga load again"},
}};

enum class Weight {
    kNothing,  // no fault, although the library logs it as an error
    kWarning,
    kFailure,  // the stage was not done, although the library goes on as if it were
};

struct CauseRow {
    std::string_view message;  // its beginning
    Weight weight;
    const char* meaning;
    const char* remedy;  // null: the stage's
};
constexpr const char* kSpiRemedy =
    "look at the FPGA's SPI device /dev/fpga_spi: its driver and its permissions";
constexpr std::array<CauseRow, 7> kMeanings = {{
    {"mcuFwUpdate: do not need upgrade FW", Weight::kNothing, "", nullptr},
    {"readFpgaDdrState: ", Weight::kFailure, "the state of the FPGA's DDR was not read",
     kSpiRemedy},
    {"fpgaCheckDDRAndRecovery: spi_read", Weight::kFailure,
     "the state of the FPGA's DDR was not read", kSpiRemedy},
    {"spi_send_data: ", Weight::kFailure, "not all screen parameters were sent", kSpiRemedy},
    {"fpgaRecovery: invalid fpga_ddr_state", Weight::kWarning,
     "the DDR was bad at first, and came good after a restart of the FPGA", nullptr},
    {"fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed", Weight::kWarning,
     "the link came only after a further reset of the PHY", nullptr},
    {"fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed", Weight::kWarning,
     "the SGMII clock came only after a further reset of the PHY", nullptr},
}};

template <typename Rows, typename Matches>
const auto* rowOf(const Rows& rows, Matches matches) {
    for (const auto& row : rows) {
        if (matches(row)) return &row;
    }
    return static_cast<decltype(rows.data())>(nullptr);
}

std::string withDetail(const std::string& meaning, const std::string& detail) {
    if (meaning.empty()) return detail;
    return detail.empty() ? meaning : meaning + ": " + detail;
}

void addCause(BootStage& stage, const CauseRow* message, const std::string& error,
              const std::string& problem) {
    const StageRow* row =
        rowOf(kStageAdvice, [&](const StageRow& one) { return one.stage == stage.name; });
    const bool isMeant = message != nullptr && message->weight == Weight::kFailure;
    const char* const meaning = isMeant          ? message->meaning
                                : row != nullptr ? row->cause
                                                 : "the stage did not end well";
    const std::string said = stage.said.empty() ? error : stage.said;
    stage.cause =
        withDetail(meaning, stage.name == "FPGA configured" && !problem.empty() ? problem : said);
    stage.remedy = isMeant          ? message->remedy
                   : row != nullptr ? row->remedy
                                    : "the log has more with --log-level D";
}

}  // namespace

void explain(BootStage& stage, const std::string& error, const std::string& problem) {
    const CauseRow* message =
        rowOf(kMeanings, [&](const CauseRow& row) { return error.rfind(row.message, 0) == 0; });
    const bool isPassedOver = message != nullptr && message->weight == Weight::kFailure;
    const bool isNameless = stage.name == "configuration" && !error.empty() && stage.said == error;
    if (isPassedOver || isNameless) stage.ok = false;
    if (!stage.ok) return addCause(stage, message, error, problem);
    if (error.empty() || (message != nullptr && message->weight == Weight::kNothing)) return;
    stage.warning = withDetail(message == nullptr ? "" : message->meaning, error);
}

}  // namespace quil::tools
