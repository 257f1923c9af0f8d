// A board for one input, and a library in the state in which it was loaded.
#pragma once

#include <filesystem>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "testing/library_state.h"

namespace quil::fuzz {

inline constexpr char kUart[] = "/dev/ttyS3";

// The directory of a process's boards, one at a time. Each is a copy of a model board: making one
// from scratch would take most of an input's time.
class BoardPlace {
  public:
    static BoardPlace& ofThisProcess() {
        static BoardPlace place;
        return place;
    }
    std::filesystem::path freshBoard() const {
        auto board = mDirectory.path() / "board";
        std::filesystem::remove_all(board);
        std::filesystem::copy(mModel, board, std::filesystem::copy_options::recursive);
        return board;
    }

  private:
    BoardPlace() { board::createBoardDirectory(mModel, board::Product::kHeron); }

    board::TemporaryDirectory mDirectory{"fuzz"};
    const std::filesystem::path mModel = mDirectory.path() / "model";
};

class PoweredBoard {
  public:
    board::Board* operator->() { return &mBoard; }
    board::Board& operator*() { return mBoard; }

    void logEverything() { mBoard.properties().set("persist.quil.device.log.level", "D"); }

  private:
    const tests::FreshLibrary mLibrary;
    board::Board mBoard{BoardPlace::ofThisProcess().freshBoard()};
};

}  // namespace quil::fuzz
