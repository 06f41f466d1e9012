#pragma once

#include <memory>
#include <numeric>
#include <utility>

#include "bench.h"
#include "faces/face_detector.h"
#include "roads.h"

namespace bench {

/** In one frame. */
using Faces = std::vector<camera::Rect>;

/** Who looks at a clip's frames, and finds the faces in them or does nothing. */
class Watch {
public:
    Watch(kit::FrameSize size, uint32_t frames) : mSize(size), mFrames(frames) {
        std::string problem;
        mDetector = camera::FaceDetector::open({}, problem);
        expect(mDetector != nullptr, problem.c_str());
    }

    /** REQUIRES: it outlives this. */
    Look look() {
        return [this](const uint8_t* luma, size_t stride) {
            ++mCame;
            if (!mDetects) return;
            const double before = processorMicroseconds(0, CLOCK_THREAD_CPUTIME_ID);
            mSeen.push_back(mDetector->find(luma, mSize, stride));
            mTook += processorMicroseconds(0, CLOCK_THREAD_CPUTIME_ID) - before;
        };
    }
    /** Of a pass without detection and, if so, one with it; `other`: who takes part. */
    Sample sample(const std::function<void()>& play, bool detects, pid_t other = 0) {
        const double scaling = costOf(play, other);
        if (!detects) return {scaling};
        const std::vector<Faces> last = std::exchange(mSeen, {});
        mTook = 0;
        mDetects = true;
        const double all = costOf(play, other);
        mDetects = false;
        expect(last.empty() || last == mSeen, "what is seen differs from pass to pass");
        return {scaling, all - mTook / mFrames, mTook / mFrames};
    }
    const std::vector<Faces>& seen() const { return mSeen; }
    double faces() const {
        return std::accumulate(mSeen.begin(), mSeen.end(), 0.0, [](double sum, const Faces& one) {
            return sum + double(one.size());
        });
    }

private:
    double costOf(const std::function<void()>& play, pid_t other) {
        const auto processors = [=] {
            return processorMicroseconds() + (other != 0 ? processorMicroseconds(other) : 0);
        };
        mCame = 0;
        const double before = processors();
        play();
        const double all = processors() - before;
        expect(mCame == mFrames, "there are not all frames");
        return all / mFrames;
    }

    const kit::FrameSize mSize;
    const uint32_t mFrames;
    std::unique_ptr<camera::FaceDetector> mDetector;
    bool mDetects = false;
    uint32_t mCame = 0;        // of this pass
    std::vector<Faces> mSeen;  // in each frame
    double mTook = 0;
};

}  // namespace bench
