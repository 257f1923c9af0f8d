// A board for one input, and a library as freshly loaded.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <filesystem>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "config/config_info.h"
#include "fpga/screen/screen_params.h"
#include "fpga/screen/screen_passes.h"
#include "isp/serial_port.h"
#include "mculink/frame.h"
#include "selftest/self_test.h"

namespace quil::fuzz {

inline constexpr char kUart[] = "/dev/ttyS3";

// Where the boards of a process lie, one after the other: copies of one, for making one anew takes
// most of an input's time.
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
    PoweredBoard() { forgetState(); }
    ~PoweredBoard() { forgetState(); }
    PoweredBoard(const PoweredBoard&) = delete;
    PoweredBoard& operator=(const PoweredBoard&) = delete;

    board::Board* operator->() { return &mBoard; }
    board::Board& operator*() { return mBoard; }

    void logEverything() { mBoard.properties().set("persist.quil.device.log.level", "D"); }

  private:
    static void forgetState() {
        free(config_info);
        config_info = nullptr;
        g_n_lable = 0;
        fd = -1;
        for (test_option_t& row : test_option_table) row.enable = 0;
        memset(st_func_offset_map_tab, 0, sizeof st_func_offset_map_tab);
        memset(free_routing_topology, 0, sizeof free_routing_topology);
        memset(buffer, 0, sizeof buffer);
    }

    board::Board mBoard{BoardPlace::ofThisProcess().freshBoard()};
};

}  // namespace quil::fuzz
