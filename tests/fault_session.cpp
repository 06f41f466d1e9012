// A client's life with a session, first with a fault on the provider's side, then without: the same
// client again, unless its channel was given up, and another one.

#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "FDSessionTest.h"
#include "TestInput.h"
#include "YUVFile.h"
#include "holdings.h"
#include "host/accepted.h"
#include "host/channel.h"
#include "host/properties.h"
#include "host/threads.h"
#include "support/faults.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "temporary_folder.h"

namespace faults {

namespace {

using namespace testing_support;  // NOLINT
using android::hardware::camera::common::V1_0::Status;

/** The client's channel is gone. */
struct Lost {};

constexpr kit::FrameSize kSize = {64, 32};
constexpr const char* kNotDelivered = "processCaptureResult transaction failed";

/** Remembers what a client is told of the newest request that has an answer. */
struct Answers : public IFDSessionCallback {
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        const auto& output = results[0].outputBuffers[0];
        wasFilled = output.status == BufferStatus::OK;
        if (wasFilled && (output.buffer == nullptr || output.acquireFence == nullptr))
            fail("a filled frame lacks a handle");
        frameNumber = results[0].frameNumber;
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }

    std::atomic<bool> wasFilled{false};
    std::atomic<uint32_t> frameNumber{0};
};

class Run {
public:
    explicit Run(Effect effect) : mEffect(effect) {
        host::setProperty("vendor.zoru.flipped", "true");
        asProvider([this] { mSession = FDSession::getInstance(); });
        std::filesystem::current_path(mFolder.path());
        std::ofstream(kTestInput) << std::string(mFrame.begin(), mFrame.end());
        std::filesystem::resize_file(kTestInput, kit::kFrameBytes);
    }

    void go() {
        const kit::Holdings before = kit::Holdings::of();
        isArmed = true;
        serve();
        live(mEffect == Effect::NONE);
        isArmed = false;
        if (mClient != nullptr && mEffect <= Effect::REFUSAL && !mClient->ping().isOk())
            fail("the channel was given up");
        serve();
        live(true);
        mClient.clear();
        live(true);
        mClient.clear();
        mAnswers.clear();
        mServer.reset();
        mKept.reset();
        mSource->decStrong(this);
        mSession->getInterface()->configure(kit::configurationOf(kSize)).isOk();
        if (!eventually([&] { return kit::Holdings::of() == before; }))
            fail(kit::Holdings::of().differenceFrom(before));
    }

private:
    /** Begins to serve and to fill, where it does not yet, or cannot. */
    void serve() {
        std::string problem;
        if (mServer == nullptr) {
            asProvider([&]() noexcept {
                mServer = host::Server::listen(mSocket, mSession->getInterface(), problem);
            });
            if (mServer == nullptr && problem.empty()) fail("it says not why it does not serve");
        }
        if (mSource != nullptr && errors("pBuffer") == 0) return;
        if (mSource != nullptr) mSource->decStrong(this);  // without a thread it keeps itself
        mLog.clear();
        // Its passes are made here. Its own memory is asked for here, too, and not by the library.
        host::failNextThreadStart();
        // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new)
        asProvider([this]() noexcept { mSource = new FDSessionTest; });
    }

    /** Connects if need be, sets up, gets frames, reconfigures, and goes. */
    void live(bool wantsAll) try {
        mWantsAll = wantsAll;
        std::string problem;
        if (mClient == nullptr || (wantsAll && !mClient->ping().isOk()))
            mClient = host::connect<IFDSession>(mSocket, problem);
        if (mClient == nullptr && wantsAll) fail(problem);
        if (mClient == nullptr) return;
        mAnswers = new Answers;
        if (!call([&] { return mClient->setCallback(mAnswers); })) return;
        const auto streams = kit::configurationOf(kSize);
        for (int configuration = 0; configuration < 2; ++configuration) {
            if (!call([&] { return mClient->configure(streams); })) return;
            for (int i = 0; i < 2; ++i) {
                const host::Buffer buffer = kit::allocate(kSize);
                ++mId;
                const bool isKnown = ask(buffer, buffer.handle());
                if (ask(buffer, nullptr) && !isKnown)
                    fail("a buffer stays known of a request that was refused");
            }
        }
        // Writes a frame into a file, as a provider may, or is told why not.
        const host::Buffer last = kit::allocate(kSize);
        const auto said = errors();
        int written = 0;
        asProvider([&] {
            written = mKept->putFrame(const_cast<native_handle_t*>(last.handle()));  // NOLINT
            YUVFile("zeros", 2, 2).putFrame();  // of a memory that may be missing
        });
        if (written != static_cast<int>(kSize.bytes()) && (mWantsAll || errors() == said))
            fail("a frame is not written, or nobody is told why");
        call([&] { return mClient->setCallback(nullptr); });
    } catch (const Lost&) {
    }

    /** Whether a request is accepted; it then has a frame, or a word of it. */
    bool ask(const host::Buffer& buffer, const native_handle_t* handle) {
        std::fill_n(buffer.bytes(), buffer.size(), uint8_t{0});
        CaptureRequest request = requestFor(++mNumber, mId, handle);
        request.inputBuffer.streamId = 7;
        native_handle_t* const fence = native_handle_create(2, 0);
        std::generate_n(fence->data, 2, [] { return eventfd(0, EFD_CLOEXEC); });
        request.outputBuffers[0].acquireFence.setTo(fence, true);
        request.inputBuffer.releaseFence = request.outputBuffers[0].acquireFence;
        const auto said = errors() - errors("pBuffer");  // which is said once for all frames
        const auto lost = errors(kNotDelivered);
        if (!call([&] { return mClient->processCaptureRequest(request); })) return false;
        const auto isAnswered = [&] { return mAnswers->frameNumber == mNumber; };
        const auto isOver = [&] {
            asProvider([this] {
                FDNotifyMsg msg = {};
                if (mSession->isCaptureRequestReady()) mSession->sendNotify(msg);
                mSource->threadLoop();
            });
            return isAnswered() || errors(kNotDelivered) > lost;
        };
        if (!eventually(isOver)) fail("neither a frame nor a word of it");
        const bool wasFilled = isAnswered() && mAnswers->wasFilled;
        if (wasFilled && kit::packed(buffer) == mTurned) return true;
        if (mWantsAll) fail("the frame is not right");
        if (errors() == said && (wasFilled || !isAnswered()))
            fail("the frame is wrong, and nobody was told");
        if (mEffect == Effect::LOSS) throw Lost{};
        return true;
    }

    /** Whether a call is accepted; what refuses it says why. */
    bool call(const std::function<Return<Status>()>& operation) {
        const auto said = errors();
        const Return<Status> answer = operation();
        if (host::isAccepted(answer)) return true;
        const std::string why = answer.description();
        if (mWantsAll) fail("not accepted: " + why);
        if (answer.isOk() && errors() == said) fail("a refusal, and nobody was told why");
        if (mEffect < Effect::SILENCE && why.find("no answer within") != std::string::npos)
            fail("no answer");
        if (!answer.isOk() && !mClient->ping().isOk()) throw Lost{};
        return false;
    }

    /** How many lines have this in them, or are at ERROR. */
    int64_t errors(const std::string& part = "E ") const { return mLog.linesWith(part); }

    const Effect mEffect;
    const kit::TemporaryFolder mFolder;
    const std::string mSocket = mFolder / "socket";
    const kit::Frame mFrame = kit::patternOf(kSize);
    const kit::Frame mTurned = kit::turnedBy180(mFrame, kSize);
    // The same one when the disk has room again.
    std::optional<YUVFile> mKept{std::in_place, "kept", kSize.width, kSize.height};
    uint64_t mId = 0;
    uint32_t mNumber = 0;
    bool mWantsAll = false;
    LogLines mLog;
    sp<FDSession> mSession;
    std::unique_ptr<host::Server> mServer;
    FDSessionTest* mSource = nullptr;
    sp<IFDSession> mClient;
    sp<Answers> mAnswers;
};

}  // namespace

void runSession(Effect effect) {
    const sp<SpyMapper3> mapper = new SpyMapper3(host::realMapper3());
    mapper->fault = [] { return errorOf("mapper"); };
    const host::ScopedMapper scope(mapper, host::realMapper2());
    Run(effect).go();
}

}  // namespace faults
