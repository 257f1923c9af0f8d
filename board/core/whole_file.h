// Files of the workstation, read and written as a whole.
#pragma once

#include <stdint.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quil::board {

// The first `most` bytes of a regular file; nothing when there is none or it cannot be read.
std::optional<std::string> readWholeFile(const std::filesystem::path&, uint64_t most = SIZE_MAX);
// Throws std::runtime_error when the file cannot be written.
void writeWholeFile(const std::filesystem::path&, std::string_view content);

}  // namespace quil::board
