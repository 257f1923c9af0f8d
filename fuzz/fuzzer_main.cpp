// libFuzzer's entry points: calls the target that this program was built for.
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <string_view>

#include "fuzz/targets.h"
#include "testing/one_core.h"

namespace {

constexpr const quil::fuzz::Target* targetOfThisProgram() {
    for (const quil::fuzz::Target& target : quil::fuzz::kTargets) {
        if (std::string_view(target.name) == QUIL_FUZZ_TARGET) return &target;
    }
    return nullptr;
}
constexpr const quil::fuzz::Target* kTarget = targetOfThisProgram();
static_assert(kTarget != nullptr, "a program without a target");

// Replaces libFuzzer's own time-out, which would read the board's clock. A limit of processor time
// does not fail on a busy machine.
constexpr time_t kProcessorSecondsMost = 30;

void limitProcessorTime(time_t seconds) {
    const itimerval limit = {{0, 0}, {seconds, 0}};
    setitimer(ITIMER_PROF, &limit, nullptr);
}

extern "C" void spins(int /*signal*/) {
    constexpr std::string_view kText = "more than 30 s of processor time: it spins\n";
    (void)!write(STDERR_FILENO, kText.data(), kText.size());
    abort();
}

}  // namespace

// The sanitizer gives back the shadow of each large block that is freed, and getting it again page
// by page took a fifth of the time: what is locked stays. (Its own mlockall does nothing.) Who may
// not lock memory is only slower.
void keepShadow() { syscall(SYS_mlockall, MCL_CURRENT | MCL_ONFAULT); }

// `./run fuzz` says on which core each of its programs stays.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    keepShadow();
    if (const char* core = getenv("QUIL_FUZZ_CORE")) {
        quil::tests::stayOnCore(strtoull(core, nullptr, 10));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto former = signal(SIGPROF, spins);
    (void)former;
    limitProcessorTime(kProcessorSecondsMost);
    kTarget->run({data, size});
    limitProcessorTime(0);
    return 0;
}
