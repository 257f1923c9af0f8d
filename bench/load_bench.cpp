// What loading the library costs: the loader's time in a fresh process, and what it has to work on.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <memory>
#include <string>

#include "testing/build.h"

namespace {

using Pipe = std::unique_ptr<FILE, int (*)(FILE*)>;

// The number that a command prints first.
double numberFrom(const std::string& command) {
    double number = 0;
    const Pipe pipe(popen(command.c_str(), "r"), pclose);
    return pipe && fscanf(pipe.get(), "%lf", &number) == 1 ? number : -1;
}

constexpr char kName[] = "/quil.hardware.quilservicemanager@1.0-impl.so'";

// What `size` calls text, and what the loader has to work on.
void describe(benchmark::State& state, const std::string& directory) {
    const std::string library = "'" + directory + kName;
    state.counters["textBytes"] = numberFrom("size " + library + " | tail -n 1");
    state.counters["relocations"] = numberFrom("readelf -rW " + library + " | grep -c R_");
}

void libraryLoad(benchmark::State& state) {
    for (auto _ : state) {
        const double nanoseconds = numberFrom(QUIL_LOAD_PROBE);
        if (nanoseconds < 0) state.SkipWithError("the library could not be loaded");
        state.SetIterationTime(nanoseconds / 1e9);
    }
    describe(state, QUIL_LIB_DIR);
}
BENCHMARK(libraryLoad)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20);

}  // namespace
