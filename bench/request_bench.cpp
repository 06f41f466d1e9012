// A request from the client to the provider, against the work that nobody can leave out of it.

#include <cstdint>
#include <map>
#include <utility>

#include "benches.h"
#include "frames.h"
#include "pieces.h"
#include "records.h"

namespace bench {

namespace {

constexpr uint64_t kBufferId = 7;

/** Whether this came of that request, with a duplicate of the handle that was sent for its buffer.
 */
bool isOf(const CaptureRequest& taken, const CaptureRequest& request, const native_handle_t* sent) {
    const native_handle_t* const handle = taken.outputBuffers[0].buffer.getNativeHandle();
    return taken.frameNumber == request.frameNumber && handle != nullptr && handle != sent;
}

void runOurs(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const native_handle_t* const sent = frame.memory.handle();
    const OwnSession session;
    session->handleConfigure(streamOf(kTiny));
    CaptureRequest taken;
    const auto goesThrough = [&](const CaptureRequest& request) {
        return session->handleCaptureRequest(request) == 0 &&
               session->getProcessCaptureRequest(taken) == 0 && isOf(taken, request, sent);
    };
    bool right = goesThrough(requestFor(0, kBufferId, sent));
    const CaptureRequest known = requestFor(1, kBufferId);
    for (auto _ : state)
        right = goesThrough(known) && right;
    if (!right) state.SkipWithError("a request did not come out");
}

/** Two look-ups, the copy of the buffer's record, the copy of the request with a duplicate of the
 * registered handle, and its way out.
 */
void runFloor(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const native_handle_t* const sent = frame.memory.handle();
    std::map<int32_t, std::map<uint64_t, buffer_handle_t>> registry;
    registry[0][kBufferId] = sent;
    CaptureRequest taken;
    const CaptureRequest known = requestFor(1, kBufferId);
    bool right = true;
    for (auto _ : state) {
        const StreamBuffer buffer = known.outputBuffers[0];
        const android::hardware::hidl_handle handle(
            registry.find(buffer.streamId)->second.find(buffer.bufferId)->second);
        CaptureRequest copy = known;
        copy.outputBuffers[0].buffer = handle;
        taken = std::move(copy);
        right = isOf(taken, known, sent) && right;
    }
    if (!right) state.SkipWithError("a request did not come out");
}

}  // namespace

void benchRequest(Figures& figures, const Effort& effort) {
    compare(figures, effort, "request", "known buffer, queued and taken", {"ours", runOurs},
            {{"look-ups and copies alone", runFloor, 1.3}});
}

}  // namespace bench
