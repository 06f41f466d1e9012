#include "brought_buffers.h"

#include <sys/stat.h>

#include <algorithm>

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
    if (mIds.count(brought.id) != 0) return nullptr;
    if (mIds.size() >= kMaxBufferIds) {
        return "too many buffer ids came since the stream was configured";
    }
    if (brought.bytes > kMaxBroughtBytes || mBytes > kMaxBroughtBytes - brought.bytes) {
        return "too much memory came with buffers since the stream was configured";
    }
    return nullptr;
}

void BroughtBuffers::add(const Brought& brought) {
    const auto [known, isNew] = mIds.try_emplace(brought.id, Known{brought.bytes, 0});
    if (isNew) mBytes += brought.bytes;
    ++known->second.requests;
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
