#include <android/hidl/base/1.0/IBase.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <signal.h>
#include <unistd.h>

#include <list>
#include <numeric>
#include <string>
#include <vector>

#include "testing/fresh_process.h"

namespace {

using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::toString;
using ::android::hidl::base::V1_0::DebugInfo;
using ::testing::ElementsAre;
using ::testing::KilledBySignal;

// Death tests start their process anew: other tests of this program may have left threads.
// hidl_vec

TEST(HidlVec, NewOneIsEmptyAndWithoutStorage) {
    const hidl_vec<int32_t> vec;
    EXPECT_EQ(vec.size(), 0u);
    EXPECT_EQ(vec.data(), nullptr);
    EXPECT_EQ(vec.begin(), vec.end());
}

TEST(HidlVec, OneOfASizeHoldsZeroes) {
    const hidl_vec<uint8_t> vec(size_t{3});
    EXPECT_THAT(vec, ElementsAre(0, 0, 0));
}

TEST(HidlVec, TakesElementsOfListsVectorsAndIterators) {
    const std::list<uint8_t> list{7, 8};
    EXPECT_THAT((hidl_vec<uint8_t>{1, 2, 3}), ElementsAre(1, 2, 3));
    EXPECT_THAT(hidl_vec<uint8_t>(std::vector<uint8_t>{4, 5}), ElementsAre(4, 5));
    EXPECT_THAT(hidl_vec<uint8_t>(list.begin(), list.end()), ElementsAre(7, 8));
}

TEST(HidlVec, AssignsListsAndVectors) {
    hidl_vec<uint8_t> vec{1};
    vec = {2, 3};
    EXPECT_THAT(vec, ElementsAre(2, 3));
    vec = std::vector<uint8_t>{4};
    EXPECT_THAT(vec, ElementsAre(4));
}

TEST(HidlVec, BecomesAStandardVector) {
    const std::vector<uint8_t> copy = hidl_vec<uint8_t>{1, 2};
    EXPECT_THAT(copy, ElementsAre(1, 2));
}

TEST(HidlVec, CopyHasElementsOfItsOwn) {
    hidl_vec<uint8_t> first{1, 2};
    hidl_vec<uint8_t> second = first;
    second[0] = 9;
    EXPECT_THAT(first, ElementsAre(1, 2));
    EXPECT_THAT(second, ElementsAre(9, 2));
}

TEST(HidlVec, CopyOfAnExternalOneOwnsItsElements) {
    uint8_t storage[] = {1, 2};
    hidl_vec<uint8_t> external;
    external.setToExternal(storage, 2);
    const hidl_vec<uint8_t> copy = external;
    storage[0] = 9;
    EXPECT_THAT(external, ElementsAre(9, 2));
    EXPECT_THAT(copy, ElementsAre(1, 2));
}

TEST(HidlVec, AssignmentToItselfChangesNothing) {
    hidl_vec<uint8_t> vec{1, 2};
    const auto& same = vec;
    vec = same;
    EXPECT_THAT(vec, ElementsAre(1, 2));
}

TEST(HidlVec, MoveLeavesTheSourceEmptyAndKeepsTheStorage) {
    hidl_vec<uint8_t> source{1, 2};
    const uint8_t* storage = source.data();
    const hidl_vec<uint8_t> target = std::move(source);
    EXPECT_EQ(target.data(), storage);
    EXPECT_THAT(target, ElementsAre(1, 2));
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what is left matters
    EXPECT_EQ(source.size(), 0u);
    EXPECT_EQ(source.data(), nullptr);
}

TEST(HidlVec, GrowingKeepsElementsAndAddsZeroes) {
    hidl_vec<uint8_t> vec{1, 2};
    vec.resize(4);
    EXPECT_THAT(vec, ElementsAre(1, 2, 0, 0));
}

TEST(HidlVec, ShrinkingKeepsTheFirstElements) {
    hidl_vec<uint8_t> vec{1, 2, 3};
    vec.resize(1);
    EXPECT_THAT(vec, ElementsAre(1));
    vec.resize(0);
    EXPECT_EQ(vec.size(), 0u);
}

TEST(HidlVec, ResizingAnExternalOneCopiesAndLeavesTheCallersElements) {
    std::string storage[] = {"one", "two"};
    hidl_vec<std::string> vec;
    vec.setToExternal(storage, 2);
    vec.resize(3);
    vec[0] = "changed";
    EXPECT_THAT(vec, ElementsAre("changed", "two", ""));
    EXPECT_THAT(storage, ElementsAre("one", "two"));
}

TEST(HidlVec, ExternalElementsAreNotCopied) {
    uint8_t storage[] = {5, 6, 7};
    hidl_vec<uint8_t> vec{1};
    vec.setToExternal(storage, 3);
    EXPECT_EQ(vec.data(), storage);
    EXPECT_EQ(vec.size(), 3u);
}

TEST(HidlVec, TakesOverExternalElementsWhenAsked) {
    struct Counted {
        int* gone = nullptr;
        ~Counted() {
            if (gone != nullptr) ++*gone;
        }
    };
    int gone = 0;
    {
        hidl_vec<Counted> vec;
        auto* storage = new Counted[2];
        storage[0].gone = storage[1].gone = &gone;
        vec.setToExternal(storage, 2, true);
    }
    EXPECT_EQ(gone, 2);
}

TEST(HidlVec, ReleasedElementsBelongToTheCaller) {
    hidl_vec<uint8_t> vec{1, 2};
    const uint8_t* storage = vec.data();
    uint8_t* released = vec.releaseData();
    EXPECT_EQ(released, storage);
    EXPECT_EQ(released[1], 2);
    delete[] released;
}

TEST(HidlVec, ComparesSizeAndElements) {
    const hidl_vec<uint8_t> vec{1, 2};
    EXPECT_TRUE(vec == (hidl_vec<uint8_t>{1, 2}));
    EXPECT_TRUE(vec != (hidl_vec<uint8_t>{1, 3}));
    EXPECT_TRUE(vec != (hidl_vec<uint8_t>{1}));
}

TEST(HidlVec, FindsElements) {
    const hidl_vec<uint8_t> vec{4, 5};
    EXPECT_EQ(vec.find(5), vec.begin() + 1);
    EXPECT_TRUE(vec.contains(4));
    EXPECT_FALSE(vec.contains(6));
}

TEST(HidlVec, IteratorsServeStandardAlgorithms) {
    const hidl_vec<int> vec{1, 2, 3};
    EXPECT_EQ(std::accumulate(vec.begin(), vec.end(), 0), 6);
    EXPECT_EQ(std::accumulate(vec.cbegin(), vec.cend(), 0), 6);
}

TEST(HidlVec, KeepsStrongReferences) {
    struct Object : ::android::RefBase {};
    const sp<Object> object = new Object;
    hidl_vec<sp<Object>> vec{object};
    EXPECT_EQ(object->getStrongCount(), 2);
    vec.resize(0);
    EXPECT_EQ(object->getStrongCount(), 1);
}

TEST(HidlVec, TakesSixteenBytesOnEveryMachine) {
    EXPECT_EQ(sizeof(hidl_vec<uint8_t>), 16u);
    EXPECT_EQ(sizeof(hidl_string), 16u);
    EXPECT_EQ(sizeof(hidl_handle), 16u);
}

using HidlVecEnd = quil::tests::ProcessEnd;

TEST_F(HidlVecEnd, MoreThanFourBillionElementsEndTheProcess) {
    if constexpr (sizeof(size_t) > 4) {
        const size_t tooMany = size_t{1} << (sizeof(size_t) * 4);
        hidl_vec<uint8_t> vec;
        EXPECT_EXIT(vec.resize(tooMany), KilledBySignal(SIGABRT), "");
        EXPECT_EXIT(vec.setToExternal(nullptr, tooMany), KilledBySignal(SIGABRT), "");
    }
}

TEST_F(HidlVecEnd, IteratorsInTheWrongOrderEndTheProcess) {
    const std::vector<uint8_t> source{1, 2};
    EXPECT_EXIT(hidl_vec<uint8_t>(source.end(), source.begin()), KilledBySignal(SIGABRT), "");
}

// hidl_string

TEST(HidlString, NewOneIsAnEmptyText) {
    const hidl_string text;
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_TRUE(text.empty());
}

TEST(HidlString, NullPointerMakesAnEmptyText) {
    EXPECT_STREQ(hidl_string(static_cast<const char*>(nullptr)).c_str(), "");
}

TEST(HidlString, CopiesAndConverts) {
    const std::string source = "board";
    const hidl_string text = source;
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the copy is what is proved
    const hidl_string copy = text;
    EXPECT_NE(copy.c_str(), text.c_str());
    EXPECT_EQ(std::string(copy), "board");
    EXPECT_EQ(copy.size(), 5u);
    EXPECT_STREQ(hidl_string("board", 3).c_str(), "boa");
}

TEST(HidlString, MoveLeavesTheSourceEmpty) {
    hidl_string source = "board";
    const hidl_string target = std::move(source);
    EXPECT_STREQ(target.c_str(), "board");
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what is left matters
    EXPECT_STREQ(source.c_str(), "");
    EXPECT_TRUE(source.empty());
}

TEST(HidlString, AssignmentReplacesTheText) {
    hidl_string text = "one";
    text = "two";
    EXPECT_STREQ(text.c_str(), "two");
    text = std::string("three");
    EXPECT_STREQ(text.c_str(), "three");
    text = hidl_string("four");
    EXPECT_STREQ(text.c_str(), "four");
    const auto& same = text;
    text = same;
    EXPECT_STREQ(text.c_str(), "four");
    text.clear();
    EXPECT_TRUE(text.empty());
}

TEST(HidlString, ExternalTextIsNotCopied) {
    const char storage[] = "outside";
    hidl_string text = "inside";
    text.setToExternal(storage, 7);
    EXPECT_EQ(text.c_str(), storage);
    EXPECT_EQ(text.size(), 7u);
}

TEST(HidlString, ComparesByContent) {
    const hidl_string text = "b";
    EXPECT_TRUE(text == "b");
    EXPECT_TRUE("b" == text);
    EXPECT_TRUE(text != "a");
    EXPECT_TRUE(text == hidl_string("b"));
    EXPECT_TRUE(hidl_string("a") < text);
    EXPECT_TRUE(text >= hidl_string("b"));
}

using HidlStringEnd = quil::tests::ProcessEnd;

TEST_F(HidlStringEnd, ExternalTextWithoutItsNulEndsTheProcess) {
    hidl_string text;
    EXPECT_EXIT(text.setToExternal("outside", 3), KilledBySignal(SIGABRT), "");
}

// hidl_array, hidl_handle, texts for people

TEST(HidlArray, HoldsComparesAndConverts) {
    const uint8_t bytes[] = {1, 2, 3};
    hidl_array<uint8_t, 3> array(bytes);
    EXPECT_EQ(array.size(), 3u);
    EXPECT_TRUE(array == (hidl_array<uint8_t, 3>(std::array<uint8_t, 3>{1, 2, 3})));
    array[2] = 4;
    EXPECT_TRUE(array != (hidl_array<uint8_t, 3>(bytes)));
    const std::array<uint8_t, 3> converted = array;
    EXPECT_THAT(converted, ElementsAre(1, 2, 4));
}

class HidlHandle : public ::testing::Test {
  protected:
    // A handle around a new pipe's reading end; the writing end is closed at once.
    native_handle_t* openHandle() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        close(ends[1]);
        native_handle_t* handle = native_handle_create(1, 0);
        handle->data[0] = ends[0];
        return handle;
    }
    bool isOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }
};

TEST_F(HidlHandle, OwnedDescriptorsCloseWithIt) {
    native_handle_t* native = openHandle();
    const int fd = native->data[0];
    {
        hidl_handle handle;
        handle.setTo(native, true);
        EXPECT_EQ(handle->data[0], fd);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(HidlHandle, BorrowedDescriptorsStayOpenAndCopiesAreDuplicates) {
    native_handle_t* native = openHandle();
    const int fd = native->data[0];
    int copied = -1;
    {
        const hidl_handle handle = native;
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the copy is what is proved
        const hidl_handle copy = handle;
        copied = copy->data[0];
        EXPECT_NE(copied, fd);
        EXPECT_TRUE(isOpen(copied));
    }
    EXPECT_TRUE(isOpen(fd));
    EXPECT_FALSE(isOpen(copied));
    native_handle_close(native);
    native_handle_delete(native);
}

TEST_F(HidlHandle, MoveHandsOwnershipOver) {
    hidl_handle source;
    source.setTo(openHandle(), true);
    const int fd = source->data[0];
    {
        const hidl_handle target = std::move(source);
        // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): proves it
        EXPECT_EQ(source.getNativeHandle(), nullptr);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(HidlToString, ShowsValuesForPeople) {
    EXPECT_EQ(toString(int32_t{-5}), "-5");
    EXPECT_EQ(toString(true), "true");
    EXPECT_EQ(toString(hidl_string("x")), "\"x\"");
    EXPECT_EQ(toString(hidl_vec<uint8_t>{1, 2}), "[2]{1, 2}");
    EXPECT_EQ(toString(DebugInfo::Architecture::IS_64BIT), "IS_64BIT");
}

}  // namespace
