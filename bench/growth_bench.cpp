// How the cost of a step grows with what a session holds, or has served.

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "benches.h"
#include "holdings.h"
#include "processor.h"
#include "records.h"

namespace bench {

namespace {

using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::BufferStatus;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;
using Clock = std::chrono::steady_clock;

constexpr size_t kStepsPerSample = 1000;
constexpr size_t kMostKnown = 10000;
constexpr int kReconfigurations = 5;
constexpr size_t kEarly = 1000;  ///< frames, after which a session holds what it needs
// So many are queued and measured well before the session answers the oldest itself.
constexpr size_t kMostWaiting = 100000;

double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

/** 1, 10, 100 ... and the most. */
std::vector<size_t> sizesUpTo(size_t most) {
    std::vector<size_t> sizes;
    for (size_t size = 1; size < most; size *= 10)
        sizes.push_back(size);
    sizes.push_back(most);
    return sizes;
}

/** What this process holds when nothing is under way. */
struct Held {
    kit::Holdings counted = kit::Holdings::settled();
    size_t bytes = kit::allocatedBytes();
};

constexpr double kAllocatorsOwn = 65536;

/** A few bytes are the allocator's; more of them, a descriptor or a mapping is a fault. */
void addHeldSince(Figures& figures, const Held& before, const std::string& when) {
    const Held now;
    const double bytes = static_cast<double>(now.bytes) - static_cast<double>(before.bytes);
    if (bytes > kAllocatorsOwn) figures.faults.push_back(when + ", memory is left.");
    figures.facts.push_back(
        {when + ": allocated bytes", bytes, "more", "0, but for the allocator's caches"});
    if (now.counted.descriptors != before.counted.descriptors ||
        now.counted.mappings != before.counted.mappings) {
        figures.faults.push_back(when + ", descriptors or buffer mappings are left.");
    }
}

/** Lets the process have as many descriptors as it may, for the scope of this object. */
class MostDescriptors {
public:
    MostDescriptors() {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        const rlimit most = {mBefore.rlim_max, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &most);
    }
    ~MostDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    MostDescriptors(const MostDescriptors&) = delete;
    MostDescriptors& operator=(const MostDescriptors&) = delete;

    /** How many things that hold so many descriptors each there is room for. */
    size_t roomFor(size_t each) const {
        return (std::max(mBefore.rlim_max, kSpare + each) - kSpare) / each;
    }

private:
    static constexpr rlim_t kSpare = 80;  // what the process has open, and a few for a moment

    rlimit mBefore = {};
};

/** Both ends of a session. False is refused, lost or out of order, and so is all that follows. */
class Ends {
public:
    explicit Ends(FDSessionImpl& session) : mSession(session) { configure(); }

    /** The session forgets its requests and gives every buffer back. */
    void configure() { mSession.handleConfigure(streamOf(kTiny)); }
    bool submit(uint64_t bufferId, const native_handle_t* handle = nullptr) {
        return mSession.handleCaptureRequest(requestFor(mSubmitted++, bufferId, handle)) == 0;
    }
    /** With a buffer that the client lets go of afterwards. */
    bool submitNew(uint64_t bufferId) {
        return submit(bufferId, FrameBuffer(kTiny, kTiny.width).memory.handle());
    }
    bool take(CaptureRequest& request) {
        return mSession.getProcessCaptureRequest(request) == 0 && request.frameNumber == mTaken++ &&
               request.outputBuffers[0].buffer.getNativeHandle() != nullptr;
    }
    bool take() {
        CaptureRequest request;
        return take(request);
    }
    bool answer() {
        CaptureRequest request;
        if (!take(request)) return false;
        mSession.sendCaptureResult(resultFor(std::move(request)));
        return true;
    }
    /** Takes what is left, in whatever order. */
    void startAgain() {
        for (CaptureRequest request; mSession.getProcessCaptureRequest(request) == 0;) {
        }
        mTaken = mSubmitted;
    }

private:
    FDSessionImpl& mSession;
    uint32_t mSubmitted = 0;
    uint32_t mTaken = 0;
};

/** Counts what the session answers itself, where no provider answers. */
class AnswerCount : public IFDSessionCallback {
public:
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& /*results*/) override {
        ++mCount;
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }
    size_t count() const { return mCount; }

private:
    std::atomic<size_t> mCount{0};
};

/** Microseconds of one step, or nothing when one failed. */
template <typename Step>
std::optional<double> costOf(const Step& step, int rounds) {
    std::vector<double> samples;
    bool right = true;
    while (samples.size() < static_cast<size_t>(rounds)) {
        const Clock::time_point start = Clock::now();
        for (size_t i = 0; i < kStepsPerSample; ++i)
            right = step() && right;
        samples.push_back(microsecondsSince(start) / kStepsPerSample);
    }
    if (!right) return std::nullopt;
    return median(samples);
}

/** What one step costs behind others that wait, if it could be told. */
struct CostBehind {
    std::optional<double> microseconds;
    bool wasLate = false;  ///< the machine was so busy that the session answered from the queue
};

CostBehind costBehind(Ends& ends, const AnswerCount& answers, size_t waiting, int rounds) {
    const size_t before = answers.count();
    bool right = true;
    for (size_t i = 0; i < waiting; ++i)
        right = ends.submit(1) && right;
    const auto cost = costOf([&] { return ends.submit(1) && ends.take(); }, rounds);
    for (size_t i = 0; i < waiting; ++i)
        right = ends.take() && right;
    if (right && cost && !ends.take()) return {cost};
    ends.startAgain();
    return {std::nullopt, answers.count() > before};
}

/** Adds a point; false, and a fault, without a cost. */
bool addPoint(Figures& figures, Curve& curve, size_t size, std::optional<double> cost) {
    if (cost) {
        curve.points.emplace_back(static_cast<double>(size), *cost);
    } else {
        figures.faults.push_back(curve.name + ": with " + std::to_string(size) + " " + curve.size +
                                 " a frame was refused, lost or out of order.");
    }
    return cost.has_value();
}

void growQueue(Figures& figures, const Effort& effort) {
    Curve curve = {"request and take, behind others that wait", "waiting", "us", {}};
    const MostDescriptors descriptors;
    const OwnSession session;
    Ends ends(*session);
    bool right = ends.submitNew(1) && ends.take();
    ends.configure();
    const Held before;
    right = right && ends.submitNew(1) && ends.take();
    const sp<AnswerCount> answers = new AnswerCount;
    session->handleSetCallback(answers);
    // A waiting request holds a duplicate of its buffer's descriptor.
    for (const size_t waiting : sizesUpTo(std::min(kMostWaiting, descriptors.roomFor(1)))) {
        const CostBehind cost =
            right ? costBehind(ends, *answers, waiting, effort.rounds) : CostBehind();
        if (cost.wasLate) {
            figures.leaveOut("A request behind " + std::to_string(waiting) +
                             " others: they waited so long that the session answered them.");
        } else {
            right = addPoint(figures, curve, waiting, cost.microseconds);
        }
    }
    ends.configure();
    addHeldSince(figures, before, "after the longest queue");
    figures.curves.push_back(std::move(curve));
}

void growBuffers(Figures& figures, const Effort& effort) {
    Curve use = {"request and take, among known buffers", "buffers known", "us", {}};
    Curve end = {
        "a reconfiguration, for each buffer that it gives back", "buffers known", "us", {}};
    const MostDescriptors descriptors;
    const OwnSession session;
    Ends ends(*session);
    bool right = ends.submitNew(1) && ends.take();
    ends.configure();

    const Held before;
    std::minstd_rand random(7);
    const auto makeKnown = [&](size_t count) {
        for (size_t id = 1; id <= count; ++id)
            right = right && ends.submitNew(id) && ends.take();
    };
    // The session's import holds one descriptor, and the graphics buffer's another.
    for (const size_t known : sizesUpTo(std::min(kMostKnown, descriptors.roomFor(2)))) {
        std::optional<double> cost;
        std::vector<double> samples;
        for (int i = 0; i < kReconfigurations; ++i) {
            makeKnown(known);
            const auto step = [&] { return ends.submit(1 + random() % known) && ends.take(); };
            if (right && !cost) cost = costOf(step, effort.rounds);
            const Clock::time_point start = Clock::now();
            ends.configure();
            samples.push_back(microsecondsSince(start) / static_cast<double>(known));
        }
        right = addPoint(figures, use, known, right ? cost : std::nullopt) &&
                addPoint(figures, end, known, median(samples));
    }
    addHeldSince(figures, before, "after the most buffers");
    figures.curves.push_back(std::move(use));
    figures.curves.push_back(std::move(end));
}

/** The client of a session: waits for its results, which are to come whole and in order. */
class Client : public IFDSessionCallback {
public:
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRight = mRight && results[0].frameNumber == mNext++ &&
                 results[0].outputBuffers[0].status == BufferStatus::OK;
        mChanged.notify_one();
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }

    bool waitFor(uint32_t frames) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mNext == frames; }) &&
               mRight;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    uint32_t mNext = 0;
    bool mRight = true;
};

/** The whole way of a frame, and of one more each time. */
class Road {
public:
    Road() : mEnds(*mSession) {
        mSession->handleSetCallback(mClient);
        mRight = mEnds.submitNew(1) && answerAndWait();
    }

    /** False when any frame was wrong. */
    bool step() { return mRight = mRight && mEnds.submit(1) && answerAndWait(); }
    uint32_t served() const { return mServed; }

private:
    bool answerAndWait() { return mEnds.answer() && mClient->waitFor(++mServed); }

    const OwnSession mSession;
    const sp<Client> mClient = new Client;
    Ends mEnds;
    uint32_t mServed = 0;
    bool mRight = false;
};

/** Microseconds of each of so many frames; fewer when one was wrong. */
std::vector<double> timesOf(Road& road, size_t frames) {
    std::vector<double> times;
    while (times.size() < frames) {
        const Clock::time_point start = Clock::now();
        if (!road.step()) break;
        times.push_back(microsecondsSince(start));
    }
    return times;
}

void growFrames(Figures& figures, const Effort& effort) {
    Curve curve = {"request to callback, on one processor", "frames served", "us", {}};
    curve.points.reserve(16);  // so that it does not grow beside what is measured
    const OnOneProcessor pinned;
    {
        Road other;
        timesOf(other, kEarly);  // so that the first frames of the next are not the coldest
    }
    Road road;
    bool right = true;
    std::optional<Held> early;
    for (const size_t size : sizesUpTo(effort.quick ? 100000 : 1000000)) {
        while (right && road.served() < size)
            right = road.step();
        if (size == kEarly) early.emplace();
        const size_t count = std::min(9 * size, kEarly);
        const std::vector<double> times = timesOf(road, count);
        right = addPoint(figures, curve, size,
                         times.size() == count ? std::optional(median(times)) : std::nullopt);
    }
    addHeldSince(figures, *early, "after all frames, since the first 1,000");
    figures.curves.push_back(std::move(curve));
}

}  // namespace

void benchGrowth(Figures& figures, const Effort& effort) {
    fprintf(stderr, "growth ...\n");
    growQueue(figures, effort);
    growBuffers(figures, effort);
    growFrames(figures, effort);
}

}  // namespace bench
