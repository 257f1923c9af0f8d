// The directory that is a board: its file system, its parts' memories, its properties.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace quil::board {

enum class Product { kHeron, kKestrel, kWrenT507 };

std::optional<Product> productByName(std::string_view name);
std::string_view nameOf(Product);

// Makes a board as it leaves the factory. `flashedMcuVersion` is what runs on the MCU; "" is the
// version that ships with the product. Throws std::runtime_error when the directory is not empty or
// cannot be written.
void createBoardDirectory(const std::filesystem::path& dir, Product,
                          std::string_view flashedMcuVersion = "");

}  // namespace quil::board
