#include "comparison.h"

#include <algorithm>
#include <cstdint>

namespace tools {

namespace {

/**
 * The source takes one frame of its file for each request, but for those that never reach it. It
 * takes one for each request of another client, too; pictures come in the order in which it did.
 */
size_t servedBefore(const Answer& answer, const Figures& figures) {
    const auto notServed =
        std::count_if(figures.failures.begin(), figures.failures.end(),
                      [&](uint32_t number) { return number < answer.frameNumber; });
    return answer.frameNumber - static_cast<size_t>(notServed) + figures.foreignPictures;
}

}  // namespace

Frame Comparison::expected(size_t start, size_t offset) {
    const Frame original = mClip.frame(start + offset);
    return mTurned && !original.empty() ? turnedBy180(original) : original;
}

std::string Comparison::faultOf(const Answer& answer, const Figures& figures) {
    const size_t offset = servedBefore(answer, figures);
    const auto fits = [&](size_t start) { return expected(start, offset) == answer.frame; };

    if (mStarts.empty()) {
        for (size_t start = 0; start < mClip.frameCount(); ++start) {
            if (fits(start)) mStarts.push_back(start);
        }
        return mStarts.empty()
                   ? std::string("is none of the file's frames") + (mTurned ? ", turned" : "")
                   : std::string();
    }

    std::vector<size_t> fitting;
    std::copy_if(mStarts.begin(), mStarts.end(), std::back_inserter(fitting), fits);
    if (fitting.empty()) {
        const Frame original = expected(mStarts.front(), offset);
        if (original.empty())
            return "cannot be compared: the file does not give its frame any more";
        return std::string("is not the file's frame") + (mTurned ? ", turned" : "") +
               ": they first differ at " + difference(answer.frame, original);
    }
    mStarts = std::move(fitting);
    return {};
}

}  // namespace tools
