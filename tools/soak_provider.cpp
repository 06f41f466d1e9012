// The provider of a soak, in a process of its own: serves the session at SOCKET, writes a clip into
// its working directory, does what it reads on standard input, a line at a time, and answers each
// line with one.
//
//   feed thread|file|both|nobody   who takes the requests from now on
//   flip true|false                whether frames are turned
//   look                           how many buffers are imported
//   end                            in order

#include <android/log.h>
#include <err.h>
#include <malloc.h>
#include <system/graphics.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FDSession.h"
#include "TestInput.h"
#include "ZoruUtil.h"
#include "frame_source.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/mapper.h"
#include "host/properties.h"
#include "records.h"
#include "run_program.h"
#include "signals.h"
#include "soak_frames.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

using Frames = std::vector<kit::Frame>;

/** A camera provider's thread: fills each request's buffer at once, for the scope of this object.
 */
class Feeder {
public:
    explicit Feeder(Frames& frames) : mFrames(frames), mThread([this] { feed(); }) {}
    ~Feeder() {
        mEnd = true;
        mThread.join();
    }
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

private:
    void feed() {
        constexpr useconds_t kPauseUs = 200;
        while (!mEnd) {
            CaptureRequest request = {};
            if (mSession->getProcessCaptureRequest(request) == 0) {
                serve(std::move(request));
            } else {
                usleep(kPauseUs);
            }
        }
    }

    void serve(CaptureRequest&& request) {
        constexpr uint32_t kNotifyEach = 16;
        const uint32_t number = request.frameNumber;
        CaptureResult result = kit::resultFor(std::move(request));
        const bool filled = fill(result.outputBuffers[0], number);
        result.outputBuffers[0].status = filled ? BufferStatus::OK : BufferStatus::ERROR;
        if (number % kNotifyEach == 0) {
            FDNotifyMsg msg = {};
            msg.frameNumber = number;
            mSession->sendNotify(msg);
        }
        mSession->sendCaptureResult(result);
    }

    bool fill(const StreamBuffer& to, uint32_t number) {
        // Both ways that a provider has to a client's buffer.
        sp<GraphicBuffer> buffer;
        if (number % 2 == 0) buffer = mSession->getBufferForId(to.bufferId);
        if (buffer == nullptr) buffer = wrap(to);
        if (buffer == nullptr || buffer->initCheck() != 0) return false;
        // Clients choose the size, and a larger one than the clip's is not filled.
        if (buffer->getWidth() > kit::kFrameWidth || buffer->getHeight() > kit::kFrameHeight)
            return false;
        return ZoruUtil::copyTo(mFrames[number % tools::kSoakFrames].data(), buffer) == 0;
    }

    sp<GraphicBuffer> wrap(const StreamBuffer& from) const {
        StreamConfiguration configuration = {};
        if (mSession->getConfiguration(configuration) != 0) return nullptr;
        const auto& stream = configuration.streams[0];
        return new GraphicBuffer(from.buffer, GraphicBuffer::CLONE_HANDLE, stream.width,
                                 stream.height, HAL_PIXEL_FORMAT_YCBCR_420_888, 1, stream.usage,
                                 stream.width);
    }

    const sp<FDSession> mSession = FDSession::getInstance();
    Frames& mFrames;
    std::atomic<bool> mEnd{false};
    std::thread mThread;  // last, because it uses the others
};

/** Whoever takes the requests. */
class Feeding {
public:
    explicit Feeding(Frames& frames) : mFrames(frames) {}

    void by(const std::string& whom) {
        const bool thread = whom == "thread" || whom == "both";
        const bool file = whom == "file" || whom == "both";
        if (!thread) mThread.reset();
        if (!file) mFile.reset();
        if (thread && !mThread) mThread.emplace(mFrames);
        if (file && !mFile) mFile.emplace();
    }

private:
    Frames& mFrames;
    std::optional<Feeder> mThread;
    std::optional<tools::FrameSource> mFile;
};

Frames makeFrames() {
    Frames frames;
    for (uint32_t number = 0; number < tools::kSoakFrames; ++number)
        frames.push_back(tools::soakFrame(kit::kClipSize, number));
    return frames;
}

/** Where the test frame source looks for it: in the working directory. */
bool writeClip(const Frames& frames) {
    FILE* const file = fopen(kTestInput, "wbe");
    if (file == nullptr) return false;
    bool written = true;
    for (const kit::Frame& frame : frames)
        written &= fwrite(frame.data(), 1, frame.size(), file) == frame.size();
    return fclose(file) == 0 && written;
}

std::string answerTo(const std::string& command, Feeding& feeding) {
    const size_t space = command.find(' ');
    const std::string verb = command.substr(0, space);
    const std::string object = space == std::string::npos ? "" : command.substr(space + 1);
    if (verb == "look") {
        malloc_trim(0);  // what is kept for later is nobody's, and comes to more or less each time
        const host::MapperCounters counters = host::mapperCounters();
        return std::to_string(counters.imports - counters.frees);
    }
    if (verb == "feed") feeding.by(object);
    if (verb == "flip") host::setProperty("vendor.zoru.flipped", object);
    return "done";
}

int run(int argc, char** argv) {
    if (argc != 2) errx(2, "the socket's path is missing");
    host::setStderrLogPriority(ANDROID_LOG_SILENT);  // hostile clients cost a line each
    Frames frames = makeFrames();
    if (!writeClip(frames)) err(2, "the clip cannot be written");

    std::string problem;
    const std::unique_ptr<host::Server> server =
        host::Server::listen(argv[1], FDSession::getInstance()->getInterface(), problem);
    if (server == nullptr) errx(2, "%s", problem.c_str());
    Feeding feeding(frames);
    std::cout << "listening" << std::endl;
    for (std::string command; std::getline(std::cin, command) && command != "end";)
        std::cout << answerTo(command, feeding) << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Of several arenas each would keep its own peak, which cannot be told from a leak.
    mallopt(M_ARENA_MAX, 1);
    kit::openStandardStreams();
    return kit::runProgram(run, argc, argv, 2);
}
