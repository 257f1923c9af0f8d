#include "tools/quilctl/session/board_session.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <stdexcept>

#include "board/core/kept_store.h"
#include "board/mcu/mcu_fitting.h"

namespace quil::tools {
namespace {

void writeTrace(const board::Trace& trace, const std::filesystem::path& file) {
    if (file.extension() == ".vcd") {
        trace.writeVcd(file);
    } else if (file.extension() == ".json") {
        trace.writeTraceEventJson(file);
    } else {
        trace.writeText(file);
    }
}

}  // namespace

QuietStandardOutput::QuietStandardOutput() {
    fflush(stdout);
    mSaved = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
}

QuietStandardOutput::~QuietStandardOutput() {
    fflush(stdout);
    if (mSaved < 0) return;
    dup2(mSaved, STDOUT_FILENO);
    close(mSaved);
}

TemporaryBoard::TemporaryBoard(board::Product product) {
    board::createBoardDirectory(path(), product);
}

BoardSession::BoardSession(const Options& options, const Console& console, bool showLog)
    : mOptions(options), mConsole(console), mBoard(powerOn()) {
    if (showLog || !options.logLevel.empty()) showLogLines();
    applyLogLevel();
    mHost.emplace();
}

std::unique_ptr<board::Board> BoardSession::powerOn() {
    board::takeKeepFailure();  // of an earlier board in this process
    std::filesystem::path directory = mOptions.boardDirectory;
    if (directory.empty()) {
        mTemporary.emplace(board::productByName(mOptions.product).value_or(board::Product::kHeron));
        directory = mTemporary->path();
        const board::McuPart* part = board::partNamedIn(mOptions.chip);
        if (part != nullptr) board::fitMcu(directory, {.kind = part->kind});
    } else if (!std::filesystem::is_directory(directory)) {
        throw std::runtime_error("no board directory " + mOptions.boardDirectory +
                                 " (quilctl board new makes one)");
    }
    if (!mOptions.mcuInstalled.empty()) board::flashMcu(directory, mOptions.mcuInstalled);
    return std::make_unique<board::Board>(directory,
                                          board::BoardOptions{mOptions.realtime, mOptions.seed});
}

BoardSession::~BoardSession() {
    finish();
    mBoard.reset();
    const std::string unkept = board::takeKeepFailure();
    if (!unkept.empty()) {
        mConsole.lateFailures.emplace_back(kNoBoard, "the board's state is lost: " + unkept);
    }
}

void BoardSession::showLogLines() {
    mBoard->trace().onEvent([&err = mConsole.err](const board::Event& event) {
        if (event.kind != board::EventKind::kLog) return;
        const bool ended = !event.text.empty() && event.text.back() == '\n';
        err << "log: " << event.text << (ended ? "" : "\n");
    });
}

// The level is for this run only, although the board keeps its properties.
void BoardSession::applyLogLevel() {
    if (mOptions.logLevel.empty()) return;
    mFormerLevel = mBoard->properties().get(kLogLevelProperty, "E");
    mBoard->properties().set(kLogLevelProperty, mOptions.logLevel);
}

void BoardSession::finish() {
    mHost.reset();
    if (!mFormerLevel.empty()) mBoard->properties().set(kLogLevelProperty, mFormerLevel);
    if (!mOptions.traceFile.empty()) saveTrace();
}

void BoardSession::saveTrace() {
    try {
        writeTrace(mBoard->trace(), mOptions.traceFile);
    } catch (const std::runtime_error& error) {
        mConsole.lateFailures.emplace_back(kNotWritten, std::string("--trace: ") + error.what());
    }
}

void BoardSession::onRequest(bool isWrite, const Bytes& request) {
    mBoard->trace().add(board::EventKind::kRequest, "client", isWrite ? "set" : "get", request);
}

std::string BoardSession::lastError(size_t since) const {
    const auto lines = mBoard->logLines();
    std::string last;
    for (size_t i = since; i < lines.size(); ++i) {
        if (lines[i].priority == ANDROID_LOG_ERROR) last = lines[i].text;
    }
    while (!last.empty() && last.back() == '\n') last.pop_back();
    return last;
}

void BoardSession::startService(const host::BootJobs& jobs) {
    const host::StartUpResult result = mHost->start(jobs);
    if (!result.ok()) throw std::runtime_error(result.text);
}

}  // namespace quil::tools
