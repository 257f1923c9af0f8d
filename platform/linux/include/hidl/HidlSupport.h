#pragma once

#include <cutils/native_handle.h>
#include <hidl/HidlInternal.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <algorithm>
#include <array>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// The value types of the HIDL base library, for use inside one process. Names, record layouts and
// behaviour are the platform's; what only a transport between processes needs is left out.

namespace android {

namespace hidl::base::V1_0 {
struct IBase;
}

namespace hardware {

// Told when the process that serves an object dies. Objects of this process never die before it.
struct hidl_death_recipient : public virtual RefBase {
    virtual void serviceDied(uint64_t cookie, const wp<hidl::base::V1_0::IBase>& who) = 0;
};

// A handle to file descriptors and integers; closes them when it owns them.
struct hidl_handle {
    hidl_handle() = default;
    hidl_handle(const native_handle_t* handle) : mHandle(handle) {}
    hidl_handle(const hidl_handle& other);
    hidl_handle(hidl_handle&& other) noexcept;
    ~hidl_handle();

    hidl_handle& operator=(const hidl_handle& other);
    hidl_handle& operator=(const native_handle_t* handle);
    hidl_handle& operator=(hidl_handle&& other) noexcept;

    void setTo(native_handle_t* handle, bool shouldOwn = false);

    const native_handle_t* operator->() const { return mHandle; }
    operator const native_handle_t*() const { return mHandle; }
    const native_handle_t* getNativeHandle() const { return mHandle; }

  private:
    void freeHandle();

    details::hidl_pointer<const native_handle_t> mHandle = nullptr;
    bool mOwnsHandle = false;
    [[maybe_unused]] uint8_t mPad[7] = {};
};

// A NUL-terminated string that owns its bytes or refers to somebody else's.
struct hidl_string {
    hidl_string();
    hidl_string(const hidl_string& other);
    hidl_string(const char* text);  // a null pointer makes an empty string
    hidl_string(const char* text, size_t length);
    hidl_string(const std::string& other);
    hidl_string(hidl_string&& other) noexcept;
    ~hidl_string();

    hidl_string& operator=(const hidl_string& other);
    hidl_string& operator=(const char* text);
    hidl_string& operator=(const std::string& other);
    hidl_string& operator=(hidl_string&& other) noexcept;

    operator std::string() const { return std::string(mBuffer, mSize); }

    const char* c_str() const { return mBuffer; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }

    // data[size] must be NUL, or the process ends; data must outlive the string.
    void setToExternal(const char* data, size_t size);
    void clear();

  private:
    void copyFrom(const char* text, size_t size);
    void moveFrom(hidl_string&& other);

    details::hidl_pointer<const char> mBuffer;
    uint32_t mSize = 0;
    bool mOwnsBuffer = false;
    [[maybe_unused]] uint8_t mPad[3] = {};
};

inline int compare(const hidl_string& left, const char* right) {
    return std::string(left).compare(right);
}
inline bool operator==(const hidl_string& left, const char* right) {
    return compare(left, right) == 0;
}
inline bool operator==(const char* left, const hidl_string& right) { return right == left; }
inline bool operator!=(const hidl_string& left, const char* right) { return !(left == right); }
inline bool operator!=(const char* left, const hidl_string& right) { return !(right == left); }
inline bool operator==(const hidl_string& left, const hidl_string& right) {
    return std::string(left) == std::string(right);
}
inline bool operator!=(const hidl_string& left, const hidl_string& right) {
    return !(left == right);
}
inline bool operator<(const hidl_string& left, const hidl_string& right) {
    return std::string(left) < std::string(right);
}
inline bool operator>(const hidl_string& left, const hidl_string& right) { return right < left; }
inline bool operator<=(const hidl_string& left, const hidl_string& right) {
    return !(right < left);
}
inline bool operator>=(const hidl_string& left, const hidl_string& right) {
    return !(left < right);
}
std::ostream& operator<<(std::ostream& os, const hidl_string& text);

// A vector that owns its elements or refers to somebody else's. Elements are value-initialised.
template <typename T>
struct hidl_vec {
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    hidl_vec() = default;
    hidl_vec(size_t size) { resize(size); }
    hidl_vec(const hidl_vec<T>& other) { copyFrom(other.begin(), other.size()); }
    hidl_vec(hidl_vec<T>&& other) noexcept { moveFrom(std::move(other)); }
    hidl_vec(const std::initializer_list<T> list) { copyFrom(list.begin(), list.size()); }
    hidl_vec(const std::vector<T>& other) { copyFrom(other.begin(), other.size()); }
    template <typename InputIterator,
              typename = typename std::enable_if<std::is_convertible<
                  typename std::iterator_traits<InputIterator>::iterator_category,
                  std::input_iterator_tag>::value>::type>
    hidl_vec(InputIterator first, InputIterator last) {
        const auto size = std::distance(first, last);
        if (size < 0) details::logAlwaysFatal("size can't be negative.");
        copyFrom(first, static_cast<size_t>(size));
    }
    ~hidl_vec() { freeBuffer(); }

    hidl_vec& operator=(const hidl_vec& other) {
        if (this != &other) *this = hidl_vec(other);
        return *this;
    }
    hidl_vec& operator=(hidl_vec&& other) noexcept {
        if (this == &other) return *this;
        freeBuffer();
        moveFrom(std::move(other));
        return *this;
    }
    hidl_vec& operator=(const std::vector<T>& other) { return *this = hidl_vec(other); }
    hidl_vec& operator=(std::initializer_list<T> list) { return *this = hidl_vec(list); }

    operator std::vector<T>() const { return std::vector<T>(begin(), end()); }

    bool operator==(const hidl_vec<T>& other) const {
        return std::equal(begin(), end(), other.begin(), other.end());
    }
    bool operator!=(const hidl_vec<T>& other) const { return !(*this == other); }

    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    size_t size() const { return mSize; }

    iterator begin() { return data(); }
    iterator end() { return data() + mSize; }
    const_iterator begin() const { return data(); }
    const_iterator end() const { return data() + mSize; }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    iterator find(const T& value) { return std::find(begin(), end(), value); }
    const_iterator find(const T& value) const { return std::find(begin(), end(), value); }
    bool contains(const T& value) const { return find(value) != end(); }

    // The elements stay the caller's (who must outlive the vector) unless shouldOwn, which takes
    // over an array made by new[].
    void setToExternal(T* data, size_t size, bool shouldOwn = false) {
        details::requireSize(size, "external vector size exceeds 2^32 elements.");
        freeBuffer();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = shouldOwn;
    }

    // Gives the elements up: the caller deletes them with delete[].
    T* releaseData() {
        if (!mOwnsBuffer && mSize > 0) resize(mSize);
        mOwnsBuffer = false;
        return mBuffer;
    }

    // Moves the elements that stay into a buffer of its own; growing adds value-initialised ones.
    void resize(size_t size) {
        details::requireSize(size, "hidl_vec can't hold more than 2^32 elements.");
        T* fresh = new T[size]();
        const size_t kept = std::min<size_t>(size, mSize);
        for (size_t i = 0; i < kept; ++i) {
            if (mOwnsBuffer) {
                fresh[i] = std::move(mBuffer[i]);
            } else {
                fresh[i] = mBuffer[i];
            }
        }
        freeBuffer();
        mBuffer = fresh;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }

  private:
    template <typename Source>
    void copyFrom(Source source, size_t size) {
        details::requireSize(size, "hidl_vec can't hold more than 2^32 elements.");
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
        mBuffer = size > 0 ? new T[size]() : nullptr;
        std::copy_n(source, size, data());
    }

    void moveFrom(hidl_vec&& other) {
        mBuffer = other.mBuffer;
        mSize = other.mSize;
        mOwnsBuffer = other.mOwnsBuffer;
        other.mBuffer = nullptr;
        other.mSize = 0;
        other.mOwnsBuffer = false;
    }

    void freeBuffer() {
        if (mOwnsBuffer) delete[] data();
        mBuffer = nullptr;
    }

    details::hidl_pointer<T> mBuffer = nullptr;
    uint32_t mSize = 0;
    bool mOwnsBuffer = false;
    [[maybe_unused]] uint8_t mPad[3] = {};
};

// An array of fixed length.
template <typename T, size_t SIZE1>
struct hidl_array {
    hidl_array() = default;
    hidl_array(const T (&source)[SIZE1]) { std::copy_n(source, SIZE1, mBuffer); }
    hidl_array(const std::array<T, SIZE1>& source) { std::copy_n(source.begin(), SIZE1, mBuffer); }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }

    bool operator==(const hidl_array& other) const {
        return std::equal(mBuffer, mBuffer + SIZE1, other.mBuffer);
    }
    bool operator!=(const hidl_array& other) const { return !(*this == other); }

    constexpr size_t size() const { return SIZE1; }
    static constexpr size_t elementCount() { return SIZE1; }

    operator std::array<T, SIZE1>() const {
        std::array<T, SIZE1> copy;
        std::copy_n(mBuffer, SIZE1, copy.begin());
        return copy;
    }

  private:
    T mBuffer[SIZE1] = {};
};

template <typename T>
using hidl_bitfield = typename std::underlying_type<T>::type;

namespace details {

std::string toHexString(uint64_t value);

// Every enumeration's generated header specialises this with the array of its values.
template <typename T>
constexpr std::nullptr_t hidl_enum_values = nullptr;

}  // namespace details

template <typename T>
typename std::enable_if<std::is_arithmetic<T>::value, std::string>::type toString(T value) {
    return std::to_string(value);
}
std::string toString(bool value);
std::string toString(const void* value);
std::string toString(const hidl_string& value);
std::string toString(const hidl_handle& value);

template <typename T>
std::string toString(const hidl_vec<T>& values) {
    std::string text = "[" + toString(values.size()) + "]{";
    for (size_t i = 0; i < values.size(); ++i) {
        text += (i > 0 ? ", " : "") + toString(values[i]);
    }
    return text + "}";
}

static_assert(sizeof(hidl_handle) == 16, "wrong size");
static_assert(sizeof(hidl_string) == 16, "wrong size");
static_assert(sizeof(hidl_vec<char>) == 16, "wrong size");

}  // namespace hardware
}  // namespace android
