#include <hidl/Status.h>

namespace android::hardware {

namespace {

std::string nameOf(status_t status) {
    switch (status) {
        case OK:
            return "OK";
        case UNKNOWN_ERROR:
            return "UNKNOWN_ERROR";
        case NO_MEMORY:
            return "NO_MEMORY";
        case INVALID_OPERATION:
            return "INVALID_OPERATION";
        case BAD_VALUE:
            return "BAD_VALUE";
        case DEAD_OBJECT:
            return "DEAD_OBJECT";
        case TIMED_OUT:
            return "TIMED_OUT";
        case WOULD_BLOCK:
            return "WOULD_BLOCK";
        case FAILED_TRANSACTION:
            return "FAILED_TRANSACTION";
        default:
            return std::to_string(status);
    }
}

}  // namespace

Status Status::fromStatusT(status_t error, const char* message) {
    Status status;
    if (error == OK) return status;
    status.mException = EX_TRANSACTION_FAILED;
    status.mError = error;
    status.mMessage = message;
    return status;
}

std::string Status::description() const {
    if (mException == EX_NONE) return "Status(EX_NONE): ''";
    return "Status(EX_TRANSACTION_FAILED): '" + nameOf(mError) + ": " + mMessage + "'";
}

namespace details {

void return_status::assertExamined() const {
    if (!mStatus.isOk() && !mExamined) {
        logAlwaysFatal(("Failed HIDL return status not checked: " + description()).c_str());
    }
}

return_status::~return_status() {
    assertExamined();
}

return_status& return_status::operator=(return_status&& other) noexcept {
    assertExamined();
    mStatus = std::exchange(other.mStatus, Status());
    mExamined = std::exchange(other.mExamined, false);
    return *this;
}

void return_status::assertOk() const {
    if (!isOk()) {
        logAlwaysFatal(
            ("Attempted to retrieve value from failed HIDL call: " + description()).c_str());
    }
}

}  // namespace details
}  // namespace android::hardware
