// Many client threads at once, without a board: the kernel schedules them in any order.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "service/quil_service_callback.h"
#include "testing/library_test.h"

namespace quil::tests {

using namespace hardware::quilservicemanager::implementation;  // NOLINT: the thing tested
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;

namespace {

constexpr int kClients = 16, kRounds = 200;

class Counter : public IQuilServiceCallback {
  public:
    explicit Counter(std::atomic<int>& count) : mCount(count) {}
    Return<void> hwNotify(const hidl_vec<uint8_t>&) override {
        ++mCount;
        return Void();
    }

  private:
    std::atomic<int>& mCount;
};

// A configuration whose MCU link accepts every byte and never answers.
class Stress : public testing::Test {
  protected:
    Stress() : mSink(open("/dev/null", O_WRONLY)) {
        config_info = static_cast<config_info_t*>(calloc(1, sizeof(config_info_t)));
        config_info->mcu_fd = mSink;
    }
    ~Stress() override { close(mSink); }

    const FreshLibrary library;
    int mSink;
    android::sp<OpenService> service = new OpenService;
    std::atomic<int> notified{0};
    std::atomic<int> answers{0};
};

void registerInvokeAndRemove(OpenService& service, std::atomic<int>& notified) {
    const android::sp<IQuilServiceCallback> callback = new Counter(notified);
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(service.hwRegistCallback(callback), 0);
        EXPECT_EQ(service.hwInvoke(Bytes{1, 2}), 2);
        EXPECT_EQ(service.hwUnRegistCallback(callback), 0);
    }
}

}  // namespace

TEST_F(Stress, SixteenClientsWithRegistrationsBroadcastsAndWakeUpsLoseNothing) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        // Answers all the time, so that no client waits its five seconds.
        while (!done) {
            service->wakeUp(Bytes{1, 2, 3, 4});
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> clients;
    clients.reserve(kClients);
    for (int client = 0; client < kClients; ++client) {
        clients.emplace_back([&, client] {
            if (client % 4 == 3) return registerInvokeAndRemove(*service, notified);
            for (int round = 0; round < kRounds; ++round) {
                const Bytes request = {1, 0, 0, 0, 0, 0, 0, 0};
                const Bytes answer =
                    client % 2 == 0 ? service->getBytes(request) : service->setBytes(request);
                // Another request's answer is allowed, a mixture of two is not.
                EXPECT_TRUE(answer.empty() || answer == (Bytes{1, 2, 3, 4}));
                ++answers;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    done = true;
    reader.join();
    EXPECT_EQ(answers, kClients / 4 * 3 * kRounds);
    EXPECT_GE(notified, kClients / 4 * kRounds);
    EXPECT_TRUE(service->mClients.empty());
}

}  // namespace quil::tests
