// The serial flash behind /dev/mtd0: an erase sets all bits of whole sectors, programming can only
// clear bits.
//
// Sizes and times are those of a common 128-Mbit part (W25Q128: block erase 150 ms, page program
// 0.7 ms). The board keeps the contents in the file "mtd0"; what lies behind the file's end is
// erased, so that a nearly empty flash is a small file.
//
// Faults: Call::kFlashErase once for each sector and Call::kFlashProgram once for each page, both
// with the path "/dev/mtd0": an error ends the operation there, lostSilently leaves the sector or
// page as it is. A power cut inside an operation leaves it partly done.
#pragma once

#include <stdint.h>

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/services.h"

namespace quil::board {

inline constexpr char kFlashDevice[] = "/dev/mtd0";

class SerialFlash {
  public:
    static constexpr uint32_t kSize = 0x1000000, kSector = 0x10000, kPage = 256;
    static constexpr Nanos kSectorErase = std::chrono::milliseconds(150);
    static constexpr Nanos kPageProgram = std::chrono::microseconds(700);

    explicit SerialFlash(BoardServices&);
    ~SerialFlash();
    SerialFlash(const SerialFlash&) = delete;
    SerialFlash& operator=(const SerialFlash&) = delete;

    // The cells of a range, as far as the flash reaches.
    std::vector<uint8_t> read(uint32_t offset, size_t length) const;
    // The flash is erased from this offset to its end.
    uint32_t usedSize() const;
    // Sets the contents at once, as the factory's programmer does; the rest is erased.
    void preload(std::string_view content);
    // Inverts bits of one cell, as in a worn part.
    void damage(uint32_t offset, uint8_t bits);

    // The device's work, in board time. 0 or an errno; an erase of less than whole sectors is
    // EINVAL.
    int erase(uint32_t offset, uint32_t length);
    int program(uint32_t offset, std::span<const uint8_t> data);

    // Called before each erase and programming, to check that the host may use the flash.
    void onUse(std::function<void()> listener) { mListener = std::move(listener); }
    // Called after each sector that is erased and each page that is programmed; `done` is the
    // finished part of the operation, 0 to 1.
    using OnProgress = std::function<void(const char* operation, double done)>;
    void onProgress(OnProgress listener) { mProgress = std::move(listener); }

  private:
    using Cells = std::vector<uint8_t>;  // the cells behind its end are 0xFF
    // Does so many bytes of an operation.
    using Part = std::function<void(Cells&, size_t bytes)>;

    static void eraseCells(Cells&, uint32_t offset, size_t length);
    static void programCells(Cells&, uint32_t offset, std::span<const uint8_t> data);
    static size_t usedOf(const Cells&);  // behind it, all is erased
    static void keep(const Cells&, Store&);
    void checkErased(uint32_t offset, size_t length);
    void save() const { keep(mCells, *mBoard.store); }

    std::optional<Fault> faultOf(Call);
    void note(const std::string& text) { mBoard.trace.add(EventKind::kFlash, kFlashDevice, text); }
    void tell(const char* operation, size_t done, size_t size) const;
    // Begins an operation of that many bytes. False if power is cut at it: that part of it is done.
    bool begin(const std::string& text, size_t size, const Part&);

    BoardServices& mBoard;
    Cells mCells;
    std::function<void()> mListener;
    OnProgress mProgress;
};

}  // namespace quil::board
