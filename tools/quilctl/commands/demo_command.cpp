#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <exception>
#include <thread>

#include "config/config_info.h"
#include "fpga/load_process.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/programming/programming_watch.h"
#include "tools/quilctl/session/boot_stages.h"
#include "tools/quilctl/session/client.h"
#include "tools/quilctl/session/recording.h"
#include "tools/quilctl/session/self_test.h"

namespace quil::tools {
namespace {

constexpr uint32_t kVersionCommand = 0x00000001;
constexpr uint32_t kValueCommand = 0x00000102;
constexpr auto kIntoTheProgramming = std::chrono::seconds(2);
constexpr char kOlderVersion[] = "V0.9.0";

// Real time, which the board's clocks do not show.
double realMilliseconds() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

std::string quotedOrHex(const Bytes& bytes) {
    const bool text = bytes.size() > 1 && std::all_of(bytes.begin(), bytes.end(),
                                                      [](uint8_t b) { return b >= 32 && b < 127; });
    if (text) return "\"" + std::string(bytes.begin(), bytes.end()) + "\"";
    return "[" + toShortHex(bytes, 5) + "]";
}

class Demo {
  public:
    Demo(BoardSession& session, Result& result, const Screen& screen)
        : mSession(session), mResult(result), mScreen(screen) {}

    void run();

  private:
    void row(const std::string& step, const std::string& link, const std::string& client, bool ok);
    void note(const std::string& text);
    std::string newOnTheWire();
    Bytes request(const std::string& step, bool isWrite, const Bytes& bytes, const Bytes& expected,
                  bool reachesMcu);
    void boot();
    void mcuUpdated(const std::string& before);
    void linkUp();
    void firmwareUpdate();
    void silentMcu();
    void callback();
    void selfTest();

    BoardSession& mSession;
    Result& mResult;
    const Screen mScreen;
    board::Nanos mRowAt{0};
    size_t mSeen = 0;  // trace events that were decoded already
    std::vector<std::string> mFailed;
};

void Demo::row(const std::string& step, const std::string& link, const std::string& client,
               bool ok) {
    if (mSession.board().powerIsCut()) return;
    const double now = secondsOf(mSession.board().now());
    char stamp[24], columns[96];
    snprintf(stamp, sizeof(stamp), "%7.3f s ", now);
    snprintf(columns, sizeof(columns), "%-22s %-22s ", step.c_str(), link.c_str());
    const std::string verdict =
        ok ? styled(mScreen, Style::kGood, "ok") : styled(mScreen, Style::kBad, "FAILED");
    std::string text = stamp + verdict + std::string(ok ? 5 : 1, ' ') + columns + client;
    text.erase(text.find_last_not_of(' ') + 1);
    note(text + "\n");
    markStage(mSession.board(), step, mSession.board().now() - mRowAt,
              ok ? std::nullopt : std::optional(client));
    mRowAt = mSession.board().now();
    mResult.json["steps"].push_back(
        {{"step", step}, {"at", now}, {"link", link}, {"client", client}, {"ok", ok}});
    if (!ok) mFailed.push_back(step);
}

// A line that is printed at once: in real time the demo takes a minute.
void Demo::note(const std::string& text) {
    if (mSession.board().powerIsCut()) return;
    mResult.text << text;
    mResult.show();
}

// The frames that crossed the link since the last call, taken apart.
std::string Demo::newOnTheWire() {
    const auto events = mSession.board().trace().events();
    host::FrameAssembler toMcu, fromMcu;
    std::string text;
    for (; mSeen < events.size(); ++mSeen) {
        const board::Event& event = events[mSeen];
        if (event.kind == board::EventKind::kUartTx) {
            for (const auto& frame : toMcu.feed(event.bytes)) {
                text += "#" + std::to_string(frame.label) + (frame.isWrite() ? " set " : " get ") +
                        quotedOrHex(frame.payload);
            }
        } else if (event.kind == board::EventKind::kUartRx) {
            for (const auto& frame : fromMcu.feed(event.bytes)) {
                text += " -> " + quotedOrHex(frame.payload);
            }
        }
    }
    return text.empty() ? "nothing" : text;
}

Bytes Demo::request(const std::string& step, bool isWrite, const Bytes& bytes,
                    const Bytes& expected, bool reachesMcu) {
    Bytes answer = ask(mSession, isWrite, bytes);
    const std::string wire = newOnTheWire();
    const bool ok = answer == expected && (wire != "nothing") == reachesMcu;
    row(step, wire, answer.empty() ? "empty" : quotedOrHex(answer), ok);
    return answer;
}

// The hosting component finds the older firmware and programs the shipped one; clients are in
// before.
void Demo::boot() {
    auto& board = mSession.board();
    const std::string before = board.mcuChip().version();
    row("power on, MCU " + before, board.mcuChip().part().name, "", before == kOlderVersion);
    const std::string imageBefore = board.fpga().version();
    board.properties().set(fpga::kUpdateProperty, "1");
    std::exception_ptr failure;  // of the client
    std::jthread client;
    host::BootJobs jobs;
    jobs.loadFpga = true;
    jobs.letClientsIn = [&](const auto&) {
        linkUp();
        client = std::jthread([this, &failure] {
            try {
                firmwareUpdate();
            } catch (...) {
                failure = std::current_exception();
            }
        });
        return true;
    };
    jobs.onStep = [&](host::BootStep step) {
        if (step != host::BootStep::kMcu) return;
        client.join();  // so that two threads do not print at once
        if (failure) std::rethrow_exception(failure);
        board.runFor(kMcuStart);
        mcuUpdated(before);
    };
    mSession.startService(jobs);
    const std::string image = board.fpga().version();
    row("FPGA updated", std::to_string(board.flash().usedSize()) + " bytes flashed",
        (imageBefore.empty() ? "none" : imageBefore) + " -> " + image,
        mSession.host().fpga() == host::FpgaLoad::kUp && image == config_info->fpga_fw_version);
    newOnTheWire();
}

void Demo::mcuUpdated(const std::string& before) {
    const auto& record = *config_info;
    ProgrammingWatch watch(record.mcu_uart_path, record.mcu_serial);
    for (const board::Event& event : mSession.board().trace().events()) watch.see(event);
    const std::string running = mSession.board().mcuChip().version();
    row("MCU updated", std::to_string(watch.written()) + " bytes programmed",
        before + " -> " + running, running == record.mcu_fw_version && watch.attempts() == 1);
}

void Demo::linkUp() {
    const auto& record = *config_info;
    row("parse product.ini", record.mcu_uart_path, record.product, record.product[0] != '\0');
    auto& uart = mSession.board().mcuUart();
    row("open the MCU link", std::to_string(uart.baud()) + " baud " + uart.mode(), "open",
        uart.baud() == record.mcu_baud_rate && uart.mode() == "8N1");
    row("service up, clients in", "", "", mSession.host().service() != nullptr);
}

// A request during the boot, while the MCU's boot loader uses the link.
void Demo::firmwareUpdate() {
    mSession.board().runFor(kIntoTheProgramming);
    newOnTheWire();
    request("get while programming", false, requestOf(kVersionCommand, {}), {0xFF}, false);
}

void Demo::silentMcu() {
    auto& board = mSession.board();
    board.mcu().setSilent(true);
    const auto boardStart = board.now();
    const double realStart = realMilliseconds();
    const Bytes answer = ask(mSession, false, requestOf(kVersionCommand, {}));
    const double real = realMilliseconds() - realStart;
    const auto waited = board.now() - boardStart;
    board.mcu().setSilent(false);
    const std::string wire = newOnTheWire();
    const bool ok = answer.empty() && wire.find("->") == std::string::npos &&
                    waited >= std::chrono::seconds(5) && waited < std::chrono::milliseconds(5100);
    row("get, MCU silent", wire, answer.empty() ? "empty" : quotedOrHex(answer), ok);
    note(std::string(17, ' ') + "5 s of board time took " +
         (real < 1000 ? "less than 1 s" : std::to_string(std::lround(real / 1000)) + " s") +
         " of real time\n");
}

void Demo::callback() {
    const Bytes data = {0xCA, 0xFE};
    const CallbackRun run = invokeCallbacks(mSession, 1, data);
    const bool ok = run.invoked == 2 && run.arrived == std::vector<Bytes>{data};
    row("callback by hwInvoke", newOnTheWire(),
        run.arrived.empty() ? "not called" : quotedOrHex(run.arrived.front()), ok);
}

void Demo::selfTest() {
    const SelfTestRun run = runSelfTest(mSession, {board::kRtc});
    std::string errors;
    for (const SelfTestItem& item : run.items) {
        if (item.verdict == "Error") errors += item.name + ":" + item.verdict;
    }
    const std::string wire = newOnTheWire();
    const bool ok = errors == "RTC:Error" && wire == "nothing" && !hasPassed(run.record);
    row("self-test, RTC broken", wire, errors.empty() ? "no error" : errors, ok);
}

void Demo::run() {
    const Bytes value = {0x0A, 0x0B};
    note("  board          step                   on the wire            client got\n");
    boot();
    const std::string shipped = config_info->mcu_fw_version;
    const Bytes version(shipped.begin(), shipped.end());
    request("get 0x1, its version", false, requestOf(kVersionCommand, {}), version, true);
    request("set 0x102", true, requestOf(kValueCommand, value), {0x00}, true);
    request("get 0x102 back", false, requestOf(kValueCommand, {}), value, true);
    request("get of only 3 bytes", false, {0x01, 0x00, 0x00}, {}, false);
    silentMcu();
    request("get 0x1 again", false, requestOf(kVersionCommand, {}), version, true);
    callback();
    selfTest();
    for (const std::string& violation : mSession.board().violations()) {
        row("violation: " + violation, "", "", false);
    }
    if (!mFailed.empty()) throw Failure(kFailed, "not as expected: " + mFailed.front());
    note("All as expected.\n");
}

void demo(const Cli& cli, Result& result) {
    Options options = cli.options;
    options.mcuInstalled = kOlderVersion;
    BoardSession session(options, cli.console, false);  // the failures here are wanted
    Demo(session, result, cli.console.screen).run();
}

}  // namespace

void addDemoCommand(CLI::App& app, Cli& cli) {
    CLI::App& command =
        addVerb(app, cli,
                {"demo", "Power a board and send it requests",
                 "Example: quilctl --product Kestrel --trace demo.vcd demo --report demo.html"},
                demo);
    addReportOption(command, cli);
}

}  // namespace quil::tools
