#include "tools/quilctl/programming/programming_watch.h"

#include <utility>

namespace quil::tools {
namespace {

// The commands that both families run once on the way into the boot loader and out of it.
constexpr char kIntoBootLoader[] = "echo 1 > /sys/class/quilgpios/MCU_BOOT0/value";
constexpr char kOutOfBootLoader[] = "echo 0 > /sys/class/quilgpios/MCU_BOOT0/value";

constexpr uint32_t kFlashBase = 0x08000000;

// The library tells the families apart in this order.
std::unique_ptr<BootLoaderDialect> dialectOf(const std::string& chip) {
    const auto has = [&chip](const char* part) { return chip.find(part) != std::string::npos; };
    return has("n32") && !has("gd32") && !has("stm32") ? n32Dialect() : stm32Dialect();
}

}  // namespace

ProgrammingWatch::ProgrammingWatch(std::string port, const std::string& chip)
    : mPort(std::move(port)), mDialect(dialectOf(chip)) {}

void ProgrammingWatch::see(const board::Event& event) {
    mNow = event.at;
    if (event.kind == board::EventKind::kShell) seeShell(event.text);
    if (event.source != mPort) return;
    if (event.kind == board::EventKind::kOpen) seeOpen(event);
    if (!mInSession) return;
    if (event.kind == board::EventKind::kUartTx) hostWrote(event.bytes);
    if (event.kind == board::EventKind::kUartRx) {
        mAnswer.insert(mAnswer.end(), event.bytes.begin(), event.bytes.end());
    }
}

void ProgrammingWatch::seeOpen(const board::Event& event) {
    mOpenProblem.reset();
    if (event.text.empty()) return;
    mOpenProblem = Problem{"open " + mPort, event.text};
    ++mOpensInVain;
}

void ProgrammingWatch::seeShell(const std::string& command) {
    if (command.find(kIntoBootLoader) != std::string::npos) {
        beginAttempt();
    } else if (mInSession && command.find(kOutOfBootLoader) != std::string::npos) {
        endStep(judge());
        mInSession = false;
    }
}

void ProgrammingWatch::beginAttempt() {
    mInSession = true;
    ++mAttempts;
    mWritten = 0;
    mStep = {};
    mAnswer.clear();
    mProblem = std::exchange(mOpenProblem, std::nullopt);
    if (mProblem) --mOpensInVain;
}

// The dialect judges an answer by the latest write, so it is asked before it sees the next one.
void ProgrammingWatch::hostWrote(const Bytes& bytes) {
    const Verdict verdict = judge();
    std::optional<ProgrammingStep> next = mDialect->stepOf(bytes, mAnswer);
    if (!next) return;
    endStep(verdict);
    mStep = std::move(*next);
    if (mStep.end && mWritten == 0) mWritingSince = mNow;
}

ProgrammingWatch::Verdict ProgrammingWatch::judge() const {
    return {mDialect->isGood(mAnswer), mDialect->describe(mAnswer)};
}

void ProgrammingWatch::endStep(const Verdict& verdict) {
    if (mStep.name.empty()) return;
    if (verdict.isGood && mStep.end) mWritten = *mStep.end - kFlashBase;
    if (!verdict.isGood && !mStep.isQuestion && !mProblem) {
        mProblem = Problem{mStep.name, verdict.said};
    }
    // A retry succeeded. A repeated block makes the session leave out the image's end.
    const bool isRepeated = mProblem && mProblem->step == mStep.name && !mStep.isPart;
    if (verdict.isGood && isRepeated) mProblem.reset();
    if (mListener) mListener(mStep, verdict.said);
    mStep = {};
    mAnswer.clear();
}

}  // namespace quil::tools
