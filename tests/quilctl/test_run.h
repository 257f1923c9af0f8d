// Runs the command line in this process and keeps what it said.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "board/board_directory.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "testing/bytes.h"
#include "testing/library_state.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tests {

struct Said {
    int code;
    std::string out;
    std::string err;
};

// Runs the program in this process, with a library as a new process has it: but for the device's
// program, whose library belongs to the service.
inline int exitCodeOf(const tools::Program& program, const tools::Words& words,
                      const tools::Streams& console) {
    std::vector<const char*> argv = {"quilctl"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    std::optional<FreshLibrary> library;
    if (&program == &tools::kBoardProgram) library.emplace();
    const int code = tools::run(program, static_cast<int>(argv.size()), argv.data(), console);
    tools::forgetInterruption();
    return code;
}

inline Said runProgram(const tools::Program& program, const std::vector<std::string>& words,
                       const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    const int code = exitCodeOf(program, words, {in, out, err});
    return {code, out.str(), err.str()};
}

inline Said quilctl(const std::vector<std::string>& words, const std::string& input = "") {
    return runProgram(tools::kBoardProgram, words, input);
}

// What the command found out, of its JSON form.
inline nlohmann::json resultOf(const Said& said) {
    return nlohmann::json::parse(said.out)["result"];
}

// A directory that goes away with the test, and boards in it.
class QuilctlRun : public testing::Test {
  protected:
    std::string path(const char* name) const { return (directory / name).string(); }
    std::string imageFile(const std::string& content) const {
        board::writeWholeFile(directory / "image.bin", content);
        return path("image.bin");
    }
    std::string newBoard(const std::string& product = "Heron") const {
        std::string board = (directory / product).string();
        EXPECT_EQ(quilctl({"board", "new", board, "--product", product}).code, tools::kOk);
        return board;
    }

  private:
    const board::TemporaryDirectory mScratch{"quilctl"};

  protected:
    const std::filesystem::path& directory = mScratch.path();
};

}  // namespace quil::tests
