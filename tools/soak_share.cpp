#include "soak_share.h"

#include <android/hardware/camera/common/1.0/types.h>
#include <hidl/Status.h>
#include <sys/resource.h>
#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "host/accepted.h"
#include "host/limits.h"
#include "raw_socket.h"
#include "records.h"
#include "soak_process.h"
#include "soak_raw.h"
#include "stream_client.h"

namespace tools {

namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::device::V3_2::CaptureResult;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

constexpr kit::FrameSize kSize = {640, 480};

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/** Answers after so long, each time. */
class Slow : public IFDSessionCallback {
public:
    explicit Slow(milliseconds each) : mEach(each) {}
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& /*results*/) override {
        mCalled = true;
        std::this_thread::sleep_for(mEach);
        return Void();
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return Void(); }
    bool isCalled() const { return mCalled; }

private:
    const milliseconds mEach;
    std::atomic<bool> mCalled{false};
};

/** A provider, a client that takes what it can, and another that was there before it. */
class Row {
public:
    explicit Row(std::string& problem) : mProvider(SoakProcess::start(problem)) {
        if (mProvider != nullptr) other = mProvider->connect(problem);
        if (other != nullptr) greedy = mProvider->connect(problem);
    }
    bool isReady() const { return greedy != nullptr && greedy->ping().isOk(); }
    sp<IFDSession> connect() const {
        std::string ignored;
        const sp<IFDSession> session = mProvider->connect(ignored);
        return session != nullptr && session->ping().isOk() ? session : nullptr;
    }
    std::string socket() const { return mProvider->socket(); }
    bool feed(const char* whom) { return mProvider->ask(std::string("feed ") + whom).has_value(); }
    bool configure() const {
        return host::isAccepted(greedy->configure(kit::configurationOf(kSize)));
    }

    /** Prints what the provider has now, and how the other client fares. */
    std::string print(const std::string& what) {
        const std::optional<SoakHoldings> has = mProvider->holdings(std::nullopt);
        if (!has) return "the provider does not answer";
        const double call = longestCall();
        const bool canConnect = connect() != nullptr;
        // The greedy client's buffers are let go of by this configuration.
        const Clock::time_point start = Clock::now();
        const bool isConfigured = host::isAccepted(other->configure(kit::configurationOf(kSize)));
        const double configured = msSince(start);
        const double frame = feed("thread") && isConfigured ? msToFrame() : -1;
        printf("%-30s %3d %5d %5d %5" PRId64 " %6.1f %5.1f %5.1f %5.0f %3s\n", what.c_str(),
               has->kernel.threads, has->kernel.descriptors, has->kernel.mappings, has->buffers,
               static_cast<double>(has->residentKiB) / 1024, call, configured, frame,
               canConnect ? "yes" : "no");
        fflush(stdout);
        return frame < 0 ? "no frame came after: " + what : std::string();
    }

    sp<IFDSession> greedy;
    sp<IFDSession> other;

private:
    /** Of the other client's pings in a quarter of a second. */
    double longestCall() const {
        double longest = 0;
        for (const auto end = Clock::now() + milliseconds(250); Clock::now() < end;) {
            const Clock::time_point start = Clock::now();
            if (!other->ping().isOk()) return -1;
            longest = std::max(longest, msSince(start));
        }
        return longest;
    }
    /** From the moment when the other client takes the session over to its first frame. */
    double msToFrame() const {
        StreamSettings settings = {};
        settings.frames = settings.buffers = 1;
        settings.size = kSize;
        const Clock::time_point start = Clock::now();
        StreamClient client(other, settings);
        std::string ignored;
        if (!client.start(ignored)) return -1;
        while (const std::optional<Answer> answer = client.next(seconds(5)))
            if (answer->outcome == Answer::Outcome::Filled) return msSince(start);
        return -1;
    }

    const std::unique_ptr<SoakProcess> mProvider;
};

// What the greedy client does. Each prints its row while that lasts.

std::string beAlone(Row& row) {
    return row.print("nothing");
}

std::string takeConnections(Row& row) {
    std::vector<sp<IFDSession>> taken;
    while (sp<IFDSession> one = row.connect())
        taken.push_back(std::move(one));
    return row.print("all connections");
}

/** Each id with memory of its own, of the largest size; the client keeps none of it open. */
std::string takeBuffers(Row& row, bool isFilled) {
    const kit::FrameSize size = isFilled ? kSize : kit::FrameSize{16384, 10922};
    row.feed("thread");
    if (!host::isAccepted(row.greedy->setCallback(new Slow(milliseconds(0)))) ||
        !host::isAccepted(row.greedy->configure(kit::configurationOf(size))))
        return "no stream";
    uint64_t taken = 0;
    const auto takesOne = [&] {
        const host::Buffer buffer = kit::allocate(size);
        if (isFilled) std::fill_n(buffer.bytes(), buffer.size(), uint8_t{1});
        const kit::CaptureRequest request = kit::requestFor(0, taken, buffer.handle());
        // Refused while too many are on their way, and for good when slots or memory run out.
        for (const auto end = Clock::now() + seconds(2); Clock::now() < end;) {
            if (host::isAccepted(row.greedy->processCaptureRequest(request))) return true;
            std::this_thread::sleep_for(milliseconds(1));
        }
        return false;
    };
    while (taken < host::kMaxBufferIds && takesOne())
        ++taken;
    row.greedy.clear();  // they stay when it has gone
    return row.print(std::to_string(taken) +
                     (isFilled ? " buffers of 450 KB, filled" : " buffers of 256 MB, empty"));
}

/** In a queue that nobody takes from. */
std::string takeQueue(Row& row) {
    row.feed("nobody");
    if (!row.configure()) return "no stream";
    const host::Buffer buffer = kit::allocate(kSize);
    kit::CaptureRequest request = kit::requestFor(0, 1, buffer.handle());
    request.settings.resize(65000);
    size_t taken = 0;
    while (host::isAccepted(row.greedy->processCaptureRequest(request)))
        ++taken;
    if (taken < host::kMaxRequestsOnTheWay) return "only " + std::to_string(taken) + " requests";
    return row.print("1,024 requests of 64 KB");
}

std::string takeMonitor(Row& row, milliseconds each, const char* what) {
    const sp<Slow> slow = new Slow(each);
    row.feed("thread");
    if (!host::isAccepted(row.greedy->setCallback(slow)) || !row.configure()) return "no stream";
    const host::Buffer buffer = kit::allocate(kSize);
    for (size_t i = 0; i < host::kMaxRequestsOnTheWay / 2; ++i)
        (void)row.greedy->processCaptureRequest(kit::requestFor(0, 1, buffer.handle())).isOk();
    while (!slow->isCalled())
        std::this_thread::yield();
    return row.print(what);
}

/** Requests on as many connections as it takes, whose answers it never reads. */
std::string takeProcessor(Row& row) {
    row.feed("thread");
    if (!row.configure()) return "no stream";
    const host::Buffer buffer = kit::allocate(kSize);
    std::atomic<bool> isOver{false};
    std::array<std::thread, 8> floods;
    for (size_t i = 0; i < floods.size(); ++i) {
        floods[i] = std::thread([&, i] {
            while (!isOver) {
                const host::UniqueFd connection = kit::rawSocket();
                if (!kit::connectRaw(connection.get(), row.socket())) continue;
                while (!isOver && sendCall(connection.get(), rawRequest(i, buffer.handle()))) {
                }
            }
        });
    }
    std::string fault = row.print("floods on 8 connections");
    isOver = true;
    for (std::thread& flood : floods)
        flood.join();
    return fault;
}

}  // namespace

std::string printShare() {
    rlimit slots = {};
    getrlimit(RLIMIT_NOFILE, &slots);
    slots.rlim_cur = slots.rlim_max;
    setrlimit(RLIMIT_NOFILE, &slots);
    printf(
        "                               the provider has                 another client\n"
        "one client takes               thr   fds   map   buf     MB  call conf. frame get in\n");
    const std::function<std::string(Row&)> ways[] = {
        beAlone,
        takeConnections,
        [](Row& row) { return takeBuffers(row, false); },
        [](Row& row) { return takeBuffers(row, true); },
        takeQueue,
        [](Row& row) { return takeMonitor(row, seconds(60), "a callback that never ends"); },
        [](Row& row) { return takeMonitor(row, milliseconds(900), "one that answers in 900 ms"); },
        takeProcessor};
    for (const auto& way : ways) {
        std::string problem;
        Row row(problem);
        if (problem.empty()) problem = row.isReady() ? way(row) : "no client can connect";
        if (!problem.empty()) return problem;
    }
    printf("Milliseconds: its longest call, its configuration, and from then to its frame.\n");
    return {};
}

}  // namespace tools
