#pragma once

#include <stdint.h>

#include <string>

namespace android::hardware::details {

// Tags by which template code tells an interface from its proxies and stubs.
struct i_tag;
struct bnhw_tag;
struct bphw_tag;
struct bs_tag;

// A pointer that takes eight bytes on every machine, so that records look alike in 32 and 64 bits.
template <typename T>
struct hidl_pointer {
    hidl_pointer() : mPad(0) {}
    hidl_pointer(T* ptr) : hidl_pointer() { mPointer = ptr; }
    hidl_pointer(const hidl_pointer<T>& other) : hidl_pointer() { mPointer = other.mPointer; }

    hidl_pointer& operator=(const hidl_pointer<T>& other) {
        mPointer = other.mPointer;
        return *this;
    }
    hidl_pointer& operator=(T* ptr) {
        mPointer = ptr;
        return *this;
    }

    operator T*() const { return mPointer; }
    explicit operator void*() const { return mPointer; }
    T& operator*() const { return *mPointer; }
    T* operator->() const { return mPointer; }
    T& operator[](size_t index) { return mPointer[index]; }
    const T& operator[](size_t index) const { return mPointer[index]; }

  private:
    union {
        T* mPointer;
        uint64_t mPad;
    };
};

[[noreturn]] void logAlwaysFatal(const char* message);

// Sizes are kept in 32 bits: a larger one ends the process.
inline void requireSize(uint64_t size, const char* message) {
    if (size > UINT32_MAX) logAlwaysFatal(message);
}

}  // namespace android::hardware::details
