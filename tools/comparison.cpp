#include "comparison.h"

#include <err.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <numeric>
#include <utility>

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

std::optional<Comparison> Comparison::with(const std::string& clip, bool turned, bool partial) {
    std::string problem;
    std::optional<Nv12File> file = Nv12File::open(clip, problem, partial);
    if (file) return Comparison(std::move(*file), turned);
    warnx("%s cannot be compared with: %s", clipInWords(clip).c_str(), problem.c_str());
    return std::nullopt;
}

kit::Frame Comparison::inFileDirection(const kit::Frame& frame) const {
    return mTurned ? kit::turnedBy180(frame) : frame;
}

std::vector<size_t> Comparison::startsOf(const kit::Frame& frame, size_t offset) const {
    std::vector<size_t> candidates = mStarts;
    if (candidates.empty()) {
        candidates.resize(mClip.frameCount());
        std::iota(candidates.begin(), candidates.end(), size_t{0});
    }
    std::vector<size_t> starts;
    std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(starts),
                 [&](size_t start) { return mClip.frame(start + offset) == frame; });
    return starts;
}

std::string Comparison::mismatch(const kit::Frame& frame, size_t offset) const {
    const std::string turned = mTurned ? ", turned" : "";
    std::string words = "is none of the file's frames" + turned;
    if (!mStarts.empty()) {
        const kit::Frame original = mClip.frame(mStarts.front() + offset);
        if (original.empty())
            return "cannot be compared: the file does not give its frame any more";
        words = "is not the file's frame" + turned + ": they first differ at " +
                kit::difference(frame, inFileDirection(original));
    }
    const kit::Frame otherWay = kit::turnedBy180(inFileDirection(frame));
    if (startsOf(otherWay, offset).empty()) return words;
    return words + (mTurned ? "; upright" : "; turned by 180 degrees") + " it would be right";
}

std::string Comparison::faultOf(const Answer& answer, const Figures& figures) {
    const size_t offset = servedBefore(answer, figures);
    std::vector<size_t> starts = startsOf(inFileDirection(answer.frame), offset);
    if (starts.empty()) return mismatch(answer.frame, offset);
    mStarts = std::move(starts);
    return {};
}

}  // namespace tools
