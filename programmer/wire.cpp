#include "programmer/wire.h"

#include <array>

namespace quil::programmer {
namespace {

// From one tick to the next, at least and at most.
constexpr Nanos kOften = std::chrono::milliseconds(50), kSlice = std::chrono::milliseconds(150);

}  // namespace

size_t Wire::exchange(std::span<const uint8_t> request, std::span<uint8_t> into, Nanos busy,
                      Nanos margin) {
    if (mCallbacks.cancelled && mCallbacks.cancelled()) throw Cancelled();
    const Nanos start = now();
    mTransport.write(request);
    const Nanos line = mMode.timeOf(request.size() + into.size());
    const size_t got = waitAndRead(into, start + line + busy + margin);
    if (got == into.size()) statistics.turnaround(now() - start - line);
    return got;
}

size_t Wire::read(std::span<uint8_t> into, Nanos within) {
    return waitAndRead(into, now() + within);
}

size_t Wire::waitAndRead(std::span<uint8_t> into, Nanos deadline) {
    for (size_t got = 0;;) {
        const Nanos slice = std::min(deadline, now() + kSlice);
        got += mTransport.read(into.subspan(got), slice);
        tick();
        if ((!into.empty() && got == into.size()) || now() >= deadline) return got;
        if (mCallbacks.cancelled && mCallbacks.cancelled()) throw Cancelled();
    }
}

void Wire::tick() {
    if (now() - mTicked < kOften) return;
    mTicked = now();
    meter.tick(mTicked);
}

// Bounded: a line that is never quiet is for the next exchange to judge.
size_t Wire::drain(Nanos quiet) {
    constexpr size_t kMost = 4096;
    std::array<uint8_t, 64> junk{};
    size_t all = 0;
    while (all < kMost) {
        const size_t got = waitAndRead(junk, now() + quiet);
        if (got == 0) break;
        all += got;
    }
    return all;
}

}  // namespace quil::programmer
