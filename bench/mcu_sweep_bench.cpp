// How many power cuts a second an exhaustive sweep over an MCU update judges: on two cores, a
// process on each. Cuts that leave the same are one state; each state is booted from once, which
// has to mend it. Then the same for second cuts, in the boots that mend.
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/mcu_bench.h"
#include "testing/mcu_update_cuts.h"

namespace quil::bench {
namespace {

constexpr int kWorkers = 2;

struct Share {
    uint64_t cuts = 0, states = 0, wrong = 0;
    double processorSeconds = 0;
};

double secondsOn(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

using States = std::vector<tests::CutState>;

// Of the first cuts' states every kWorkers-th one, starting at `first`, is where second cuts begin.
States statesOf(const tests::McuUpdateCuts& cuts, size_t first, int cutsInARow) {
    States states = cuts.states();
    if (states.empty() || !cuts.mend({}).empty()) {
        throw std::runtime_error("the update fails without a cut");
    }
    if (cutsInARow == 1) return states;
    std::map<tests::KeptFiles, tests::CutState> second;
    for (size_t i = first; i < states.size(); i += kWorkers) {
        for (tests::CutState& state : cuts.runs().statesIn(states[i].files)) {
            const auto [known, isNew] = second.try_emplace(state.files, state);
            if (!isNew) known->second.cuts += state.cuts;
        }
    }
    states.clear();
    for (auto& [files, state] : second) states.push_back(std::move(state));
    return states;
}

// Standard error is discarded: the library reports each failure of a board without power.
Share sweep(size_t first, size_t imageSize, int cutsInARow) {
    FILE* report = fdopen(dup(STDERR_FILENO), "w");
    if (report == nullptr || freopen("/dev/null", "w", stderr) == nullptr) {
        throw std::runtime_error("no standard error");
    }
    Share share;
    const tests::McuUpdateCuts cuts(board::McuKind::kGd32F303, imageSize);
    const States states = statesOf(cuts, first, cutsInARow);
    const size_t step = cutsInARow == 1 ? kWorkers : 1;
    for (size_t i = cutsInARow == 1 ? first : 0; i < states.size(); i += step) {
        const std::string problem = cuts.mend(states[i].files);
        share.cuts += states[i].cuts;
        ++share.states;
        if (problem.empty()) continue;
        ++share.wrong;
        fprintf(report, "cut %s: %s\n", tests::nameOf(states[i].first).c_str(), problem.c_str());
    }
    fclose(report);
    share.processorSeconds = secondsOn(CLOCK_PROCESS_CPUTIME_ID);
    return share;
}

struct Worker {
    pid_t process = -1;
    int report = -1;
};

Worker startWorker(size_t first, size_t imageSize, int cutsInARow) {
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
        share = sweep(first, imageSize, cutsInARow);
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

bool sweepWith(std::ostream& out, size_t imageSize, int cutsInARow) {
    const double start = secondsOn(CLOCK_MONOTONIC);
    std::array<Worker, kWorkers> workers;
    for (size_t i = 0; i < workers.size(); ++i) {
        workers.at(i) = startWorker(i, imageSize, cutsInARow);
    }
    Share all;
    for (const Worker& worker : workers) {
        const Share share = shareOf(worker);
        all.cuts += share.cuts;
        all.states += share.states;
        all.wrong += share.wrong;
        all.processorSeconds += share.processorSeconds;
    }
    const double seconds = secondsOn(CLOCK_MONOTONIC) - start;
    const auto cuts = static_cast<double>(all.cuts), boots = static_cast<double>(all.states);
    char text[400];
    snprintf(text, sizeof(text),
             "%s power cuts in an update of gd32f303, %zu KiB: %.0f judged in %.2f s on %d cores, "
             "%.0f a second\n  They leave %.0f different states; a boot mends each: %.0f boots a "
             "second\n  (of processor time and core: %.0f cuts, %.0f boots a second), %.0f not "
             "mended\n",
             cutsInARow == 1 ? "Single" : "Second", imageSize / 1024, cuts, seconds, kWorkers,
             cuts / seconds, boots, boots / seconds, cuts / all.processorSeconds,
             boots / all.processorSeconds, static_cast<double>(all.wrong));
    out << text << std::flush;  // before the next fork
    return all.wrong == 0;
}

}  // namespace

bool powerCutSweep(std::ostream& out) {
    constexpr size_t kProducts = size_t{8} * 1024, kSmallest = size_t{2} * 1024;
    return sweepWith(out, kProducts, 1) && sweepWith(out, kSmallest, 2);
}

}  // namespace quil::bench
