#define LOG_TAG "HidlSupport"

#include <hidl/HidlSupport.h>
#include <inttypes.h>
#include <log/log.h>
#include <stdio.h>

namespace android::hardware {

namespace details {

void logAlwaysFatal(const char* message) { LOG_ALWAYS_FATAL("%s", message); }

std::string toHexString(uint64_t value) {
    char text[19];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

}  // namespace details

hidl_handle::hidl_handle(const hidl_handle& other) { *this = other; }

hidl_handle::hidl_handle(hidl_handle&& other) noexcept { *this = std::move(other); }

hidl_handle::~hidl_handle() { freeHandle(); }

hidl_handle& hidl_handle::operator=(const hidl_handle& other) {
    if (this == &other) return *this;
    freeHandle();
    if (other.mHandle == nullptr) return *this;
    mHandle = native_handle_clone(other.mHandle);
    if (mHandle == nullptr)
        details::logAlwaysFatal("Failed to clone native_handle in hidl_handle.");
    mOwnsHandle = true;
    return *this;
}

hidl_handle& hidl_handle::operator=(const native_handle_t* handle) {
    freeHandle();
    mHandle = handle;
    return *this;
}

hidl_handle& hidl_handle::operator=(hidl_handle&& other) noexcept {
    if (this == &other) return *this;
    freeHandle();
    mHandle = other.mHandle;
    mOwnsHandle = other.mOwnsHandle;
    other.mHandle = nullptr;
    other.mOwnsHandle = false;
    return *this;
}

void hidl_handle::setTo(native_handle_t* handle, bool shouldOwn) {
    freeHandle();
    mHandle = handle;
    mOwnsHandle = shouldOwn;
}

void hidl_handle::freeHandle() {
    if (mOwnsHandle && mHandle != nullptr) {
        auto* owned = const_cast<native_handle_t*>(getNativeHandle());
        native_handle_close(owned);
        native_handle_delete(owned);
    }
    mHandle = nullptr;
    mOwnsHandle = false;
}

static const char kEmptyString[] = "";

hidl_string::hidl_string() : mBuffer(kEmptyString) {}

hidl_string::hidl_string(const hidl_string& other) : hidl_string() {
    copyFrom(other.c_str(), other.size());
}

hidl_string::hidl_string(const char* text) : hidl_string() {
    if (text != nullptr) copyFrom(text, strlen(text));
}

hidl_string::hidl_string(const char* text, size_t length) : hidl_string() {
    copyFrom(text, length);
}

hidl_string::hidl_string(const std::string& other) : hidl_string() {
    copyFrom(other.c_str(), other.size());
}

hidl_string::hidl_string(hidl_string&& other) noexcept : hidl_string() {
    moveFrom(std::move(other));
}

hidl_string::~hidl_string() { clear(); }

hidl_string& hidl_string::operator=(const hidl_string& other) {
    if (this != &other) *this = hidl_string(other);
    return *this;
}

hidl_string& hidl_string::operator=(const char* text) { return *this = hidl_string(text); }

hidl_string& hidl_string::operator=(const std::string& other) { return *this = hidl_string(other); }

hidl_string& hidl_string::operator=(hidl_string&& other) noexcept {
    if (this == &other) return *this;
    clear();
    moveFrom(std::move(other));
    return *this;
}

void hidl_string::setToExternal(const char* data, size_t size) {
    details::requireSize(size, "string size can't exceed 2^32 bytes.");
    // Whoever reads c_str() would run past the end.
    if (data[size] != '\0') details::logAlwaysFatal("string must be NUL-terminated.");
    clear();
    mBuffer = data;
    mSize = static_cast<uint32_t>(size);
}

void hidl_string::clear() {
    if (mOwnsBuffer) delete[] c_str();
    mBuffer = kEmptyString;
    mSize = 0;
    mOwnsBuffer = false;
}

void hidl_string::copyFrom(const char* text, size_t size) {
    details::requireSize(size, "string size can't exceed 2^32 bytes.");
    if (size == 0) return;
    char* copy = new char[size + 1];
    memcpy(copy, text, size);
    copy[size] = '\0';
    mBuffer = copy;
    mSize = static_cast<uint32_t>(size);
    mOwnsBuffer = true;
}

void hidl_string::moveFrom(hidl_string&& other) {
    mBuffer = other.mBuffer;
    mSize = other.mSize;
    mOwnsBuffer = other.mOwnsBuffer;
    other.mOwnsBuffer = false;
    other.clear();
}

std::ostream& operator<<(std::ostream& os, const hidl_string& text) { return os << text.c_str(); }

std::string toString(bool value) { return value ? "true" : "false"; }

std::string toString(const void* value) {
    return details::toHexString(reinterpret_cast<uintptr_t>(value));
}

std::string toString(const hidl_string& value) { return "\"" + std::string(value) + "\""; }

std::string toString(const hidl_handle& value) {
    return toString(static_cast<const void*>(value.getNativeHandle()));
}

}  // namespace android::hardware
