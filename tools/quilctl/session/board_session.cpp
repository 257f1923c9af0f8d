#include "tools/quilctl/session/board_session.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>

#include "board/core/bytes.h"
#include "board/core/kept_store.h"
#include "board/core/whole_file.h"
#include "board/fpga/fpga_image.h"
#include "board/mcu/mcu_fitting.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/recording.h"
#include "tools/quilctl/session/stage_advice.h"
#include "tools/quilctl/session/trace_files.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {
namespace {

void writeTrace(const board::Trace& trace, const std::string& name, std::ostream& standardOutput) {
    const TraceTarget target = traceTargetOf(name);
    const std::string text = target.render(trace);
    if (target.file != "-") return board::writeWholeFile(target.file, text);
    errno = 0;
    standardOutput << text;
    standardOutput.flush();
    if (!standardOutput) {
        throw failureOf(kNotWritten, "standard output cannot be written", errno);
    }
}

// The library has no messages between these levels.
int leastPriority(const std::string& level) {
    if (level == "E" || level == "W") return ANDROID_LOG_ERROR;
    return level == "I" ? ANDROID_LOG_INFO : ANDROID_LOG_DEFAULT;
}

constexpr char kPlaceRemedy[] =
    "set TMPDIR to a folder with room for a board, or name a board with --board";

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
    throw Failure(kNoBoard,
                  "no temporary board: TMPDIR " + std::string(named == nullptr ? "/tmp" : named) +
                      " cannot be used: " + strerror(error ? error.value() : errno),
                  kPlaceRemedy);
}

// Two outputs in one file, or both on standard output, would leave neither to be read.
void requireOwnPlace(const std::string& file, const std::string& option,
                     std::set<std::filesystem::path>& taken) {
    std::error_code error;
    std::filesystem::path place = file;
    if (file != "-") place = std::filesystem::weakly_canonical(place, error);
    if (taken.insert(place).second) return;
    throw Failure(kUsage, option + " " + (file == "-" ? "standard output" : file) +
                              " is asked for twice: each output needs a place of its own");
}

// Before anything is done of which the trace would be lost.
void requireOutputs(const Options& options) {
    std::set<std::filesystem::path> taken;
    for (const std::string& name : options.traceFiles) {
        const std::string file = traceTargetOf(name).file;
        requireOwnPlace(file, "--trace:", taken);
        if (file != "-") requireWritable(file, "--trace: " + file);
    }
    if (!options.recording) return;
    const std::string& report = options.recording->file;
    requireOwnPlace(std::filesystem::absolute(report), "--report:", taken);
    requireWritable(report, "--report: " + report);
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

bool hasTouchedFpgaFlash(board::Board& board) {
    const auto touched = board.trace().events(board::EventKind::kFlash);
    return std::any_of(touched.begin(), touched.end(),
                       [](const auto& one) { return one.source == board::kFlashDevice; });
}

void addUnkept(std::vector<Failure>& failures) {
    const std::string unkept = board::takeKeepFailure();
    if (unkept.empty()) return;
    failures.emplace_back(kNoBoard, "the board's state is lost: " + unkept);
}

char letterOf(int priority) {
    switch (priority) {
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        default:
            return 'E';
    }
}

// Log lines as they come. A loop of retries says the same again and again: nobody who has not asked
// for a level reads that.
class LogLines {
  public:
    LogLines(Reporter& report, bool isWhole) : mReport(report), mIsWhole(isWhole) {}

    void show(char level, const std::string& tag, std::string text) {
        while (!text.empty() && text.back() == '\n') text.pop_back();
        const size_t times = ++mTimes[text];
        if (mIsWhole || times <= kMost) mReport.log(level, tag, text);
    }

    void finish() {
        for (const auto& [text, times] : mTimes) {
            if (mIsWhole || times <= kMost) continue;
            mReport.notes() << times - kMost << " more log lines: " << text << '\n';
        }
        mTimes.clear();
    }

  private:
    static constexpr size_t kMost = 3;
    Reporter& mReport;
    const bool mIsWhole;
    std::map<std::string, size_t> mTimes;
};

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

void endAtStandstill(const std::string& report) {
    endAtOnce(kInternal, "internal error: the board's threads wait for each other " + report);
}

TemporaryBoard::TemporaryBoard(board::Product product) try {
    board::createBoardDirectory(path(), product);
} catch (const std::runtime_error& error) {
    throw Failure(kNoBoard, std::string("no temporary board: ") + error.what(), kPlaceRemedy);
}

void requireSameProduct(const Options& options) {
    if (options.boardDirectory.empty() || options.product.empty()) return;
    const std::string product = productOf(options.boardDirectory);
    if (product == options.product) return;
    throw Failure(kUsage, "--product " + options.product + ": the board in " +
                              options.boardDirectory + " is " +
                              (product.empty() ? "of no known product" : "a " + product) +
                              "; leave --product out, or name another board");
}

BoardSession::BoardSession(const Options& options, const Console& console, bool showLog, Use use)
    : mOptions(options),
      mConsole(console),
      mOutput(STDOUT_FILENO),
      mBoard(powerOn(use)),
      mListeners(mBoard->trace().listeners()) {
    if (options.quiet) mErrors.emplace(STDERR_FILENO);
    if (mOwn) mStops.emplace([board = mBoard] { board->cutPowerSoon("cut by an interruption"); });
    if (showLog || !options.logLevel.empty()) showLogLines();
    if (!options.logLevel.empty()) {
        mBoard->properties().setForThisRun(kLogLevelProperty, options.logLevel);
    }
    mHost.emplace();
}

board::Board* BoardSession::powerOn(Use use) {
    board::takeKeepFailure();  // of an earlier command in this process
    const ServedBoard::Call* call = ServedBoard::call();
    if (call == nullptr) return powerOnOwn(use);
    requireOutputs(mOptions);
    requireSameProduct(mOptions);
    return &call->board.lend(mOptions);
}

board::Board* BoardSession::powerOnOwn(Use use) {
    auto keeping = board::Keeping::kScratch;
    std::filesystem::path directory = mOptions.boardDirectory;
    requirePlace(directory);
    requireOutputs(mOptions);
    if (directory.empty()) {
        mTemporary.emplace(board::productByName(mOptions.product).value_or(board::Product::kHeron));
        directory = mTemporary->path();
        const board::McuPart* part = board::partNamedIn(mOptions.chip);
        if (part != nullptr) board::fitMcu(directory, {.kind = part->kind});
    } else {
        mUse = useBoard(mOptions.boardDirectory, use, mOptions, mConsole);
        requireSoundBoard(mOptions.boardDirectory);
        keeping = use == Use::kOwner ? board::Keeping::kDurable : board::Keeping::kReadOnly;
    }
    requireSameProduct(mOptions);
    if (!mOptions.mcuInstalled.empty()) board::flashMcu(directory, mOptions.mcuInstalled, keeping);
    board::BoardOptions how{.realtime = mOptions.realtime, .seed = mOptions.seed};
    how.keeping = keeping;
    how.standstill.tell = endAtStandstill;
    mOwn = std::make_unique<board::Board>(directory, how);
    return mOwn.get();
}

BoardSession::~BoardSession() {
    mHost.reset();
    if (mFinishLog) mFinishLog();
    for (const std::string& name : mOptions.traceFiles) saveTrace(name);
    if (mOptions.recording) record(*mBoard, *mOptions.recording);
    if (!mOwn) {
        giveBack();
        return;
    }
    const bool isInterrupted = interruption() != 0 && mBoard->powerIsCut();
    const board::Nanos at = mBoard->now();
    const bool touchedFpgaFlash = hasTouchedFpgaFlash(*mBoard);
    mStops.reset();
    mOwn.reset();
    addUnkept(mConsole.lateFailures);
    if (!isInterrupted) return;
    mConsole.lateFailures.emplace_back(exitCodeOf(interruption()),
                                       toldOfInterruption(at, touchedFpgaFlash));
}

// The served board stays as it is, but for what was meant for this command alone.
void BoardSession::giveBack() {
    mBoard->trace().keepListeners(mListeners);
    mBoard->properties().dropForThisRun(kLogLevelProperty);
    addUnkept(mConsole.lateFailures);
    if (!mBoard->powerIsCut()) return;
    char text[64];
    snprintf(text, sizeof(text),
             "the power was cut at %.3f s of board time: ", secondsOf(mBoard->now()));
    mConsole.lateFailures.emplace_back(
        kNoBoard, text + stateOf(mBoard->directory(), hasTouchedFpgaFlash(*mBoard)));
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
    const auto lines = std::make_shared<LogLines>(mConsole.report, !mOptions.logLevel.empty());
    const int least = leastPriority(mOptions.logLevel);
    mBoard->trace().onEvent([lines, least, &board = *mBoard](const board::Event& event) {
        if (event.kind != board::EventKind::kLog) return;
        const int priority = board.lastLogLine().priority;
        if (priority >= least) lines->show(letterOf(priority), event.source, event.text);
    });
    mFinishLog = [lines] { lines->finish(); };
}

void BoardSession::saveTrace(const std::string& name) {
    try {
        writeTrace(mBoard->trace(), name, mConsole.out);
    } catch (const std::runtime_error& error) {
        mConsole.lateFailures.emplace_back(kNotWritten, std::string("--trace: ") + error.what());
    }
}

void BoardSession::onRequest(bool isWrite, const Bytes& request) {
    mBoard->trace().add(board::EventKind::kRequest, "client", isWrite ? "set" : "get", request);
}

void BoardSession::onAnswer(const Bytes& answer) {
    mBoard->trace().remark(board::EventKind::kRequest, "client", kAnswered, answer);
}

bool BoardSession::mcuKnows(uint32_t command) { return mBoard->mcu().knows(command); }

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
    if (!result.ok()) throw Failure(kNoBoard, result.text, kServiceRemedy);
}

}  // namespace quil::tools
