// Compiles every header with exported C names as C, and calls some of them.
#include <fpga/ddr_recovery.h>
#include <fpga/load_process.h>
#include <fpga/network_bring_up.h>
#include <fpga/screen/net_gap.h>
#include <fpga/screen/screen_blocks.h>
#include <fpga/screen/screen_fixed.h>
#include <fpga/screen/screen_params.h>
#include <fpga/screen/screen_passes.h>
#include <fpga/spi_link.h>
#include <isp/boot_loader.h>
#include <isp/boot_mode.h>
#include <isp/firmware_file.h>
#include <isp/isp_tasks.h>
#include <isp/n32_upgrade.h>
#include <isp/serial_port.h>
#include <mculink/frame.h>
#include <mculink/request.h>
#include <mculink/uart.h>
#include <selftest/self_test.h>
#include <stdio.h>
#include <config/config_info.h>
#include <fpga/flash_update.h>
#include <isp/mcu_update.h>

int main(void) {
    const uint8_t bytes[] = {0xFF, 0x02, 0x72};
    uint8_t body[8];
    printf("checksum 0x%04X\n", (unsigned)quil_transfer_checksum(bytes, sizeof(bytes)));
    printf("body %d", quil_packet_add_request_body(body, 0x01020304));
    for (size_t i = 0; i < sizeof(body); ++i) printf(" %02X", body[i]);
    printf("\nparse %d\n", (int)parseConfigInfo());
    printf("product %s, module %d\n", config_info->product, (int)config_info->mod_id);
    printf("polynom 0x%08X, fd %d\n", (unsigned)polynom, (int)fd);
    printf("command %02X %s\n", (unsigned)isp_cmd_arr[0].code, isp_cmd_arr[0].name);
    printf("item %u %s\n", (unsigned)test_option_table[0].id, test_option_table[0].name);
    return 0;
}
