#include "tools/quilctl/programming/programming_progress.h"

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <ostream>

#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

constexpr int kPlainStride = 10;  // percent from one plain line to the next
constexpr int kBarWidth = 30;
constexpr char kLineAgain[] = "\r\033[K";

}  // namespace

ProgrammingProgress::ProgrammingProgress(const Console& console, const ProgrammingWatch& watch,
                                         size_t total)
    : mConsole(console), mWatch(watch), mTotal(total) {}

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

void ProgrammingProgress::showStep(const std::string& step, const std::string& said) {
    finish();
    char line[256];
    snprintf(line, sizeof(line), "%10.3f s  %s%s%s\n", secondsOf(mWatch.now()), step.c_str(),
             said.empty() ? "" : ": ", said.c_str());
    mConsole.err << line;
    mConsole.err.flush();
}

int ProgrammingProgress::percent() const {
    const size_t total = std::max<size_t>(mTotal, 1);
    return static_cast<int>(100 * std::min(mWatch.written(), total) / total);
}

// "4096 of 8192 bytes, 3.3 kB/s, 2 s left"
std::string ProgrammingProgress::numbers() const {
    const auto written = static_cast<double>(mWatch.written());
    const double seconds = secondsOf(mWatch.now() - mWatch.writingSince());
    const double rate = seconds > 0 ? written / seconds : 0;
    const double left = rate > 0 ? (static_cast<double>(mTotal) - written) / rate : 0;
    char text[96];
    snprintf(text, sizeof(text), "%zu of %zu bytes, %.2f kB/s, %.0f s left", mWatch.written(),
             mTotal, rate / 1e3, std::max(left, 0.0));
    return text;
}

void ProgrammingProgress::showBlock() {
    const int now = percent();
    if (mConsole.progress) {
        if (now != mShown) drawBar();
    } else if (mShown < 0 || now / kPlainStride != mShown / kPlainStride) {
        showStep("write " + std::to_string(now) + "%", numbers());
    } else {
        return;
    }
    mShown = now;
}

void ProgrammingProgress::drawBar() {
    const auto done = static_cast<size_t>(kBarWidth * percent() / 100);
    const std::string bar = std::string(done, '#') + std::string(kBarWidth - done, '.');
    char head[64];
    snprintf(head, sizeof(head), "%3d%% [%s] ", percent(), bar.c_str());
    mConsole.err << kLineAgain << head << numbers();
    mConsole.err.flush();
    mBarIsOpen = true;
}

void ProgrammingProgress::finish() {
    if (mBarIsOpen) mConsole.err << '\n';
    mBarIsOpen = false;
}

}  // namespace quil::tools
