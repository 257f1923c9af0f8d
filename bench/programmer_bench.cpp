// The tools' programmer beside stm32flash: the same image, the same boot-loader model behind a
// pseudo terminal in real time, the same rate; and in board time beside what the line and the flash
// need at least.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/mcu_bench.h"
#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "board/mcu/pty_bridge.h"
#include "programmer/session.h"
#include "testing/pty_part.h"
#include "tools/quilctl/programming/serial_transport.h"

namespace quil::bench {
namespace {

namespace fs = std::filesystem;
using board::McuKind;
using programmer::Nanos;
using programmer::Outcome;
using programmer::Report;

constexpr size_t kSize = size_t{64} * 1024;
constexpr McuKind kKind = McuKind::kGd32F303;
constexpr const char* kChip = "gd32f303";

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

// A part with an older image behind a pseudo terminal.
class Model {
  public:
    explicit Model(int baud)
        : mBridge({.part = kKind,
                   .flash = fresh(mScratch.path() / "flash"),
                   .link = mScratch.path() / "port",
                   .realtime = true,
                   .fastest = baud}),
          mServer([this] { mBridge.run(); }) {}
    ~Model() {
        mBridge.stop();
        mServer.join();
    }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    fs::path path(const char* name) const { return mScratch.path() / name; }

  private:
    static fs::path fresh(const fs::path& flash) {
        board::writeWholeFile(flash, board::makeMcuImage(kKind, "V0.9.0", kSize));
        return flash;
    }
    const board::TemporaryDirectory mScratch{"bench"};
    board::PtyBridge mBridge;
    std::thread mServer;
};

// The seconds that stm32flash takes; negative when it fails.
double stm32flash(int baud, const std::string& options) {
    const Model model(baud);
    board::writeWholeFile(model.path("image"), board::makeMcuImage(kKind, "V1.0.0", kSize));
    const std::string command = std::string(tests::kStm32flash) + " -m 8n1 -b " +
                                std::to_string(baud) + " " + options + " -w " +
                                model.path("image").string() + " " + model.path("port").string() +
                                " >/dev/null 2>&1";
    const double start = now();
    return system(command.c_str()) == 0 ? now() - start : -1;
}

Report programmed(programmer::Transport& transport, int baud) {
    programmer::Settings settings;
    settings.chip = kChip;
    settings.link.baud = baud;
    programmer::Session session(transport, settings);
    Report report = session.flash(imageOf("V1.0.0"));
    if (!report.reason.empty()) throw std::runtime_error(report.reason);
    return report;
}

// Once over another image, and once over its own.
struct OverPty {
    Report other, same;

    explicit OverPty(int baud) {
        const Model model(baud);
        tools::SerialTransport transport(model.path("port"), [](bool, bool) { return false; });
        other = programmed(transport, baud);
        same = programmed(transport, baud);
    }
};

Report inBoardTime() {
    const board::TemporaryDirectory scratch("bench");
    board::createBoardDirectory(scratch.path(), board::Product::kHeron);
    board::fitMcu(scratch.path(), {.kind = kKind, .flashed = "V0.9.0", .imageSize = kSize});
    board::Board board(scratch.path());
    board.trace().setRecording(false);
    tools::SerialTransport transport(board.mcuUart().path(), tools::boardLines());
    return programmed(transport, 115200);
}

bool row(std::ostream& out, const char* what, double seconds, double ceiling, double least) {
    char text[160];
    const double share = 100 * ceiling / seconds;
    snprintf(text, sizeof(text), "  %-34s %7.2f s  %6.2f kB/s  %6.2f %% of the ceiling%s\n", what,
             seconds, kSize / seconds / 1e3, share, share < least ? "  TOO SLOW" : "");
    out << text;
    return share >= least;
}

// Write: without the time in which it reads back. stm32flash's times include its erase of all
// pages.
bool sideBySide(std::ostream& out, int baud) {
    const Ceiling ceiling(baud);
    double load = 0;
    getloadavg(&load, 1);
    char head[120];
    snprintf(head, sizeof(head),
             "%s, %zu KiB at %d bit/s, pseudo terminal, real time, load average %.1f\n", kChip,
             kSize / 1024, baud, load);
    out << head;
    const double theirWrite = stm32flash(baud, ""), theirAll = stm32flash(baud, "-v");
    const OverPty over(baud);
    const Report& ours = over.other;
    const double write = secondsOf(ours.statistics.writing);
    const double all = secondsOf(ours.statistics.took);
    const double withErase = all - secondsOf(ours.statistics.checking);
    bool holds = row(out, "quilctl mcu flash: write", write, ceiling.write, 96);
    row(out, "  with connection and erase", withErase, ceiling.write + ceiling.erase, 0);
    row(out, "stm32flash -w (with erase)", theirWrite, ceiling.write + ceiling.erase, 0);
    holds &= row(out, "quilctl mcu flash: all, verified", all, ceiling.all(), 100 / 1.05);
    row(out, "stm32flash -w -v", theirAll, ceiling.all(), 0);
    const double same = secondsOf(over.same.statistics.took);
    holds &= row(out, "quilctl mcu flash: already there", same, ceiling.check, kSameShare);
    holds &= over.same.outcome == Outcome::kAlreadyCurrent;
    const bool isAhead = theirWrite > 0 && withErase < theirWrite && all <= theirAll;
    if (!isAhead) out << "  NOT AHEAD of stm32flash\n";
    return holds && isAhead;
}

}  // namespace

bool programmerBeside(std::ostream& out) {
    const Ceiling ceiling(115200);
    const Report report = inBoardTime();
    out << kChip << ", " << kSize / 1024 << " KiB at 115200 bit/s, board time\n";
    bool holds = row(out, "quilctl mcu flash: write", secondsOf(report.statistics.writing),
                     ceiling.write, 99);
    holds &= row(out, "quilctl mcu flash: all, verified", secondsOf(report.statistics.took),
                 ceiling.all(), 100 / 1.05);
    if (!tests::hasStm32flash()) {
        out << "stm32flash is not installed\n";
        return holds;
    }
    for (const int baud : {115200, 460800}) holds &= sideBySide(out, baud);
    return holds;
}

}  // namespace quil::bench
