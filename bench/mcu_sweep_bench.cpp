// How many power cuts a second an exhaustive sweep over an MCU update makes, each with the clean
// boot that mends it: on two cores, a process on each.
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/mcu_bench.h"
#include "testing/mcu_update_cuts.h"

namespace quil::bench {
namespace {

constexpr int kWorkers = 2;
constexpr size_t kImageSize = size_t{8} * 1024;  // the product's

struct Share {
    uint64_t cuts = 0, wrong = 0;
    double processorSeconds = 0;
};

double secondsOn(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Every kWorkers-th cut, starting at `first`. Standard error is discarded: the library reports each
// failure of a board without power.
Share sweep(size_t first) {
    FILE* report = fdopen(dup(STDERR_FILENO), "w");
    if (report == nullptr || freopen("/dev/null", "w", stderr) == nullptr) {
        throw std::runtime_error("no standard error");
    }
    Share share;
    tests::McuUpdateCuts cuts(board::McuKind::kGd32F303, kImageSize);
    const auto all = cuts.allCuts();
    if (all.empty()) throw std::runtime_error("the update fails without a cut");
    for (size_t i = first; i < all.size(); i += kWorkers) {
        const std::string problem = cuts.cutAndMend(all[i]);
        ++share.cuts;
        if (problem.empty()) continue;
        ++share.wrong;
        fprintf(report, "cut %s: %s\n", tests::nameOf(all[i]).c_str(), problem.c_str());
    }
    fclose(report);
    share.processorSeconds = secondsOn(CLOCK_PROCESS_CPUTIME_ID);
    return share;
}

struct Worker {
    pid_t process = -1;
    int report = -1;
};

Worker startWorker(size_t first) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
    const pid_t process = fork();
    if (process < 0) throw std::runtime_error("no process");
    if (process > 0) {
        close(ends[1]);
        return {process, ends[0]};
    }
    Share share;
    try {
        share = sweep(first);
    } catch (const std::exception& error) {
        fprintf(stderr, "sweep: %s\n", error.what());
        _exit(1);
    }
    _exit(write(ends[1], &share, sizeof(share)) == sizeof(share) ? 0 : 1);
}

Share shareOf(const Worker& worker) {
    Share share;
    const ssize_t got = read(worker.report, &share, sizeof(share));
    close(worker.report);
    int status = 0;
    waitpid(worker.process, &status, 0);
    if (got != sizeof(share) || status != 0) throw std::runtime_error("a sweep failed");
    return share;
}

}  // namespace

bool powerCutSweep(std::ostream& out) {
    const double start = secondsOn(CLOCK_MONOTONIC);
    std::array<Worker, kWorkers> workers;
    for (size_t i = 0; i < workers.size(); ++i) workers.at(i) = startWorker(i);
    Share all;
    for (const Worker& worker : workers) {
        const Share share = shareOf(worker);
        all.cuts += share.cuts;
        all.wrong += share.wrong;
        all.processorSeconds += share.processorSeconds;
    }
    const double seconds = secondsOn(CLOCK_MONOTONIC) - start;
    const auto cuts = static_cast<double>(all.cuts);
    char text[256];
    snprintf(text, sizeof(text),
             "power cuts in an update of gd32f303, %zu KiB: %.0f cuts in %.1f s on %d cores: "
             "%.0f a second\n  (%.0f a second of processor time and core), %.0f not mended\n",
             kImageSize / 1024, cuts, seconds, kWorkers, cuts / seconds,
             cuts / all.processorSeconds, static_cast<double>(all.wrong));
    out << text;
    return all.wrong == 0;
}

}  // namespace quil::bench
