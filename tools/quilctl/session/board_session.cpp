#include "tools/quilctl/session/board_session.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <stdexcept>

#include "board/core/bytes.h"
#include "board/core/kept_store.h"
#include "board/core/whole_file.h"
#include "board/fpga/fpga_image.h"
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

// The library has no messages between these levels.
int leastPriority(const std::string& level) {
    if (level == "E" || level == "W") return ANDROID_LOG_ERROR;
    return level == "I" ? ANDROID_LOG_INFO : ANDROID_LOG_DEFAULT;
}

// A place for a temporary board, or one from which a relative path leads to the board.
void requirePlace(const std::filesystem::path& board) {
    std::error_code error;
    if (board.is_relative() && !board.empty()) {
        const auto here = std::filesystem::current_path(error);
        if (!error) return;
        throw failureOf(kNoBoard, "the working directory is gone (cd to another one)",
                        error.value());
    }
    if (!board.empty()) return;
    const auto place = std::filesystem::temp_directory_path(error);
    const char* named = getenv("TMPDIR");
    if (!error && access(place.c_str(), W_OK | X_OK) == 0) return;
    throw failureOf(kNoBoard,
                    "no temporary board: TMPDIR " + std::string(named == nullptr ? "/tmp" : named) +
                        " cannot be used (set another one, or name a board with --board)",
                    error ? error.value() : errno);
}

// What a board that lost its power has in its memories.
std::string stateOf(const std::filesystem::path& directory, bool touchedFpgaFlash) {
    const std::string mcu = board::checkFlashedMcu(directory).problem;
    if (!mcu.empty()) return "the MCU's flash is half done (" + mcu + ")";
    if (touchedFpgaFlash) {
        const std::string cells = board::readWholeFile(directory / "mtd0").value_or("");
        const std::string fpga = board::checkFpgaImage(board::bytesOf(cells)).problem;
        if (!fpga.empty()) return "the FPGA's flash is half done (" + fpga + ")";
    }
    return "no memory of the board is half done";
}

}  // namespace

Silenced::Silenced(int descriptor)
    : mDescriptor(descriptor), mSaved(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    fflush(stdout);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
    dup2(nowhere, mDescriptor);
    close(nowhere);
}

Silenced::~Silenced() {
    fflush(stdout);
    if (mSaved < 0) return;
    dup2(mSaved, mDescriptor);
    close(mSaved);
}

std::string productOf(const std::filesystem::path& directory) {
    board::IniReader reader;
    const int handle = reader.load(directory / "rootfs/vendor/etc/product.ini");
    const std::string* product = reader.find(handle, "product", "product");
    return product == nullptr ? "" : *product;
}

TemporaryBoard::TemporaryBoard(board::Product product) {
    board::createBoardDirectory(path(), product);
}

BoardSession::BoardSession(const Options& options, const Console& console, bool showLog)
    : mOptions(options), mConsole(console), mOutput(STDOUT_FILENO), mBoard(powerOn()) {
    if (options.quiet) mErrors.emplace(STDERR_FILENO);
    mStops.emplace([board = mBoard.get()] { board->cutPowerSoon("cut by an interruption"); });
    if (showLog || !options.logLevel.empty()) showLogLines();
    if (!options.logLevel.empty()) {
        mBoard->properties().setForThisRun(kLogLevelProperty, options.logLevel);
    }
    mHost.emplace();
}

std::unique_ptr<board::Board> BoardSession::powerOn() {
    board::takeKeepFailure();  // of an earlier board in this process
    std::filesystem::path directory = mOptions.boardDirectory;
    requirePlace(directory);
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
    board::BoardOptions how{mOptions.realtime, mOptions.seed};
    how.standstill.tell = [](const std::string& report) {
        endAtOnce(kInternal, "internal error: the board's threads wait for each other " + report);
    };
    return std::make_unique<board::Board>(directory, how);
}

BoardSession::~BoardSession() {
    mHost.reset();
    if (!mOptions.traceFile.empty()) saveTrace();
    const bool isInterrupted = interruption() != 0 && mBoard->powerIsCut();
    const board::Nanos at = mBoard->now();
    const auto touched = mBoard->trace().events(board::EventKind::kFlash);
    const bool touchedFpgaFlash = std::any_of(touched.begin(), touched.end(), [](const auto& one) {
        return one.source == board::kFlashDevice;
    });
    mStops.reset();
    mBoard.reset();
    const std::string unkept = board::takeKeepFailure();
    if (!unkept.empty()) {
        mConsole.lateFailures.emplace_back(kNoBoard, "the board's state is lost: " + unkept);
    }
    if (!isInterrupted) return;
    mConsole.lateFailures.emplace_back(exitCodeOf(interruption()),
                                       toldOfInterruption(at, touchedFpgaFlash));
}

// One line: when, what is half done, and how to go on.
std::string BoardSession::toldOfInterruption(board::Nanos at, bool touchedFpgaFlash) const {
    char text[64];
    snprintf(text, sizeof(text), " at %.3f s of board time: ", secondsOf(at));
    std::string told = wordFor(interruption()) + std::string(text);
    if (!mLeftOutside.empty()) {
        told += mLeftOutside;
    } else if (mTemporary) {
        told += "its board was a temporary one, nothing is left of it";
    } else {
        told += stateOf(mOptions.boardDirectory, touchedFpgaFlash);
    }
    return told + "; to do it again: " + mOptions.commandLine;
}

void BoardSession::showLogLines() {
    const int least = leastPriority(mOptions.logLevel);
    mBoard->trace().onEvent([this, least, &err = mConsole.err](const board::Event& event) {
        if (event.kind != board::EventKind::kLog) return;
        if (mBoard->lastLogLine().priority < least) return;
        const bool ended = !event.text.empty() && event.text.back() == '\n';
        err << "log: " << event.text << (ended ? "" : "\n");
    });
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
