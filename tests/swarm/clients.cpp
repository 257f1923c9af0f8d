#include "tests/swarm/clients.h"

#include <fcntl.h>
#include <unistd.h>

#include "board/core/bytes.h"

namespace quil::swarm {
namespace {

constexpr uint32_t kFirstCommand = 0x1000;

uint32_t commandOf(const Operation& operation) {
    switch (operation.act) {
        case Act::kSelfTest:
        case Act::kSetSelfTest:
            return 0xFFFFFFF4;
        case Act::kLowPower:
            return 0xFFFFFFF0;
        case Act::kNormalPower:
            return 0xFFFFFFF1;
        case Act::kUnknownCommand:
            return 0xF5000002 + operation.number;
        default:
            return mcuCommandOf(operation);
    }
}

bool isSet(Act act) { return act == Act::kSet || act == Act::kSetSelfTest; }

}  // namespace

uint32_t mcuCommandOf(const Operation& operation) { return kFirstCommand + operation.number; }

Bytes answerOf(const Operation& operation) {
    Bytes bytes(4);
    board::putLittle32(bytes, 0, 0xA0000000 | operation.number << 8);
    bytes.resize(4 + operation.number % 8, 0x5A);
    return bytes;
}

Bytes requestOf(const Operation& operation) {
    if (operation.act == Act::kTooShort) return Bytes(operation.number % 8, 0x11);
    Bytes bytes(8 + operation.number % 5, 0x22);
    board::putLittle32(bytes, 0, commandOf(operation));
    board::putLittle32(bytes, 4, operation.number % 3 << 16);
    return bytes;
}

// Reacts when it is told, once.
class Clients::Callback : public NumberedCallback {
  public:
    Callback(Clients& clients, const Operation& operation, const Service& service)
        : NumberedCallback(static_cast<int>(operation.number)),
          mClients(clients),
          mOperation(operation),
          mService(service) {}

    Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
        const uint32_t call = board::little32({data.data(), data.size()}, 0);
        mClients.mRecorder.add({.step = Step::kNotify, .operation = call, .callback = number()});
        if (mOperation.reaction == Reaction::kDies) {
            return android::hardware::Status::fromStatusT(android::DEAD_OBJECT);
        }
        if (!mHasReacted.exchange(true)) mClients.react(mOperation, mService.promote(), this);
        return {};
    }

  private:
    Clients& mClients;
    const Operation mOperation;
    const android::wp<IQuilServiceManager> mService;  // which holds this callback
    std::atomic<bool> mHasReacted{false};
};

void Clients::start(const Session& session, const Service& service) {
    for (const Client& client : session.clients) {
        mThreads.emplace_back([this, &client, service] { run(client, service); });
    }
}

void Clients::wait() {
    for (std::thread& thread : mThreads) thread.join();
    mThreads.clear();
}

void Clients::run(const Client& client, const Service& service) {
    std::vector<android::sp<Callback>> own;
    for (const Operation& operation : client.operations) {
        if (operation.pause.count() > 0) mBoard.runFor(operation.pause);
        if (mBoard.powerIsCut()) return;
        perform(operation, service, own);
    }
}

void Clients::perform(const Operation& operation, const Service& service,
                      std::vector<android::sp<Callback>>& own) {
    switch (operation.act) {
        case Act::kRegister:
        case Act::kUnregister:
            return registered(operation, service, own);
        case Act::kInvoke: {
            const int32_t told = service->hwInvoke(Bytes(4 + operation.number % 3, 0x33));
            return static_cast<void>(told);
        }
        case Act::kDebug:
            return debug(service);
        case Act::kWakeUp:
            return static_cast<void>(service->wakeUp(answerOf(operation)).isOk());
        default:
            return request(operation, service);
    }
}

void Clients::request(const Operation& operation, const Service& service) {
    const auto taken = [&](const hidl_vec<uint8_t>&) { react(operation, service, nullptr); };
    const auto done = isSet(operation.act) ? service->set(requestOf(operation), taken)
                                           : service->get(requestOf(operation), taken);
    static_cast<void>(done.isOk());
}

void Clients::registered(const Operation& operation, const Service& service,
                         std::vector<android::sp<Callback>>& own) {
    int32_t result = 0;
    if (operation.act == Act::kRegister) {
        // Now and then the former one once more.
        if (own.empty() || operation.number % 4 != 0) {
            own.push_back(new Callback(*this, operation, service));
        }
        result = service->hwRegistCallback(own.back());
    } else if (own.empty()) {
        result = service->hwUnRegistCallback(new Callback(*this, operation, service));
    } else {
        result = service->hwUnRegistCallback(own.front());
        own.erase(own.begin());
    }
    static_cast<void>(result);
}

void Clients::debug(const Service& service) const {
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static_cast<void>(service->debug(android::hardware::hidl_handle(handle), {}).isOk());
    native_handle_close(handle);
    native_handle_delete(handle);
}

void Clients::react(const Operation& operation, const Service& service, Callback* own) {
    if (service == nullptr) return;
    Operation other = operation;
    other.number += 1U << 16;
    int32_t result = 0;
    switch (operation.reaction) {
        case Reaction::kNone:
        case Reaction::kDies:
            return;
        case Reaction::kWakesUp:
            return static_cast<void>(service->wakeUp(answerOf(other)).isOk());
        case Reaction::kInvokes:
            result = service->hwInvoke(Bytes(4, 0x44));
            break;
        case Reaction::kRegisters:
            other.reaction = Reaction::kNone;
            result = service->hwRegistCallback(new Callback(*this, other, service));
            break;
        case Reaction::kUnregisters:
            result = service->hwUnRegistCallback(own);
            break;
        case Reaction::kWaits:
            mBoard.runFor(std::chrono::milliseconds(50));
            break;
    }
    static_cast<void>(result);
}

}  // namespace quil::swarm
