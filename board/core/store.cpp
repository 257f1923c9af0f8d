#include "board/core/store.h"

#include <errno.h>

#include <system_error>

#include "board/core/whole_file.h"

namespace quil::board {

namespace fs = std::filesystem;

std::string trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return "";
    return std::string(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

std::optional<Setting> settingIn(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    return Setting{trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1))};
}

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

bool DirectoryStore::isFolder(const std::string& name) const {
    std::error_code ignored;
    return fs::is_directory(mDirectory / name, ignored);
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

std::optional<std::string> OverlayStore::read(const std::string& name) const {
    const auto found = mWritten.find(name);
    return found == mWritten.end() ? mBelow->read(name) : found->second;
}

void OverlayStore::replace(const std::string& name, std::string_view content) {
    mWritten[name] = std::string(content);
}

bool OverlayStore::isFolder(const std::string& name) const {
    const auto inside = mWritten.lower_bound(name + "/");
    const bool hasFile = inside != mWritten.end() && inside->first.rfind(name + "/", 0) == 0;
    return hasFile || mBelow->isFolder(name);
}

int OverlayStore::obstacle(const std::string& name) const {
    if (isFolder(name)) return EISDIR;
    return isFolder(name.substr(0, name.rfind('/'))) ? 0 : ENOENT;
}

const std::string* OverlayStore::find(const std::string& name) const {
    auto found = mWritten.find(name);
    if (found == mWritten.end()) {
        found = mSeen.find(name);
        if (found == mSeen.end()) found = mSeen.emplace(name, mBelow->read(name)).first;
    }
    return found->second ? &*found->second : nullptr;
}

std::string& OverlayStore::edit(const std::string& name) {
    const auto [place, isNew] = mWritten.try_emplace(name);
    if (isNew) place->second = mBelow->read(name);
    if (!place->second) place->second.emplace();
    return *place->second;
}

}  // namespace quil::board
