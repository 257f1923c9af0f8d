// The directory that is a board: its file system, its parts' memories, its properties.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quil::board {

enum class Product { kHeron, kKestrel, kWrenT507 };

std::optional<Product> productByName(std::string_view name);
std::string_view nameOf(Product);

// Makes a board as it leaves the factory. Throws std::runtime_error when the directory is not empty
// or cannot be written.
// `flashedMcuVersion` is what runs on the MCU: "" is the version that ships with the product.
void createBoardDirectory(const std::filesystem::path& dir, Product,
                          std::string_view flashedMcuVersion = "");

// Its first `most` bytes.
std::optional<std::string> readWholeFile(const std::filesystem::path&, uint64_t most = SIZE_MAX);
void writeWholeFile(const std::filesystem::path&,
                    std::string_view content);  // throws runtime_error

}  // namespace quil::board
