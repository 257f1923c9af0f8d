#include "tools/quilctl/session/boot_stages.h"

#include <android/log.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/programming/flash_progress.h"
#include "tools/quilctl/session/stage_advice.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {
namespace {

// What a log message means for the current stage.
enum class Meaning { kEnded, kFailed, kGoesOnFailed };

struct MessageRow {
    const char* message;  // its beginning
    const char* stage;
    Meaning meaning;
};
constexpr std::array<MessageRow, 21> kMessages = {{
    {"fpgaLoadProcessHeron: fpgaFlashFormat ok", "FPGA flash erased", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaFlashFormat failed", "FPGA flash erased", Meaning::kFailed},
    {"fpgaLoadProcessHeron: fpgaFlashWrite ok", "FPGA image written", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaFlashWrite failed", "FPGA image written", Meaning::kFailed},
    {"fpgaLoadProcessHeron: fpgaCheckDone ok", "FPGA configured", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaCheckDone failed", "FPGA configured", Meaning::kFailed},
    {"fpgaLoadProcessHeron: fpgaRecoveryDdr failed", "FPGA memory", Meaning::kGoesOnFailed},
    {"fpgaLoadProcessHeron: fpgaRecoveryDdr ok", "FPGA memory", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed", "screen parameters",
     Meaning::kFailed},
    {"fpgaNetworkConfig: fpgaPhySgmiiConfig failed", "network", Meaning::kGoesOnFailed},
    {"fpgaLoadProcessHeron: fpgaNetworkConfig ok", "network", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaSwitchGmacToUdp ok", "switch to UDP", Meaning::kEnded},
    {"fpgaLoadProcessHeron: fpgaSwitchGmacToUdp failed", "switch to UDP", Meaning::kFailed},
    {"fpgaLoadProcessKestrel: hal_fpga_load_program_sync ok", "FPGA loaded", Meaning::kEnded},
    {"fpgaLoadProcessKestrel: hal_fpga_load_program_sync failed", "FPGA loaded", Meaning::kFailed},
    {"fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp ok", "screen parameters", Meaning::kEnded},
    {"fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp failed", "screen parameters",
     Meaning::kFailed},
    {"fpgaLoadProcessWren_t507: bi_fpga_active_update_program ok", "FPGA image written",
     Meaning::kEnded},
    {"fpgaLoadProcessWren_t507: bi_fpga_active_update_program failed", "FPGA image written",
     Meaning::kFailed},
    {"fpgaLoadProcessWren_t507: bi_fpga_load_parameter ok", "screen parameters", Meaning::kEnded},
    {"fpgaLoadProcessWren_t507: bi_fpga_load_parameter failed", "screen parameters",
     Meaning::kFailed},
}};

// The screen parameters log no success: the first message of the network ends that stage.
constexpr char kMemory[] = "FPGA memory", kScreen[] = "screen parameters";
constexpr std::array<const char*, 2> kNetworkBegins = {"readFpgaSgmiiClockState:",
                                                       "fpgaPhySgmiiConfig,"};

std::string withoutLineEnd(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::string verdictOf(const BootStage& stage, const Screen& screen) {
    if (!stage.ok) return styled(screen, Style::kBad, "FAILED");
    if (!stage.warning.empty()) return styled(screen, Style::kWarning, "ok, with a warning");
    return styled(screen, Style::kGood, "ok") + (stage.said.empty() ? "" : " (" + stage.said + ")");
}

std::string detailOf(const char* label, const std::string& text) {
    return text.empty() ? "" : std::string("  ") + label + ": " + text + "\n";
}

std::string headOfTable() {
    char line[96];
    snprintf(line, sizeof(line), "%-20s %12s %12s  %s\n", "stage", "from", "took", "result");
    return line;
}

std::string rowsOf(const BootStage& stage, const Screen& screen) {
    char line[96];
    snprintf(line, sizeof(line), "%-20s %10.3f s %10.3f s  ", stage.name.c_str(),
             secondsOf(stage.start), secondsOf(stage.end - stage.start));
    return line + verdictOf(stage, screen) + "\n" + detailOf("warning", stage.warning) +
           detailOf("cause", stage.cause) + detailOf("remedy", stage.remedy);
}

Json documentOf(const BootStage& stage) {
    Json document{{"stage", stage.name},
                  {"from", secondsOf(stage.start)},
                  {"took", secondsOf(stage.end - stage.start)},
                  {"ok", stage.ok},
                  {"said", stage.said}};
    if (!stage.warning.empty()) document["warning"] = stage.warning;
    if (!stage.cause.empty()) document["cause"] = stage.cause;
    if (!stage.remedy.empty()) document["remedy"] = stage.remedy;
    return document;
}

}  // namespace

class BootStages::Watch {
  public:
    Watch(board::Board& board, const Console& console, Result& result)
        : mBoard(board), mConsole(console), mResult(result), mEnded(board.now()) {
        mResult.text << headOfTable();
        mResult.json["stages"] = Json::array();
    }

    void see(const board::Event& event) {
        if (event.kind != board::EventKind::kLog || !mIsOn) return;
        const std::string& text = event.text;
        if (isAfter(kMemory) && isNetwork(text)) end(kScreen, true, mError);
        for (const MessageRow& row : kMessages) {
            if (text.rfind(row.message, 0) != 0) continue;
            if (row.meaning == Meaning::kEnded) return end(row.stage, !mFailed, mError);
            mFailed = true;
            if (row.meaning == Meaning::kFailed) end(row.stage, false, mError);
            return;
        }
        if (mBoard.lastLogLine().priority == ANDROID_LOG_ERROR) mError = withoutLineEnd(text);
    }

    void end(const std::string& name, bool ok, const std::string& said) {
        if (mBoard.powerIsCut()) return;
        const auto now = mBoard.now();
        BootStage stage{name, mEnded, now, ok, said, "", "", ""};
        explain(stage, mError, mBoard.fpga().problem());
        markStage(mBoard, stage.name, now - mEnded,
                  stage.ok ? std::nullopt : std::optional(withoutLineEnd(stage.said)));
        show(stage);
        mStages.push_back(std::move(stage));
        mEnded = now;
        mError.clear();
        mFailed = false;
    }

    // The flash of the FPGA takes most of an update's time.
    void showFlash(const char* operation, double done) {
        if (!mIsOn || (mConsole.showsResult && !mConsole.report.hasBar())) return;
        const std::string phase = std::string("FPGA flash: ") + operation;
        mFlash.show({.phase = phase.c_str(), .done = done});
    }

    void turnOff() {
        mIsOn = false;
        mFlash.finish();
    }
    const std::vector<BootStage>& stages() const { return mStages; }
    const std::string& error() const { return mError; }

  private:
    void show(const BootStage& stage) {
        mResult.text << rowsOf(stage, mConsole.screen);
        mResult.json["stages"].push_back(documentOf(stage));
        mFlash.finish();
        if (mConsole.screen.isTerminal) mResult.show();
        if (mConsole.showsResult) return;
        char line[64];
        snprintf(line, sizeof(line), "%10.3f s  %-20s ", secondsOf(stage.end), stage.name.c_str());
        mConsole.report.tell("stage", line + verdictOf(stage, mConsole.report.screen()),
                             documentOf(stage));
    }

    static bool isNetwork(const std::string& text) {
        return std::any_of(kNetworkBegins.begin(), kNetworkBegins.end(),
                           [&](const char* beginning) { return text.rfind(beginning, 0) == 0; });
    }
    bool isAfter(const char* stage) const {
        return !mStages.empty() && mStages.back().name == stage;
    }

    board::Board& mBoard;
    const Console& mConsole;
    Result& mResult;
    board::Nanos mEnded;
    FlashProgress mFlash{mConsole};
    std::vector<BootStage> mStages;
    std::string mError;
    bool mFailed = false, mIsOn = true;
};

void markStage(board::Board& board, const std::string& name, board::Nanos took,
               const std::optional<std::string>& failure) {
    char text[40];
    snprintf(text, sizeof(text), ", %.9f s: ", secondsOf(took));
    board.trace().remark(board::EventKind::kNote, kStageSource,
                         name + text + (failure ? "failed: " + *failure : "ok"));
}

BootStages::BootStages(BoardSession& session, const Console& console, Result& result)
    : mWatch(std::make_shared<Watch>(session.board(), console, result)) {
    auto& properties = session.board().properties();
    if (properties.get(kLogLevelProperty, "E").front() != 'D') {
        properties.setForThisRun(kLogLevelProperty, "I");
    }
    session.board().trace().onEvent(
        [watch = mWatch](const board::Event& event) { watch->see(event); });
    session.board().flash().onProgress([watch = mWatch](const char* operation, double done) {
        watch->showFlash(operation, done);
    });
}

BootStages::~BootStages() { mWatch->turnOff(); }

void BootStages::end(const std::string& name, bool ok, const std::string& said) {
    mWatch->end(name, ok, said.empty() ? mWatch->error() : said);
}

const std::vector<BootStage>& BootStages::all() const { return mWatch->stages(); }

const std::string& BootStages::error() const { return mWatch->error(); }

void throwUnlessAllOk(const std::vector<BootStage>& stages) {
    std::string failed, remedy;
    for (const BootStage& stage : stages) {
        if (stage.ok) continue;
        if (failed.empty()) remedy = stage.remedy;
        failed += (failed.empty() ? "" : ", ") + stage.name;
    }
    if (!failed.empty()) throw Failure(kFailed, "failed: " + failed, remedy);
}

}  // namespace quil::tools
