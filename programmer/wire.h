// A transport with its bookkeeping: turn-arounds, progress and the caller's wish to stop while it
// waits.
#pragma once

#include "programmer/progress.h"
#include "programmer/statistics.h"

namespace quil::programmer {

class Wire {
  public:
    Wire(Transport& transport, const Callbacks& callbacks)
        : mTransport(transport), mCallbacks(callbacks), meter(callbacks) {}

    void setMode(const LineMode& mode) {
        mTransport.setMode(mode);
        mMode = mode;
    }
    const LineMode& mode() const { return mMode; }
    Nanos now() const { return mTransport.now(); }

    // One phase of a protocol: one write, one read of up to `into.size()` bytes. `busy` is how long
    // the part may work on the request before it answers. Returns how many bytes have come.
    size_t exchange(std::span<const uint8_t> request, std::span<uint8_t> into, Nanos busy,
                    Nanos margin = kMargin);
    size_t read(std::span<uint8_t> into, Nanos within);
    void pause(Nanos time) { waitAndRead({}, now() + time); }
    // Discards what comes until the line was quiet that long; returns how many bytes came.
    size_t drain(Nanos quiet);
    bool lines(bool boot0, bool nrst) { return mTransport.lines(boot0, nrst); }
    void say(const std::string& text) const {
        if (mCallbacks.say) mCallbacks.say(text);
    }

    // Beyond the line's own time: adapters and operating systems deliver late.
    static constexpr Nanos kMargin = std::chrono::milliseconds(250);

  private:
    size_t waitAndRead(std::span<uint8_t> into, Nanos deadline);
    void tick();

    Transport& mTransport;
    const Callbacks& mCallbacks;
    LineMode mMode;
    Nanos mTicked{0};

  public:
    Statistics statistics;
    ProgressMeter meter;
};

}  // namespace quil::programmer
