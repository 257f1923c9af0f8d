// The tools' programmer beside stm32flash: the same image, the same boot-loader model behind a
// pseudo terminal in real time, the same rate; and in board time beside what the line and the flash
// need at least.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/mcu_bench.h"
#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "board/mcu/pty_bridge.h"
#include "programmer/session.h"
#include "testing/build.h"
#include "testing/program_output.h"
#include "testing/pty_part.h"
#include "tools/quilctl/programming/serial_transport.h"

namespace quil::bench {
namespace {

namespace fs = std::filesystem;
using board::McuKind;
using programmer::Nanos;
using programmer::Report;

constexpr size_t kSize = size_t{64} * 1024;
constexpr McuKind kKind = McuKind::kGd32F303;
constexpr const char* kChip = "gd32f303";

constexpr const char *kOlder = "V0.9.0", *kNewer = "V1.0.0";

double secondsOf(Nanos time) { return std::chrono::duration<double>(time).count(); }

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

programmer::Bytes imageOf(const char* version) {
    const std::string text = board::makeMcuImage(kKind, version, kSize);
    return {text.begin(), text.end()};
}

// Of the line's time: 6.9 s for 64 KiB at 115200 bit/s.
constexpr double kSameShare = 100 * 6.55 / 6.9;

// What the line and the flash need for the image: nothing can be faster.
struct Ceiling {
    double write, check, erase;

    explicit Ceiling(int baud) {
        constexpr double kBits = 11, kBlock = 256, kFrame = 268;  // both directions
        const double line = kSize / kBlock * kFrame * kBits / baud;
        const board::McuPart& part = board::partOf(kKind);
        write =
            line + static_cast<double>(kSize) / part.programUnit * secondsOf(part.program.typical);
        check = line;
        erase = static_cast<double>(kSize) / part.regions[0].pageSize *
                secondsOf(part.regions[0].erase.typical);
    }
    double all() const { return write + check + erase; }
};

// A part with an image behind a pseudo terminal.
class Model {
  public:
    explicit Model(int baud, const char* version = kOlder)
        : mBridge({.part = kKind,
                   .flash = holding(version, mScratch.path() / "flash"),
                   .link = mScratch.path() / "port",
                   .realtime = true,
                   .fastest = baud}),
          mServer([this] { mBridge.run(); }) {}
    ~Model() { stop(); }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    fs::path path(const char* name) const { return mScratch.path() / name; }
    // The seconds that its flash and its line were at work for the host; the last call.
    double work() {
        stop();
        return secondsOf(mBridge.workTime());
    }

  private:
    static fs::path holding(const char* version, const fs::path& flash) {
        board::writeWholeFile(flash, board::makeMcuImage(kKind, version, kSize));
        return flash;
    }
    void stop() {
        mBridge.stop();
        if (mServer.joinable()) mServer.join();
    }
    const board::TemporaryDirectory mScratch{"bench"};
    board::PtyBridge mBridge;
    std::thread mServer;
};

struct Times {
    double process = 0;  // whole, connection included
    double work = 0;     // from the first erase on
};

Times stm32flash(int baud, const std::string& options) {
    Model model(baud);
    board::writeWholeFile(model.path("image"), board::makeMcuImage(kKind, kNewer, kSize));
    const std::string command = std::string(tests::kStm32flash) + " -m 8n1 -b " +
                                std::to_string(baud) + " " + options + " -w " +
                                model.path("image").string() + " " + model.path("port").string() +
                                " >/dev/null 2>&1";
    const double start = now();
    if (system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    return {now() - start, model.work()};
}

Report programmed(programmer::Transport& transport, int baud) {
    programmer::Settings settings;
    settings.chip = kChip;
    settings.link.baud = baud;
    programmer::Session session(transport, settings);
    Report report = session.flash(imageOf(kNewer));
    if (!report.reason.empty()) throw std::runtime_error(report.reason);
    return report;
}

// quilctl over an image of that version: a process of its own, as stm32flash is.
struct OverPty {
    nlohmann::json result;
    Times times;

    OverPty(int baud, const char* version) {
        Model model(baud, version);
        board::writeWholeFile(model.path("image"), board::makeMcuImage(kKind, kNewer, kSize));
        const double start = now();
        const tests::CommandRun run = tests::runCommand(
            QUIL_BIN_DIR "/quilctl --json mcu flash --chip " + std::string(kChip) + " --baud " +
            std::to_string(baud) + " --port " + model.path("port").string() + " " +
            model.path("image").string() + " 2>/dev/null");
        times = {now() - start, model.work()};
        if (run.status != 0) throw std::runtime_error("mcu flash: " + run.output);
        result = nlohmann::json::parse(run.output)["result"];
    }
    double write() const { return kSize / result["write"]["rate"].get<double>(); }
};

Report inBoardTime() {
    const board::TemporaryDirectory scratch("bench");
    board::createBoardDirectory(scratch.path(), board::Product::kHeron);
    board::fitMcu(scratch.path(), {.kind = kKind, .flashed = kOlder, .imageSize = kSize});
    board::Board board(scratch.path());
    board.trace().setRecording(false);
    tools::SerialTransport transport(board.mcuUart().path(), tools::boardLines());
    return programmed(transport, 115200);
}

bool row(std::ostream& out, const char* what, double seconds, double ceiling, double least) {
    char text[170];
    const double share = 100 * ceiling / seconds;
    snprintf(text, sizeof(text), "  %-40s %7.2f s  %6.2f kB/s  %6.2f %% of the ceiling%s\n", what,
             seconds, kSize / seconds / 1e3, share, share < least ? "  TOO SLOW" : "");
    out << text;
    return share >= least;
}

void head(std::ostream& out, int baud) {
    double load = 0;
    getloadavg(&load, 1);
    char text[120];
    snprintf(text, sizeof(text),
             "%s, %zu KiB at %d bit/s, pseudo terminal, real time, load average %.1f\n", kChip,
             kSize / 1024, baud, load);
    out << text;
}

// What one program took in several runs that took turns with the other's: the median.
class Runs {
  public:
    void add(double seconds) { mSeconds.push_back(seconds); }
    double median() const {
        std::vector<double> sorted = mSeconds;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }

  private:
    std::vector<double> mSeconds;
};

struct Measured {
    Runs write, work, process;
};

// Where quilctl may not keep the cores awake, both wait as long, and are ahead by turns.
bool isAhead(std::ostream& out, const Runs& ours, const Runs& theirs) {
    const bool mayKeepAwake = access("/dev/cpu_dma_latency", W_OK) == 0;
    const double noise = mayKeepAwake ? 1 : 1.005;
    if (ours.median() < theirs.median() * noise) return true;
    out << "  BEHIND stm32flash\n";
    return false;
}

// Work with work: from the first erase on, since stm32flash compares no pages before. Its writing
// is its work but for the erase, whose time is the part's.
bool sideBySide(std::ostream& out, int baud) {
    constexpr int kRounds = 3;
    head(out, baud);
    const Ceiling ceiling(baud);
    Measured ours, theirs;
    for (int round = 0; round < kRounds; ++round) {
        const OverPty run(baud, kOlder);
        const Times writing = stm32flash(baud, ""), all = stm32flash(baud, "-v");
        ours.write.add(run.write());
        ours.work.add(run.times.work);
        ours.process.add(run.times.process);
        theirs.write.add(writing.work - ceiling.erase);
        theirs.work.add(all.work);
        theirs.process.add(all.process);
    }
    const OverPty same(baud, kNewer);
    const double leastOfAll = 100 / 1.05;
    bool holds = row(out, "quilctl mcu flash: write", ours.write.median(), ceiling.write, 96);
    row(out, "stm32flash -w", theirs.write.median(), ceiling.write, 0);
    holds &= row(out, "quilctl mcu flash: erase, write, verify", ours.work.median(), ceiling.all(),
                 leastOfAll);
    row(out, "stm32flash -w -v", theirs.work.median(), ceiling.all(), 0);
    holds &= row(out, "quilctl mcu flash: whole process", ours.process.median(), ceiling.all(),
                 leastOfAll);
    row(out, "stm32flash -w -v: whole process", theirs.process.median(), ceiling.all(), 0);
    const double least = baud == 115200 ? kSameShare : 0;
    holds &= row(out, "quilctl mcu flash: already there", same.times.process, ceiling.check, least);
    holds &= same.result["outcome"] == "already_current";
    holds &= isAhead(out, ours.write, theirs.write);
    return isAhead(out, ours.work, theirs.work) && holds;
}

}  // namespace

bool programmerBeside(std::ostream& out) {
    const Ceiling ceiling(115200);
    const Report report = inBoardTime();
    out << kChip << ", " << kSize / 1024 << " KiB at 115200 bit/s, board time\n";
    bool holds = row(out, "quilctl mcu flash: write", secondsOf(report.statistics.writing),
                     ceiling.write, 99);
    holds &= row(out, "quilctl mcu flash: all, verified", secondsOf(report.statistics.took),
                 ceiling.all(), 99);
    if (!tests::hasStm32flash()) {
        out << "stm32flash is not installed\n";
        return holds;
    }
    for (const int baud : {115200, 460800}) holds &= sideBySide(out, baud);
    return holds;
}

}  // namespace quil::bench
