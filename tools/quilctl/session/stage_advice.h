// What the outcome of a stage of the start-up comes from, and what to do about it.
#pragma once

#include <string>

#include "tools/quilctl/session/boot_stages.h"

namespace quil::tools {

// For a service that does not come up.
inline constexpr char kServiceRemedy[] =
    "quilctl config check tells what is wrong with product.ini";

// Fills in warning, cause and remedy. The library lets some stages pass in which it could not reach
// the part: these count as failed. `error` is the library's last error message while the stage
// lasted, `problem` why the FPGA did not take its image; both may be empty.
void explain(BootStage& stage, const std::string& error, const std::string& problem);

}  // namespace quil::tools
