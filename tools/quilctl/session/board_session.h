#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "host/hosting_component.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/session/board_use.h"
#include "tools/quilctl/session/interruption.h"
#include "tools/quilctl/session/service_session.h"

namespace quil::tools {

// The property with the level of the log gate.
inline constexpr char kLogLevelProperty[] = "persist.quil.device.log.level";

// How long the MCU takes from its reset until its application answers.
inline constexpr auto kMcuStart = std::chrono::milliseconds(10);

// Discards what is written to a standard descriptor while it lives: the library prints progress on
// standard output, and the board's shell on the error stream.
class Silenced {
  public:
    explicit Silenced(int descriptor);
    ~Silenced();
    Silenced(const Silenced&) = delete;
    Silenced& operator=(const Silenced&) = delete;

  private:
    const int mDescriptor;
    int mSaved;
};

// The product that a board directory's product file names; empty when it names none.
std::string productOf(const std::filesystem::path& directory);

// A board directory that is removed with this object.
class TemporaryBoard : public board::TemporaryDirectory {
  public:
    explicit TemporaryBoard(board::Product product);  // throws std::runtime_error

  private:
    const Leftover mLeftover{path()};
};

// Throws a Failure when --product names another product than the board of --board is.
void requireSameProduct(const Options& options);

// For board::Standstill: the report ends the program.
void endAtStandstill(const std::string& report);

// A powered board as the options ask for it, or the served one. Log lines go to the error stream as
// they come. An interruption cuts its power. At the end the trace is written; that, or a state of
// the board, that could not be written makes the command fail.
class BoardSession : public ServiceSession {
  public:
    // A reader of a board directory shares it with others, and keeps no state there.
    using Use = board::DirectoryLock::Use;
    BoardSession(const Options& options, const Console& console, bool showLog = true,
                 Use use = Use::kOwner);  // throws std::runtime_error
    ~BoardSession() override;

    board::Board& board() { return *mBoard; }
    host::HostingComponent& host() { return *mHost; }
    Service& service() override { return *mHost->service(); }
    void onRequest(bool isWrite, const Bytes& request) override;
    void onAnswer(const Bytes& answer) override;
    bool mcuKnows(uint32_t command) override;
    // The last error message of the library from its log line number `since` on; "" without one.
    std::string lastError(size_t since = 0) const;

    // What an interruption leaves behind outside of the board, for the line that tells of it.
    void setLeftOutside(std::string text) { mLeftOutside = std::move(text); }

    // Throws a Failure when it does not come up. Boot jobs have commands of their own: a
    // request should not reprogram the MCU.
    void startService(const host::BootJobs& jobs = {.updateMcu = false});

  private:
    board::Board* powerOn(Use use);
    board::Board* powerOnOwn(Use use);
    void giveBack();
    void saveTrace(const std::string& name);
    void showLogLines();
    std::string toldOfInterruption(board::Nanos at, bool touchedFpgaFlash) const;

    const Options mOptions;
    const Console& mConsole;
    const Silenced mOutput;
    std::optional<Silenced> mErrors;  // with --quiet
    std::unique_ptr<board::DirectoryLock> mUse;
    std::optional<TemporaryBoard> mTemporary;
    std::unique_ptr<board::Board> mOwn;  // null: it is the served one
    board::Board* const mBoard;
    const size_t mListeners;  // of its trace, before this
    std::optional<StopsAtInterruption> mStops;
    std::optional<host::HostingComponent> mHost;
    std::string mLeftOutside;
    std::function<void()> mFinishLog;
};

}  // namespace quil::tools
