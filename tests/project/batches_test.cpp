// Builds that compile several files as one need names that occur once: a call in one file must not
// bind to the function of another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

// The functions and data of unnamed namespaces, without parameters, and the objects that have them.
// PrintTo is the exception: GoogleTest finds it by the type of its argument.
FilesByName namesOfUnnamedNamespaces(const std::string& folder) {
    static const std::regex symbol(
        R"(^(\S+\.o):[0-9a-f]* \w ((?:\w+::)*\(anonymous namespace\)::(\w+))(\(.*)?$)");
    std::istringstream symbols(outputOf("find '" QUIL_BIN_DIR "/../" + folder +
                                        "' -name '*.cpp.o' -exec nm -A --defined-only {} + |"
                                        " grep _GLOBAL__N_1 | c++filt"));
    FilesByName files;
    for (std::string text; std::getline(symbols, text);) {
        std::smatch match;
        if (!std::regex_match(text, match, symbol) || match[3] == "PrintTo") continue;
        files[match[2]].insert(match[1]);
    }
    return files;
}

}  // namespace

TEST(Batches, NoNameOfAnUnnamedNamespaceOccursInTwoFilesOfABatch) {
    if (QUIL_IN_BATCHES) GTEST_SKIP() << "only objects of single files tell";
    std::vector<std::string> twice;
    size_t seen = 0;
    for (const char* folder :
         {"tests/CMakeFiles/quil_tests.dir", "tools/quilctl/CMakeFiles/quilctl_client.dir",
          "tools/quilctl/CMakeFiles/quilctl_lib.dir"}) {
        for (const auto& [name, files] : namesOfUnnamedNamespaces(folder)) {
            ++seen;
            if (files.size() > 1) twice.push_back(name + " in " + *files.begin());
        }
    }
    EXPECT_GT(seen, 100U);
    EXPECT_THAT(twice, IsEmpty());
}

}  // namespace quil::tests
