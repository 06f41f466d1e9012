// A request from the client to the provider, against the work that nobody can leave out of it.

#include <sys/stat.h>

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

const native_handle_t* handleOf(const CaptureRequest& request) {
    return request.outputBuffers[0].buffer.getNativeHandle();
}

bool isOf(const CaptureRequest& taken, const CaptureRequest& request) {
    return taken.frameNumber == request.frameNumber && handleOf(taken) != nullptr;
}

/** Whether two requests that are held at once have duplicates of this handle, each its own. */
bool areOwn(const CaptureRequest& one, const CaptureRequest& other, const native_handle_t* sent) {
    const auto nodeOf = [](const native_handle_t* handle) {
        struct stat node = {};
        return handle != nullptr && fstat(handle->data[0], &node) == 0 ? node.st_ino : 0;
    };
    const native_handle_t* const first = handleOf(one);
    const native_handle_t* const second = handleOf(other);
    return nodeOf(first) == nodeOf(sent) && nodeOf(second) == nodeOf(sent) && first != second &&
           first != sent && second != sent && first->data[0] != second->data[0];
}

/** Times a request's way, once it is seen that each has a handle of its own. */
template <typename Pass>
void runRequests(benchmark::State& state, const native_handle_t* sent, Pass pass) {
    const CaptureRequest known = requestFor(1, kBufferId);
    CaptureRequest taken;
    CaptureRequest held;
    bool right = pass(known, taken) && pass(known, held) && areOwn(taken, held, sent);
    for (auto _ : state)
        right = pass(known, taken) && isOf(taken, known) && right;
    if (!right) state.SkipWithError("a request did not come out as it should");
}

void runOurs(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const native_handle_t* const sent = frame.memory.handle();
    const OwnSession session;
    session->handleConfigure(streamOf(kTiny));
    const auto pass = [&session](const CaptureRequest& request, CaptureRequest& taken) {
        return session->handleCaptureRequest(request) == 0 &&
               session->getProcessCaptureRequest(taken) == 0;
    };
    CaptureRequest first;
    if (!pass(requestFor(0, kBufferId, sent), first)) state.SkipWithError("no first request");
    runRequests(state, sent, pass);
}

/** Two look-ups, the copy of the buffer's record, the copy of the request with a duplicate of the
 * registered handle, and its way out.
 */
void runFloor(benchmark::State& state) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const native_handle_t* const sent = frame.memory.handle();
    std::map<int32_t, std::map<uint64_t, buffer_handle_t>> registry;
    registry[0][kBufferId] = sent;
    const auto pass = [&registry](const CaptureRequest& request, CaptureRequest& taken) {
        const StreamBuffer buffer = request.outputBuffers[0];
        const android::hardware::hidl_handle handle(
            registry.find(buffer.streamId)->second.find(buffer.bufferId)->second);
        CaptureRequest copy = request;
        copy.outputBuffers[0].buffer = handle;
        taken = std::move(copy);
        return true;
    };
    runRequests(state, sent, pass);
}

}  // namespace

void benchRequest(Figures& figures, const Effort& effort) {
    compare(figures, effort, "request", "known buffer, queued and taken", {"ours", runOurs},
            {{"look-ups and copies alone", runFloor, 1.3}});
}

}  // namespace bench
