// Arguments of an exported function, as hostile as its contract lets a caller be: any number, and
// blocks of exactly the size that the function may touch, at any alignment.
#pragma once

#include <limits.h>
#include <string.h>

#include <array>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/input.h"

namespace quil::fuzz {

class Arguments {
  public:
    explicit Arguments(Input& input) : mInput(input) {}

    bool flag() { return (mInput.byte() & 1) != 0; }
    // Small, at a limit, or any.
    uint32_t number() {
        constexpr std::array<uint32_t, 12> kLimits = {
            0x7F,   0x80,    0xFF,       0x100,      0x7FFF,     0x8000,
            0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0x08000000, UINT32_MAX};
        const uint8_t what = mInput.byte();
        if (what < 0xC0) return what;
        if (what < 0xF0) return kLimits.at(what % kLimits.size());
        return mInput.word() | static_cast<uint32_t>(mInput.word()) << 16;
    }
    int integer() { return static_cast<int>(number()); }
    unsigned upTo(unsigned most) { return mInput.word() % (most + 1); }

    // A block that may be written; null now and then where `mayBeNull`.
    uint8_t* room(size_t size, bool mayBeNull = false) {
        const uint8_t how = mInput.byte();
        if (mayBeNull && how % 8 == 7) return nullptr;
        const size_t offset = how % 4;  // of its alignment
        mBlocks.push_back(std::make_unique<uint8_t[]>(size + offset));
        return mBlocks.back().get() + offset;
    }
    // The same with bytes of the input, as far as they go.
    uint8_t* bytes(size_t size, bool mayBeNull = false) {
        uint8_t* block = room(size, mayBeNull);
        if (block == nullptr) return nullptr;
        const auto taken = mInput.take(size);
        std::copy(taken.begin(), taken.end(), block);
        return block;
    }
    // A text in a block of its own.
    char* text(bool mayBeNull = true) {
        const size_t size = mInput.byte();
        auto* block = reinterpret_cast<char*>(bytes(size + 1, mayBeNull));
        if (block != nullptr) block[size] = '\0';
        return block;
    }
    // A file or device of the board, as it is or with something behind it; or none.
    char* path() {
        constexpr std::array<const char*, 12> kPaths = {
            "/dev/ttyS3", "/vendor/firmware/mcu_Heron.bin",
            "/opt/a",     "/vendor/firmware/fpga_Heron.bin",
            "/sdcard/a",  "/vendor/etc/product.ini",
            "/opt",       "/dev/block/by-name/screen",
            "/sdcard/",   "/dev/fpga_spi",
            "/dev/ttyS9", "/sys/class/quilgpios/MCU_NRST/value"};
        const uint8_t which = mInput.byte();
        if (which == 0xFF) return nullptr;
        std::string path = which == 0xFE ? "" : kPaths.at(which % kPaths.size());
        if (which >= 0xF0 && which < 0xFE)
            path += "/" + std::string(size_t{20} * mInput.byte(), 'x');
        auto* block = reinterpret_cast<char*>(room(path.size() + 1));
        memcpy(block, path.c_str(), path.size() + 1);
        return block;
    }
    // One of the board's, or none that is open.
    int descriptor() {
        const uint8_t which = mInput.byte();
        return mDescriptors.empty() || which % 4 == 3 ? (which < 0x80 ? -1 : INT_MAX)
                                                      : mDescriptors[which % mDescriptors.size()];
    }
    void addDescriptor(int descriptor) {
        if (descriptor >= 0) mDescriptors.push_back(descriptor);
    }
    void removeDescriptor(int descriptor) { std::erase(mDescriptors, descriptor); }
    const std::vector<int>& descriptors() const { return mDescriptors; }

    // The packed data of a screen's load: 2 MiB, as the contract has it, of which the first bytes
    // are the input's. The memory is kept: a new block of that size for each call would take most
    // of the time.
    uint8_t* packed(bool mayBeNull) {
        static auto& block = *new std::vector<uint8_t>(kPackedSize);
        if (mayBeNull && mInput.byte() % 8 == 7) return nullptr;
        const auto taken = mInput.take(kPackedMost);
        std::fill(block.begin(), block.begin() + kPackedMost, uint8_t{0});
        std::copy(taken.begin(), taken.end(), block.begin());
        return block.data();
    }
    static constexpr size_t kPackedSize = 0x200000, kPackedMost = 4096;

  private:
    Input& mInput;
    std::vector<std::unique_ptr<uint8_t[]>> mBlocks;
    std::vector<int> mDescriptors;
};

}  // namespace quil::fuzz
