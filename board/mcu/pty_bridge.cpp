#include "board/mcu/pty_bridge.h"

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

using std::chrono::milliseconds;

constexpr Nanos kLongestWait = milliseconds(20);  // stop() takes effect within this time
// To wake for each byte of a block would take a processor. Of what follows each other within this
// time only the last is on time to the point, and that is what a host waits for.
constexpr Nanos kBunch = milliseconds(1);
constexpr Nanos kNapWhenClosed = milliseconds(1);

Nanos realNow() {
    timespec time{};
    real().clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + Nanos(time.tv_nsec);
}

}  // namespace

// The part and its line. While an event runs, the time is the one at which it was due.
class PtyBridge::Part : public McuSurroundings {
  public:
    Part(const PtyBridgeOptions& options, const PtyPort& port)
        : mStore(options.flash.parent_path()),
          flash(partOf(options.part), mStore, options.flash.filename()),
          loader(makeBootLoader(flash, *this, faults)),
          mPort(port),
          mRealtime(options.realtime),
          mFastest(options.fastest),
          mNoise(options.seed, options.noise),
          mNow(options.realtime ? realNow() : Nanos(0)) {
        flash.drawTimes(options.seed);
        if (options.slowest) flash.takeLongestTimes();
        loader->start();
    }

    Nanos now() const override { return mNow; }
    int fastestRate() const override { return mFastest; }
    void after(Nanos delay, std::function<void()> action) override {
        put(mNow + delay, std::move(action));
    }
    // Bytes go out one after another; those of a later answer wait for those of an earlier one.
    void send(std::vector<uint8_t> bytes) override {
        const LineSettings line = loader->lineSettings();
        for (const uint8_t byte : bytes) {
            mSendingUntil = std::max(mSendingUntil, mNow) + line.byteTime();
            mQueue.emplace(mSendingUntil, [this, byte, line] {
                for (const uint8_t heard : mNoise.arriving(heardAt(line, hostLine(), byte))) {
                    mOut.push_back(heard);
                }
            });
        }
    }
    // The frame is the part's.
    LineSettings hostLine() const override { return mPort.lineWith(flash.part().loaderParity()); }
    void note(const std::string&) override {}
    void violation(const std::string& text) override { violations.add(mNow, text); }
    void operate(const std::string&, std::function<Nanos(McuFlash&)> start,
                 std::function<void(const std::string&)> done) override {
        if (!mFirstOperation) mFirstOperation = mNow;
        after(start(flash), [this, done = std::move(done)] { done(flash.finish()); });
    }
    void resetBySoftware() override {
        ++mEpoch;
        put(std::max(mSendingUntil, mNow), [this] { startLoader(); });
    }
    // The application has no model here: it is silent until the next reset.
    void jumpTo(uint32_t) override {
        ++mEpoch;
        mInApplication = true;
    }

    Nanos workTime() const { return mFirstOperation ? mSendingUntil - *mFirstOperation : Nanos(0); }

    // A pseudo terminal transfers at once; here each byte takes its time on the line.
    void arrive(std::span<const uint8_t> bytes) {
        const LineSettings line = hostLine();
        for (const uint8_t byte : bytes) {
            mReceivingUntil = std::max(mReceivingUntil, mNow) + line.byteTime();
            mQueue.emplace(mReceivingUntil, [this, byte, line] { hear(byte, line); });
        }
    }

    // The reset of a port that was closed: what is on its way is lost.
    void restart() {
        ++mEpoch;
        mQueue.clear();
        mOut.clear();
        mSendingUntil = mReceivingUntil = mNow;
        startLoader();
    }
    void runDue() {
        const Nanos time = realNow();
        while (!mQueue.empty() && (!mRealtime || mQueue.begin()->first <= time)) {
            const auto event = mQueue.extract(mQueue.begin());
            mNow = std::max(mNow, event.key());
            event.mapped()();
        }
        if (mRealtime) mNow = std::max(mNow, time);
        if (!mOut.empty()) mPort.write(std::exchange(mOut, {}));
    }
    Nanos untilNext() const {
        if (mQueue.empty()) return kLongestWait;
        const auto next = std::prev(mQueue.upper_bound(mQueue.begin()->first + kBunch));
        return std::clamp(next->first - realNow(), Nanos(0), kLongestWait);
    }

  private:
    DirectoryStore mStore;

  public:
    McuFlash flash;
    LoaderFaults faults;
    Violations violations;
    const std::unique_ptr<BootLoader> loader;

  private:
    uint8_t heardAt(const LineSettings& sender, const LineSettings& listener, uint8_t byte) {
        if (agree(sender, listener)) return byte;
        violation("framing error on the line");
        return garbled(byte);
    }
    void hear(uint8_t byte, const LineSettings& line) {
        if (mInApplication) return;
        for (const uint8_t heard : mNoise.arriving(heardAt(line, loader->lineSettings(), byte))) {
            loader->receive(heard);
        }
    }
    void startLoader() {
        if (flash.busy()) flash.powerLost({0});
        mInApplication = false;
        loader->start();
    }
    // A reset drops what the part was going to do.
    void put(Nanos when, std::function<void()> action) {
        mQueue.emplace(when, [this, epoch = mEpoch, action = std::move(action)] {
            if (epoch == mEpoch) action();
        });
    }

    const PtyPort& mPort;
    const bool mRealtime;
    const int mFastest;
    LineNoise mNoise;
    Nanos mNow, mSendingUntil{0}, mReceivingUntil{0};
    std::optional<Nanos> mFirstOperation;
    uint64_t mEpoch = 0;  // counts resets
    bool mInApplication = false;
    std::multimap<Nanos, std::function<void()>> mQueue;
    std::vector<uint8_t> mOut;
};

PtyBridge::PtyBridge(const PtyBridgeOptions& options)
    : mPort(options.link), mPart(std::make_unique<Part>(options, mPort)) {}
PtyBridge::~PtyBridge() = default;

Nanos PtyBridge::clock() const { return mPart->now(); }
Nanos PtyBridge::workTime() const { return mPart->workTime(); }
McuFlash& PtyBridge::flash() { return mPart->flash; }
LoaderFaults& PtyBridge::faults() { return mPart->faults; }
std::vector<std::string> PtyBridge::violations() const { return mPart->violations.texts(); }
void PtyBridge::stop() { mStopped.store(true); }

void PtyBridge::run() {
    prctl(PR_SET_TIMERSLACK, 1000UL);  // ns; the default of 50 us is half a byte
    while (!mStopped.load()) serveOnce();
    mPart->flash.save();
    mStopped.store(false);
}

void PtyBridge::serveOnce() {
    pollfd entry{mPort.master(), POLLIN, 0};
    const timespec wait = timespecOf(mPart->untilNext().count());
    const int ready = ppoll(&entry, 1, &wait, nullptr);
    mPart->runDue();
    if (ready <= 0) return;
    if ((entry.revents & POLLIN) != 0) return readBytes();
    if ((entry.revents & POLLHUP) == 0) return;
    mPart->restart();  // no program has the port open
    mInUse.store(false);
    const timespec nap = timespecOf(kNapWhenClosed.count());
    real().nanosleep(&nap, nullptr);
}

void PtyBridge::readBytes() {
    mInUse.store(true);
    mPart->arrive(mPort.read());
    mPart->runDue();
}

}  // namespace quil::board
