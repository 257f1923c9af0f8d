#include "host/fpga_load.h"

#include <cutils/properties.h>
#include <stdint.h>

#include <string_view>

#include "config/config_info.h"
#include "fpga/load_process.h"

namespace quil::host {
namespace {

struct Sequence {
    std::string_view product;
    int32_t (*run)();
    bool writesPendingImage;  // the others load theirs afresh each time, and no flash is written
};
constexpr Sequence kSequences[] = {{"Heron", fpgaLoadProcessHeron, true},
                                   {"Kestrel", fpgaLoadProcessKestrel, false},
                                   {"Wren_t507", fpgaLoadProcessWren_t507, true}};

const Sequence* sequenceOfTheProduct() {
    for (const Sequence& sequence : kSequences) {
        if (sequence.product == config_info->product) return &sequence;
    }
    return nullptr;
}

}  // namespace

bool fpgaImageIsPending() {
    const Sequence* sequence = sequenceOfTheProduct();
    char value[PROPERTY_VALUE_MAX] = {};
    return sequence != nullptr && sequence->writesPendingImage &&
           property_get(fpga::kUpdateProperty, value, "0") > 0 && value[0] == '1';
}

FpgaLoad loadFpga() {
    const Sequence* sequence = sequenceOfTheProduct();
    if (sequence == nullptr) return FpgaLoad::kNoSequence;
    return sequence->run() == 0 ? FpgaLoad::kUp : FpgaLoad::kFailed;
}

}  // namespace quil::host
