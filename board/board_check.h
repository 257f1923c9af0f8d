// What can be wrong with a board directory, and how it is mended.
//
// Programs of the board read the file system below "rootfs" themselves, so that anything may be
// there; the parts read their files, and lines that they do not understand would be lost with the
// next write. Where those are damaged, the board should not be powered (kBlocking).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "board/board_directory.h"

namespace quil::board {

enum class Severity { kWarning, kError, kBlocking };
const char* nameOf(Severity);

struct BoardProblem {
    Severity severity;
    std::string file;  // relative to the directory
    int line;          // 0: of no line
    std::string what;
    std::string remedy;  // what a repair does; empty: nothing
};

// Throws std::runtime_error when there is nothing of a board in the directory.
void requireTraces(const std::filesystem::path& dir);

// `product` decides where the directory does not say which product it is. Throws
// std::runtime_error when there is nothing of a board.
std::vector<BoardProblem> checkBoard(const std::filesystem::path& dir,
                                     std::optional<Product> product = std::nullopt);
// The same of a board in memory.
std::vector<BoardProblem> checkBoard(const MemoryStore& board,
                                     std::optional<Product> product = std::nullopt);
// Applies the remedies, and returns the problems that had one. Files that it changes or replaces
// stay aside as NAME.damaged. Throws std::runtime_error when it cannot go on.
std::vector<BoardProblem> repairBoard(const std::filesystem::path& dir,
                                      std::optional<Product> product = std::nullopt);
// The lock's file, without which nobody can check or repair. True if it had to be put aside.
bool mendLockFile(const std::filesystem::path& dir);

}  // namespace quil::board
