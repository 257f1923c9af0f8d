#include "tools/quilctl/output/reporter.h"

#include "tools/quilctl/output/wrap.h"

namespace quil::tools {
namespace {

constexpr int kEventSchema = 1;  // docs/quilctl.md describes it
constexpr char kLineAgain[] = "\r\033[K";

void writeEvent(std::ostream& err, const char* event, const Json& members) {
    Json document{{"schema", kEventSchema}, {"event", event}};
    document.update(members);
    err << document.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
    err.flush();
}

// Makes an event of each line.
class NoteLines : public std::streambuf {
  public:
    explicit NoteLines(std::ostream& err) : mErr(err) {}

  private:
    int overflow(int character) override {
        if (character == '\n') {
            writeEvent(mErr, "note", {{"text", mLine}});
            mLine.clear();
        } else if (character != traits_type::eof()) {
            mLine += traits_type::to_char_type(character);
        }
        return traits_type::not_eof(character);
    }

    std::ostream& mErr;
    std::string mLine;
};

std::unique_ptr<std::streambuf> bufferFor(std::ostream& err, const Screen& screen,
                                          ReportForm form) {
    if (form == ReportForm::kJson) return std::make_unique<NoteLines>(err);
    return std::make_unique<WrappingBuffer>(err, screen.columns);
}

}  // namespace

Reporter::Reporter(std::ostream& err, const Screen& screen, ReportForm form)
    : mErr(err),
      mScreen(screen),
      mForm(form),
      mBuffer(bufferFor(err, screen, form)),
      mNotes(mBuffer.get()) {}

Reporter::~Reporter() {
    leaveBar();
    mNotes.flush();
}

void Reporter::silence() {
    mIsSilent = true;
    mNotes.rdbuf(nullptr);
}

void Reporter::write(const char* event, const Json& members) {
    if (!mIsSilent) writeEvent(mErr, event, members);
}

void Reporter::tell(const char* event, const std::string& text, const Json& members) {
    if (mForm == ReportForm::kNone) return;
    if (mForm == ReportForm::kJson) return write(event, members);
    leaveBar();
    mNotes << text << '\n';
    mNotes.flush();
}

void Reporter::showBar(const std::string& text) {
    if (!hasBar() || mForm == ReportForm::kNone) return;
    mNotes << kLineAgain << text;
    mNotes.flush();
    mBarIsOpen = true;
}

void Reporter::leaveBar() {
    if (mBarIsOpen) mNotes << '\n';
    mBarIsOpen = false;
}

// As `logcat -v tag` prints it.
void Reporter::log(char level, const std::string& tag, const std::string& text) {
    if (mForm == ReportForm::kJson) {
        return write("log", {{"level", std::string(1, level)}, {"tag", tag}, {"text", text}});
    }
    leaveBar();
    mNotes << level << '/' << tag << ": " << text << '\n';
    mNotes.flush();
}

void Reporter::fail(const Failure& failure) {
    leaveBar();
    const std::string& remedy = failure.remedy();
    if (mForm == ReportForm::kJson) {
        Json members{{"kind", nameOf(failure.code())}, {"message", failure.what()}};
        if (!remedy.empty()) members["remedy"] = remedy;
        return writeEvent(mErr, "error", members);
    }
    mNotes.flush();
    std::string text = std::string("quilctl: ") + failure.what() + '\n';
    if (!remedy.empty()) text += "quilctl: remedy: " + remedy + '\n';
    mErr << wrapped(text, mScreen.columns);
    mErr.flush();
}

}  // namespace quil::tools
