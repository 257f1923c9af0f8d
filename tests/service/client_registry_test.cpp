#include <hwbinder/IInterface.h>

#include <thread>

#include "service/control_manager.h"
#include "service/quil_service_callback.h"
#include "testing/library_test.h"

namespace quil::tests {

using namespace hardware::quilservicemanager::implementation;  // NOLINT: the thing tested
using android::hardware::hidl_vec;
using android::hardware::IBinder;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::Void;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Records its notifications and its destruction.
class Listener : public IQuilServiceCallback {
  public:
    explicit Listener(std::vector<std::string>& notes, std::string name)
        : mNotes(notes), mName(std::move(name)) {}
    ~Listener() override { mNotes.push_back(mName + " released"); }
    Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
        mNotes.push_back(mName + " got " + std::to_string(data.size()));
        if (onNotify) onNotify();
        return Void();
    }
    std::function<void()> onNotify;

  private:
    std::vector<std::string>& mNotes;
    std::string mName;
};

// What the service receives for a callback in another process: a new object with each call.
class Proxy : public android::hardware::BpInterface<IQuilServiceCallback> {
  public:
    using BpInterface::BpInterface;
    ~Proxy() override {
        if (onRelease) onRelease();
    }
    bool isRemote() const override { return true; }
    std::function<void()> onRelease;
    Return<void> hwNotify(const hidl_vec<uint8_t>&) override { return Void(); }
};

// A client that has died: the transport to it fails.
class DeadClient : public IQuilServiceCallback {
  public:
    Return<void> hwNotify(const hidl_vec<uint8_t>&) override {
        return Return<void>(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "dead"));
    }
};

}  // namespace

class ClientRegistry : public LibraryTest {
  protected:
    std::vector<std::string> notes;
    android::sp<OpenService> service = new OpenService;
};

TEST_F(ClientRegistry, SameCallbackCountsTwiceAndNeedsTwoRemovals) {
    setLogLevel("D");
    const android::sp<IQuilServiceCallback> callback = new QuilServiceCallback;
    EXPECT_EQ(service->hwRegistCallback(callback), 0);
    EXPECT_EQ(service->hwRegistCallback(callback), 0);
    EXPECT_EQ(service->hwUnRegistCallback(callback), 0);
    EXPECT_EQ(service->hwUnRegistCallback(callback), 0);
    EXPECT_EQ(service->hwUnRegistCallback(callback), -1);
    EXPECT_THAT(
        board.log(),
        ElementsAre("hwRegistCallback 98", "hwRegistCallback: register callback count = 1\n",
                    "hwRegistCallback 98", "hwRegistCallback: register callback count = 2\n",
                    "hwUnRegistCallback 117",
                    "hwUnRegistCallback: Callback unregistered. Total callbacks: 1\n",
                    "hwUnRegistCallback 117",
                    "hwUnRegistCallback: Callback unregistered. Total callbacks: 0\n",
                    "hwUnRegistCallback 117",
                    "hwUnRegistCallback: unregister Callback not found\n"));
}

TEST_F(ClientRegistry, RemovalIsSaidAtInfoAndRegistrationAtDebug) {
    setLogLevel("I");
    const android::sp<IQuilServiceCallback> callback = new QuilServiceCallback;
    EXPECT_EQ(service->hwRegistCallback(callback), 0);
    EXPECT_EQ(service->hwUnRegistCallback(callback), 0);
    EXPECT_THAT(board.log(),
                ElementsAre("hwUnRegistCallback: Callback unregistered. Total callbacks: 0\n"));
    EXPECT_EQ(board.logLines()[0].priority, ANDROID_LOG_INFO);
}

TEST_F(ClientRegistry, NullCallbackIsRefused) {
    EXPECT_EQ(service->hwRegistCallback(nullptr), -1);
    EXPECT_THAT(service->mClients, IsEmpty());
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), ElementsAre("hwRegistCallback: callback is NULL\n"));
}

TEST_F(ClientRegistry, RemovalOfWhatWasNeverRegisteredChangesNothing) {
    const android::sp<IQuilServiceCallback> one = new QuilServiceCallback;
    const android::sp<IQuilServiceCallback> other = new QuilServiceCallback;
    EXPECT_EQ(service->hwRegistCallback(one), 0);
    EXPECT_EQ(service->hwUnRegistCallback(other), -1);
    EXPECT_EQ(service->hwUnRegistCallback(nullptr), -1);
    EXPECT_THAT(service->mClients, ElementsAre(one));
    EXPECT_THAT(board.log(), ElementsAre("hwUnRegistCallback: unregister Callback not found\n",
                                         "hwUnRegistCallback: unregister Callback not found\n"));
}

TEST_F(ClientRegistry, RemovalTakesTheFirstEntryAndKeepsTheOrderOfTheOthers) {
    const android::sp<IQuilServiceCallback> a = new QuilServiceCallback;
    const android::sp<IQuilServiceCallback> b = new QuilServiceCallback;
    service->mClients = {a, b, a};
    EXPECT_EQ(service->hwUnRegistCallback(a), 0);
    EXPECT_THAT(service->mClients, ElementsAre(b, a));
}

TEST_F(ClientRegistry, RemoteCallbackIsRemovedByAnotherProxyOfItsBinder) {
    const android::sp<IBinder> mine = new IBinder, others = new IBinder;
    EXPECT_EQ(service->hwRegistCallback(new Proxy(others)), 0);
    EXPECT_EQ(service->hwRegistCallback(new Proxy(mine)), 0);
    const android::sp<IQuilServiceCallback> first = service->mClients[0];
    EXPECT_EQ(service->hwUnRegistCallback(new Proxy(mine)), 0);
    EXPECT_THAT(service->mClients, ElementsAre(first));
    EXPECT_EQ(service->hwUnRegistCallback(new Proxy(mine)), -1);
    EXPECT_EQ(service->hwUnRegistCallback(new QuilServiceCallback), -1);
    EXPECT_THAT(service->mClients, ElementsAre(first));
}

TEST_F(ClientRegistry, RemovedCallbackMayCallTheServiceAsItIsReleased) {
    const android::sp<IBinder> mine = new IBinder;
    int32_t invoked = 0;
    {
        const android::sp<Proxy> registered = new Proxy(mine);
        registered->onRelease = [&] { invoked = service->hwInvoke(Bytes{1}); };
        EXPECT_EQ(service->hwRegistCallback(registered), 0);
    }
    EXPECT_EQ(service->hwUnRegistCallback(new Proxy(mine)), 0);
    EXPECT_EQ(invoked, -1);
}

TEST_F(ClientRegistry, NullEntryIsNoMatchForANullArgument) {
    service->mClients = {nullptr};
    EXPECT_EQ(service->hwUnRegistCallback(nullptr), -1);
    EXPECT_EQ(service->mClients.size(), 1U);
}

TEST_F(ClientRegistry, InvokeWithoutClientsGivesMinus1) {
    setLogLevel("D");
    EXPECT_EQ(service->hwInvoke(Bytes{1}), -1);
    EXPECT_THAT(board.log(), ElementsAre("hwInvoke is called\n", "hwInvoke: mClients is empty\n"));
}

TEST_F(ClientRegistry, InvokeReachesEveryClientInOrderAndGivesTheSize) {
    service->hwRegistCallback(new Listener(notes, "first"));
    service->hwRegistCallback(new Listener(notes, "second"));
    EXPECT_EQ(service->hwInvoke(Bytes{1, 2, 3}), 3);
    EXPECT_THAT(notes, ElementsAre("first got 3", "second got 3"));
}

TEST_F(ClientRegistry, InvokeOfNoBytesWithOneClientGives0) {
    service->hwRegistCallback(new Listener(notes, "only"));
    EXPECT_EQ(service->hwInvoke(Bytes{}), 0);
    EXPECT_THAT(notes, ElementsAre("only got 0"));
}

TEST_F(ClientRegistry, InvokeSaysWhichEntriesAreThereAndGivesTheSizeEvenIfNoneIs) {
    setLogLevel("D");
    service->mClients = {nullptr, new QuilServiceCallback};
    EXPECT_EQ(service->hwInvoke(Bytes{1, 2}), 2);
    EXPECT_THAT(board.log(), ElementsAre("hwInvoke is called\n", "hwInvoke: mClients size 2",
                                         "hwInvoke: mClients[0] is empty\n",
                                         "hwInvoke: mClients[1] is detected\n"));
    service->mClients = {nullptr};
    EXPECT_EQ(service->hwInvoke(Bytes{1, 2}), 2);
}

TEST_F(ClientRegistry, InvokeIsSilentBelowLevelD) {
    setLogLevel("I");
    service->mClients = {nullptr, new QuilServiceCallback};
    EXPECT_EQ(service->hwInvoke(Bytes{1, 2}), 2);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(ClientRegistry, ClientThatDiedIsSkippedAndTheNextOneReached) {
    service->hwRegistCallback(new DeadClient);
    service->hwRegistCallback(new Listener(notes, "alive"));
    EXPECT_EQ(service->hwInvoke(Bytes{1}), 1);
    EXPECT_THAT(notes, ElementsAre("alive got 1"));
    EXPECT_EQ(service->mClients.size(), 2U);
}

TEST_F(ClientRegistry, CallbackMayRegisterAndUnregisterFromInsideItsNotification) {
    android::sp<Listener> first = new Listener(notes, "first");
    const android::sp<Listener> added = new Listener(notes, "added");
    first->onNotify = [&] {
        EXPECT_EQ(service->hwRegistCallback(added), 0);
        EXPECT_EQ(service->hwUnRegistCallback(first), 0);
    };
    service->hwRegistCallback(first);
    EXPECT_EQ(service->hwInvoke(Bytes{1}), 1);
    EXPECT_THAT(notes, ElementsAre("first got 1"));
    EXPECT_EQ(service->hwInvoke(Bytes{1, 2}), 2);
    EXPECT_THAT(notes, ElementsAre("first got 1", "added got 2"));
}

TEST_F(ClientRegistry, DestructionReleasesFromTheLastToTheFirst) {
    for (const char* name : {"a", "b", "c"}) service->hwRegistCallback(new Listener(notes, name));
    service.clear();
    EXPECT_THAT(notes, ElementsAre("c released", "b released", "a released"));
}

TEST_F(ClientRegistry, OwnCallbackClassDoesNothingWithOkStatus) {
    const android::sp<IQuilServiceCallback> callback = new QuilServiceCallback;
    EXPECT_TRUE(callback->hwNotify(Bytes{1}).isOk());
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(ClientRegistry, ControlManagerSaysItsConstructionUnderItsOwnTag) {
    { const ControlManager silent; }
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    { const ControlManager spoken; }
    ASSERT_EQ(board.logLines().size(), 1U);
    EXPECT_EQ(board.logLines()[0].text, "ControlManager construct");
    EXPECT_EQ(board.logLines()[0].tag, "quil_system_hidl_controlManager");
    EXPECT_EQ(board.logLines()[0].priority, ANDROID_LOG_DEBUG);
}

}  // namespace quil::tests
