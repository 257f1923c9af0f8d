// The defects that ./run mutants puts into copies of the tree: small, and still of this tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/project_files.h"

namespace quil::tests {

using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

struct Hunk {
    size_t size;           // in lines, as its header says
    std::string replaced;  // the lines that have to be there
};

struct Patch {
    std::string says, file;
    std::vector<Hunk> hunks;
};

Patch patchIn(const std::filesystem::path& path) {
    static const std::string kFile = "+++ b/";
    std::istringstream lines(projectText(std::filesystem::relative(path, projectRoot())));
    Patch patch;
    std::getline(lines, patch.says);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(kFile, 0) == 0) {
            patch.file = line.substr(kFile.size());
        } else if (line.rfind("@@ ", 0) == 0) {
            patch.hunks.push_back({std::stoul(line.substr(line.find(',') + 1)), ""});
        } else if (!patch.hunks.empty() && (line[0] == ' ' || line[0] == '-')) {
            patch.hunks.back().replaced.append(line, 1).append("\n");
        }
    }
    return patch;
}

std::map<std::string, Patch> allPatches() {
    std::map<std::string, Patch> patches;
    const auto folder = projectRoot() / "tests/mutants";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.path().extension() != ".patch") continue;
        patches[entry.path().filename()] = patchIn(entry.path());
    }
    return patches;
}

// At one place only, so that the defect is where it was meant to be.
bool standsOnce(const std::string& text, const std::string& part) {
    const size_t at = text.find(part);
    return at != std::string::npos && text.find(part, at + 1) == std::string::npos;
}

}  // namespace

TEST(Mutants, EachPatchAppliesToItsFileAndSaysWhatTheDefectIs) {
    std::vector<std::string> wrong;
    for (const auto& [name, patch] : allPatches()) {
        const std::string text = projectText(patch.file);
        if (patch.says.empty() || patch.says.back() != '.') wrong.push_back(name + " says nothing");
        if (patch.hunks.empty()) wrong.push_back(name + " changes nothing");
        for (const auto& [size, replaced] : patch.hunks) {
            const auto lines = std::count(replaced.begin(), replaced.end(), '\n');
            const bool isWhole = static_cast<size_t>(lines) == size;
            if (!isWhole || !standsOnce(text, replaced)) wrong.push_back(name + " does not apply");
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(Mutants, AreOfEachFolderOfTheProductAndOfWhatJudgesIt) {
    std::set<std::string> folders;
    for (const auto& [name, patch] : allPatches()) {
        folders.insert(patch.file.substr(0, patch.file.find('/')));
    }
    EXPECT_THAT(folders, IsSupersetOf(kProductFolders));
    EXPECT_THAT(folders, IsSupersetOf({"board", "host", "programmer", "tools"}));
    EXPECT_GE(allPatches().size(), 40U);
}

}  // namespace quil::tests
