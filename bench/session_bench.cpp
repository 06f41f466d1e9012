// What a session costs in one process. A request, against the work that nobody can leave out of it;
// a result on its way to the client's callback, against a bare hand-off between two threads with
// the same copies of the record; and nothing at all, against a bare wait.

#include <sys/resource.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <numeric>

#include "bench.h"
#include "session.h"
#include "statistics.h"

namespace bench {

namespace {

constexpr uint64_t kBufferId = 1;

const native_handle_t* handleOf(const CaptureRequest& request) {
    return request.outputBuffers[0].buffer.getNativeHandle();
}

/** One way to get a request from the client to the provider; false when it was refused. */
using Pass = std::function<bool(const CaptureRequest& request, CaptureRequest& taken)>;

/** Times a request's way, once it is seen that each has a duplicated handle of its own. */
Side requestSide(const char* name, double seconds, const Pass& pass, std::optional<double> aim) {
    const auto work = [=, known = kit::requestFor(1, kBufferId),
                       taken = CaptureRequest()]() mutable {
        expect(pass(known, taken) && taken.frameNumber == 1 && handleOf(taken) != nullptr,
               "a request did not come out as it should");
    };
    const auto check = [=] {
        CaptureRequest one;
        CaptureRequest other;
        const CaptureRequest known = kit::requestFor(1, kBufferId);
        expect(pass(known, one) && pass(known, other) && handleOf(one) != nullptr &&
                   handleOf(other) != nullptr && handleOf(one)->data[0] != handleOf(other)->data[0],
               "a request has no descriptor of its own");
    };
    return loopOf(name, seconds, check, work, aim);
}

/** Some results to warm up, then so many, each once the one before has come. */
Sample sampleOf(int count, Receiver& receiver, const std::function<void(CaptureResult&)>& send) {
    const host::Buffer buffer = kit::allocate(kTiny);
    CaptureResult result = kit::resultFor(kit::requestFor(0, kBufferId, buffer.handle()));
    std::vector<double> times;
    double before = 0;
    for (int i = -count / 10; i < count; ++i) {
        if (i == 0) before = processorMicroseconds();
        const Clock::time_point start = Clock::now();
        send(result);
        const double took = microsecondsOf(receiver.waitFor(++result.frameNumber) - start);
        if (i >= 0) times.push_back(took);
    }
    const double processor = (processorMicroseconds() - before) / count;
    const double mean = std::accumulate(times.begin(), times.end(), 0.0) / count;
    return {kit::median(times), mean, kit::percentile(times, 99), processor};
}

// Each sample has threads of its own, because where and how they wake each other stays with them.

Sample sampleOurs(int count) {
    Receiver receiver;
    const OwnSession session;
    session->handleSetCallback(receiver.callback());
    return sampleOf(count, receiver,
                    [&](CaptureResult& result) { session->sendCaptureResult(result); });
}

/** Over a queue, a mutex, a condition variable, and a thread that calls. */
Sample sampleBare(int count, Notify notify) {
    Receiver receiver;
    Worker<CaptureResult> bare(
        [&](CaptureResult& result) {
            android::hardware::hidl_vec<CaptureResult> results;
            results.resize(1);
            results[0] = std::move(result);
            static_cast<void>(receiver.callback()->processCaptureResult(results).isOk());
        },
        std::chrono::milliseconds(50));  // the session's own wait
    return sampleOf(count, receiver, [&](CaptureResult& result) { bare.push(result, notify); });
}

void benchAgainst(Run& run, const std::string& where, Notify notify, const Aims& aims) {
    const std::string reference = notify == Notify::UnderMutex
                                      ? "hand-off, told under the mutex (the contract)"
                                      : "hand-off, told after the mutex (against it)";
    const int count = run.quick ? 1000 : 10000;
    compare(run, "delivery", where,
            {{"ours", [=] { return sampleOurs(count); }},
             {reference, [=] { return sampleBare(count, notify); }, aims}},
            {", median", ", mean", ", p99", ", time on CPU"});
}

/** As the kernel keeps "CaptureRequestMonitor". */
constexpr const char* kMonitorName = "CaptureRequestM";
constexpr const char* kBareName = "bare wait";

/** Where the kernel tells of this process's thread of this name. */
std::filesystem::path taskOf(const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::ifstream comm(task.path() / "comm");
        if (std::getline(comm, found) && found == name) return task.path();
    }
    throw Wrong("there is no thread \"" + name + "\"");
}

/** How often a thread has gone to sleep, and its microseconds on processors. */
std::pair<double, double> useOf(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    double wakeUps = 0;
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") status >> wakeUps;
    }
    double nanoseconds = 0;
    std::ifstream(task / "schedstat") >> nanoseconds;
    return {wakeUps, nanoseconds / 1000};
}

}  // namespace

void benchRequest(Run& run) {
    const host::Buffer buffer = kit::allocate(kTiny);
    const OwnSession session;
    const auto ours = [&](const CaptureRequest& request, CaptureRequest& taken) {
        return session.pass(request, taken);
    };
    CaptureRequest first;
    expect(ours(kit::requestFor(0, kBufferId, buffer.handle()), first));

    // Two look-ups, the copy of the buffer's record, the copy of the request with a duplicate of
    // the registered handle, and its way out.
    std::map<int32_t, std::map<uint64_t, buffer_handle_t>> registry;
    registry[0][kBufferId] = buffer.handle();
    const auto floor = [&](const CaptureRequest& request, CaptureRequest& taken) {
        const StreamBuffer asked = request.outputBuffers[0];
        const android::hardware::hidl_handle handle(
            registry.find(asked.streamId)->second.find(asked.bufferId)->second);
        CaptureRequest copy = request;
        copy.outputBuffers[0].buffer = handle;
        taken = std::move(copy);
        return true;
    };
    compare(run, "request", "known buffer, queued and taken",
            {requestSide("ours", run.secondsPerSample, ours, {}),
             requestSide("look-ups and copies alone", run.secondsPerSample, floor, 1.3)});
}

void benchDelivery(Run& run) {
    {
        const OnOneProcessor pinned;
        benchAgainst(run, "one CPU", Notify::UnderMutex, {1.25, {}, 1.5, {}});
        benchAgainst(run, "one CPU", Notify::AfterMutex, {});
    }
    benchAgainst(run, "unpinned", Notify::UnderMutex, {});
}

void benchIdle(Run& run) {
    fprintf(stderr, "idle ...\n");
    const OwnSession session;
    Worker<int> bareWait([](int) {}, std::chrono::milliseconds(50));  // does nothing but wait
    bareWait.setName(kBareName);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until all threads have names

    const auto look = [monitor = taskOf(kMonitorName), bare = taskOf(kBareName)] {
        rusage all = {};
        getrusage(RUSAGE_SELF, &all);
        const auto [wakeUps, time] = useOf(monitor);
        const auto [bareWakeUps, bareTime] = useOf(bare);
        return std::array<double, 4>{wakeUps, static_cast<double>(all.ru_nvcsw) - bareWakeUps, time,
                                     bareTime};
    };
    const auto before = look();
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(run.quick ? 2 : 5));
    const auto after = look();
    const double seconds = microsecondsSince(start) / 1e6;

    const auto add = [&](const char* name, size_t i, const char* unit, const char* expected) {
        run.facts.push_back({name, (after[i] - before[i]) / seconds, unit, expected});
    };
    add("an idle session: wake-ups of its thread", 0, "a second", "20 (the 50 ms wait)");
    add("the same, of the whole process", 1, "a second", "nothing more");
    add("an idle session: processor time of its thread", 2, "us/s", "about that of the wait");
    add("a thread that does nothing but the 50 ms wait", 3, "us/s", "");
}

}  // namespace bench
