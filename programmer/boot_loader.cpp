#include "programmer/boot_loader.h"

#include <stdio.h>

namespace quil::programmer {
namespace {

bool applicationAnswers(Wire& wire, const ConnectOptions& options) {
    if (options.applicationRequest.empty()) return false;
    const LineMode before = wire.mode();
    wire.setMode(options.applicationMode);
    uint8_t answer = 0;
    const bool answers = wire.exchange(options.applicationRequest, {&answer, 1}, Nanos(0)) > 0;
    wire.setMode(before);
    return answers;
}

}  // namespace

std::string hexOf(uint32_t value, int digits) {
    char text[16];
    snprintf(text, sizeof(text), "0x%0*x", digits, value);
    return text;
}

std::string Identity::text() const {
    if (!name.empty()) return "'" + name + "'";
    std::string text = "product " + hexOf(productId, 4);
    if (gdPid != 0) text += ", GD32 " + hexOf(gdPid);
    return text + ", boot loader " + std::to_string(loaderVersion >> 4) + "." +
           std::to_string(loaderVersion & 0x0F);
}

void noLoaderAnswers(Wire& wire, const ConnectOptions& options, bool isWired) {
    if (applicationAnswers(wire, options)) {
        wire.statistics.count(Trouble::kApplication);
        throw LinkLost("the application answers, not the boot loader",
                       "wire MCU_BOOT0 and MCU_NRST (--boot0, --nrst), or reset the part with "
                       "BOOT0 high");
    }
    throw LinkLost("no answer from the boot loader",
                   isWired ? "check power, BOOT0, NRST, TX and RX"
                           : "reset the part with BOOT0 high, or wire --boot0 and --nrst");
}

}  // namespace quil::programmer
