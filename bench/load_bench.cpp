// What loading the library costs: the loader's time in a fresh process, and the sizes that it
// depends on.
#include <benchmark/benchmark.h>

#include <sstream>
#include <string>

#include "testing/build.h"
#include "testing/program_output.h"

namespace {

// The first number of a command's output.
double numberFrom(const std::string& command) {
    std::istringstream output(quil::tests::outputOf(command));
    double number = 0;
    return output >> number ? number : -1;
}

constexpr char kName[] = "/quil.hardware.quilservicemanager@1.0-impl.so'";

// The size of the text, and the number of relocations.
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
