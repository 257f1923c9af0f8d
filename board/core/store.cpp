#include "board/core/store.h"

#include <errno.h>
#include <string.h>

#include <stdexcept>

#include "board/core/whole_file.h"

namespace quil::board {

DirectoryStore::DirectoryStore(std::filesystem::path directory)
    : mDirectory(std::move(directory)) {}

std::optional<std::string> DirectoryStore::read(const std::string& name) const {
    return readWholeFile(mDirectory / name);
}

// No fsync: the files have to survive a killed program, not a crash of the workstation.
void DirectoryStore::replace(const std::string& name, std::string_view content) {
    const std::filesystem::path file = mDirectory / name;
    const std::filesystem::path fresh = file.string() + ".new";
    std::error_code error;
    try {
        writeWholeFile(fresh, content);
    } catch (const std::runtime_error&) {
        const std::string why = strerror(errno);
        std::filesystem::remove(fresh, error);
        throw std::runtime_error(file.string() + ": cannot be written: " + why);
    }
    std::filesystem::rename(fresh, file, error);
    if (!error) return;
    const std::string why = error.message();
    std::filesystem::remove(fresh, error);
    throw std::runtime_error(file.string() + ": " + why);
}

std::optional<std::string> MemoryStore::read(const std::string& name) const {
    const auto found = mFiles.find(name);
    return found == mFiles.end() ? std::nullopt : std::optional(found->second);
}

void MemoryStore::replace(const std::string& name, std::string_view content) {
    mFiles[name] = content;
}

}  // namespace quil::board
