// What an AN3155 boot loader sees of its part: flash, RAM, system memory, option bytes.
//
// System memory reads as 0 but for what hosts identify the part by: flash size, unique id, the boot
// loader's number. Option bytes reflect the protection, and writing them changes it.
#pragma once

#include "board/mcu/mcu_flash.h"

namespace quil::board {

class McuMemory {
  public:
    enum class Area { kNone, kFlash, kRam, kSystem, kOptions };

    explicit McuMemory(McuFlash& flash) : mFlash(flash), mPart(flash.part()) {}

    void reset() { mRam.clear(); }
    // RAM that the boot loader uses is kNone: it refuses it.
    Area areaOf(uint32_t address) const;
    // What lies behind the end of an area reads as 0.
    uint8_t read(uint32_t address) const;
    void writeRam(uint32_t address, std::span<const uint8_t> bytes);
    // Starts to write option bytes; the rest stays as it is.
    Nanos startWriteOptions(uint32_t address, std::span<const uint8_t> bytes);

    // The pages of sectors of write protection.
    std::set<uint32_t> pagesOf(std::span<const uint8_t> sectors) const;

  private:
    std::vector<uint8_t> optionBytes() const;
    uint32_t unprotectedSectors() const;
    uint8_t system(uint32_t address) const;

    McuFlash& mFlash;
    const McuPart& mPart;
    std::vector<uint8_t> mRam;
};

}  // namespace quil::board
