// A board that stays powered between commands. They run one after the other, each with the board
// as the one before has left it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "board/board.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/session/exclusive.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {

class ServedBoard {
  public:
    struct Power {
        int speed = 0;  // of board time; 0: as fast as it can
        uint64_t seed = 0;
    };
    using OnEvent = std::function<void(const board::Event&)>;
    using OnPower = std::function<void(board::Board&)>;

    // The directory's user has it for itself. `onEvent` is told of all that happens; it must not
    // wait.
    ServedBoard(std::filesystem::path directory, Power power, OnEvent onEvent);
    ~ServedBoard();
    ServedBoard(const ServedBoard&) = delete;
    ServedBoard& operator=(const ServedBoard&) = delete;

    // The command that this thread runs for a client.
    struct Call {
        ServedBoard& board;
        std::string directory;  // as the client calls it
        bool atOnce;            // on a thread outside board time: it may power and run nothing
    };
    static const Call* call();  // null on threads that run none

    // Makes its thread run a client's command while it lives.
    class Calling {
      public:
        explicit Calling(const Call& call);
        ~Calling();
        Calling(const Calling&) = delete;
        Calling& operator=(const Calling&) = delete;
    };

    const std::filesystem::path& directory() const { return mDirectory; }

    // Called with each board that is powered, while nobody switches it.
    void onPower(OnPower onPower) { mOnPower = std::move(onPower); }

    // For the thread that powers the board.
    void powerOn();
    void powerOff();
    void resetToFactory();  // and powers on. Throws Failure or std::runtime_error
    // For the next command. Throws Failure when the options ask for another board, or the power is
    // cut.
    board::Board& lend(const Options& options);
    // Between commands: what has come from outside takes effect. False: it takes more time.
    bool goOn();

    // From any thread.
    bool isPowered();
    void cutPower();
    // Calls the function with the board while nobody switches it. Throws Failure without a board.
    void use(const std::function<void(board::Board&)>& act);
    // Parts and calls that stay broken until they are mended, also across power cycles.
    void breakPart(const std::string& name);
    void mendPart(const std::string& name);
    std::set<std::string> broken();
    void setCommand(const std::string& words);  // that runs in turn; "" when none does
    std::string command();

  private:
    const std::filesystem::path mDirectory;
    const Power mPower;
    const OnEvent mOnEvent;
    OnPower mOnPower;
    Exclusive mLock;  // of what follows
    std::unique_ptr<board::Board> mBoard;
    std::optional<StopsAtInterruption> mStops;
    std::set<std::string> mBroken;
    std::string mCommand;
};

}  // namespace quil::tools
