// The rules of the house that a reader relies on: which folder includes which, and how long things
// are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/project_files.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::IsEmpty;

namespace {

std::vector<fs::path> sourcesIn(const std::string& folder) {
    std::vector<fs::path> files;
    if (!fs::exists(projectRoot() / folder)) return files;
    for (const auto& entry : fs::recursive_directory_iterator(projectRoot() / folder)) {
        const std::string extension = entry.path().extension();
        if (extension == ".cpp" || extension == ".h") files.push_back(entry.path());
    }
    return files;
}

std::vector<std::string> linesOf(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The folders of the project that a file's quoted includes name.
std::set<std::string> foldersIncludedBy(const fs::path& file) {
    static const std::regex include("^#include \"([^/\"]+)/");
    std::set<std::string> folders;
    for (const std::string& line : linesOf(file)) {
        std::smatch match;
        if (std::regex_search(line, match, include)) folders.insert(match[1]);
    }
    return folders;
}

// What each folder of the product may include, beside itself.
const std::map<std::string, std::set<std::string>> kMayInclude = {
    {"common", {}},
    {"mculink", {"common"}},
    {"isp", {"common"}},
    {"update", {"common", "isp", "mculink"}},
    {"fpga", {"common", "update"}},
    {"selftest", {"common", "update"}},
    {"service", {"common", "mculink", "selftest", "update"}},
};

// Product first: the rest has to be as readable.
const std::vector<std::string> kFolders = {"common",  "mculink",  "isp",   "update",  "fpga",
                                           "service", "selftest", "board", "host",    "tools",
                                           "fuzz",    "tests",    "bench", "platform"};

}  // namespace

TEST(HouseRules, EachFolderOfTheProductIncludesOnlyTheFoldersBelowIt) {
    std::vector<std::string> wrong;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const fs::path& file : sourcesIn(folder)) {
            for (const std::string& included : foldersIncludedBy(file)) {
                if (included == folder || allowed.count(included) != 0) continue;
                wrong.push_back(fs::relative(file, projectRoot()).string() + " includes " +
                                included);
            }
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, BoardSharesNoCodeWithTheProduct) {
    std::vector<std::string> wrong;
    for (const fs::path& file : sourcesIn("board")) {
        for (const std::string& included : foldersIncludedBy(file)) {
            // What the two share is the closed libraries' declarations: the board provides them.
            if (included == "board" || included == "platform") continue;
            wrong.push_back(file.filename().string() + ": " + included);
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, FilesStayUnder600LinesAnd100Columns) {
    std::vector<std::string> wrong;
    size_t seen = 0;
    for (const std::string& folder : kFolders) {
        for (const fs::path& file : sourcesIn(folder)) {
            const std::vector<std::string> lines = linesOf(file);
            ++seen;
            const std::string name = fs::relative(file, projectRoot()).string();
            if (lines.size() > 600) wrong.push_back(name + " has too many lines");
            const bool tooWide = std::any_of(lines.begin(), lines.end(),
                                             [](const auto& line) { return line.size() > 100; });
            if (tooWide) wrong.push_back(name + " has a line above 100 columns");
        }
    }
    EXPECT_GT(seen, 50U);
    EXPECT_THAT(wrong, IsEmpty());
}

}  // namespace quil::tests
