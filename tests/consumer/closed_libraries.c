// Replaces the board's closed libraries: just enough for a program to start.
#include <quil_bi.h>
#include <quil_fpga.h>
#include <quil_hal.h>
#include <string.h>

int32_t bi_common_load_ini_file(const char* path) {
    return strcmp(path, "/vendor/etc/product.ini") == 0 ? 7 : 0;
}
int32_t bi_common_ini_get_string(int32_t handle, const char* section, const char* key, char* dest) {
    (void)section;
    if (handle != 7) return -1;
    strcpy(dest, key);
    return 0;
}
int32_t bi_common_ini_get_int(int32_t handle, const char* section, const char* key) {
    (void)section;
    (void)key;
    return handle;
}
int32_t bi_info_get_product_info(void* block) {
    strcpy((char*)block + 64, "42");
    return 0;
}

int32_t bi_i2c_get_rtc_state(int32_t bus) { return bus; }
int32_t bi_i2c_get_audio_state(int32_t codec) { return codec; }
int32_t bi_i2c_get_clock_chip_state(int32_t bus) { return bus; }
int32_t bi_network_get_ap_state(void) { return 0; }
int32_t bi_network_get_sta_state(void) { return 0; }

int32_t fpgaSwitchGmacToUdp(void) { return 0; }
int32_t bi_fpga_eth1_config_kestrel(void) { return 0; }
int32_t bi_fpga_load_screen_params_by_udp(const char* fpga_parameter, const char* hex_parameter) {
    return fpga_parameter != NULL && hex_parameter != NULL ? 0 : -1;
}
int32_t bi_fpga_active_update_program(void) { return 0; }
int32_t bi_fpga_load_parameter(void) { return 0; }

int32_t hal_gpio_setvalue(int32_t gpio, int32_t value) { return gpio < 0 ? -1 : value; }
int32_t hal_gpio_getvalue(int32_t gpio) { return gpio < 0 ? -1 : 0; }
int32_t hal_sys_read(const char* path, char* buffer, uint32_t size) {
    return path != NULL && buffer != NULL && size != 0 ? 0 : -1;
}
int32_t hal_fpga_load_program_sync(const char* drv_path, const char* fw_path) {
    return drv_path != NULL && fw_path != NULL ? 0 : -1;
}
