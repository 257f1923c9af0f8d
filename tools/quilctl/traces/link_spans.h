// The MCU's serial line in a timeline: when its bytes are on the wire, how many wait, and what the
// boot loader is asked.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/quilctl/programming/programming_watch.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {

class LinkSpans {
  public:
    explicit LinkSpans(std::vector<Sample>& samples) : mSamples(samples) {}

    void seeNote(const board::Event& event);
    // Both fill the event's own span.
    void seeTransmitted(const board::Event& event, Span& span);
    void seeReceived(const board::Event& event, Span& span);
    void seeShell(const board::Event& event);
    void seeMcu(const board::Event& event);
    void end(board::Nanos at);
    // What the boot loader was asked since the last time.
    std::vector<Span> takeSteps() { return std::exchange(mSteps, {}); }

  private:
    struct Port {
        board::Nanos byteTime{0}, txUntil{0}, rxUntil{0};
    };
    static board::Nanos allOf(const Port& port, const board::Event& event);  // its bytes' time
    struct Written {
        board::Nanos at;
        double bytes;
    };

    void countQueued(const board::Event& event, const Port& port);
    void enterLoader(board::Nanos at);
    void leaveLoader();
    struct Verdict {
        bool isGood;
        std::string said;
    };
    Verdict judge() const { return {mDialect->isGood(mAnswer), mDialect->describe(mAnswer)}; }
    void endStep(const Verdict& verdict);
    void endSession(bool isWhole);

    std::vector<Sample>& mSamples;
    std::vector<Span> mSteps;
    std::map<std::string, Port> mPorts;
    board::Nanos mQueueEmptyAt{0};
    bool mIsQueued = false;

    std::string mChip;
    std::unique_ptr<BootLoaderDialect> mDialect;  // null: the boot loader is not talked to
    std::optional<ProgrammingStep> mStep;
    board::Nanos mStepFrom{0}, mLastByte{0};
    std::vector<size_t> mParts;  // of the step: events
    Bytes mAnswer;
    std::map<uint32_t, double> mBlocks;  // of the session, by the address after each
    std::vector<Written> mWritten;
};

}  // namespace quil::tools
