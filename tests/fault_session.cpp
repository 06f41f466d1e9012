// A client's life with a session, first with a fault on the provider's side, then without: the same
// client again, unless its channel was given up, and another one.

#include <android/log.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "FDSession.h"
#include "FDSessionTest.h"
#include "ZoruUtil.h"
#include "fault_answers.h"
#include "fault_scenarios.h"
#include "frame.h"
#include "holdings.h"
#include "host/accepted.h"
#include "host/channel.h"
#include "host/limits.h"
#include "host/mapper.h"
#include "host/properties.h"
#include "records.h"
#include "support/log_lines.h"
#include "support/spy_mapper.h"
#include "temporary_folder.h"

namespace faults {

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_handle;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::BufferStatus;
using testing_support::LogLines;
using testing_support::SpyMapper2;
using testing_support::SpyMapper3;

enum class Told { YES, NO, LOST };

constexpr kit::FrameSize kSize = {64, 32};
constexpr std::chrono::seconds kPatience(10);
constexpr const char* kClip = "fd_stream_subst_nv12.yuv";
constexpr const char* kNotDelivered = "processCaptureResult transaction failed";

template <typename Condition>
bool waitUntil(Condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

class Run {
public:
    Run(Road road, Effect effect) : mRoad(road), mEffect(effect) {
        host::setProperty("vendor.zoru.flipped", road == Road::SOURCE ? "false" : "true");
        asProvider([this] { mSession = FDSession::getInstance(); });
        if (road != Road::SOURCE) return;
        std::filesystem::current_path(mFolder.path());
        std::ofstream(kClip).write(reinterpret_cast<const char*>(mFrame.data()),
                                   static_cast<std::streamsize>(mFrame.size()));
        std::filesystem::resize_file(kClip, kit::kFrameBytes);
    }

    void go(const Fault& fault, int n) {
        const kit::Holdings before = kit::Holdings::of();
        arm(fault, n);
        serve();
        live(mEffect == Effect::NONE);
        heal();
        if (mClient != nullptr && mEffect <= Effect::REFUSAL && !mClient->ping().isOk())
            fail("the channel was given up");
        serve();
        live(true);
        mClient.clear();
        live(true);
        end();
        kit::Holdings after;
        if (!waitUntil([&] { return (after = kit::Holdings::of()) == before; }))
            fail(after.differenceFrom(before).c_str());
    }

private:
    /** Begins to serve, where it does not yet. */
    void serve() {
        const std::string path = mFolder / "socket";
        std::string problem;
        if (mRoad == Road::SOCKET && mServer == nullptr) {
            asProvider([&]() noexcept {
                mServer = host::Server::listen(path, mSession->getInterface(), problem);
            });
            if (mServer == nullptr && problem.empty()) fail("it says not why it does not serve");
        }
        if (mRoad == Road::SOURCE &&
            (mSource == nullptr || !mSource->isRunning() || errors("pBuffer") > 0)) {
            endSource();
            letPausesEnd(false);
            // The object's own memory is asked for here, and not by the library.
            // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new)
            asProvider([&]() noexcept { mSource = new FDSessionTest; });
            letPausesEnd(true);
        }
        if (mRoad != Road::SOURCE && !mProvider.joinable())
            mProvider = std::thread([this] { asProvider([this] { provide(); }); });
    }

    void end() {
        mClient.clear();
        mAnswers.clear();
        mServer.reset();
        mEnd = true;
        if (mProvider.joinable()) mProvider.join();
        endSource();
        mSession->getInterface()->configure(kit::configurationOf(kSize)).isOk();
    }

    void endSource() {
        if (mSource == nullptr) return;
        mSource->requestExit();
        mSource->join();
        // Without a thread it keeps itself, for good.
        if (errors("the object stays") > 0) mSource->decStrong(this);
        mSource.clear();
        mLog.clear();
    }

    /** Fills what the client asks for. */
    void provide() {
        while (!mEnd) {
            CaptureRequest request = {};
            if (mSession->getProcessCaptureRequest(request) != 0) {
                usleep(0);
                continue;
            }
            FDNotifyMsg msg = {};
            mSession->sendNotify(msg);
            // Null when a client has configured anew meanwhile.
            const auto buffer = mSession->getBufferForId(request.outputBuffers[0].bufferId);
            const bool isFilled = buffer != nullptr && ZoruUtil::copyTo(mFrame.data(), buffer) == 0;
            auto input = std::move(request.inputBuffer);
            CaptureResult result = kit::resultFor(std::move(request));
            result.inputBuffer = std::move(input);
            result.outputBuffers[0].status = isFilled ? BufferStatus::OK : BufferStatus::ERROR;
            mSession->sendCaptureResult(result);
        }
    }

    /** Connects if need be, sets up, gets frames, reconfigures, and goes. */
    void live(bool wantsAll) {
        if (mRoad == Road::SOURCE && !mSource->isRunning()) return;  // no thread could be made
        std::string problem;
        if (mClient == nullptr || (wantsAll && !mClient->ping().isOk())) {
            mClient = mRoad == Road::SOCKET ? host::connect<IFDSession>(mFolder / "socket", problem)
                                            : mSession->getInterface();
        }
        if (mClient == nullptr) {
            if (wantsAll) fail(problem.c_str());
            return;
        }
        mAnswers = new Answers(mNextId);
        if (call(wantsAll, [&] { return mClient->setCallback(mAnswers); }) != Told::YES) return;
        for (int configuration = 0; configuration < 2; ++configuration) {
            const auto streams = kit::configurationOf(kSize);
            if (call(wantsAll, [&] { return mClient->configure(streams); }) != Told::YES) return;
            for (int i = 0; i < 2; ++i) {
                const uint64_t id = mNextId++;
                const host::Buffer buffer = kit::allocate(kSize);
                const Told told = ask(wantsAll, id, buffer, buffer.handle());
                if (told == Told::LOST) return;
                const bool isKnown = told == Told::YES;
                const Told again = ask(wantsAll && isKnown, id, buffer, nullptr);
                if (again == Told::LOST) return;
                if (again == Told::YES && !isKnown)
                    fail("a buffer stays known of a request that was refused");
            }
        }
        call(wantsAll, [&] { return mClient->setCallback(nullptr); });
    }

    /** A request and its frame. */
    Told ask(bool wantsAll, uint64_t id, const host::Buffer& buffer,
             const native_handle_t* handle) {
        std::fill_n(buffer.bytes(), buffer.size(), uint8_t{0});
        CaptureRequest request = kit::requestFor(1, id, handle);
        request.outputBuffers[0].acquireFence = mFence;
        request.outputBuffers[0].releaseFence = mFence;
        request.inputBuffer.streamId = kInput;
        request.inputBuffer.acquireFence = mFence;
        const int before = mAnswers->came;
        const auto said = mRoad == Road::SOURCE ? 0 : errors();
        const auto lost = errors(kNotDelivered);
        const Told told = call(wantsAll, [&] { return mClient->processCaptureRequest(request); });
        if (told != Told::YES) return told;
        if (!waitUntil([&] { return mAnswers->came > before || errors(kNotDelivered) > lost; }))
            fail("neither a frame nor a word of it");
        const bool hasCome = mAnswers->came > before;
        const bool isRight = hasCome && mAnswers->wasFilled &&
                             kit::packed(buffer) ==
                                 (mRoad == Road::SOURCE ? mFrame : kit::turnedBy180(mFrame, kSize));
        if (isRight) return Told::YES;
        if (wantsAll) fail("the frame is not right");
        if (errors() == said && !(hasCome && !mAnswers->wasFilled))
            fail("the frame is wrong, and nobody was told");
        return mEffect == Effect::LOSS ? Told::LOST : Told::YES;
    }

    /** What becomes of a call; what refuses it says why. */
    template <typename Call>
    Told call(bool wantsAll, Call call) {
        const auto start = std::chrono::steady_clock::now();
        const auto said = errors();
        Return<Status> answer;
        const auto make = [&] { answer = call(); };
        mRoad == Road::SOCKET ? make() : asProvider(make);
        if (std::chrono::steady_clock::now() - start > host::kCallPatience + kPatience / 2)
            fail("a call took too long");
        if (host::isAccepted(answer)) return Told::YES;
        const std::string why = answer.description();
        if (wantsAll) fail(("not accepted: " + why).c_str());
        if (answer.isOk() && errors() == said) fail("a refusal, and nobody was told why");
        if (mEffect < Effect::SILENCE && why.find("no answer within") != std::string::npos)
            fail("no answer");
        if (answer.isOk() || mClient->ping().isOk()) return Told::NO;
        return Told::LOST;
    }

    /** How many lines at ERROR have this in them. */
    int64_t errors(const std::string& part = "") const {
        const auto lines = mLog.lines();
        return std::count_if(lines.begin(), lines.end(), [&](const host::LogLine& line) {
            return line.priority == ANDROID_LOG_ERROR && line.text.find(part) != std::string::npos;
        });
    }

    static hidl_handle fence() {
        native_handle_t* const handle = native_handle_create(2, 0);
        for (int i = 0; i < 2; ++i)
            handle->data[i] = eventfd(0, EFD_CLOEXEC);
        hidl_handle owned;
        owned.setTo(handle, true);
        return owned;
    }

    const Road mRoad;
    const Effect mEffect;
    const kit::TemporaryFolder mFolder;
    kit::Frame mFrame = kit::patternOf(kSize);
    uint64_t mNextId = 1;
    const hidl_handle mFence = fence();
    LogLines mLog;
    sp<FDSession> mSession;
    std::unique_ptr<host::Server> mServer;
    sp<FDSessionTest> mSource;
    std::atomic<bool> mEnd{false};
    std::thread mProvider;
    sp<IFDSession> mClient;
    sp<Answers> mAnswers;
};

template <typename Spy, typename Mapper>
sp<Spy> faulty(const sp<Mapper>& real) {
    sp<Spy> spy = new Spy(real);
    spy->fault = [] { return errorOf("mapper"); };
    return spy;
}

}  // namespace

void runSession(Road road, bool isOldMapper, const Fault& fault, int n, Effect effect) {
    const host::ScopedMapper mappers(
        isOldMapper ? nullptr : faulty<SpyMapper3>(host::realMapper3()),
        faulty<SpyMapper2>(host::realMapper2()));
    Run(road, effect).go(fault, n);
}

}  // namespace faults
