#include "board/checked_files.h"

#include "board/core/whole_file.h"

namespace quil::board {

namespace fs = std::filesystem;

bool CheckedDirectory::isThere(const std::string& name) const {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(mDir / name, ignored));
}

CheckedFiles::Type CheckedDirectory::typeOf(const std::string& name) const {
    std::error_code ignored;
    return fs::status(mDir / name, ignored).type();
}

std::optional<std::string> CheckedDirectory::read(const std::string& name) const {
    return readWholeFile(mDir / name);
}

std::vector<std::string> CheckedDirectory::namesIn(const std::string& folder) const {
    std::error_code ignored;
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(mDir / folder, ignored)) {
        names.push_back((fs::path(folder) / entry.path().filename()).string());
    }
    return names;
}

std::vector<CheckedFiles::Entry> CheckedDirectory::all(std::error_code& error) const {
    std::vector<Entry> entries;
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    for (auto entry = fs::recursive_directory_iterator(mDir, kOptions, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        entries.push_back(
            {entry->path().lexically_relative(mDir).string(), entry->status(ignored).type()});
    }
    return entries;
}

CheckedFiles::Type CheckedMemory::typeOf(const std::string& name) const {
    if (mBoard.isFolder(name)) return Type::directory;
    return mBoard.files().count(name) != 0 ? Type::regular : Type::not_found;
}

std::optional<std::string> CheckedMemory::read(const std::string& name) const {
    return mBoard.read(name);
}

std::vector<std::string> CheckedMemory::namesIn(const std::string& folder) const {
    std::vector<std::string> names;
    std::error_code none;
    for (Entry& entry : all(none)) {
        const size_t slash = entry.name.rfind('/');
        const size_t parent = slash == std::string::npos ? 0 : slash;
        if (entry.name.compare(0, parent, folder) == 0) names.push_back(std::move(entry.name));
    }
    return names;
}

std::vector<CheckedFiles::Entry> CheckedMemory::all(std::error_code& /*error*/) const {
    std::vector<Entry> entries;
    for (const std::string& folder : mBoard.folders()) entries.push_back({folder, Type::directory});
    for (const auto& [name, content] : mBoard.files()) entries.push_back({name, Type::regular});
    return entries;
}

}  // namespace quil::board
