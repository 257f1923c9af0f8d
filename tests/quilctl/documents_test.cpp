// The examples of the documents do what the documents say: every console block is typed into a
// shell, one folder for each document.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>

#include <filesystem>
#include <sstream>

#include "board/core/temporary_directory.h"
#include "testing/build.h"
#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {
namespace {

struct Example {
    std::string command;
    std::string output;  // as the document shows it; empty when it shows none
};

struct DocumentExamples {
    std::vector<Example> run;
    size_t byHand = 0;                 // in blocks that need a device or a second terminal
    std::vector<std::string> outside;  // of any console block
};

constexpr char kPrompt[] = "$ ", kRun[] = "```console", kByHand[] = "```console by-hand";

// A command goes on behind a backslash; what follows it until the next prompt is its output.
void addLine(const std::string& line, std::vector<Example>& examples) {
    if (line.rfind(kPrompt, 0) == 0) {
        examples.push_back({line.substr(strlen(kPrompt)), ""});
    } else if (!examples.empty() && !examples.back().command.empty() &&
               examples.back().command.back() == '\\') {
        examples.back().command += "\n" + line;
    } else if (!examples.empty()) {
        examples.back().output += line + "\n";
    }
}

DocumentExamples examplesOf(const std::string& document) {
    DocumentExamples found;
    std::vector<Example> block;
    std::string fence;
    std::istringstream lines(projectText(document));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("```", 0) == 0) {
            if (fence == kRun) found.run.insert(found.run.end(), block.begin(), block.end());
            if (fence == kByHand) found.byHand += block.size();
            block.clear();
            fence = fence.empty() ? line : "";
        } else if (fence == kRun || fence == kByHand) {
            addLine(line, block);
        } else if (line.rfind("$ quilctl", 0) == 0) {
            found.outside.push_back(line);
        }
    }
    return found;
}

void expectExamplesHold(const std::string& document) {
    const board::TemporaryDirectory scratch("quil-examples");
    const DocumentExamples examples = examplesOf(document);
    EXPECT_THAT(examples.outside, testing::IsEmpty()) << "not in a console block";
    EXPECT_FALSE(examples.run.empty());
    for (const Example& example : examples.run) {
        const CommandRun run = runCommand("cd '" + scratch.path().string() +
                                          "' && PATH='" QUIL_BIN_DIR
                                          "':$PATH && unset QUIL_BOARD && exec 2>/dev/null\n" +
                                          example.command);
        EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) <= 1) << example.command;
        if (example.output.empty()) continue;
        EXPECT_EQ(run.output, example.output) << document << ": " << example.command;
    }
}

class Documents : public testing::Test {
  protected:
    void SetUp() override {
        if (!std::string(QUIL_EMULATOR).empty()) {
            GTEST_SKIP() << "a shell cannot start programs of another machine";
        }
    }
};

TEST_F(Documents, ExamplesOfTheReadmePrintWhatItShows) { expectExamplesHold("README.md"); }

TEST_F(Documents, ExamplesOfTheCommandLinesPagePrintWhatItShows) {
    expectExamplesHold("docs/quilctl.md");
}

TEST_F(Documents, OnlyExamplesThatNeedADeviceAreLeftToTheReader) {
    EXPECT_EQ(examplesOf("README.md").byHand, 5U);
    EXPECT_EQ(examplesOf("docs/quilctl.md").byHand, 0U);
}

}  // namespace
}  // namespace quil::tests
