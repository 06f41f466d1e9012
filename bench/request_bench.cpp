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

/** Queues a request for a known buffer and takes it; false when another one comes out. */
bool oneRequest(FDSessionImpl& session, const CaptureRequest& request, CaptureRequest& taken) {
    return session.handleCaptureRequest(request) == 0 &&
           session.getProcessCaptureRequest(taken) == 0 &&
           taken.frameNumber == request.frameNumber &&
           taken.outputBuffers[0].buffer.getNativeHandle() != nullptr;
}

void runOurs(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const OwnSession session;
    session->handleConfigure(streamOf(kTiny));
    CaptureRequest taken;
    bool right = oneRequest(*session, requestFor(0, kBufferId, frame.memory.handle()), taken);
    const CaptureRequest known = requestFor(1, kBufferId);
    for (auto _ : state)
        right = oneRequest(*session, known, taken) && right;
    if (!right) state.SkipWithError("a request did not come out");
}

/** Two look-ups, the copy of the buffer's record, the copy of the request with a duplicate of the
 * registered handle, and its way out.
 */
void runFloor(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    std::map<int32_t, std::map<uint64_t, buffer_handle_t>> registry;
    registry[0][kBufferId] = frame.memory.handle();
    CaptureRequest taken;
    const CaptureRequest known = requestFor(1, kBufferId);
    for (auto _ : state) {
        const StreamBuffer buffer = known.outputBuffers[0];
        const android::hardware::hidl_handle handle(
            registry.find(buffer.streamId)->second.find(buffer.bufferId)->second);
        CaptureRequest copy = known;
        copy.outputBuffers[0].buffer = handle;
        taken = std::move(copy);
        benchmark::DoNotOptimize(taken.outputBuffers.data());
    }
}

}  // namespace

void benchRequest(Figures& figures, const Effort& effort) {
    compare(figures, effort, "request", "known buffer, queued and taken", {"ours", runOurs},
            {{"look-ups and copies alone", runFloor, 1.3}});
}

}  // namespace bench
