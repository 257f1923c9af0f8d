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

// The content is written beside the file, under its name and this suffix, and then takes its place:
// afterwards the file has either its former content or all of the new one, even when the program
// dies meanwhile. `durable`: also when the workstation loses its power. Throws std::system_error;
// then the former content is there still, unless only the folder's own fsync failed.
inline constexpr char kFreshSuffix[] = ".quil-new";
void replaceWholeFile(const std::filesystem::path&, std::string_view content, bool durable);

}  // namespace quil::board
