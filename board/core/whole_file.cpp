#include "board/core/whole_file.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace quil::board {

std::optional<std::string> readWholeFile(const std::filesystem::path& path, uint64_t most) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return std::nullopt;
    const auto size = std::min<uint64_t>(static_cast<uint64_t>(std::streamoff{file.tellg()}), most);
    std::string content(static_cast<size_t>(size), '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(file.gcount()));
    return content;
}

void writeWholeFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.flush();
    if (file) return;
    throw std::runtime_error(path.string() + ": cannot be written: " + strerror(errno));
}

}  // namespace quil::board
