#pragma once

#include <hidl/HidlSupport.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <ostream>
#include <string>
#include <utility>

namespace android::hardware {

// How a call ended: an exception code, and the transport's error when the transport failed.
class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(Exception code) { return Status(code, OK, ""); }
    static Status fromExceptionCode(Exception code, const char* message) {
        return Status(code, OK, message);
    }
    static Status fromStatusT(status_t status);

    Status() = default;

    void setException(Exception code, const char* message) { *this = Status(code, OK, message); }
    void setFromStatusT(status_t status) { *this = fromStatusT(status); }

    Exception exceptionCode() const { return mException; }
    const char* exceptionMessage() const { return mMessage.c_str(); }
    status_t transactionError() const {
        return mException == EX_TRANSACTION_FAILED ? mErrorCode : status_t{OK};
    }
    bool isOk() const { return mException == EX_NONE; }

    // For people to read; the wording may change.
    std::string description() const;

  private:
    Status(Exception code, status_t error, std::string message)
        : mException(code), mErrorCode(error), mMessage(std::move(message)) {}

    Exception mException = EX_NONE;
    status_t mErrorCode = OK;
    std::string mMessage;
};

std::ostream& operator<<(std::ostream& stream, const Status& status);

template <typename T>
class Return;

namespace details {

// The status half of a Return. A failed one that nobody looked at ends the process when it goes.
class return_status {
  public:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}
    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;
    return_status(return_status&& other) noexcept { *this = std::move(other); }
    return_status& operator=(return_status&& other) noexcept;
    ~return_status();

    bool isOkUnchecked() const { return mStatus.isOk(); }  // does not count as having looked
    bool isOk() const {
        mCheckedStatus = true;
        return mStatus.isOk();
    }
    bool isDeadObject() const {
        mCheckedStatus = true;
        return mStatus.transactionError() == DEAD_OBJECT;
    }
    std::string description() const { return mStatus.description(); }  // nor does this
    void assertOk() const;

  protected:
    void onValueRetrieval() const;

  private:
    template <typename T, typename U>
    friend Return<U> StatusOf(const Return<T>& other);

    Status mStatus;
    mutable bool mCheckedStatus = false;
};

}  // namespace details

// What a call answers: a value, or the status of the failure in its place. Taking the value of a
// failed call ends the process.
template <typename T>
class Return : public details::return_status {
  public:
    Return(T value) : mValue(std::move(value)) {}
    Return(Status status) : details::return_status(status) {}
    Return(Return&& other) = default;
    Return& operator=(Return&&) = default;
    ~Return() = default;

    operator T() const {
        onValueRetrieval();
        return mValue;
    }
    T withDefault(T fallback) const { return isOk() ? mValue : fallback; }

  private:
    T mValue{};
};

template <typename T>
class Return<sp<T>> : public details::return_status {
  public:
    Return(sp<T> value) : mValue(std::move(value)) {}
    Return(T* value) : mValue(value) {}
    // sp also converts from a plain pointer, which would make Return(U*) ambiguous with this one.
    template <typename U>
    Return(sp<U> value) : mValue(value) {}
    Return(Status status) : details::return_status(status) {}
    Return(Return&& other) = default;
    Return& operator=(Return&&) = default;
    ~Return() = default;

    operator sp<T>() const {
        onValueRetrieval();
        return mValue;
    }
    sp<T> withDefault(sp<T> fallback) const { return isOk() ? mValue : fallback; }

  private:
    sp<T> mValue;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : details::return_status(status) {}
    Return(Return&&) = default;
    Return& operator=(Return&&) = default;
    ~Return() = default;
};

inline Return<void> Void() { return Return<void>(); }

namespace details {

// The failure of one call as the failure of another. The value, if any, is dropped.
template <typename T, typename U>
Return<U> StatusOf(const Return<T>& other) {
    return Return<U>(Status{other.mStatus});
}

}  // namespace details

}  // namespace android::hardware
