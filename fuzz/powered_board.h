// A board for one input, and a library in the state in which it was loaded.
#pragma once

#include <memory>

#include "board/board.h"
#include "board/fpga/fpga_image.h"
#include "board/mcu/mcu_image.h"
#include "testing/library_state.h"

namespace quil::fuzz {

inline constexpr char kUart[] = "/dev/ttyS3";

class PoweredBoard {
  public:
    board::Board* operator->() { return &mBoard; }
    board::Board& operator*() { return mBoard; }

    void logEverything() { mBoard.properties().set("persist.quil.device.log.level", "D"); }

    // Small images: the FPGA reads its own at each power-on.
    static const std::shared_ptr<const board::MemoryStore>& factory() {
        static const std::shared_ptr<const board::MemoryStore> kept = [] {
            auto store = board::factoryBoard(board::Product::kHeron);
            const std::string mcu =
                board::makeMcuImage(board::McuKind::kGd32F303, "V1.0.0", kMcuImageSize);
            store->replace("mtd0", board::makeFpgaImage("V2.0.7", kFpgaImageSize));
            store->replace("rootfs/vendor/firmware/fpga_Heron.bin",
                           board::makeFpgaImage("V2.1.0", kFpgaImageSize));
            store->replace("mcu/flash", mcu);
            store->replace("rootfs/vendor/firmware/mcu_Heron.bin", mcu);
            return store;
        }();
        return kept;
    }

  private:
    static constexpr size_t kMcuImageSize = 2048, kFpgaImageSize = 4096;

    const tests::FreshLibrary mLibrary;
    board::Board mBoard{std::make_shared<board::OverlayStore>(factory())};
};

}  // namespace quil::fuzz
