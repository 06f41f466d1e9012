#include "view/pace.h"

namespace camera {

namespace {
constexpr int64_t kLongestPause = 10'000'000'000;
constexpr int64_t kBehind = 200'000'000;
}  // namespace

int64_t Pace::after(int64_t stamp, int64_t period) const {
    if (mFixedPeriod) return *mFixedPeriod;
    if (!mLastStamp || stamp <= *mLastStamp) return period;
    // Stamps of a damaged file can be as far apart as numbers are.
    const uint64_t pause = static_cast<uint64_t>(stamp) - static_cast<uint64_t>(*mLastStamp);
    return pause <= static_cast<uint64_t>(kLongestPause) ? static_cast<int64_t>(pause) : period;
}

int64_t Pace::dueOf(int64_t stamp, int64_t period, int64_t now) {
    int64_t due = mLastDue ? *mLastDue + after(stamp, period) : now;
    if (due < now - kBehind) due = now;
    mLastDue = due;
    mLastStamp = stamp;
    return due;
}

}  // namespace camera
