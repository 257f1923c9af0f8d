// Reading whole files.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace quil::tests {

// A file's content; "" when it cannot be read.
inline std::string contentOf(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace quil::tests
