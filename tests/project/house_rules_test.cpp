// The rules of the source tree: which folder includes which, and how long files and lines are.
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

#include "testing/project_files.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::IsEmpty;

namespace {

std::vector<std::string> linesOf(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// What a file's quoted includes name, as far as the pattern's group reaches.
std::set<std::string> includedBy(const fs::path& file, const std::string& group) {
    const std::regex include("^#include \"" + group);
    std::set<std::string> found;
    for (const std::string& line : linesOf(file)) {
        std::smatch match;
        if (std::regex_search(line, match, include)) found.insert(match[1]);
    }
    return found;
}

// What each folder may include beside itself; "platform" stands in for the platform's headers.
const std::map<std::string, std::set<std::string>> kMayInclude = {
    {"common", {}},
    {"config", {"common"}},
    {"mculink", {"common"}},
    {"isp", {"common", "config", "mculink"}},
    {"fpga", {"common", "config"}},
    {"selftest", {"common", "config"}},
    {"service", {"common", "config", "mculink", "selftest"}},
    {"platform", {"host"}},
    {"board", {"platform"}},
    {"host", {"config", "fpga", "isp", "mculink", "service"}},
    {"programmer", {}},
    {"tools", {"board", "config", "fpga", "host", "isp", "programmer", "selftest", "service"}},
    {"testing",
     {"board", "config", "fpga", "host", "isp", "mculink", "selftest", "service", "tools"}},
    {"fuzz",
     {"board", "common", "config", "fpga", "host", "isp", "mculink", "programmer", "selftest",
      "service", "testing", "tools"}},
    {"bench",
     {"board", "common", "config", "fpga", "isp", "mculink", "programmer", "service", "testing",
      "tools"}},
    {"tests",
     {"board", "common", "config", "fpga", "fuzz", "host", "isp", "mculink", "platform",
      "programmer", "selftest", "service", "testing", "tools"}},
};

// The sources that the build's lists name. The fuzz targets stand there without their extension.
std::set<fs::path> listedSources() {
    static const std::regex word(R"([^\s()]+)");
    std::set<fs::path> listed;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const auto& entry : fs::recursive_directory_iterator(projectRoot() / folder)) {
            if (entry.path().filename() != "CMakeLists.txt") continue;
            const std::string text = std::regex_replace(projectText(entry.path()),
                                                        std::regex(R"(\$\{PROJECT_SOURCE_DIR\})"),
                                                        projectRoot().string());
            for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it) {
                const fs::path source = entry.path().parent_path() / it->str();
                listed.insert(source.lexically_normal());
                listed.insert(source.lexically_normal().string() + ".cpp");
            }
        }
    }
    return listed;
}

// The same inside board/. A header that lies in board/ itself stands for a folder of its own.
const std::map<std::string, std::set<std::string>> kBoardMayInclude = {
    {"core", {}},
    {"devices", {"core"}},
    {"mcu", {"core", "devices"}},
    {"fpga", {"core", "devices"}},
    {"board_directory", {"core", "devices", "fpga", "mcu"}},
    {"checked_files", {"core"}},
    {"board_check", {"board_directory", "checked_files", "core", "devices", "fpga", "mcu"}},
    {"board", {"board_directory", "core", "devices", "fpga", "interpose", "machine", "mcu"}},
    {"machine", {"board", "core", "devices", "fpga"}},
    {"interpose", {"core", "fpga", "machine"}},
};

}  // namespace

TEST(HouseRules, EachFolderIncludesOnlyTheFoldersBelowIt) {
    std::vector<std::string> wrong;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const fs::path& file : sourcesIn(folder)) {
            for (const std::string& included : includedBy(file, "([^/\"]+)/")) {
                if (included == folder || allowed.count(included) != 0) continue;
                wrong.push_back(fs::relative(file, projectRoot()).string() + " includes " +
                                included);
            }
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, EachPartOfTheBoardIncludesOnlyThePartsBelowIt) {
    std::vector<std::string> wrong;
    const fs::path board = projectRoot() / "board";
    for (const fs::path& file : sourcesIn("board")) {
        const fs::path inside = fs::relative(file, board);
        const std::string part =
            inside.has_parent_path() ? inside.parent_path().string() : inside.stem().string();
        const auto allowed = kBoardMayInclude.find(part);
        ASSERT_NE(allowed, kBoardMayInclude.end()) << part;
        for (const std::string& included : includedBy(file, "board/([^/\".]+)")) {
            if (included == part || allowed->second.count(included) != 0) continue;
            wrong.push_back("board/" + inside.string() + " includes " + included);
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

// Whoever reaches the powered machine depends on all of the board: only what stands in for the C
// library has no other way.
TEST(HouseRules, OnlyTheBoardAndItsInterpositionReachThePoweredMachine) {
    std::vector<std::string> wrong;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const fs::path& file : sourcesIn(folder)) {
            if (includedBy(file, "(board/machine\\.h)").empty()) continue;
            const std::string name = fs::relative(file, projectRoot()).string();
            const bool isAllowed = name == "board/machine.cpp" || name == "board/board.cpp" ||
                                   name.rfind("board/interpose/", 0) == 0;
            if (!isAllowed) wrong.push_back(name);
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, EveryFolderWithSourcesHasItsArrows) {
    std::vector<std::string> without;
    for (const auto& entry : fs::directory_iterator(projectRoot())) {
        const std::string folder = entry.path().filename();
        if (!entry.is_directory() || folder == "build" || folder[0] == '.') continue;
        if (kMayInclude.count(folder) == 0 && !sourcesIn(folder).empty()) without.push_back(folder);
    }
    EXPECT_THAT(without, IsEmpty());
}

TEST(HouseRules, EverySourceIsNamedInTheListsOfTheBuild) {
    const std::set<fs::path> listed = listedSources();
    std::vector<fs::path> unlisted;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const fs::path& file : sourcesIn(folder)) {
            if (file.extension() == ".cpp" && listed.count(file) == 0) unlisted.push_back(file);
        }
    }
    EXPECT_THAT(unlisted, IsEmpty());
}

TEST(HouseRules, FoldersOfTestsIncludeNoOtherOnes) {
    static const std::regex include("^#include \"tests/([^/\"]+)/");
    std::vector<std::string> wrong;
    for (const fs::path& file : sourcesIn("tests")) {
        const std::string folder = fs::relative(file, projectRoot() / "tests").begin()->string();
        for (const std::string& line : linesOf(file)) {
            std::smatch match;
            if (!std::regex_search(line, match, include) || match[1] == folder) continue;
            wrong.push_back(fs::relative(file, projectRoot()).string() + ": " + line);
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, NamesOfTestsBeginWithoutAnArticle) {
    static const std::regex name("TEST(_[FP])?\\(\\w+,\\s*(\\w+)\\)");
    static const std::regex article("(A|An|The)[A-Z0-9].*");
    std::vector<std::string> wrong;
    size_t seen = 0;
    for (const fs::path& file : sourcesIn("tests")) {
        const std::string text = projectText(fs::relative(file, projectRoot()));
        for (std::sregex_iterator it(text.begin(), text.end(), name), end; it != end; ++it) {
            ++seen;
            if (std::regex_match((*it)[2].str(), article)) wrong.push_back((*it)[2]);
        }
    }
    EXPECT_GT(seen, 1000U);
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, HeadersOfTheCLibraryAndSizeofAreSpelledInOneWay) {
    static const std::regex otherSpelling(
        "#include <c(assert|ctype|errno|limits|signal|stdarg|stddef|stdint|stdio|stdlib|string|"
        "time)>|\\bsizeof [A-Za-z_]");
    std::vector<std::string> wrong;
    for (const auto& [folder, allowed] : kMayInclude) {
        for (const fs::path& file : sourcesIn(folder)) {
            if (file.filename() == "house_rules_test.cpp") continue;  // has the pattern
            for (const std::string& line : linesOf(file)) {
                if (std::regex_search(line, otherSpelling)) wrong.push_back(file.string() + line);
            }
        }
    }
    EXPECT_THAT(wrong, IsEmpty());
}

TEST(HouseRules, FilesStayUnder600LinesAnd100Columns) {
    std::vector<std::string> wrong;
    size_t seen = 0;
    for (const auto& [folder, allowed] : kMayInclude) {
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
