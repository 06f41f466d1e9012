#pragma once

#include <atomic>
#include <cstdint>

#include "FDSession.h"
#include "fault_scenarios.h"

namespace faults {

namespace fdstream = vendor::zoru::zoruprovider::fdstream::V1_0;
namespace device = android::hardware::camera::device::V3_2;

constexpr int32_t kInput = 7;  // the stream of the input buffers

/** Remembers what a client is told, and looks for what is missing. Allocates nothing, because the
 * session calls it on its own thread in one process. */
struct Answers : public fdstream::IFDSessionCallback {
    explicit Answers(uint64_t id) : mFirstId(id) {}

    android::hardware::Return<void> processCaptureResult(
        const android::hardware::hidl_vec<device::CaptureResult>& results) override {
        const auto& output = results[0].outputBuffers[0];
        // One that was asked for earlier may still come: it is not ours.
        if (output.bufferId < mFirstId) return {};
        wasFilled = output.status == device::BufferStatus::OK;
        const bool isWhole = output.buffer.getNativeHandle() != nullptr &&
                             output.acquireFence.getNativeHandle() != nullptr;
        if (wasFilled && !isWhole) fail("a filled frame lacks a handle");
        const auto& input = results[0].inputBuffer;
        if (input.streamId == kInput && input.status == device::BufferStatus::OK &&
            input.acquireFence.getNativeHandle() == nullptr)
            fail("an input buffer lacks its fence");
        ++came;
        return {};
    }
    android::hardware::Return<void> notify(
        const android::hardware::hidl_vec<fdstream::FDNotifyMsg>& /*msgs*/) override {
        return {};
    }

    std::atomic<bool> wasFilled{false};
    std::atomic<int> came{0};

private:
    const uint64_t mFirstId;
};

}  // namespace faults
