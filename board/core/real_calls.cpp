#include "board/core/real_calls.h"

#include <dlfcn.h>
#include <string.h>

#include <atomic>

namespace quil::board {
namespace {

RealCalls g_calls;
std::atomic<bool> g_resolved{false};

// glibc keeps functions for an older layout of condition variables under the same names; an
// unversioned look-up may find those.
void* find(const char* name) {
#ifdef __x86_64__
    const bool changed = strncmp(name, "pthread_cond_", 13) == 0;
    void* found = changed ? dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2") : nullptr;
    if (found != nullptr) return found;
#endif
    return dlsym(RTLD_NEXT, name);
}

template <typename Function>
void resolve(Function*& slot, const char* name) {
    slot = reinterpret_cast<Function*>(find(name));
}

// Two threads may do this at once: both write the same values.
void resolveAll() {
#define QUIL_REAL_RESOLVE(result, name, arguments) resolve(g_calls.name, #name);
    QUIL_REAL_CALLS(QUIL_REAL_RESOLVE)
#undef QUIL_REAL_RESOLVE
    resolve(g_calls.logWrite, "__android_log_write");
    g_resolved.store(true, std::memory_order_release);
}

}  // namespace

bool resolved() { return g_resolved.load(std::memory_order_acquire); }

const RealCalls& real() {
    if (!resolved()) resolveAll();
    return g_calls;
}

timespec timespecOf(int64_t nanos) {
    return {static_cast<time_t>(nanos / 1'000'000'000), static_cast<long>(nanos % 1'000'000'000)};
}

int64_t realNanos() {
    timespec t{};
    real().clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

}  // namespace quil::board
