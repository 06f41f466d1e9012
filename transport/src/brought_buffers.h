#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

namespace host {

/** A buffer id that came with a handle, and the size of its memory. */
struct Brought {
    uint64_t id;
    uint64_t bytes;
};

/**
 * What a request brings: nothing without a handle, or without exactly one output buffer, because
 * then the session keeps nothing of it. The bytes are those that the handle claims, of which the
 * provider maps no more, or its file's size at the time of this call, if that is larger: fstat(2)
 * of a memfd waits for nobody. Not counted are bytes by which the client lets its file grow later
 * and that it writes itself, which are let go of with the buffer; nor is the memory of an input
 * buffer, which stays no longer than its request.
 */
[[nodiscard]] std::optional<Brought> broughtBy(
    const ::android::hardware::camera::device::V3_2::CaptureRequest& request);

/**
 * Bounds what came with new ids since the last accepted configuration: at most kMaxBufferIds ids,
 * and kMaxBroughtBytes. An id that comes again counts once, with the largest size that it came
 * with: the session keeps the first handle that it accepts, and which one that is nobody knows
 * while several are on their way. REQUIRES: one thread at a time.
 */
class BroughtBuffers {
public:
    /** Why it would be too much; null when it is not. */
    [[nodiscard]] const char* problem(const Brought& brought) const;
    void add(const Brought& brought);
    /** Takes one add() back, and with the last one of an id the id. */
    void takeBack(const Brought& brought);
    void clear();

private:
    struct Known {
        uint64_t bytes = 0;
        size_t requests = 0;
    };

    std::map<uint64_t, Known> mIds;
    uint64_t mBytes = 0;  // of all of them
};

}  // namespace host
