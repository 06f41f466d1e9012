#pragma once

#include <hidl/HidlSupport.h>
#include <utils/Errors.h>

#include <string>
#include <utility>

namespace android::hardware {

/** Whether a call got through: an exception code, and for a failed transaction its status. */
class Status {
public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_TRANSACTION_FAILED = -129,
    };

    Status() = default;
    static Status ok() { return {}; }
    /** EX_TRANSACTION_FAILED with this status; 0 is ok(). */
    static Status fromStatusT(status_t status, const char* message = "");

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    status_t transactionError() const { return mError; }
    /** For people, as "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer has closed ...'". */
    std::string description() const;

private:
    int32_t mException = EX_NONE;
    status_t mError = OK;
    std::string mMessage;
};

namespace details {

/**
 * The transport status in every result. It must be examined: destroying or overwriting a failed one
 * on which nobody called isOk() ends the process. Moved, not copied.
 */
class return_status {
public:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}  // NOLINT
    return_status(return_status&& other) noexcept { *this = std::move(other); }
    ~return_status();
    return_status& operator=(return_status&& other) noexcept;

    bool isOk() const {
        mExamined = true;
        return mStatus.isOk();
    }
    std::string description() const { return mStatus.description(); }
    bool isDeadObject() const { return mStatus.transactionError() == DEAD_OBJECT; }

protected:
    /** Ends the process when the call failed: there is no value to take. */
    void assertOk() const;

private:
    void assertExamined() const;

    Status mStatus;
    mutable bool mExamined = false;
};

}  // namespace details

/** The result of a call that may go to another process: a transport status and a value. */
template <typename T>
class Return : public details::return_status {
public:
    Return() = default;
    Return(T value) : mValue(std::move(value)) {}                     // NOLINT
    Return(const Status& status) : details::return_status(status) {}  // NOLINT

    operator T() const {  // NOLINT(google-explicit-constructor)
        assertOk();
        return mValue;
    }
    T withDefault(T other) { return isOk() ? mValue : other; }

private:
    T mValue{};
};

template <>
class Return<void> : public details::return_status {
public:
    Return() = default;
    Return(const Status& status) : details::return_status(status) {}  // NOLINT
};

inline Return<void> Void() {
    return {};
}

}  // namespace android::hardware
