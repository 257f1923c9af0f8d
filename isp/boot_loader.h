// The USART boot-loader protocol of the STM32 family (ST application note AN3155), which the GD32
// parts' boot loaders answer as well, over the port in `fd`.
//
// Only what programming needs, and not always as the note has it: where the code departs from it,
// parts in the field depend on the departure. Writes that fail are logged and never end an
// exchange; the answer decides. Each answer is waited for at most 1 s; a time-out shows as a wrong
// answer. One session at a time, on one thread.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::isp {

// The boot-loader commands that the system sends.
enum Command : uint8_t {
    kGet = 0x00,
    kGetId = 0x02,
    kGetPid = 0x06,  // of the GD32 boot loaders; not in AN3155
    kReadMemory = 0x11,
    kWriteMemory = 0x31,
    kErase = 0x43,
    kExtendedErase = 0x44,
    kWriteUnprotect = 0x73,
    kReadoutUnprotect = 0x92,
};

inline constexpr uint8_t kAck = 0x79, kNack = 0x1F;
inline constexpr uint32_t kFlashBase = 0x08000000;

// Reads one byte of an answer; 0 when none comes.
uint8_t readAnswer();

// The name of a command in isp_cmd_arr, or null.
const char* commandName(unsigned code);

}  // namespace quil::isp

extern "C" {
#endif

// A row of isp_cmd_arr.
typedef struct isp_cmd {
    uint32_t code;     // the command byte, in the low byte of its slot
    const char* name;  // null in the last row
} isp_cmd_t;

// The boot-loader commands by name, for messages. The table ends with code 0xFF and a null name.
extern QUIL_EXPORT const isp_cmd_t isp_cmd_arr[14];

// The names of the MCU types 0 to 4, in the order of their numbers.
extern QUIL_EXPORT const char* const str_mcu_type[5];

// Synchronises with the boot loader. Returns 0 (ACK), 6 (NACK), 15 (no or another answer), 1 (`fd`
// is negative).
QUIL_EXPORT int ack_startisp(void);

// Logs a command of isp_cmd_arr by its name, at level I; silent for any other.
QUIL_EXPORT void display_cmd(unsigned code);

// Sends a command. Returns 0 (ACK), -1 (NACK), -2 (no or another answer), -4 (`fd` is negative).
QUIL_EXPORT int ack_sendcmd(unsigned code);

// The data of an extended erase, whose command has been sent already: the pages of the MCU type
// that mcu_type_detect found, from page 0 up to the one that `addr` + `size` lies in; everything
// for an unknown type. `addr`: an address of the flash, which starts at 0x08000000. Returns 0 or
// -1.
QUIL_EXPORT int erasememory_extend(uint32_t addr, uint32_t size);

// Reads `size` bytes of the MCU's memory to `buf`, in blocks of 255. What cannot be read leaves
// `buf` as it is; failures are only logged.
QUIL_EXPORT void readmemory_4mcu(uint32_t addr, uint8_t* buf, int size);

// Writes `size` bytes to the MCU's memory from the address `addr` on, in blocks of 256. Returns 0,
// or -1 when a block's command was refused; the other answers are not examined.
QUIL_EXPORT int writememory_2mcu(uint32_t addr, uint8_t* data, int size);

// The product identifier of a GD32 part, or 0.
QUIL_EXPORT uint32_t read_gd_mcu_pid(void);

// 0x450 for the STM32H750 and its relatives, 0 for anything else.
QUIL_EXPORT uint32_t read_st_mcu_pid(void);

// Asks the boot loader which MCU it runs on, for the erase. An MCU that does not say leaves the
// type of the last one that did.
QUIL_EXPORT void mcu_type_detect(void);

#ifdef __cplusplus
}  // extern "C"
#endif
