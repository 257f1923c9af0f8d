#define LOG_TAG "HidlStatus"

#include <hidl/Status.h>
#include <log/log.h>

#include <sstream>

namespace android::hardware {

namespace {

struct ExceptionName {
    Status::Exception code;
    const char* name;
};

constexpr ExceptionName kExceptionNames[] = {
    {Status::EX_NONE, "EX_NONE"},
    {Status::EX_SECURITY, "EX_SECURITY"},
    {Status::EX_BAD_PARCELABLE, "EX_BAD_PARCELABLE"},
    {Status::EX_ILLEGAL_ARGUMENT, "EX_ILLEGAL_ARGUMENT"},
    {Status::EX_NULL_POINTER, "EX_NULL_POINTER"},
    {Status::EX_ILLEGAL_STATE, "EX_ILLEGAL_STATE"},
    {Status::EX_NETWORK_MAIN_THREAD, "EX_NETWORK_MAIN_THREAD"},
    {Status::EX_UNSUPPORTED_OPERATION, "EX_UNSUPPORTED_OPERATION"},
    {Status::EX_HAS_REPLY_HEADER, "EX_HAS_REPLY_HEADER"},
    {Status::EX_TRANSACTION_FAILED, "EX_TRANSACTION_FAILED"},
};

std::string nameOf(Status::Exception code) {
    for (const auto& row : kExceptionNames) {
        if (row.code == code) return row.name;
    }
    return std::to_string(code);
}

}  // namespace

Status Status::fromStatusT(status_t status) {
    return Status(status == OK ? EX_NONE : EX_TRANSACTION_FAILED, status, "");
}

std::string Status::description() const {
    std::ostringstream text;
    text << *this;
    return text.str();
}

std::ostream& operator<<(std::ostream& stream, const Status& status) {
    if (status.isOk()) return stream << "No error";
    stream << "Status(" << nameOf(status.exceptionCode()) << "): '";
    if (status.exceptionCode() == Status::EX_TRANSACTION_FAILED) {
        stream << "error " << status.transactionError() << ": ";
    }
    return stream << status.exceptionMessage() << "'";
}

namespace details {

return_status& return_status::operator=(return_status&& other) noexcept {
    // A swap, so that a failure which is overwritten unseen still ends the process with `other`.
    std::swap(mStatus, other.mStatus);
    std::swap(mCheckedStatus, other.mCheckedStatus);
    return *this;
}

return_status::~return_status() {
    if (mCheckedStatus || mStatus.isOk()) return;
    LOG_ALWAYS_FATAL("Failed HIDL return status not checked: %s", description().c_str());
}

void return_status::assertOk() const {
    if (isOk()) return;
    LOG_ALWAYS_FATAL("Failed HIDL return status not checked: %s", description().c_str());
}

void return_status::onValueRetrieval() const {
    if (isOk()) return;
    LOG_ALWAYS_FATAL("Attempted to retrieve value from failed HIDL call: %s",
                     description().c_str());
}

}  // namespace details
}  // namespace android::hardware
