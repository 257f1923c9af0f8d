#include "board/mcu/pty_bridge.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

constexpr int kLongestWaitMs = 20;  // stop() takes effect within this time

Nanos realNow() {
    timespec time{};
    real().clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + Nanos(time.tv_nsec);
}

int openMaster(std::string& port) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::array<char, 64> name{};
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name.data(), name.size()) != 0) {
        throw std::runtime_error(std::string("no pseudo terminal: ") + strerror(errno));
    }
    port = name.data();
    return master;
}

}  // namespace

// The part. Delayed actions wait in a list, sorted by time; without real time they are due at once.
class PtyBridge::Part : public McuSurroundings {
  public:
    Part(const PtyBridgeOptions& options, int master)
        : mStore(options.flash.parent_path()),
          flash(partOf(options.part), mStore, options.flash.filename()),
          loader(makeBootLoader(flash, *this, faults)),
          mMaster(master),
          mRealtime(options.realtime) {
        loader->start();
    }

    Nanos now() const override { return realNow(); }
    void after(Nanos delay, std::function<void()> action) override {
        put(now() + (mRealtime ? delay : Nanos(0)), std::move(action));
    }
    void send(std::vector<uint8_t> bytes) override {
        const Nanos line = hostLine().byteTime() * static_cast<int64_t>(bytes.size());
        after(line, [this, bytes = std::move(bytes)] {
            [[maybe_unused]] const ssize_t sent = real().write(mMaster, bytes.data(), bytes.size());
        });
    }
    LineSettings hostLine() const override {
        termios settings{};
        real().tcgetattr(mMaster, &settings);
        return settingsOf(settings);
    }
    void note(const std::string&) override {}
    void violation(const std::string& text) override { violations.add(now(), text); }
    void operate(const std::string&, std::function<Nanos(McuFlash&)> start,
                 std::function<void(const std::string&)> done) override {
        after(start(flash), [this, done = std::move(done)] { done(flash.finish()); });
    }
    void resetBySoftware() override { mRestarts = true; }
    void jumpTo(uint32_t) override { mRestarts = true; }

    // A pty transfers at once; in real time each byte is delayed as on a line.
    void arrive(uint8_t byte) {
        const Nanos time = mRealtime ? hostLine().byteTime() : Nanos(0);
        mLineFree = std::max(mLineFree, now()) + time;
        put(mLineFree, [this, byte] { loader->receive(byte); });
    }

    // Called once all bytes sent before the reset are out.
    void restart() {
        if (flash.busy()) flash.powerLost(0);
        mPending.clear();
        loader->start();
    }
    void runDue() {
        while (!mPending.empty() && mPending.front().first <= now()) {
            const auto action = std::move(mPending.front().second);
            mPending.erase(mPending.begin());
            action();
        }
        if (mRestarts && mPending.empty()) {
            mRestarts = false;
            restart();
        }
    }
    int waitMs() const {
        if (mPending.empty()) return kLongestWaitMs;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(mPending.front().first - now());
        return std::clamp(static_cast<int>(left.count()), 0, kLongestWaitMs);
    }

  private:
    DirectoryStore mStore;

  public:
    McuFlash flash;
    LoaderFaults faults;
    Violations violations;
    const std::unique_ptr<BootLoader> loader;

  private:
    void put(Nanos when, std::function<void()> action) {
        const auto later = [when](const auto& entry) { return entry.first > when; };
        mPending.emplace(std::find_if(mPending.begin(), mPending.end(), later), when,
                         std::move(action));
    }

    const int mMaster;
    const bool mRealtime;
    bool mRestarts = false;
    Nanos mLineFree{0};
    std::vector<std::pair<Nanos, std::function<void()>>> mPending;
};

PtyBridge::PtyBridge(const PtyBridgeOptions& options)
    : mOptions(options),
      mMaster(openMaster(mPort)),
      mPart(std::make_unique<Part>(options, mMaster)) {
    if (mOptions.link.empty()) return;
    std::error_code error;
    if (std::filesystem::is_symlink(mOptions.link, error)) std::filesystem::remove(mOptions.link);
    std::filesystem::create_symlink(mPort, mOptions.link);
}

PtyBridge::~PtyBridge() {
    std::error_code ignored;
    if (!mOptions.link.empty()) std::filesystem::remove(mOptions.link, ignored);
    real().close(mMaster);
}

const std::string& PtyBridge::port() const { return mPort; }
McuFlash& PtyBridge::flash() { return mPart->flash; }
LoaderFaults& PtyBridge::faults() { return mPart->faults; }
std::vector<std::string> PtyBridge::violations() const { return mPart->violations.texts(); }
void PtyBridge::stop() { mStopped.store(true); }

void PtyBridge::run() {
    while (!mStopped.load()) serveOnce();
    mPart->flash.save();
    mStopped.store(false);
}

void PtyBridge::serveOnce() {
    pollfd entry{mMaster, POLLIN, 0};
    const int ready = real().poll(&entry, 1, mPart->waitMs());
    if (ready > 0 && (entry.revents & POLLIN) != 0) {
        mInUse.store(true);
        std::array<uint8_t, 512> bytes{};
        const ssize_t got = real().read(mMaster, bytes.data(), bytes.size());
        for (ssize_t i = 0; i < got; ++i) {
            mPart->arrive(bytes.at(static_cast<size_t>(i)));
            mPart->runDue();
        }
    } else if (ready > 0 && (entry.revents & POLLHUP) != 0) {
        mPart->restart();  // no program has the port open
        mInUse.store(false);
        const timespec pause{0, 5'000'000};
        real().nanosleep(&pause, nullptr);
    }
    mPart->runDue();
}

}  // namespace quil::board
