// The project's own files and the library that was built.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "testing/build.h"

namespace quil::tests {

inline constexpr char kLibraryFile[] = QUIL_LIB_DIR "/quil.hardware.quilservicemanager@1.0-impl.so";

inline const std::filesystem::path& projectRoot() {
    static const std::filesystem::path root = QUIL_SOURCE_DIR;
    return root;
}

// The text of a file, whose path is relative to the project's root.
inline std::string projectText(const std::filesystem::path& file) {
    std::ifstream in(projectRoot() / file);
    EXPECT_TRUE(in) << file;
    return {std::istreambuf_iterator<char>(in), {}};
}

inline constexpr const char* kProductFolders[] = {"common", "config",   "mculink", "isp",
                                                  "fpga",   "selftest", "service"};

// The sources and headers of a folder and its subfolders.
inline std::vector<std::filesystem::path> sourcesIn(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(projectRoot() / folder)) {
        const std::string extension = entry.path().extension();
        if (extension == ".cpp" || extension == ".h") files.push_back(entry.path());
    }
    return files;
}

// The plain C names of quil.map, which come before its C++ block.
inline std::set<std::string> plainNamesOfTheMap() {
    const std::string map = projectText("quil.map");
    const std::string plain = map.substr(0, map.find("extern"));
    static const std::regex name(R"((\w+);)");
    std::set<std::string> names;
    for (std::sregex_iterator it(plain.begin(), plain.end(), name), end; it != end; ++it) {
        names.insert((*it)[1]);
    }
    return names;
}

}  // namespace quil::tests
