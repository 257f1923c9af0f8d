// The FPGA at start-up: the load sequence that belongs to the product.
#pragma once

namespace quil::host {

enum class FpgaLoad {
    kNotAsked,
    kUp,
    kFailed,      // a step that matters failed: the library's log says which
    kNoSequence,  // there is none for the configured product
};

// Whether the load would write a new image into the FPGA's flash: the product's sequence looks at
// the property that asks for it, and it does ask. Needs a parsed product configuration.
bool fpgaImageIsPending();

// Runs the sequence of the configured product, which also programs a pending FPGA image. Blocks for
// seconds. Nobody may use eth1 meanwhile, and fw_updating must not be at 1: the sequence waits for
// the end of that before it restarts the FPGA from a new image. Needs a parsed product
// configuration.
FpgaLoad loadFpga();

}  // namespace quil::host
