#include "roads.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "ZoruUtil.h"
#include "bench.h"
#include "child_process.h"
#include "host/accepted.h"
#include "host/channel.h"
#include "session.h"
#include "signals.h"
#include "temporary_folder.h"

namespace bench {

namespace {

/** In front of the provider's session: what a client did is told before it is answered. */
class ServedSession : public IFDSession {
public:
    explicit ServedSession(Served served)
        : mServed(std::move(served)), mSession(FDSession::getInstance()->getInterface()) {}

    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        Return<Status> answer = mSession->setCallback(callback);
        if (mServed.clientSet) mServed.clientSet(callback != nullptr);
        return answer;
    }
    Return<Status> configure(const StreamConfiguration& configuration) override {
        return mSession->configure(configuration);
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        Return<Status> answer = mSession->processCaptureRequest(request);
        if (mServed.accepted && host::isAccepted(answer)) mServed.accepted();
        return answer;
    }

private:
    const Served mServed;
    const sp<IFDSession> mSession;
};

/** The n-th frame goes to the n-th buffer, counted round and round. */
class Client {
public:
    Client(sp<IFDSession> session, const OurRoad& road)
        : mSession(std::move(session)), mAsking(road.asking), mLook(road.look) {
        if (road.isMarked) mExpected.emplace();
        while (mBuffers.size() < road.buffers)
            mBuffers.push_back(kit::allocate(road.size));
    }

    /** The time when the last one came. */
    Clock::time_point run(uint32_t frames) {
        const auto buffers = static_cast<uint32_t>(mBuffers.size());
        const uint32_t first = mWanted;
        mWanted += frames;
        // In the other case the callback goes on with the buffers that come back.
        const uint32_t own = mAsking == Asking::InRun ? frames : std::min(buffers, frames);
        for (uint32_t number = first; number < first + own; ++number) {
            if (number >= first + buffers) lookAt(number - buffers);
            ask(number);
        }
        const uint32_t left = mLook ? std::min(buffers, frames) : 0;
        for (uint32_t number = mWanted - left; number < mWanted; ++number)
            lookAt(number);
        return mArrivals.waitFor(mWanted);
    }

    void take(const CaptureResult& result) {
        const uint32_t number = result.frameNumber;
        const uint32_t next = number + static_cast<uint32_t>(mBuffers.size());
        const bool right = isFilled(result) && isExpected(number);
        if (right && mAsking == Asking::InCallback && next < mWanted) ask(next);
        mArrivals.add(right);
    }

private:
    void ask(uint32_t number) {
        const auto id = number % mBuffers.size();
        const bool isKnown = number >= mBuffers.size();
        const CaptureRequest request =
            kit::requestFor(number, id, isKnown ? nullptr : mBuffers[id].handle());
        if (!host::isAccepted(mSession->processCaptureRequest(request))) mArrivals.add(false);
    }
    void lookAt(uint32_t number) {
        mArrivals.waitFor(number + 1);
        const host::Buffer& buffer = mBuffers[number % mBuffers.size()];
        if (mLook) mLook(buffer.lumaRow(0), buffer.geometry().stride);
    }
    /** By every byte of a run's last frame, and by the marks of the others. */
    bool isExpected(uint32_t number) {
        const uint8_t* const packed = mBuffers[number % mBuffers.size()].bytes();
        return !mExpected || mExpected->isIn(packed, number, number + 1 == mWanted);
    }

    const sp<IFDSession> mSession;
    const Asking mAsking;
    const Look mLook;
    std::optional<MarkedFrame> mExpected;  // for the thread of the callback
    std::vector<host::Buffer> mBuffers;
    std::atomic<uint32_t> mWanted{0};
    Arrivals mArrivals;
};

class RoadWithProvider : public Road {
public:
    explicit RoadWithProvider(const OurRoad& road) {
        const std::string socket = mFolder / "session.sock";
        Arguments arguments = road.provider;
        arguments.push_back(socket);
        std::string problem;
        mProvider = kit::ChildProcess::start(thisProgram(), arguments, problem);
        expect(mProvider != nullptr && mProvider->nextLine(std::chrono::seconds(20)),
               "the provider does not start");
        mSession = host::connect<IFDSession>(socket, problem);
        expect(mSession != nullptr, problem.c_str());
        mClient = std::make_shared<Client>(mSession, road);
        const sp<IFDSessionCallback> callback = new ResultCallback(
            [client = mClient](const CaptureResult& result) { client->take(result); });
        expect(host::isAccepted(mSession->setCallback(callback)) &&
               host::isAccepted(mSession->configure(kit::configurationOf(road.size))));
    }
    ~RoadWithProvider() override {
        // A failure is of no interest: the provider may be gone.
        static_cast<void>(mSession->setCallback(nullptr).isOk());
        mProvider->signal(SIGTERM);  // so that it ends as programs do, and tools can report
        mProvider->waitForEnd(std::chrono::seconds(5));
    }

    pid_t provider() const override { return mProvider->id(); }
    void run(uint32_t frames) override { mClient->run(frames); }
    double latencyOfOne(Clock::time_point askAt) override {
        std::this_thread::sleep_until(askAt);
        const Clock::time_point start = Clock::now();
        return microsecondsOf(mClient->run(1) - start);
    }

private:
    const kit::TemporaryFolder mFolder;  // for the socket
    std::unique_ptr<kit::ChildProcess> mProvider;
    sp<IFDSession> mSession;
    std::shared_ptr<Client> mClient;  // shared with the callback, which a late call may be in
};

}  // namespace

int serveSession(const std::string& socket, Served served) {
    const kit::Signals signals({SIGTERM, SIGINT});
    std::string problem;
    const auto server = host::Server::listen(socket, new ServedSession(std::move(served)), problem);
    expect(server != nullptr, problem.c_str());
    printf("listening\n");
    fflush(stdout);
    signals.wait();
    return EXIT_SUCCESS;
}

int serveRoad(const Arguments& arguments) {
    const sp<FDSession> session = FDSession::getInstance();
    std::optional<MarkedFrame> frame;
    if (arguments.size() > 1) frame.emplace();
    const auto answer = [&] {
        CaptureRequest taken = {};
        if (session->getProcessCaptureRequest(taken) != 0) return;
        const auto buffer =
            frame ? session->getBufferForId(taken.outputBuffers[0].bufferId) : nullptr;
        if (buffer != nullptr) ZoruUtil::copyTo(frame->numbered(taken.frameNumber), buffer);
        session->sendCaptureResult(kit::resultFor(std::move(taken)));
    };
    return serveSession(arguments.back(), {{}, answer});
}

std::unique_ptr<Road> startOurRoad(uint32_t buffers, Asking asking, bool pictures) {
    OurRoad road = {{"provider"}, buffers, asking, kTiny};
    if (pictures) road = {{"provider", "pictures"}, buffers, asking, k720p, true};
    return startRoad(road);
}

std::unique_ptr<Road> startRoad(const OurRoad& road) {
    return std::make_unique<RoadWithProvider>(road);
}

}  // namespace bench
