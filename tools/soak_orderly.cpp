#include "soak_clients.h"

#include <android/hardware/camera/common/1.0/types.h>
#include <err.h>
#include <hidl/Status.h>
#include <unistd.h>
#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

#include "host/accepted.h"
#include "host/channel.h"
#include "records.h"
#include "soak_frames.h"
#include "stream_client.h"

namespace tools {

namespace {

using android::sp;
using android::hardware::hidl_vec;
using std::chrono::milliseconds;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

kit::FrameSize anySize(Random& random) {
    return kSoakSizes[random() % kSoakSizes.size()];
}

sp<IFDSession> connectTo(const std::string& socket) {
    std::string problem;  // a crowd, perhaps, or the end
    return host::connect<IFDSession>(socket, problem);
}

/** At once, so that it is there when the process is killed. */
void tell(char what) {
    if (write(STDOUT_FILENO, &what, 1) != 1) _exit(EXIT_FAILURE);
}

bool isUntouched(const kit::Frame& frame) {
    return std::all_of(frame.begin(), frame.end(), [](uint8_t b) { return b == kNotWritten; });
}

/** Until no frame is missing or the session is lost to another client. False for a wrong one. */
bool receive(StreamClient& client, const SoakFrames& frames, uint32_t& missing) {
    constexpr milliseconds kPatience(1200);
    while (missing > 0) {
        const std::optional<Answer> answer = client.next(kPatience);
        if (!answer) return true;
        switch (answer->outcome) {
            case Answer::Outcome::Filled:
                // Nobody fills a buffer when another client has configured another size, and the
                // test frame source does not say so.
                if (isUntouched(answer->frame)) {
                    tell('e');
                    break;
                }
                if (!frames.have(answer->frame)) {
                    warnx("frame %u is not what it has to be", answer->frameNumber);
                    return false;
                }
                tell('.');
                --missing;
                break;
            case Answer::Outcome::Failed:
            case Answer::Outcome::Refused:
                tell('e');
                break;
            case Answer::Outcome::Skipped:
            case Answer::Outcome::Stray:
            case Answer::Outcome::ForeignPicture:
            case Answer::Outcome::ForeignError:
                break;  // another client's, which this one has taken over from
        }
    }
    return true;
}

/** Lets what comes go by. */
class Ignoring : public IFDSessionCallback {
public:
    template <typename T>
    using Return = android::hardware::Return<T>;

    Return<void> processCaptureResult(
        const hidl_vec<android::hardware::camera::device::V3_2::CaptureResult>& /*results*/)
        override {
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }
};

}  // namespace

bool beOrderly(const std::string& socket, Random& random) {
    constexpr int kTries = 4;
    StreamSettings settings = {};
    settings.size = anySize(random);
    settings.buffers = pick(random, 1, 6);
    uint32_t missing = pick(random, 5, 60);
    const SoakFrames frames(settings.size);
    for (int i = 0; i < kTries && missing > 0; ++i) {
        const sp<IFDSession> session = connectTo(socket);
        if (session == nullptr) return true;
        settings.frames = missing;
        StreamClient client(session, settings);
        std::string problem;
        if (client.start(problem) && !receive(client, frames, missing)) return false;
        std::this_thread::sleep_for(milliseconds(pick(random, 5, 150)));
    }
    return true;
}

bool beChanging(const std::string& socket, Random& random) {
    const sp<IFDSession> session = connectTo(socket);
    if (session == nullptr) return true;
    std::vector<host::Buffer> buffers;  // until the end: frames may still be on their way
    uint64_t bufferId = uint64_t{random()} << 32;
    const sp<IFDSessionCallback> callback = new Ignoring;
    if (!host::isAccepted(session->setCallback(callback))) return true;
    for (uint32_t left = pick(random, 3, 40); left > 0; --left) {
        const kit::FrameSize size = anySize(random);
        const auto stream = static_cast<int32_t>(pick(random, 0, 3));
        if (!host::isAccepted(session->configure(kit::configurationOf(size, stream)))) return true;
        for (uint32_t number = pick(random, 1, 5); number > 0; --number) {
            buffers.push_back(kit::allocate(size));
            const auto answer = session->processCaptureRequest(
                kit::requestFor(number, ++bufferId, buffers.back().handle(), stream));
            if (!answer.isOk()) return true;
        }
        std::this_thread::sleep_for(milliseconds(pick(random, 0, 10)));
    }
    if (random() % 2 == 0) host::isAccepted(session->setCallback(nullptr));
    return true;
}

}  // namespace tools
