#include "board/core/store.h"

#include <errno.h>

#include <system_error>

#include "board/core/whole_file.h"

namespace quil::board {

namespace fs = std::filesystem;

DirectoryStore::DirectoryStore(fs::path directory, Keeping keeping)
    : mDirectory(std::move(directory)), mKeeping(keeping) {}

std::optional<std::string> DirectoryStore::read(const std::string& name) const {
    return readWholeFile(mDirectory / name);
}

void DirectoryStore::replace(const std::string& name, std::string_view content) {
    if (mKeeping == Keeping::kReadOnly) {
        throw std::system_error(EROFS, std::generic_category(),
                                (mDirectory / name).string() + ": is only read by this program");
    }
    replaceWholeFile(mDirectory / name, content, mKeeping == Keeping::kDurable);
}

int DirectoryStore::obstacle(const std::string& name) const {
    std::error_code ignored;
    const fs::path file = mDirectory / name;
    if (fs::is_directory(file, ignored)) return EISDIR;
    return fs::is_directory(file.parent_path(), ignored) ? 0 : ENOENT;
}

std::optional<std::string> MemoryStore::read(const std::string& name) const {
    const auto found = mFiles.find(name);
    return found == mFiles.end() ? std::nullopt : std::optional(found->second);
}

void MemoryStore::replace(const std::string& name, std::string_view content) {
    mFiles[name] = content;
}

}  // namespace quil::board
