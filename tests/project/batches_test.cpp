// Builds that compile several files as one need names that occur once: a call in one file must not
// bind to the function of another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/build.h"
#include "testing/program_output.h"

namespace quil::tests {

using testing::IsEmpty;

namespace {

using FilesByName = std::map<std::string, std::set<std::string>>;

// The names of unnamed namespaces in the files that a list names, and the files that have them.
// Macros of GoogleTest look like functions. PrintTo it finds by the type of its argument. Two
// aliases of one name are compiled only where they are the same.
FilesByName namesOfUnnamedNamespaces(const std::filesystem::path& list) {
    static const std::regex tag(R"((\w+)\t([^\t]+)\t.*\tnamespace:(.*)__anon\w+)");
    static const std::regex other("TEST.*|MATCHER.*|INSTANTIATE.*|PrintTo|__anon.*");
    std::istringstream tags(
        outputOf("ctags --languages=C++ --c++-kinds=fvcsg --excmd=number --fields=s -f - -L '" +
                 list.string() + "'"));
    FilesByName files;
    for (std::string line; std::getline(tags, line);) {
        std::smatch match;
        if (!std::regex_match(line, match, tag) || std::regex_match(match.str(1), other)) continue;
        files[match.str(3) + match.str(1)].insert(match[2]);
    }
    return files;
}

}  // namespace

TEST(Batches, NoNameOfAnUnnamedNamespaceOccursInTwoFilesOfALibrary) {
    std::vector<std::string> twice;
    size_t seen = 0;
    for (const auto& list : std::filesystem::directory_iterator(QUIL_BIN_DIR "/../batches")) {
        for (const auto& [name, files] : namesOfUnnamedNamespaces(list.path())) {
            ++seen;
            if (files.size() > 1) twice.push_back(name + " in " + *files.begin());
        }
    }
    EXPECT_GT(seen, 1000U);
    EXPECT_THAT(twice, IsEmpty());
}

}  // namespace quil::tests
