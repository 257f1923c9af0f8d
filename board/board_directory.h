// The directory that is a board: its file system, its parts' memories, its properties.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/store.h"

namespace quil::board {

class IniReader;

enum class Product { kHeron, kKestrel, kWrenT507 };

std::optional<Product> productByName(std::string_view name);
std::string_view nameOf(Product);
// What its product file names, or else its module id; nothing when neither is known.
std::optional<Product> productOf(const std::filesystem::path& boardDirectory);
std::optional<Product> productOf(const IniReader&, int productFile,
                                 const std::optional<std::string>& moduleId);

// Makes a board as it leaves the factory. `flashedMcuVersion` is what runs on the MCU; "" is the
// version that ships with the product. Throws std::runtime_error when the directory is not empty or
// cannot be written, and then leaves it as it was.
void createBoardDirectory(const std::filesystem::path& dir, Product,
                          std::string_view flashedMcuVersion = "", Keeping = Keeping::kScratch);

// Makes a board anew as it leaves the factory; files that no such board has stay, but for those of
// its parts. For the directory's owner. Throws std::runtime_error when it cannot be written, or
// leaves half a board, which a repair finishes.
void resetBoardDirectory(const std::filesystem::path& dir, Product, Keeping);

// What a board from the factory has.
struct FactoryFile {
    std::string name;  // relative to the directory
    std::function<std::string()> content;
};
std::vector<FactoryFile> factoryFiles(Product, std::string_view flashedMcuVersion = "");
std::string factoryProductFile(Product);
// The socket of a program that keeps the board powered. One that was killed leaves it behind.
inline constexpr char kSocketFile[] = "socket";
std::vector<std::string> factoryFolders();  // each behind the one that it lies in
// The same in memory.
std::shared_ptr<MemoryStore> factoryBoard(Product, std::string_view flashedMcuVersion = "");

// The layout of board directories that this program knows. A directory says its own in the file
// "format"; one without that file is older, and has format 1.
inline constexpr int kBoardFormat = 1;
inline constexpr char kFormatFile[] = "format";
struct BoardFormat {
    int number = kBoardFormat;    // 0: the file says no number
    std::string unfinished = {};  // the product of a board whose making was interrupted
};
BoardFormat formatOf(const std::filesystem::path& boardDirectory);
BoardFormat formatOfText(const std::string& text);
std::string textOf(const BoardFormat&);

// Throws std::runtime_error for what is no board, half a board, or one of another format.
void requireBoard(const std::filesystem::path& dir);

}  // namespace quil::board
