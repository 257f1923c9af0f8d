// The board's closed FPGA library and hardware layer, behind the hal_* and *fpga* calls of
// platform/vendor/include.
//
// Every call is a kVendor event with its name and arguments. Faults: Call::kVendor by the
// function's name (the call does nothing and returns -error; with lostSilently it returns 0).
#pragma once

#include <stdint.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "board/core/services.h"
#include "board/devices/gpio_lines.h"
#include "board/devices/sysfs.h"
#include "board/fpga/fpga.h"
#include "board/fpga/network.h"
#include "board/fpga/serial_flash.h"

namespace quil::board {

class FpgaLibrary {
  public:
    struct Parts {
        Sysfs& sysfs;
        GpioLines& gpio;
        Fpga& fpga;
        SerialFlash& flash;
        Network& network;
    };
    static constexpr char kKestrelAddress[] = "240.10.10.10", kKestrelMask[] = "255.255.255.0";
    static constexpr int64_t kUdpByteNanos = 80;  // 100 Mbit/s

    FpgaLibrary(BoardServices&, const Parts&);
    ~FpgaLibrary();
    FpgaLibrary(const FpgaLibrary&) = delete;
    FpgaLibrary& operator=(const FpgaLibrary&) = delete;

    // Each takes the board's lock, does the work of one function of the library, and returns what
    // that function returns: 0 or more, or a negated errno.
    int32_t setLine(int32_t number, int32_t level);
    int32_t readLine(int32_t number);
    int32_t readSysfs(const char* path, char* buffer, uint32_t size);
    int32_t loadProgram(const char* driver, const char* image);
    int32_t switchGmacToUdp();
    int32_t configureEth1();
    int32_t loadScreenByUdp(const char* parameters, const char* hexParameters);
    int32_t updateProgram();
    int32_t loadParameters();

    // Recorded, the address of every text that a caller passed. A closed library may keep such
    // addresses, so that callers must not free the texts.
    const std::vector<const char*>& texts() const { return mTexts; }

  private:
    template <typename Work>
    int32_t call(const char* name, const std::string& arguments, Work work);
    void keep(std::initializer_list<const char*> texts);
    int32_t reprogram();
    int32_t sendScreen(const std::string& partition, int64_t byteNanos, const char* how);
    // False when the board has no such file, or a fault forbids it.
    bool readFile(const std::string& path, std::vector<uint8_t>* content);

    BoardServices& mBoard;
    const Parts mParts;
    std::vector<const char*> mTexts;
};

}  // namespace quil::board
