#include "tools/quilctl/programming/flash_progress.h"

#include <stdio.h>

#include "tools/quilctl/output/progress_bar.h"

namespace quil::tools {
namespace {

constexpr int kPhaseStride = 25;  // percent from one plain line of a phase to the next

}  // namespace

void FlashProgress::show(const programmer::Progress& progress) {
    const int percent = static_cast<int>(progress.done * 100);
    const bool isBefore = *progress.phase == '\0';  // not in step with the part yet
    const char* phase = isBefore ? "connect" : progress.phase;
    const bool isOtherPhase = mPhase != phase;
    if (percent == mShown && !isOtherPhase) return;
    const bool isDue = isOtherPhase || percent / kPhaseStride != mShown / kPhaseStride;
    if (mReport.hasBar()) {
        mReport.showBar(barOf(percent, phase, mReport.screen().columns));
    } else if (isDue) {
        char text[96];
        snprintf(text, sizeof(text), "%3d%%  %s", percent, phase);
        mReport.tell("phase", text, {{"phase", phase}, {"percent", percent}});
    } else {
        return;
    }
    mPhase = phase;
    mShown = percent;
}

// A note and no progress: it is told whatever --progress says.
void FlashProgress::say(const std::string& text) {
    mReport.leaveBar();
    mReport.notes() << text << '\n';
}

void FlashProgress::finish() { mReport.leaveBar(); }

}  // namespace quil::tools
