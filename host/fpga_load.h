// The FPGA at start-up: the load sequence that belongs to the product.
#pragma once

namespace quil::host {

enum class FpgaLoad {
    kNotAsked,
    kUp,
    kFailed,      // a step that matters failed: the library's log says which
    kNoSequence,  // there is none for the configured product
};

// Runs the sequence of the configured product, which also programs a pending FPGA image. Blocks for
// seconds. Nobody may use eth1 meanwhile, and fw_updating must not be raised: the sequence waits
// for its end before it restarts the FPGA from a new image. Needs a parsed product configuration.
FpgaLoad loadFpga();

}  // namespace quil::host
