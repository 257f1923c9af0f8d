#include "tools/quilctl/programming/programming_progress.h"

#include <stdio.h>

#include <algorithm>
#include <chrono>

#include "tools/quilctl/output/progress_bar.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

constexpr int kPlainStride = 10;  // percent from one plain line to the next

}  // namespace

ProgrammingProgress::ProgrammingProgress(const Console& console, const ProgrammingWatch& watch,
                                         size_t total)
    : mReport(console.report), mWatch(watch), mTotal(total) {}

void ProgrammingProgress::step(const ProgrammingStep& step, const std::string& said) {
    if (mWatch.attempts() != mAttempt) {
        mAttempt = mWatch.attempts();
        mShown = -1;
        if (mAttempt > 1) showStep("attempt " + std::to_string(mAttempt), "");
    }
    if (!step.isPart) {
        showStep(step.name, said);
    } else if (step.end) {
        showBlock();
    }
}

void ProgrammingProgress::tell(const char* event, const std::string& text, Json members) {
    const double now = secondsOf(mWatch.now());
    char stamp[32];
    snprintf(stamp, sizeof(stamp), "%10.3f s  ", now);
    Json document{{"at", now}, {"attempt", mAttempt}};
    document.update(members);
    mReport.tell(event, stamp + text, document);
}

void ProgrammingProgress::showStep(const std::string& step, const std::string& said) {
    tell("step", step + (said.empty() ? "" : ": " + said), {{"step", step}, {"said", said}});
}

int ProgrammingProgress::percent() const {
    const size_t total = std::max<size_t>(mTotal, 1);
    return static_cast<int>(100 * std::min(mWatch.written(), total) / total);
}

double ProgrammingProgress::rate() const {
    const double seconds = secondsOf(mWatch.now() - mWatch.writingSince());
    return seconds > 0 ? static_cast<double>(mWatch.written()) / seconds : 0;
}

// "4096 of 8192 bytes, 3.3 kB/s, 2 s left"
std::string ProgrammingProgress::numbers() const {
    const double perSecond = rate(),
                 rest = static_cast<double>(mTotal - std::min(mTotal, mWatch.written()));
    char text[96];
    snprintf(text, sizeof(text), "%zu of %zu bytes, %.2f kB/s, %.0f s left", mWatch.written(),
             mTotal, perSecond / 1e3, perSecond > 0 ? rest / perSecond : 0);
    return text;
}

void ProgrammingProgress::showBlock() {
    const int now = percent();
    const bool isNext = mShown < 0 || now / kPlainStride != mShown / kPlainStride;
    if (mReport.hasBar()) {
        if (now != mShown) mReport.showBar(barOf(now, numbers(), mReport.screen().columns));
    } else if (isNext) {
        tell("bytes", "write " + std::to_string(now) + "%: " + numbers(),
             {{"done", mWatch.written()}, {"total", mTotal}, {"bytes_per_second", rate()}});
    } else {
        return;
    }
    mShown = now;
}

void ProgrammingProgress::finish() { mReport.leaveBar(); }

}  // namespace quil::tools
