// docs/interface.md is what the headers and the compiler say, and leaves no exported name out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::IsSupersetOf;

namespace {

// The names in the headings of its entries.
std::set<std::string> entriesOf(const std::string& page) {
    static const std::regex heading("\n### ([^\n]+)"), name(R"(\w+)");
    using Matches = std::sregex_iterator;
    std::set<std::string> entries;
    for (Matches it(page.begin(), page.end(), heading), end; it != end; ++it) {
        const std::string names = (*it)[1];
        for (Matches n(names.begin(), names.end(), name); n != end; ++n) entries.insert(n->str());
    }
    return entries;
}

}  // namespace

TEST(InterfacePage, IsWhatItsScriptMakesOfTheHeaders) {
    EXPECT_EQ(outputOf("'" QUIL_SOURCE_DIR "/docs/interface.py' '" QUIL_BIN_DIR "/..'"),
              projectText("docs/interface.md"))
        << "docs/interface.py build/dev >docs/interface.md";
}

TEST(InterfacePage, EveryExportedNameHasAnEntry) {
    EXPECT_THAT(entriesOf(projectText("docs/interface.md")), IsSupersetOf(plainNamesOfTheMap()));
}

}  // namespace quil::tests
