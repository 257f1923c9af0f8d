#include "tests/torture/folder.h"

#include <algorithm>
#include <functional>

#include "board/core/whole_file.h"
#include "testing/files.h"
#include "testing/verb_cases.h"

namespace quil::torture {
namespace {

namespace fs = std::filesystem;

// What each case's disk holds at first, made once.
const fs::path& example() {
    static const board::TemporaryDirectory place("torture-example");
    [[maybe_unused]] static const bool made = [] {
        tests::makeVerbFiles(place.path());
        return true;
    }();
    return place.path();
}

std::string garbage() {
    std::string bytes;
    for (unsigned i = 0; i < 600; ++i) bytes += static_cast<char>(i * 167 + i / 7);
    return bytes;
}

std::vector<Folder::Entry> entriesOf(const fs::path& folder) {
    std::vector<Folder::Entry> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const fs::path name = entry.path().lexically_relative(folder);
        entries.push_back({name, entry.symlink_status().type() == fs::file_type::directory});
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& one, const auto& other) { return one.name < other.name; });
    return entries;
}

}  // namespace

Folder::Folder() {
    fs::copy(example(), disk(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    fs::create_directory(temporary());
}

std::vector<Folder::Entry> Folder::boardEntries() {
    auto entries = entriesOf(example() / "board");
    entries.push_back({"lock", false});  // comes with the first use
    return entries;
}

void Folder::damage(const fs::path& entry, Damage kind) const {
    // kForbidden is done by failing calls: permissions would not stop root.
    if (kind == Damage::kNone || kind == Damage::kForbidden) return;
    const fs::path file = board() / entry;
    const std::string content = fs::is_regular_file(file) ? tests::contentOf(file) : "";
    fs::remove_all(file);
    if (kind == Damage::kEmpty) board::writeWholeFile(file, "");
    if (kind == Damage::kGarbage) board::writeWholeFile(file, garbage());
    if (kind == Damage::kTruncated) {
        board::writeWholeFile(file, content.substr(0, content.size() / 2));
    }
    if (kind == Damage::kDirectory) fs::create_directory(file);
    if (kind == Damage::kLoop) fs::create_symlink(file.filename(), file);
}

std::string Folder::tree() const {
    std::string tree;
    for (const auto& [name, isFolder] : entriesOf(disk())) {
        if (name == "out" || name == "board/lock" || name.rfind("tmp", 0) == 0) continue;
        std::error_code ignored;
        const bool isFile = fs::is_regular_file(disk() / name, ignored);
        const std::string content = isFile ? tests::contentOf(disk() / name) : "";
        // A report has the folder's name and a random number in it: whether it is whole counts.
        const bool isReport = name.ends_with(".html") && content.ends_with("</html>\n");
        tree +=
            name + " " + std::to_string(isReport ? 0 : std::hash<std::string>()(content)) + "\n";
    }
    return tree;
}

std::vector<std::string> Folder::leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(temporary())) {
        names.push_back(entry.path().filename());
    }
    return names;
}

}  // namespace quil::torture
