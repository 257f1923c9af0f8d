// Several clients of a service that is up: requests, registrations, broadcasts, and the MCU's
// answers meanwhile.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "board/board.h"
#include "host/hosting_component.h"
#include "testing/library_test.h"

namespace quil::tests {

namespace V1_0 = ::quil::hardware::quilservicemanager::V1_0;

class NotificationCounter : public V1_0::IQuilServiceCallback {
  public:
    android::hardware::Return<void> hwNotify(
        const android::hardware::hidl_vec<uint8_t>& bytes) override {
        if (Bytes(bytes) == Bytes{1, 2}) ++whole;
        return {};
    }
    std::atomic<int> whole{0};
};

class ClientScenario {
  public:
    static constexpr int kRounds = 3;

    // What went wrong, or "".
    std::string run(board::Board& board) {
        board.mcu().setAnswer(kGet, kAnswerToGet);
        if (!mHost.start({.updateMcu = false}).ok()) return "the service does not come up";
        std::vector<std::thread> clients;
        clients.emplace_back([this] { ask(kGet, {}); });
        clients.emplace_back([this] { ask(kGet, {}); });
        clients.emplace_back([this] { ask(kSet, {0xAB, 0xCD}); });
        clients.emplace_back([this] { beTold(); });
        for (std::thread& client : clients) client.join();
        if (mHost.service()->hwInvoke(Bytes{1, 2}) != -1) problem("a client is still registered");
        mHost.stop();
        for (const std::string& violation : board.violations()) problem(violation);
        return mProblem;
    }
    int answered() const { return mAnswered; }

  private:
    static constexpr uint8_t kGet = 1, kSet = 2;
    inline static const Bytes kAnswerToGet = {'V', '2', '.', '5'}, kAnswerToSet = {0};

    void problem(const std::string& text) {
        const std::lock_guard lock(mMutex);
        if (mProblem.empty()) mProblem = text;
    }

    // The answer may be another request's, and none if it came before the wait for it; never
    // a mixture.
    void ask(uint8_t command, const Bytes& value) {
        const Bytes request =
            Bytes{command, 0, 0, 0, 0, 0, static_cast<uint8_t>(value.size()), 0} + value;
        const auto keep = [this](const android::hardware::hidl_vec<uint8_t>& bytes) {
            const Bytes answer(bytes);
            if (answer == kAnswerToGet || answer == kAnswerToSet) {
                ++mAnswered;
            } else if (!answer.empty()) {
                problem("an answer that the MCU never gave: " + hexOf(answer));
            }
        };
        for (int round = 0; round < kRounds; ++round) {
            const auto service = mHost.service();
            command == kGet ? service->get(request, keep) : service->set(request, keep);
        }
    }

    void beTold() {
        const android::sp<NotificationCounter> callback = new NotificationCounter;
        for (int round = 0; round < kRounds; ++round) {
            if (mHost.service()->hwRegistCallback(callback) != 0) problem("not registered");
            if (mHost.service()->hwInvoke(Bytes{1, 2}) != 2) problem("not sent");
            if (mHost.service()->hwUnRegistCallback(callback) != 0) problem("not registered");
        }
        if (callback->whole != kRounds) problem("a registered client was not told");
    }

    std::mutex mMutex;
    std::string mProblem;
    std::atomic<int> mAnswered{0};
    host::HostingComponent mHost;
};

}  // namespace quil::tests
