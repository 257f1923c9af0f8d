// Runs every fuzz target over its corpus: examples, and inputs that once failed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <set>
#include <sstream>

#include "fuzz/exported_calls.h"
#include "fuzz/targets.h"
#include "testing/build.h"
#include "testing/files.h"
#include "testing/library_test.h"

namespace quil::fuzz {
void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }
}  // namespace quil::fuzz

namespace quil::tests {

namespace {

const std::filesystem::path kCorpora = std::filesystem::path(QUIL_SOURCE_DIR) / "fuzz/corpus";

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

Bytes bytesIn(const std::filesystem::path& file) {
    const std::string content = contentOf(file);
    return {content.begin(), content.end()};
}

}  // namespace

class FuzzCorpus : public testing::TestWithParam<fuzz::Target> {};

TEST_P(FuzzCorpus, HoldsForEachInputThatIsKept) {
    const auto inputs = filesIn(kCorpora / GetParam().name);
    EXPECT_THAT(inputs, testing::SizeIs(testing::Ge(5U)));
    for (const auto& file : inputs) {
        const Bytes input = bytesIn(file);
        standardOutputOf([&] {
            EXPECT_NO_THROW(GetParam().run(input))
                << "replay: ./run fuzz " << GetParam().name << " " << file;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Of, FuzzCorpus, testing::ValuesIn(fuzz::kTargets),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(FuzzCorpora, BelongToATargetEach) {
    std::vector<std::string> names;
    for (const fuzz::Target& target : fuzz::kTargets) names.emplace_back(target.name);
    std::vector<std::string> folders;
    for (const auto& folder : filesIn(kCorpora)) folders.push_back(folder.filename());
    EXPECT_EQ(folders, names);
}

// The names of C in the version script: functions and data.
std::set<std::string> exportedNames() {
    std::istringstream words(contentOf(std::filesystem::path(QUIL_SOURCE_DIR) / "quil.map"));
    std::set<std::string> names;
    for (std::string word; words >> word && word != "extern";) {
        if (word.back() == ';') names.insert(word.substr(0, word.size() - 1));
    }
    return names;
}

TEST(FuzzTargets, CallEachFunctionThatTheLibraryExports) {
    std::set<std::string> names = exportedNames();
    for (const fuzz::ExportedCall& call : fuzz::exportedCalls()) {
        EXPECT_EQ(names.erase(call.name), 1U) << call.name;
    }
    EXPECT_THAT(
        names, testing::ElementsAre("buffer", "config_info", "fd", "free_routing_topology",
                                    "g_n_lable", "isp_cmd_arr", "polynom", "st_func_offset_map_tab",
                                    "stm_sem", "str_mcu_type", "test_option_table"));
}

}  // namespace quil::tests
