// A board for one input, and a library in the state in which it was loaded.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <vector>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "testing/library_state.h"

namespace quil::fuzz {

inline constexpr char kUart[] = "/dev/ttyS3";

// The directory of a process's boards, one at a time: to make one for each input would take most of
// its time. The parts write to memory; files of the board's file system that the library or the
// shell has changed are copied anew from a model board.
class BoardPlace {
  public:
    static BoardPlace& ofThisProcess() {
        static BoardPlace place;
        return place;
    }

    const std::filesystem::path& freshBoard() const {
        std::vector<std::filesystem::path> added;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(mBoard)) {
            const auto name = entry.path().lexically_relative(mBoard);
            if (mNames.count(name) == 0) added.push_back(entry.path());
        }
        for (const auto& path : added) std::filesystem::remove_all(path);
        for (const auto& name : mNames) restore(name);
        return mBoard;
    }

  private:
    BoardPlace() {
        board::createBoardDirectory(mModel, board::Product::kHeron);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(mModel)) {
            mNames.insert(entry.path().lexically_relative(mModel));
        }
        std::filesystem::create_directory(mBoard);
    }

    // A file that nobody has written since it was copied still has the time that it got then.
    void restore(const std::filesystem::path& name) const {
        const auto from = mModel / name, to = mBoard / name;
        std::error_code missing;
        if (std::filesystem::is_directory(from)) {
            if (std::filesystem::is_directory(to, missing)) return;
            std::filesystem::remove_all(to);
            std::filesystem::create_directory(to);
            return;
        }
        if (std::filesystem::last_write_time(to, missing) == mUntouched && !missing) return;
        std::filesystem::remove_all(to);
        std::filesystem::copy_file(from, to);
        std::filesystem::last_write_time(to, mUntouched);
    }

    board::TemporaryDirectory mDirectory{"fuzz"};
    const std::filesystem::path mModel = mDirectory.path() / "model";
    const std::filesystem::path mBoard = mDirectory.path() / "board";
    const std::filesystem::file_time_type mUntouched =
        std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
    std::set<std::filesystem::path> mNames;  // a folder before what is in it
};

class PoweredBoard {
  public:
    board::Board* operator->() { return &mBoard; }
    board::Board& operator*() { return mBoard; }

    void logEverything() { mBoard.properties().set("persist.quil.device.log.level", "D"); }

  private:
    const tests::FreshLibrary mLibrary;
    const std::filesystem::path& mPlace = BoardPlace::ofThisProcess().freshBoard();
    board::Board mBoard{mPlace, {.store = std::make_shared<board::OverlayStore>(mPlace)}};
};

}  // namespace quil::fuzz
