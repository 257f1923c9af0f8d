// A programming session as its serial line shows it: the steps, how far it is, and what the MCU
// said. It reads the trace alone, so that the log level stays what the user wants.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "board/core/trace.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {

// One exchange of a boot-loader protocol: what was asked, and whether the answer to it is right.
struct ProgrammingStep {
    std::string name;                  // "write 256 bytes at 0x08000000"
    bool isQuestion = false;           // the session goes on whatever the MCU answers
    bool isPart = false;               // of reading or writing a block
    std::optional<uint32_t> end = {};  // a block of the image: the address after it
};

// Interprets one write of the host and the answer to it, in one of the two protocols.
class BootLoaderDialect {
  public:
    virtual ~BootLoaderDialect() = default;

    // The step that this write begins; nothing when it goes on with the one before. `answer` is
    // what has come since the write before it.
    virtual std::optional<ProgrammingStep> stepOf(const Bytes& written, const Bytes& answer) = 0;
    // Whether that answer says that the latest step was done.
    virtual bool isGood(const Bytes& answer) const = 0;
    virtual std::string describe(const Bytes& answer) const = 0;
};

std::unique_ptr<BootLoaderDialect> stm32Dialect();
std::unique_ptr<BootLoaderDialect> n32Dialect();

class ProgrammingWatch {
  public:
    struct Problem {
        std::string step;
        std::string said;
    };

    // Called when a step has ended, with what the MCU said to it. It may print, not wait.
    using Listener = std::function<void(const ProgrammingStep&, const std::string& said)>;

    // `port` and `chip` as the session gets them.
    ProgrammingWatch(std::string port, const std::string& chip);
    void onStep(Listener listener) { mListener = std::move(listener); }
    void see(const board::Event& event);

    int attempts() const { return mAttempts + mOpensInVain; }
    size_t written() const { return mWritten; }  // bytes of the image, in this attempt
    board::Nanos writingSince() const { return mWritingSince; }
    board::Nanos now() const { return mNow; }
    // What first went wrong in the latest attempt.
    const std::optional<Problem>& problem() const { return mOpenProblem ? mOpenProblem : mProblem; }

  private:
    struct Verdict {
        bool isGood;
        std::string said;
    };
    void seeOpen(const board::Event& event);
    void seeShell(const std::string& command);
    void beginAttempt();
    void hostWrote(const Bytes& bytes);
    Verdict judge() const;
    void endStep(const Verdict& verdict);

    const std::string mPort;
    const std::unique_ptr<BootLoaderDialect> mDialect;
    Listener mListener;
    int mAttempts = 0, mOpensInVain = 0;  // without a port one family gives up, the other goes on
    bool mInSession = false;
    ProgrammingStep mStep;
    Bytes mAnswer;
    size_t mWritten = 0;
    board::Nanos mNow{0}, mWritingSince{0};
    std::optional<Problem> mProblem, mOpenProblem;
};

}  // namespace quil::tools
