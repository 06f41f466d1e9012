#include "requests_on_the_way.h"

#include <algorithm>
#include <iterator>

#include "host/limits.h"

namespace host {

using ::android::hardware::camera::device::V3_2::BufferStatus;

const char* RequestsOnTheWay::problem(Time now) {
    if (mAll.size() - mLeftOver >= kMaxRequestsOnTheWay) {
        return "too many requests are on their way";
    }
    if (mLeftOver <= kMaxLeftOver) return nullptr;
    if (now - mQuietSince < kLeftOverPatience) {
        return "too many requests of earlier configurations are on their way";
    }
    forgetFirst(mLeftOver);
    return nullptr;
}

RequestsOnTheWay::Asked RequestsOnTheWay::add(const CaptureRequest& request) {
    const uint64_t id =
        request.outputBuffers.size() > 0 ? request.outputBuffers[0].bufferId : uint64_t{0};
    return mAll.emplace_back(Asked{++mSerial, mConfiguration, request.frameNumber, id});
}

void RequestsOnTheWay::takeBack(const Asked& asked) {
    const auto found = std::find_if(mAll.rbegin(), mAll.rend(), [&](const Asked& other) {
        return other.serial == asked.serial;
    });
    if (found != mAll.rend()) eraseAt(static_cast<size_t>(mAll.rend() - found) - 1);
}

void RequestsOnTheWay::keep(const Asked& asked) {
    if (isOfNow(asked)) return;
    takeBack(asked);
    mAll.push_back({asked.serial, mConfiguration, asked.frameNumber, asked.bufferId});
}

void RequestsOnTheWay::handedOver(const CaptureResult& result, Time now) {
    mQuietSince = now;
    if (mAll.empty()) return;
    const bool isFilled =
        result.outputBuffers.size() > 0 && result.outputBuffers[0].status == BufferStatus::OK;
    const size_t index = indexOf(result, isFilled);
    if (index == mAll.size()) {
        mAll.pop_back();
        mLeftOver = std::min(mLeftOver, mAll.size());
        return;
    }
    const uint64_t configuration = mAll[index].configuration;
    eraseAt(index);
    if (!isFilled) return;
    const auto first = std::find_if(mAll.begin(), mAll.end(), [&](const Asked& asked) {
        return asked.configuration >= configuration;
    });
    forgetFirst(static_cast<size_t>(first - mAll.begin()));
}

size_t RequestsOnTheWay::indexOf(const CaptureResult& result, bool isFilled) const {
    const auto isAnswered = [&](const Asked& asked) {
        return asked.frameNumber == result.frameNumber && result.outputBuffers.size() > 0 &&
               asked.bufferId == result.outputBuffers[0].bufferId;
    };
    // A client may use the same numbers again, so that one result could be of several requests.
    // Filled ones come in order, so it is the oldest. Others may be a new request's that the
    // session gives up before its turn; taken off the newest, they never show that older ones are
    // gone.
    if (isFilled) {
        const auto oldest = std::find_if(mAll.begin(), mAll.end(), isAnswered);
        return static_cast<size_t>(oldest - mAll.begin());
    }
    const auto newest = std::find_if(mAll.rbegin(), mAll.rend(), isAnswered);
    return newest == mAll.rend() ? mAll.size() : static_cast<size_t>(mAll.rend() - newest) - 1;
}

void RequestsOnTheWay::restart(Time now) {
    ++mConfiguration;
    // From the first on, so that whoever configures again and again keeps nobody waiting.
    if (mLeftOver == 0) mQuietSince = now;
    mLeftOver = mAll.size();
}

void RequestsOnTheWay::eraseAt(size_t index) {
    mAll.erase(std::next(mAll.begin(), static_cast<ptrdiff_t>(index)));
    if (index < mLeftOver) --mLeftOver;
}

void RequestsOnTheWay::forgetFirst(size_t count) {
    mAll.erase(mAll.begin(), std::next(mAll.begin(), static_cast<ptrdiff_t>(count)));
    mLeftOver -= std::min(count, mLeftOver);
}

}  // namespace host
