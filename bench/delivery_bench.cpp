// A result from the provider's thread to the client's callback in the same process, against a bare
// hand-off between two threads with the same copies of the record.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "benches.h"
#include "frames.h"
#include "processor.h"
#include "records.h"

namespace bench {

namespace {

constexpr std::chrono::milliseconds kIdleWait(50);  // the session's own
constexpr std::chrono::seconds kPatience(20);

using Clock = std::chrono::steady_clock;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::camera::device::V3_2::BufferStatus;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

constexpr uint64_t kBufferId = 1;

/** The client's callback: keeps the time of its call, and wakes who waits for it. */
class Receiver : public IFDSessionCallback {
public:
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        const Clock::time_point now = Clock::now();
        const StreamBuffer& buffer = results[0].outputBuffers[0];
        const std::lock_guard<std::mutex> lock(mMutex);
        mArrival = now;
        mRight = mRight && results[0].frameNumber == ++mLast && buffer.bufferId == kBufferId &&
                 buffer.status == BufferStatus::OK && buffer.buffer.getNativeHandle() != nullptr;
        mArrived.notify_one();
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }

    /** Nothing when it did not come, or was wrong. */
    std::optional<Clock::time_point> waitFor(uint32_t frameNumber) {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool came =
            mArrived.wait_for(lock, kPatience, [&] { return mLast == frameNumber; }) && mRight;
        return came ? std::optional(mArrival) : std::nullopt;
    }

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    // Guarded by mMutex.
    Clock::time_point mArrival;
    uint32_t mLast = 0;
    bool mRight = true;
};

/** When the waiting thread is told: as the session has to tell it, or as is best for both. */
enum class Notify { UnderMutex, AfterMutex };

/** A queue, a mutex, a condition variable, and a thread that calls. */
class BareHandoff {
public:
    BareHandoff(const sp<IFDSessionCallback>& callback, Notify notify)
        : mCallback(callback), mNotify(notify), mThread([this] { run(); }) {}
    ~BareHandoff() {
        send(CaptureResult());  // the end
        mThread.join();
    }
    BareHandoff(const BareHandoff&) = delete;
    BareHandoff& operator=(const BareHandoff&) = delete;

    void send(const CaptureResult& result) {
        CaptureResult copy = result;
        std::unique_lock<std::mutex> lock(mMutex);
        mResults.push_back(std::move(copy));
        if (mNotify == Notify::AfterMutex) lock.unlock();
        mChanged.notify_all();
    }

private:
    void run() {
        for (;;) {
            hidl_vec<CaptureResult> results;
            results.resize(1);
            {
                std::unique_lock<std::mutex> lock(mMutex);
                while (mResults.empty())
                    mChanged.wait_until(lock, std::chrono::system_clock::now() + kIdleWait);
                results[0] = std::move(mResults.front());
                mResults.pop_front();
            }
            if (results[0].outputBuffers.size() == 0) return;
            const Return<void> status = mCallback->processCaptureResult(results);
            if (!status.isOk()) return;
        }
    }

    const sp<IFDSessionCallback> mCallback;
    const Notify mNotify;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<CaptureResult> mResults;  // guarded by mMutex
    std::thread mThread;
};

/** What a round of hand-offs cost, in microseconds. */
struct Round {
    double median;
    double mean;
    double p99;
    double processor;  ///< time on processors, each
};

using Send = std::function<void(const CaptureResult&)>;

/** Some to warm up, then so many. Nothing when a result did not come, or was wrong. */
std::optional<Round> runRound(int count, Receiver& receiver, const Send& send) {
    const FrameBuffer frame(kTiny, kTiny.width);
    CaptureResult result = resultFor(requestFor(0, kBufferId, frame.memory.handle()));
    std::vector<double> times;
    double before = 0;
    for (int i = -count / 10; i < count; ++i) {
        if (i == 0) before = processorMicroseconds();
        ++result.frameNumber;
        const Clock::time_point start = Clock::now();
        send(result);
        const std::optional<Clock::time_point> arrival = receiver.waitFor(result.frameNumber);
        if (!arrival) return std::nullopt;
        if (i < 0) continue;
        times.push_back(std::chrono::duration<double, std::micro>(*arrival - start).count());
    }
    const double processor = (processorMicroseconds() - before) / count;
    const double mean = std::accumulate(times.begin(), times.end(), 0.0) / count;
    return Round{percentile(times, 50), mean, percentile(times, 99), processor};
}

// Each round has threads of its own, because where and how they wake each other stays with them.

std::optional<Round> runOurs(int count) {
    const sp<Receiver> receiver = new Receiver;
    const OwnSession session;
    session->handleSetCallback(receiver);
    return runRound(count, *receiver,
                    [&](const CaptureResult& result) { session->sendCaptureResult(result); });
}

std::optional<Round> runBare(int count, Notify notify) {
    const sp<Receiver> receiver = new Receiver;
    BareHandoff bare(receiver, notify);
    return runRound(count, *receiver, [&](const CaptureResult& result) { bare.send(result); });
}

/** The rounds of both sides, as comparisons. */
struct Rounds {
    std::vector<Round> ours;
    std::vector<Round> theirs;

    Comparison comparison(double Round::*figure, const std::string& what,
                          const std::string& reference, std::optional<double> aim) const {
        Comparison result{"delivery", what, reference, "us", {}, {}, aim};
        for (const Round& round : ours)
            result.ours.push_back(round.*figure);
        for (const Round& round : theirs)
            result.theirs.push_back(round.*figure);
        return result;
    }
};

void benchAgainst(Figures& figures, const Effort& effort, const std::string& where, Notify notify,
                  bool toAim) {
    const bool alike = notify == Notify::UnderMutex;
    const std::string reference =
        std::string("hand-off, told ") +
        (alike ? "under the mutex (the contract)" : "after the mutex (against it)");
    fprintf(stderr, "delivery, %s, %s ...\n", where.c_str(), reference.c_str());
    const int count = effort.quick ? 1000 : 10000;
    Rounds rounds;
    for (int i = 0; i < effort.rounds; ++i) {
        std::optional<Round> ours;
        if (i % 2 == 0) ours = runOurs(count);
        const std::optional<Round> bare = runBare(count, notify);
        if (i % 2 != 0) ours = runOurs(count);
        if (!ours || !bare) {
            figures.faults.push_back("delivery, " + where +
                                     ": a result did not come, or was wrong");
            return;
        }
        rounds.ours.push_back(*ours);
        rounds.theirs.push_back(*bare);
    }
    const auto aim = [toAim](double ratio) { return toAim ? std::optional(ratio) : std::nullopt; };
    for (const Comparison& each :
         {rounds.comparison(&Round::median, where + ", median", reference, aim(1.25)),
          rounds.comparison(&Round::mean, where + ", mean", reference, {}),
          rounds.comparison(&Round::p99, where + ", p99", reference, aim(1.5)),
          rounds.comparison(&Round::processor, where + ", time on CPU", reference, {})}) {
        figures.comparisons.push_back(each);
    }
}

}  // namespace

void benchDelivery(Figures& figures, const Effort& effort) {
    {
        const OnOneProcessor pinned;
        benchAgainst(figures, effort, "one CPU", Notify::UnderMutex, true);
        benchAgainst(figures, effort, "one CPU", Notify::AfterMutex, false);
    }
    benchAgainst(figures, effort, "unpinned", Notify::UnderMutex, false);
}

}  // namespace bench
