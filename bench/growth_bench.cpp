// How the cost of a step grows with what a session holds, or has served.

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "bench.h"
#include "holdings.h"
#include "session.h"
#include "statistics.h"

namespace bench {

namespace {

constexpr size_t kStepsPerSample = 1000;
constexpr size_t kMostKnown = 10000;
constexpr int kReconfigurations = 5;
constexpr size_t kEarly = 1000;  ///< frames, after which a session holds what it needs
// So many are queued and measured well before the session answers the oldest itself.
constexpr size_t kMostWaiting = 100000;

/** 1, 10, 100 ... and the most. */
std::vector<size_t> sizesUpTo(size_t most) {
    std::vector<size_t> sizes;
    for (size_t size = 1; size < most; size *= 10)
        sizes.push_back(size);
    sizes.push_back(most);
    return sizes;
}

/** So many at most, if each holds so many descriptors; the process may have all that it can. */
size_t withDescriptors(size_t each, size_t most) {
    constexpr rlim_t kSpare = 80;  // what the process has open, and a few for a moment
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return std::min(most, (std::max(limit.rlim_max, kSpare + each) - kSpare) / each);
}

/** What this process holds when nothing is under way. */
struct Held {
    kit::Holdings counted = kit::Holdings::settled();
    size_t bytes = kit::allocatedBytes();
};

/** A few bytes are the allocator's; more of them, a descriptor or a mapping is a fault. */
void addHeldSince(Run& run, const Held& before, const std::string& when) {
    constexpr double kAllocatorsOwn = 65536;
    const Held now;
    const double bytes = static_cast<double>(now.bytes) - static_cast<double>(before.bytes);
    run.facts.push_back(
        {when + ": allocated bytes", bytes, "more", "0, but for the allocator's caches"});
    if (bytes > kAllocatorsOwn) run.faults.push_back(when + ", memory is left.");
    // Fewer is no fault: a peer's idle threads may have gone meanwhile.
    if (!now.counted.isWithin(before.counted))
        run.faults.push_back(when + ": " + now.counted.differenceFrom(before.counted));
}

/** The median of a step, in microseconds. */
template <typename Step>
double costOf(const Step& step, int rounds) {
    std::vector<double> samples;
    while (samples.size() < static_cast<size_t>(rounds)) {
        const Clock::time_point start = Clock::now();
        for (size_t i = 0; i < kStepsPerSample; ++i)
            step();
        samples.push_back(microsecondsSince(start) / kStepsPerSample);
    }
    return kit::median(samples);
}

/** Of a request behind so many others. */
double costBehind(OwnSession& session, size_t waiting, int rounds) {
    for (size_t i = 0; i < waiting; ++i)
        session.submit(1);
    const double cost = costOf([&] { session.pass(1); }, rounds);
    for (size_t i = 0; i < waiting; ++i)
        session.take();
    return cost;
}

void growQueue(Run& run) {
    run.curves.push_back({"request and take, behind others that wait", "waiting", {}});
    Arrivals answers;  // the session's own, where no provider takes a request in time
    OwnSession session;
    session.passNew(1);
    session.configure();
    const Held before;
    session.passNew(1);
    session->handleSetCallback(
        new ResultCallback([&](const CaptureResult& /*result*/) { answers.add(true); }));
    // A waiting request holds a duplicate of its buffer's descriptor.
    for (const size_t waiting : sizesUpTo(withDescriptors(1, kMostWaiting))) {
        const uint32_t answered = answers.count();
        try {
            const double cost = costBehind(session, waiting, run.rounds);
            run.curves.back().points.emplace_back(waiting, cost);
        } catch (const Wrong&) {
            if (answers.count() == answered) throw;
            run.leaveOut("A request behind " + std::to_string(waiting) +
                         " others: they waited so long that the session answered them.");
            session.startAgain();
        }
    }
    session.configure();
    addHeldSince(run, before, "after the longest queue");
}

void growBuffers(Run& run) {
    Curve use = {"request and take, among known buffers", "buffers known", {}};
    Curve end = {"a reconfiguration, for each buffer that it gives back", "buffers known", {}};
    OwnSession session;
    session.passNew(1);
    session.configure();
    const Held before;
    std::minstd_rand random(7);
    // The session's import holds one descriptor, and the graphics buffer's another.
    for (const size_t known : sizesUpTo(withDescriptors(2, kMostKnown))) {
        std::vector<double> samples;
        for (int i = 0; i < kReconfigurations; ++i) {
            for (size_t id = 1; id <= known; ++id)
                session.passNew(id);
            const auto step = [&] { session.pass(1 + random() % known); };
            if (i == 0) use.points.emplace_back(known, costOf(step, run.rounds));
            const Clock::time_point start = Clock::now();
            session.configure();
            samples.push_back(microsecondsSince(start) / static_cast<double>(known));
        }
        end.points.emplace_back(known, kit::median(samples));
    }
    addHeldSince(run, before, "after the most buffers");
    run.curves.push_back(use);
    run.curves.push_back(end);
}

/** A client and a provider: the whole way of a frame, and of one more each time. */
class WholeWay {
public:
    WholeWay() {
        mSession->handleSetCallback(mReceiver.callback());
        mSession.submitNew(1);
        answer();
    }

    /** Microseconds. */
    double step() {
        const Clock::time_point start = Clock::now();
        mSession.submit(1);
        answer();
        return microsecondsSince(start);
    }
    uint32_t served() const { return mServed; }
    double costOfSteps(size_t count) {
        std::vector<double> times;
        while (times.size() < count)
            times.push_back(step());
        return kit::median(times);
    }

private:
    void answer() {
        mSession->sendCaptureResult(kit::resultFor(mSession.take()));
        mReceiver.waitFor(++mServed);
    }

    Receiver mReceiver;
    OwnSession mSession;  // goes before what it calls
    uint32_t mServed = 0;
};

void growFrames(Run& run) {
    Curve curve = {"request to callback, on one processor", "frames served", {}};
    curve.points.reserve(16);  // so that it does not grow beside what is measured
    const OnOneProcessor pinned;
    WholeWay().costOfSteps(kEarly);  // so that the first frames of the next are not the coldest
    WholeWay way;
    std::optional<Held> early;
    for (const size_t size : sizesUpTo(run.quick ? 100000 : 1000000)) {
        while (way.served() < size)
            way.step();
        if (size == kEarly) early.emplace();
        curve.points.emplace_back(size, way.costOfSteps(std::min(9 * size, kEarly)));
    }
    addHeldSince(run, *early, "after all frames, since the first 1,000");
    run.curves.push_back(curve);
}

}  // namespace

void benchGrowth(Run& run) {
    fprintf(stderr, "growth ...\n");
    growQueue(run);
    growBuffers(run);
    growFrames(run);
}

}  // namespace bench
