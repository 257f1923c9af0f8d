// How far a programming session is, on the error stream: a bar that is written over on a terminal,
// plain lines otherwise.
#pragma once

#include "tools/quilctl/cli.h"
#include "tools/quilctl/programming/programming_watch.h"

namespace quil::tools {

class ProgrammingProgress {
  public:
    ProgrammingProgress(const Console& console, const ProgrammingWatch& watch, size_t total);

    void step(const ProgrammingStep& step, const std::string& said);
    void finish();  // leaves the bar behind

  private:
    double rate() const;  // bytes of the image in a second of board time
    std::string numbers() const;
    int percent() const;
    void tell(const char* event, const std::string& text, Json members);
    void showStep(const std::string& step, const std::string& said);
    void showBlock();

    Reporter& mReport;
    const ProgrammingWatch& mWatch;
    const size_t mTotal;
    int mAttempt = 0;
    int mShown = -1;  // percent
};

}  // namespace quil::tools
