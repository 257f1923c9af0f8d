#include "tools/quilctl/session/fpga_status.h"

#include <quil_hal.h>

#include <stdexcept>

#include "config/config_info.h"
#include "fpga/flash_update.h"
#include "fpga/spi_link.h"

namespace quil::tools {
namespace {

std::string stateText(int result, uint8_t state, const char* ready) {
    if (result < 0) return "no answer";
    return state == 1 ? ready : "not ready (" + std::to_string(state) + ")";
}

}  // namespace

FpgaStatus askStatus(board::Board& board) {
    FpgaStatus status;
    uint8_t state = 0;
    const int done = hal_gpio_getvalue(config_info->fpga_done_gpio);
    status.done = done < 0 ? "no answer" : done == 1 ? "high" : "low";
    const int ddr = readFpgaDdrState(&state);
    status.ddr = stateText(ddr, state, "good");
    const int clock = readFpgaSgmiiClockState(&state, 1);
    status.clock = stateText(clock, state, "present");
    const int negotiation = readFpgaSgmiiNegotiationState(&state, 1);
    status.negotiation = stateText(negotiation, state, "complete");
    const int link = readRtl8211fsPhyLink();
    status.link = link < 0 ? "no answer" : link == 1 ? "up" : "down";
    status.version = board.fpga().isConfigured() ? board.fpga().version() : "none";
    return status;
}

Json statusDocument(const FpgaStatus& status) {
    return {{"done", status.done},
            {"image", status.version},
            {"ddr", status.ddr},
            {"sgmii_clock", status.clock},
            {"sgmii_negotiation", status.negotiation},
            {"link", status.link}};
}

void addStatus(Result& result, const FpgaStatus& status) {
    result.text << "DONE               " << status.done << "\nimage              " << status.version
                << "\nDDR                " << status.ddr << "\nSGMII clock        " << status.clock
                << "\nSGMII negotiation  " << status.negotiation << "\nPHY link           "
                << status.link << '\n';
    result.json["status"] = statusDocument(status);
}

void parseProduct() {
    if (parseConfigInfo() != 0) throw std::runtime_error("the product cannot be identified");
}

}  // namespace quil::tools
