// How far the programmer is: a bar that is written over on a terminal, plain lines otherwise.
#pragma once

#include <string>

#include "programmer/progress.h"
#include "tools/quilctl/cli.h"

namespace quil::tools {

class FlashProgress {
  public:
    explicit FlashProgress(const Console& console) : mReport(console.report) {}

    void show(const programmer::Progress& progress);
    void say(const std::string& text);
    void finish();  // leaves the bar behind

  private:
    Reporter& mReport;
    std::string mPhase;
    int mShown = -1;  // percent
};

}  // namespace quil::tools
