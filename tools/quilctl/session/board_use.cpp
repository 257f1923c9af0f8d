#include "tools/quilctl/session/board_use.h"

#include <chrono>
#include <filesystem>
#include <ostream>

#include "board/board_check.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kSilent{1000};  // a wait that is shorter is not worth a line

std::string lineIn(const std::string& directory, const board::BoardProblem& problem) {
    return directory + "/" + problem.file +
           (problem.line > 0 ? ":" + std::to_string(problem.line) : "");
}

}  // namespace

std::unique_ptr<board::DirectoryLock> useBoard(const std::string& directory,
                                               board::DirectoryLock::Use use,
                                               const Options& options, const Console& console) {
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        const bool isMissing = error == std::errc::no_such_file_or_directory;
        throw Failure(isMissing ? kUsage : kNoBoard, "no board directory " + directory,
                      "quilctl board new makes one");
    }
    board::requireTraces(directory);
    if (ServedBoard::call() != nullptr) return nullptr;  // its server has it
    const auto start = Clock::now();
    bool isTold = false;
    const auto goOn = [&](const std::string& holder) {
        if (interruption() != 0) {
            throw Failure(exitCodeOf(interruption()), std::string(wordFor(interruption())) +
                                                          " while " + directory +
                                                          " was in use by " + holder);
        }
        if (isTold || Clock::now() - start < kSilent) return true;
        console.err << directory << ": waiting for " << holder << std::endl;
        return isTold = true;
    };
    const auto most = milliseconds(static_cast<int64_t>(options.wait * 1000));
    return std::make_unique<board::DirectoryLock>(directory, use,
                                                  board::DirectoryLock::Patience{most, goOn});
}

void requireSoundBoard(const std::string& directory) {
    board::requireBoard(directory);
    for (const board::BoardProblem& problem : board::checkBoard(directory)) {
        if (problem.severity != board::Severity::kBlocking) continue;
        throw Failure(kNoBoard, lineIn(directory, problem) + ": " + problem.what +
                                    " (quilctl board repair " + directory + ")");
    }
}

}  // namespace quil::tools
