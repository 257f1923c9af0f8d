// What a command tells while it runs, on the error stream: text for people, or one JSON object a
// line for programs (--progress json; docs/quilctl.md).
#pragma once

#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "tools/quilctl/output/result.h"
#include "tools/quilctl/output/screen.h"

namespace quil::tools {

enum class ReportForm {
    kAuto,  // text, without what the result on the same terminal says anyway
    kText,
    kJson,
    kNone,  // no progress; log, notes and errors are text
};

class Reporter {
  public:
    Reporter(std::ostream& err, const Screen& screen, ReportForm form);
    ~Reporter();
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    ReportForm form() const { return mForm; }
    const Screen& screen() const { return mScreen; }
    // Lines of free text.
    std::ostream& notes() { return mNotes; }
    // From now on only errors are told.
    void silence();

    // Progress: a line of text, or the event with its members.
    void tell(const char* event, const std::string& text, const Json& members);
    // A line that the next one is written over. Only on a terminal; elsewhere it is lost.
    bool hasBar() const { return mForm != ReportForm::kJson && mScreen.isTerminal; }
    void showBar(const std::string& text);
    void leaveBar();

    void log(char level, const std::string& tag, const std::string& text);
    void fail(const Failure& failure);

  private:
    void write(const char* event, const Json& members);

    std::ostream& mErr;
    const Screen mScreen;
    const ReportForm mForm;
    const std::unique_ptr<std::streambuf> mBuffer;  // of the notes
    std::ostream mNotes;
    bool mIsSilent = false, mBarIsOpen = false;
};

}  // namespace quil::tools
