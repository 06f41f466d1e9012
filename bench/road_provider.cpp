#include "road_provider.h"

#include <android/log.h>
#include <err.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "ZoruUtil.h"
#include "default_socket.h"
#include "host/channel.h"
#include "host/log.h"
#include "marked_frame.h"
#include "records.h"
#include "signals.h"

namespace bench {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

/** In front of the session: what it accepts is served before the client has its answer. */
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
        if (answer.isOk() && static_cast<Status>(answer) == Status::OK) serveOne();
        return answer;
    }

private:
    void serveOne() {
        CaptureRequest taken = {};
        if (mSession->getProcessCaptureRequest(taken) != 0) return;
        if (mFrame) fill(taken);
        mSession->sendCaptureResult(resultFor(std::move(taken)));
    }

    void fill(const CaptureRequest& request) {
        const sp<GraphicBuffer> buffer =
            mSession->getBufferForId(request.outputBuffers[0].bufferId);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (buffer != nullptr) ZoruUtil::copyTo(mFrame->numbered(request.frameNumber), buffer);
    }

    const sp<FDSession> mSession;
    const sp<IFDSession> mInterface;
    std::mutex mMutex;
    std::optional<MarkedFrame> mFrame;  // guarded by mMutex, but for whether there is one
};

}  // namespace

RoadProvider::RoadProvider(std::string socket, std::unique_ptr<kit::ChildProcess> child)
    : mSocket(std::move(socket)), mChild(std::move(child)) {}

RoadProvider::~RoadProvider() {
    mChild->signal(SIGTERM);  // so that it removes its socket
    mChild->waitForEnd(std::chrono::seconds(5));
}

std::unique_ptr<RoadProvider> RoadProvider::start(bool pictures, std::string& problem) {
    const auto folder = kit::privateFolder(problem);
    if (!folder) return nullptr;
    const std::string socket = *folder / ("bench-" + std::to_string(getpid()) + ".sock");
    std::vector<std::string> arguments = {"provider", socket};
    if (pictures) arguments.emplace_back("--pictures");
    auto child = kit::ChildProcess::start(std::filesystem::read_symlink("/proc/self/exe"),
                                          arguments, problem);
    if (child == nullptr) return nullptr;
    if (!child->nextLine(std::chrono::seconds(20))) {
        problem = "the provider does not start";
        return nullptr;
    }
    return std::unique_ptr<RoadProvider>(new RoadProvider(socket, std::move(child)));
}

int serveRoad(const std::string& socket, bool pictures) {
    const kit::Signals signals({SIGTERM, SIGINT});
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    std::string problem;
    const auto server = host::Server::listen(
        socket, new ServingSession(FDSession::getInstance(), pictures), problem);
    if (server == nullptr) errx(EXIT_FAILURE, "%s", problem.c_str());
    printf("listening\n");
    fflush(stdout);
    signals.wait();
    return EXIT_SUCCESS;
}

}  // namespace bench
