#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>
#include <string.h>

#include <vector>

namespace {

using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

// A virtual method's position in the table, in slots. The Itanium C++ ABI keeps the offset in the
// first word of a pointer to member, whose lowest bit is a flag on most machines.
template <typename Method>
size_t slotOf(Method method) {
    uintptr_t word = 0;
    static_assert(sizeof(method) >= sizeof(word));
    memcpy(&word, &method, sizeof(word));
    return (word & ~uintptr_t{1}) / sizeof(void*);
}

TEST(InterfaceSlots, MethodsStandInTheOrderThatOtherComponentsWereBuiltAgainst) {
    const std::vector<size_t> slots{slotOf(&IQuilServiceManager::hwInvoke),
                                    slotOf(&IQuilServiceManager::hwRegistCallback),
                                    slotOf(&IQuilServiceManager::hwUnRegistCallback),
                                    slotOf(&IQuilServiceManager::set),
                                    slotOf(&IQuilServiceManager::get),
                                    slotOf(&IQuilServiceManager::wakeUp)};
    for (size_t i = 1; i < slots.size(); ++i) EXPECT_EQ(slots[i], slots[0] + i) << "method " << i;
}

TEST(InterfaceSlots, FirstMethodFollowsThoseOfTheBase) {
    EXPECT_EQ(slotOf(&IQuilServiceManager::isRemote), 0U);
    EXPECT_EQ(slotOf(&IQuilServiceManager::interfaceChain), 1U);
    EXPECT_EQ(slotOf(&IQuilServiceManager::unlinkToDeath), 10U);
    // After the base's methods come its two destructors.
    EXPECT_EQ(slotOf(&IQuilServiceManager::hwInvoke), 13U);
}

}  // namespace
