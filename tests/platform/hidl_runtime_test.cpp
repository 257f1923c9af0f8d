#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceCallback.h>
#include <signal.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "testing/build.h"
#include "testing/captured_output.h"
#include "testing/fresh_process.h"

namespace {

using ::android::DEAD_OBJECT;
using ::android::INVALID_OPERATION;
using ::android::sp;
using ::android::wp;
using ::android::hardware::BpInterface;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using ::android::hardware::IBinder;
using ::android::hardware::interfacesEqual;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;
using ::android::hardware::details::canCastInterface;
using ::android::hardware::details::getRawServiceInternal;
using ::android::hidl::base::V1_0::DebugInfo;
using ::android::hidl::base::V1_0::IBase;
using ::android::hidl::manager::V1_0::IServiceNotification;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::KilledBySignal;

// Death tests start their process anew: other tests of this program may have left threads.
// Status and Return

TEST(HidlStatus, TellsExceptionsFromTransportErrors) {
    const Status ok = Status::ok();
    EXPECT_TRUE(ok.isOk());
    EXPECT_EQ(ok.exceptionCode(), Status::EX_NONE);
    EXPECT_EQ(ok.description(), "No error");

    const Status refused = Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "too long");
    EXPECT_FALSE(refused.isOk());
    EXPECT_EQ(refused.exceptionCode(), Status::EX_ILLEGAL_ARGUMENT);
    EXPECT_STREQ(refused.exceptionMessage(), "too long");
    EXPECT_EQ(refused.transactionError(), ::android::OK);
    EXPECT_EQ(refused.description(), "Status(EX_ILLEGAL_ARGUMENT): 'too long'");

    const Status dead = Status::fromStatusT(DEAD_OBJECT);
    EXPECT_EQ(dead.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(dead.transactionError(), DEAD_OBJECT);
    EXPECT_TRUE(Status::fromStatusT(::android::OK).isOk());
}

TEST(HidlReturn, GivesItsValue) {
    const Return<int32_t> answer = -7;
    EXPECT_TRUE(answer.isOk());
    EXPECT_EQ(static_cast<int32_t>(answer), -7);
    EXPECT_EQ(answer.withDefault(3), -7);
}

TEST(HidlReturn, FailedOneGivesTheDefault) {
    const Return<int32_t> answer = Status::fromStatusT(DEAD_OBJECT);
    EXPECT_EQ(answer.withDefault(3), 3);
    EXPECT_FALSE(answer.isOk());
}

TEST(HidlReturn, TellsADeadObjectFromOtherFailures) {
    const Return<void> dead = Status::fromStatusT(DEAD_OBJECT);
    const Return<void> refused = Status::fromExceptionCode(Status::EX_SECURITY);
    EXPECT_TRUE(dead.isDeadObject());
    EXPECT_FALSE(refused.isDeadObject());
    EXPECT_FALSE(Void().isDeadObject());
}

TEST(HidlReturn, VoidIsOk) { EXPECT_TRUE(Void().isOk()); }

TEST(HidlReturn, SuccessNeedsNoLook) {
    Return<int32_t> answer = 1;
    Return<void> nothing = Void();
    EXPECT_TRUE(answer.isOkUnchecked());
    EXPECT_TRUE(nothing.isOkUnchecked());
}

TEST(HidlReturn, CarriesStrongReferences) {
    struct Object : ::android::RefBase {};
    sp<Object> object = new Object;
    const Return<sp<Object>> answer = object;
    EXPECT_EQ(object->getStrongCount(), 2);
    EXPECT_EQ(static_cast<sp<Object>>(answer), object);
}

TEST(HidlReturn, MovedFailureIsCheckedInItsNewPlace) {
    Return<int32_t> first = Status::fromStatusT(DEAD_OBJECT);
    const Return<int32_t> second = std::move(first);
    EXPECT_FALSE(second.isOk());
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what is left matters
    EXPECT_TRUE(first.isOkUnchecked());
}

using HidlReturnEnd = quil::tests::ProcessEnd;

TEST_F(HidlReturnEnd, FailureThatNobodyLookedAtEndsTheProcess) {
    EXPECT_EXIT({ Return<void> unseen = Status::fromStatusT(DEAD_OBJECT); },
                KilledBySignal(SIGABRT), "not checked");
}

TEST_F(HidlReturnEnd, ReadingTheDescriptionIsNotLookingAtTheStatus) {
    EXPECT_EXIT(
        {
            Return<void> unseen = Status::fromExceptionCode(Status::EX_SECURITY, "no");
            unseen.description();
            unseen.isOkUnchecked();
        },
        KilledBySignal(SIGABRT), "EX_SECURITY");
}

TEST_F(HidlReturnEnd, FailureThatIsOverwrittenUnseenEndsTheProcess) {
    EXPECT_EXIT(
        {
            Return<void> answer = Status::fromStatusT(DEAD_OBJECT);
            answer = Void();
        },
        KilledBySignal(SIGABRT), "not checked");
}

TEST_F(HidlReturnEnd, TakingTheValueOfAFailureEndsTheProcess) {
    const Return<int32_t> failed = Status::fromStatusT(DEAD_OBJECT);
    ASSERT_FALSE(failed.isOk());
    EXPECT_EXIT(static_cast<void>(static_cast<int32_t>(failed)), KilledBySignal(SIGABRT),
                "Attempted to retrieve value");
}

TEST_F(HidlReturnEnd, AssertingAFailureOkEndsTheProcess) {
    const Return<void> failed = Status::fromStatusT(DEAD_OBJECT);
    ASSERT_FALSE(failed.isOk());
    EXPECT_EXIT(failed.assertOk(), KilledBySignal(SIGABRT), "");
}

// Interfaces

struct Callback : IQuilServiceCallback {
    Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
        seen = data;
        return Void();
    }
    hidl_vec<uint8_t> seen;
};

// Cannot report its interface, like an object whose process has died.
struct DeadCallback : Callback {
    Return<void> interfaceChain(interfaceChain_cb) override {
        return Status::fromStatusT(DEAD_OBJECT);
    }
};

struct Recipient : hidl_death_recipient {
    void serviceDied(uint64_t, const wp<IBase>&) override {}
};

TEST(HidlInterface, TellsItsNameAndItsAncestors) {
    const sp<IBase> object = new Callback;
    std::vector<std::string> chain;
    std::string name;
    EXPECT_TRUE(object
                    ->interfaceChain([&](const auto& names) {
                        for (const auto& each : names) chain.push_back(each);
                    })
                    .isOk());
    EXPECT_TRUE(object->interfaceDescriptor([&](const auto& own) { name = own; }).isOk());
    EXPECT_THAT(chain, ElementsAre("quil.hardware.quilservicemanager@1.0::IQuilServiceCallback",
                                   "android.hidl.base@1.0::IBase"));
    EXPECT_EQ(name, IQuilServiceCallback::descriptor);
    EXPECT_EQ(toString(sp<IQuilServiceCallback>(new Callback)),
              "[class or subclass of quil.hardware.quilservicemanager@1.0::IQuilServiceCallback]"
              "@local");
}

TEST(HidlInterface, AnswersWhatEveryInterfaceAnswers) {
    const sp<IBase> object = new Callback;
    EXPECT_TRUE(object->ping().isOk());
    EXPECT_TRUE(object->debug(hidl_handle(), {}).isOk());
    EXPECT_TRUE(object->setHALInstrumentation().isOk());
    EXPECT_TRUE(object->notifySyspropsChanged().isOk());
    EXPECT_FALSE(object->isRemote());
    DebugInfo info{};
    EXPECT_TRUE(object->getDebugInfo([&](const DebugInfo& own) { info = own; }).isOk());
    EXPECT_EQ(info, (DebugInfo{-1, 0,
                               sizeof(void*) == 8 ? DebugInfo::Architecture::IS_64BIT
                                                  : DebugInfo::Architecture::IS_32BIT}));
}

TEST(HidlInterface, LinksDeathToARecipientButNotToNone) {
    const sp<IBase> object = new Callback;
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(object->linkToDeath(recipient, 1));
    EXPECT_TRUE(object->unlinkToDeath(recipient));
    EXPECT_FALSE(object->linkToDeath(nullptr, 1));
    EXPECT_FALSE(object->unlinkToDeath(nullptr));
}

template <typename Interface>
class Proxy : public BpInterface<Interface> {
  public:
    using BpInterface<Interface>::BpInterface;
    bool isRemote() const override { return true; }
};

class CallbackProxy : public Proxy<IQuilServiceCallback> {
  public:
    using Proxy::Proxy;
    Return<void> hwNotify(const hidl_vec<uint8_t>&) override { return Void(); }
};

TEST(HidlInterface, SameObjectIsEqualAndAnotherIsNot) {
    const sp<Callback> object = new Callback;
    const sp<IQuilServiceCallback> again = object;
    EXPECT_TRUE(interfacesEqual(object, again));
    EXPECT_FALSE(interfacesEqual(object, new Callback));
    EXPECT_FALSE(interfacesEqual(object, nullptr));
    EXPECT_TRUE(interfacesEqual(nullptr, nullptr));
}

TEST(HidlInterface, ProxiesOfOneBinderAreEqual) {
    const sp<IBinder> binder = new IBinder, other = new IBinder;
    const sp<IBase> proxy = new CallbackProxy(binder);
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_TRUE(interfacesEqual(proxy, proxy));
    EXPECT_TRUE(interfacesEqual(proxy, new CallbackProxy(binder)));
    EXPECT_TRUE(interfacesEqual(proxy, new Proxy<IBase>(binder)));
    EXPECT_FALSE(interfacesEqual(proxy, new CallbackProxy(other)));
    EXPECT_FALSE(interfacesEqual(proxy, new Callback));
    EXPECT_FALSE(interfacesEqual(new Callback, proxy));
    EXPECT_FALSE(interfacesEqual(proxy, nullptr));
    EXPECT_FALSE(interfacesEqual(nullptr, proxy));
}

TEST(HidlInterface, ThreadsShareAnObjectUntilTheLastOneLetsGo) {
    struct Shared : Callback {
        explicit Shared(std::atomic<int>& gone) : mGone(gone) {}
        ~Shared() override { ++mGone; }
        std::atomic<int>& mGone;
    };
    std::atomic<int> gone{0};
    sp<IQuilServiceCallback> object = new Shared(gone);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([object] { EXPECT_TRUE(object->ping().isOk()); });
    }
    object.clear();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(gone, 1);
}

TEST(HidlCast, FindsTheInterfaceOfAnObject) {
    const sp<Callback> object = new Callback;
    const sp<IQuilServiceCallback> found = IQuilServiceCallback::castFrom(sp<IBase>(object));
    EXPECT_EQ(found, object);
    const sp<IBase> base = IBase::castFrom(object);
    EXPECT_EQ(base, object);
}

TEST(HidlCast, OtherInterfaceGivesNull) {
    const sp<IServiceNotification> found = IServiceNotification::castFrom(sp<IBase>(new Callback));
    EXPECT_EQ(found, nullptr);
}

TEST(HidlCast, NullStaysNull) {
    const sp<IQuilServiceCallback> found = IQuilServiceCallback::castFrom(sp<IBase>());
    EXPECT_EQ(found, nullptr);
    EXPECT_FALSE(canCastInterface(nullptr, IBase::descriptor));
}

TEST(HidlCast, ObjectThatCannotAnswerGivesNullOrItsFailureAsAsked) {
    const sp<IBase> dead = new DeadCallback;
    const Return<sp<IQuilServiceCallback>> quiet = IQuilServiceCallback::castFrom(dead, false);
    EXPECT_TRUE(quiet.isOk());
    EXPECT_EQ(static_cast<sp<IQuilServiceCallback>>(quiet), nullptr);
    EXPECT_TRUE(IQuilServiceCallback::castFrom(dead, true).isDeadObject());
}

// The passthrough loader

class PassthroughLoader : public ::testing::Test {
  protected:
    void searchIn(const std::string& directories) {
        setenv("QUIL_HW_LIBRARY_PATH", directories.c_str(), 1);
    }
    void TearDown() override { unsetenv("QUIL_HW_LIBRARY_PATH"); }

    const std::string mFixtures = QUIL_LIB_DIR "/hidl_fixture/";
};

TEST_F(PassthroughLoader, FindsTheImplementationByItsFileName) {
    searchIn("/nowhere:" + mFixtures + "working");
    const sp<IServiceNotification> service = IServiceNotification::getService("default", true);
    ASSERT_NE(service, nullptr);
    EXPECT_TRUE(service->onRegistration("a", "b", false).isOk());
    EXPECT_EQ(service->getStrongCount(), 1);
}

TEST_F(PassthroughLoader, AsksTheFactoryAnewEachTime) {
    searchIn(mFixtures + "working");
    const sp<IServiceNotification> first = IServiceNotification::getService();
    const sp<IServiceNotification> second = IServiceNotification::tryGetService();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
}

TEST_F(PassthroughLoader, InstanceThatTheFactoryDoesNotKnowGivesNull) {
    searchIn(mFixtures + "working");
    const auto errors = quil::tests::standardErrorOf(
        [&] { EXPECT_EQ(IServiceNotification::getService("absent", true), nullptr); });
    EXPECT_THAT(errors, HasSubstr("has no instance 'absent'"));
}

TEST_F(PassthroughLoader, LibraryWithoutTheFactoryGivesNull) {
    searchIn(mFixtures + "without_factory");
    const auto errors = quil::tests::standardErrorOf(
        [&] { EXPECT_EQ(IServiceNotification::getService("default", true), nullptr); });
    EXPECT_THAT(errors, HasSubstr("could not find symbol HIDL_FETCH_IServiceNotification"));
}

TEST_F(PassthroughLoader, MissingLibraryGivesNull) {
    const auto errors = quil::tests::standardErrorOf([&] {
        EXPECT_EQ(getRawServiceInternal("no.such@1.0::IThing", "default", true, true), nullptr);
    });
    EXPECT_THAT(errors, HasSubstr("Could not dlopen no.such@1.0-impl.so"));
}

TEST_F(PassthroughLoader, NameThatIsNoInterfaceGivesNull) {
    const auto errors = quil::tests::standardErrorOf(
        [&] { EXPECT_EQ(getRawServiceInternal("nonsense", "default", true, true), nullptr); });
    EXPECT_THAT(errors, HasSubstr("Invalid interface name"));
}

TEST_F(PassthroughLoader, RegistrationIsRefusedWithoutAPoolThatCouldServeIt) {
    const sp<IQuilServiceCallback> object = new Callback;
    const auto errors = quil::tests::standardErrorOf(
        [&] { EXPECT_EQ(object->registerAsService("default"), INVALID_OPERATION); });
    EXPECT_THAT(errors, HasSubstr("there is no pool"));
    EXPECT_FALSE(IQuilServiceCallback::registerForNotifications("default", nullptr));
}

}  // namespace
