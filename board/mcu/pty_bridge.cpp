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
        : store_(options.flash.parent_path()),
          flash(partOf(options.part), store_, options.flash.filename()),
          loader(makeBootLoader(flash, *this, faults)),
          master_(master),
          realtime_(options.realtime) {
        loader->start();
    }

    Nanos now() const override { return realNow(); }
    void after(Nanos delay, std::function<void()> action) override {
        put(now() + (realtime_ ? delay : Nanos(0)), std::move(action));
    }
    void send(std::vector<uint8_t> bytes) override {
        const Nanos line = hostLine().byteTime() * static_cast<int64_t>(bytes.size());
        after(line, [this, bytes = std::move(bytes)] {
            [[maybe_unused]] const ssize_t sent = real().write(master_, bytes.data(), bytes.size());
        });
    }
    LineSettings hostLine() const override {
        termios settings{};
        real().tcgetattr(master_, &settings);
        return settingsOf(settings);
    }
    void note(const std::string&) override {}
    void violation(const std::string& text) override { violations.push_back(text); }
    void operate(const std::string&, std::function<Nanos(McuFlash&)> start,
                 std::function<void(const std::string&)> done) override {
        after(start(flash), [this, done = std::move(done)] { done(flash.finish()); });
    }
    void resetBySoftware() override { restarts_ = true; }
    void jumpTo(uint32_t) override { restarts_ = true; }

    // A pty transfers at once; in real time each byte is delayed as on a line.
    void arrive(uint8_t byte) {
        const Nanos time = realtime_ ? hostLine().byteTime() : Nanos(0);
        lineFree_ = std::max(lineFree_, now()) + time;
        put(lineFree_, [this, byte] { loader->receive(byte); });
    }

    // Called once all bytes sent before the reset are out.
    void restart() {
        if (flash.busy()) flash.powerLost(0);
        pending_.clear();
        loader->start();
    }
    void runDue() {
        while (!pending_.empty() && pending_.front().first <= now()) {
            const auto action = std::move(pending_.front().second);
            pending_.erase(pending_.begin());
            action();
        }
        if (restarts_ && pending_.empty()) {
            restarts_ = false;
            restart();
        }
    }
    int waitMs() const {
        if (pending_.empty()) return kLongestWaitMs;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(pending_.front().first - now());
        return std::clamp(static_cast<int>(left.count()), 0, kLongestWaitMs);
    }

  private:
    DirectoryStore store_;

  public:
    McuFlash flash;
    LoaderFaults faults;
    std::vector<std::string> violations;
    const std::unique_ptr<BootLoader> loader;

  private:
    void put(Nanos when, std::function<void()> action) {
        const auto later = [when](const auto& entry) { return entry.first > when; };
        pending_.emplace(std::find_if(pending_.begin(), pending_.end(), later), when,
                         std::move(action));
    }

    const int master_;
    const bool realtime_;
    bool restarts_ = false;
    Nanos lineFree_{0};
    std::vector<std::pair<Nanos, std::function<void()>>> pending_;
};

PtyBridge::PtyBridge(const PtyBridgeOptions& options)
    : options_(options),
      master_(openMaster(port_)),
      part_(std::make_unique<Part>(options, master_)) {
    if (options_.link.empty()) return;
    std::error_code error;
    if (std::filesystem::is_symlink(options_.link, error)) std::filesystem::remove(options_.link);
    std::filesystem::create_symlink(port_, options_.link);
}

PtyBridge::~PtyBridge() {
    std::error_code ignored;
    if (!options_.link.empty()) std::filesystem::remove(options_.link, ignored);
    real().close(master_);
}

const std::string& PtyBridge::port() const { return port_; }
McuFlash& PtyBridge::flash() { return part_->flash; }
LoaderFaults& PtyBridge::faults() { return part_->faults; }
const std::vector<std::string>& PtyBridge::violations() const { return part_->violations; }
void PtyBridge::stop() { stopped_.store(true); }

void PtyBridge::run() {
    while (!stopped_.load()) serveOnce();
    part_->flash.save();
    stopped_.store(false);
}

void PtyBridge::serveOnce() {
    pollfd entry{master_, POLLIN, 0};
    const int ready = real().poll(&entry, 1, part_->waitMs());
    if (ready > 0 && (entry.revents & POLLIN) != 0) {
        inUse_.store(true);
        std::array<uint8_t, 512> bytes{};
        const ssize_t got = real().read(master_, bytes.data(), bytes.size());
        for (ssize_t i = 0; i < got; ++i) {
            part_->arrive(bytes.at(static_cast<size_t>(i)));
            part_->runDue();
        }
    } else if (ready > 0 && (entry.revents & POLLHUP) != 0) {
        part_->restart();  // no program has the port open
        inUse_.store(false);
        const timespec pause{0, 5'000'000};
        real().nanosleep(&pause, nullptr);
    }
    part_->runDue();
}

}  // namespace quil::board
