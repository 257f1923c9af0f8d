// A temporary directory that is removed with its contents.
#pragma once

#include <errno.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace quil::board {

class TemporaryDirectory {
  public:
    // Throws std::system_error when it cannot be made.
    explicit TemporaryDirectory(const std::string& name = "quil-board") {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), pattern + ": cannot be made");
        }
        mPath = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return mPath; }

  private:
    std::filesystem::path mPath;
};

}  // namespace quil::board
