#include "host/fpga_load.h"

#include <array>
#include <cstdint>
#include <string_view>

#include "config/config_info.h"
#include "fpga/load_process.h"

namespace quil::host {
namespace {

struct Sequence {
    std::string_view product;
    int32_t (*run)();
};
constexpr std::array<Sequence, 3> kSequences = {{{"Heron", fpgaLoadProcessHeron},
                                                 {"Kestrel", fpgaLoadProcessKestrel},
                                                 {"Wren_t507", fpgaLoadProcessWren_t507}}};

}  // namespace

FpgaLoad loadFpga() {
    for (const Sequence& sequence : kSequences) {
        if (sequence.product != config_info->product) continue;
        return sequence.run() == 0 ? FpgaLoad::kUp : FpgaLoad::kFailed;
    }
    return FpgaLoad::kNoSequence;
}

}  // namespace quil::host
