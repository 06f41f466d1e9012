#pragma once

#include <android-base/thread_annotations.h>
#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <android/hardware/graphics/mapper/3.0/IMapper.h>
#include <cutils/native_handle.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <cstdint>

namespace android::hardware::camera::common::V1_0::helper {

using ::android::hardware::graphics::mapper::V2_0::IMapper;
using ::android::hardware::graphics::mapper::V2_0::YCbCrLayout;
using MapperV3 = ::android::hardware::graphics::mapper::V3_0::IMapper;

/**
 * The one gateway to the gralloc mapper: imports handles that arrived over an interface into this
 * process, gives the processor access to their memory, and turns fence handles into descriptors.
 *
 * Prefers mapper 3.0 and falls back to 2.0. Connects on the first operation that needs a mapper,
 * and tries again each time while there is none. Failures are reported by results and the log.
 *
 * Thread-safe, with two exceptions: cleanup() must not run at the same time as another operation,
 * and unlock(), which takes no lock, not at the same time as the first one that connects. Not
 * copied.
 */
class HandleImporter {
public:
    using Rect = IMapper::Rect;

    HandleImporter();
    ~HandleImporter();
    HandleImporter(const HandleImporter&) = delete;
    HandleImporter& operator=(const HandleImporter&) = delete;

    /**
     * Replaces `handle` by an imported one, which is the caller's until freeBuffer(). An empty
     * handle (no descriptors, no integers) becomes null. False leaves `handle` as it was.
     * REQUIRES: `handle` is not null.
     */
    bool importBuffer(buffer_handle_t& handle);
    /** Frees an imported handle; null is ignored. */
    void freeBuffer(buffer_handle_t handle);

    /** `fd` becomes a duplicate that the caller closes, or -1 when the handle carries no fence. */
    bool importFence(const native_handle_t* handle, int& fd) const;
    void closeFence(int fd) const;

    /** Address of the first `size` bytes of a buffer, taken as one row; null on failure, and for a
     * size over 31 bits. */
    void* lock(buffer_handle_t& handle, uint64_t cpuUsage, size_t size);
    /** The planes of a YCbCr buffer; all zero on failure. */
    YCbCrLayout lockYCbCr(buffer_handle_t& handle, uint64_t cpuUsage, const Rect& accessRegion);
    /** Ends the access. Returns a release fence, which the caller closes, or a negative number. */
    int unlock(buffer_handle_t& handle) NO_THREAD_SAFETY_ANALYSIS;  // the pointers are set by then

    /** Drops the connection; the next operation that needs a mapper connects again. */
    void cleanup() NO_THREAD_SAFETY_ANALYSIS;  // is alone with the object

private:
    void initializeLocked() REQUIRES(mLock);

    template <typename M, typename E>
    bool importBufferInternal(const sp<M>& mapper, buffer_handle_t& handle);
    template <typename M, typename E>
    YCbCrLayout lockYCbCrInternal(const sp<M>& mapper, buffer_handle_t& handle, uint64_t cpuUsage,
                                  const Rect& accessRegion);
    template <typename M, typename E>
    int unlockInternal(const sp<M>& mapper, buffer_handle_t& handle);

    // Serialises connecting and every mapper call except unlock().
    Mutex mLock;
    bool mInitialized GUARDED_BY(mLock) = false;
    sp<IMapper> mMapperV2 GUARDED_BY(mLock);
    sp<MapperV3> mMapperV3 GUARDED_BY(mLock);
};

}  // namespace android::hardware::camera::common::V1_0::helper
