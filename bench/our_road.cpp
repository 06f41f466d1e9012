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

/** In front of the provider's session: what it accepts is served before the client is answered. */
class ServingSession : public IFDSession {
public:
    ServingSession(sp<FDSession> session, bool pictures)
        : mSession(std::move(session)), mInterface(mSession->getInterface()) {
        if (pictures) mFrame.emplace();
    }

    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        return mInterface->setCallback(callback);
    }
    Return<Status> configure(const StreamConfiguration& configuration) override {
        return mInterface->configure(configuration);
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        Return<Status> answer = mInterface->processCaptureRequest(request);
        CaptureRequest taken = {};
        if (host::isAccepted(answer) && mSession->getProcessCaptureRequest(taken) == 0) {
            if (mFrame) fill(taken);
            mSession->sendCaptureResult(kit::resultFor(std::move(taken)));
        }
        return answer;
    }

private:
    void fill(const CaptureRequest& request) {
        const auto buffer = mSession->getBufferForId(request.outputBuffers[0].bufferId);
        if (buffer != nullptr) ZoruUtil::copyTo(mFrame->numbered(request.frameNumber), buffer);
    }

    const sp<FDSession> mSession;
    const sp<IFDSession> mInterface;
    std::optional<MarkedFrame> mFrame;  // for the one client's thread
};

/** The n-th frame goes to the n-th buffer, counted round and round. */
class Client {
public:
    Client(sp<IFDSession> session, uint32_t buffers, Asking asking, bool pictures)
        : mSession(std::move(session)), mAsking(asking) {
        if (pictures) mExpected.emplace();
        while (mBuffers.size() < buffers)
            mBuffers.push_back(kit::allocate(pictures ? k720p : kTiny));
    }

    /** The time when the last one came. */
    Clock::time_point run(uint32_t frames) {
        const auto buffers = static_cast<uint32_t>(mBuffers.size());
        const uint32_t first = mWanted;
        mWanted += frames;
        // In the other case the callback goes on with the buffers that come back.
        const uint32_t own = mAsking == Asking::InRun ? frames : std::min(buffers, frames);
        for (uint32_t number = first; number < first + own; ++number) {
            if (number >= buffers) mArrivals.waitFor(number + 1 - buffers);
            ask(number);
        }
        return mArrivals.waitFor(first + frames);
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
    /** By every byte of a run's last frame, and by the marks of the others. */
    bool isExpected(uint32_t number) {
        const uint8_t* const packed = mBuffers[number % mBuffers.size()].bytes();
        return !mExpected || mExpected->isIn(packed, number, number + 1 == mWanted);
    }

    const sp<IFDSession> mSession;
    const Asking mAsking;
    std::optional<MarkedFrame> mExpected;  // for the thread of the callback
    std::vector<host::Buffer> mBuffers;
    std::atomic<uint32_t> mWanted{0};
    Arrivals mArrivals;
};

class OurRoad : public Road {
public:
    OurRoad(uint32_t buffers, Asking asking, bool pictures) {
        const std::string socket = mFolder / "session.sock";
        Arguments arguments = {"provider", socket};
        if (pictures) arguments.emplace_back("pictures");
        std::string problem;
        mProvider = kit::ChildProcess::start(thisProgram(), arguments, problem);
        expect(mProvider != nullptr && mProvider->nextLine(std::chrono::seconds(20)),
               "the provider does not start");
        mSession = host::connect<IFDSession>(socket, problem);
        expect(mSession != nullptr, problem.c_str());
        mClient = std::make_shared<Client>(mSession, buffers, asking, pictures);
        const sp<IFDSessionCallback> callback = new ResultCallback(
            [client = mClient](const CaptureResult& result) { client->take(result); });
        expect(
            host::isAccepted(mSession->setCallback(callback)) &&
            host::isAccepted(mSession->configure(kit::configurationOf(pictures ? k720p : kTiny))));
        mClient->run(buffers);
    }
    ~OurRoad() override {
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

int serveRoad(const Arguments& arguments) {
    const kit::Signals signals({SIGTERM, SIGINT});
    std::string problem;
    const auto server = host::Server::listen(
        arguments.at(0), new ServingSession(FDSession::getInstance(), arguments.size() > 1),
        problem);
    expect(server != nullptr, problem.c_str());
    printf("listening\n");
    fflush(stdout);
    signals.wait();
    return EXIT_SUCCESS;
}

std::unique_ptr<Road> startOurRoad(uint32_t buffers, Asking asking, bool pictures) {
    return std::make_unique<OurRoad>(buffers, asking, pictures);
}

}  // namespace bench
