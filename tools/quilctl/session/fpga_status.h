// What the FPGA and the PHY say of themselves, asked as the bring-up asks them.
#pragma once

#include <string>

#include "tools/quilctl/session/board_session.h"

namespace quil::tools {

struct FpgaStatus {
    std::string done, ddr, clock, negotiation, link, version;
};
FpgaStatus askStatus(board::Board& board);
Json statusDocument(const FpgaStatus& status);
void addStatus(Result& result, const FpgaStatus& status);

// Reads the product configuration. Throws std::runtime_error when the board has none.
void parseProduct();

}  // namespace quil::tools
