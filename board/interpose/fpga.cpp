// The functions of the closed hardware layer and FPGA library. Without power they return -1.
#include "board/fpga/fpga_library.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"
#include "platform/vendor/include/quil_fpga.h"
#include "platform/vendor/include/quil_hal.h"

using namespace quil::board;

namespace {

template <typename... Parameters, typename... Arguments>
int32_t onBoard(int32_t (FpgaLibrary::*call)(Parameters...), Arguments... arguments) {
    Machine* machine = machineForCall();
    return machine != nullptr && !machine->dead() ? (machine->fpgaLibrary.*call)(arguments...) : -1;
}

}  // namespace

extern "C" {

QUIL_EXPORT int32_t hal_gpio_setvalue(int32_t gpio, int32_t value) {
    return onBoard(&FpgaLibrary::setLine, gpio, value);
}

QUIL_EXPORT int32_t hal_gpio_getvalue(int32_t gpio) {
    return onBoard(&FpgaLibrary::readLine, gpio);
}

QUIL_EXPORT int32_t hal_sys_read(const char* path, char* buffer, uint32_t size) {
    return onBoard(&FpgaLibrary::readSysfs, path, buffer, size);
}

QUIL_EXPORT int32_t hal_fpga_load_program_sync(const char* drv_path, const char* fw_path) {
    return onBoard(&FpgaLibrary::loadProgram, drv_path, fw_path);
}

QUIL_EXPORT int32_t fpgaSwitchGmacToUdp() { return onBoard(&FpgaLibrary::switchGmacToUdp); }

QUIL_EXPORT int32_t bi_fpga_eth1_config_kestrel() { return onBoard(&FpgaLibrary::configureEth1); }

QUIL_EXPORT int32_t bi_fpga_load_screen_params_by_udp(const char* fpga_parameter,
                                                      const char* hex_parameter) {
    return onBoard(&FpgaLibrary::loadScreenByUdp, fpga_parameter, hex_parameter);
}

QUIL_EXPORT int32_t bi_fpga_active_update_program() { return onBoard(&FpgaLibrary::updateProgram); }

QUIL_EXPORT int32_t bi_fpga_load_parameter() { return onBoard(&FpgaLibrary::loadParameters); }

}  // extern "C"
