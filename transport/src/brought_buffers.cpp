#include "brought_buffers.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "host/buffer.h"
#include "host/limits.h"

namespace host {

using ::android::hardware::camera::device::V3_2::CaptureRequest;

std::optional<Brought> broughtBy(const CaptureRequest& request) {
    if (request.outputBuffers.size() != 1) return std::nullopt;
    const native_handle_t* const handle = request.outputBuffers[0].buffer.getNativeHandle();
    if (handle == nullptr) return std::nullopt;
    uint64_t bytes = claimedBytes(handle);
    for (int i = 0; i < handle->numFds; ++i) {
        // Only a memfd gets here, so this waits for nobody. A buffer has one; of several the
        // largest counts, for their sum could overflow.
        struct stat file = {};
        if (fstat(handle->data[i], &file) != 0) continue;
        bytes = std::max(bytes, static_cast<uint64_t>(file.st_size));
    }
    return Brought{request.outputBuffers[0].bufferId, bytes};
}

const char* BroughtBuffers::problem(const Brought& brought) const {
    const auto known = mIds.find(brought.id);
    if (known == mIds.end() && mIds.size() >= kMaxBufferIds) {
        return "too many buffer ids came since the stream was configured";
    }
    const uint64_t counted = known != mIds.end() ? known->second.bytes : 0;
    if (brought.bytes <= counted) return nullptr;
    if (brought.bytes > kMaxBroughtBytes || mBytes - counted > kMaxBroughtBytes - brought.bytes) {
        return "too much memory came with buffers since the stream was configured";
    }
    return nullptr;
}

void BroughtBuffers::add(const Brought& brought) {
    Known& known = mIds[brought.id];
    const uint64_t bytes = std::max(known.bytes, brought.bytes);
    mBytes += bytes - std::exchange(known.bytes, bytes);
    ++known.requests;
}

void BroughtBuffers::takeBack(const Brought& brought) {
    const auto known = mIds.find(brought.id);
    if (known == mIds.end() || --known->second.requests > 0) return;
    mBytes -= known->second.bytes;
    mIds.erase(known);
}

void BroughtBuffers::clear() {
    mIds.clear();
    mBytes = 0;
}

}  // namespace host
