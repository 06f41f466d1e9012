#include "HandleImporter.h"

#include <android/log.h>
#include <unistd.h>

#include <limits>

#define LOG_TAG "HandleImporter"

namespace android::hardware::camera::common::V1_0::helper {

using MapperErrorV2 = ::android::hardware::graphics::mapper::V2_0::Error;
using MapperErrorV3 = ::android::hardware::graphics::mapper::V3_0::Error;

namespace {

/** A mapper takes and returns an imported buffer as a plain address. */
void* toBuffer(buffer_handle_t handle) {
    return const_cast<native_handle_t*>(handle);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

template <typename M>
typename M::Rect toRect(const IMapper::Rect& region) {
    return {region.left, region.top, region.width, region.height};
}

void logBothNull(const char* operation) {
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: mMapperV3 and mMapperV2 are both null!",
                        operation);
}

/** A call that fails on its way to the mapper leaves its result at the initial value. */
void logIfFailed(const details::return_status& status, const char* operation,
                 const char* call = "call") {
    if (status.isOk()) return;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: mapper %s failed: %s", operation, call,
                        status.description().c_str());
}

/** A duplicate of the fence for the caller, or -1 when the handle carries none. */
int releaseFenceOf(const native_handle_t* handle) {
    if (handle == nullptr) return -1;
    if (handle->numInts != 0 || handle->numFds != 1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s: bad release fence numInts %d numFds %d", "operator()",
                            handle->numInts, handle->numFds);
        return -1;
    }
    const int fd = dup(handle->data[0]);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: bad release fence FD %d", "operator()",
                            fd);
    }
    return fd;
}

}  // namespace

HandleImporter::HandleImporter() = default;
HandleImporter::~HandleImporter() = default;

void HandleImporter::initializeLocked() {
    if (mInitialized) return;
    mMapperV3 = MapperV3::getService("default", false);
    if (mMapperV3 == nullptr) mMapperV2 = IMapper::getService("default", false);
    if (mMapperV3 == nullptr && mMapperV2 == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: cannnot acccess graphics mapper HAL!",
                            "initializeLocked");
        return;
    }
    mInitialized = true;
}

void HandleImporter::cleanup() {
    mMapperV3.clear();
    mMapperV2.clear();
    mInitialized = false;
}

bool HandleImporter::importBuffer(buffer_handle_t& handle) {
    if (handle->numFds == 0 && handle->numInts == 0) {
        handle = nullptr;
        return true;
    }
    const Mutex::Autolock lock(mLock);
    if (!mInitialized) initializeLocked();
    if (mMapperV3 != nullptr) {
        return importBufferInternal<MapperV3, MapperErrorV3>(mMapperV3, handle);
    }
    if (mMapperV2 != nullptr) {
        return importBufferInternal<IMapper, MapperErrorV2>(mMapperV2, handle);
    }
    logBothNull("importBuffer");
    return false;
}

template <typename M, typename E>
bool HandleImporter::importBufferInternal(const sp<M>& mapper, buffer_handle_t& handle) {
    E error = E::NO_RESOURCES;
    buffer_handle_t imported = nullptr;
    const Return<void> status =
        mapper->importBuffer(hidl_handle(handle), [&](E answer, void* buffer) {
            error = answer;
            imported = static_cast<buffer_handle_t>(buffer);
        });
    logIfFailed(status, "importBufferInternal", "importBuffer");
    if (!status.isOk() || error != E::NONE) return false;
    handle = imported;
    return true;
}

void HandleImporter::freeBuffer(buffer_handle_t handle) {
    if (handle == nullptr) return;
    const Mutex::Autolock lock(mLock);
    if (mMapperV3 == nullptr && mMapperV2 == nullptr) {
        logBothNull("freeBuffer");
        return;
    }
    if (mMapperV3 != nullptr) {
        logIfFailed(mMapperV3->freeBuffer(toBuffer(handle)), "freeBuffer", "freeBuffer");
    } else {
        logIfFailed(mMapperV2->freeBuffer(toBuffer(handle)), "freeBuffer", "freeBuffer");
    }
}

bool HandleImporter::importFence(const native_handle_t* handle, int& fd) const {
    if (handle == nullptr || handle->numFds == 0) {
        fd = -1;
        return true;
    }
    if (handle->numFds != 1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "invalid fence handle with %d file descriptors", handle->numFds);
        return false;
    }
    fd = dup(handle->data[0]);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "failed to dup fence fd %d",
                            handle->data[0]);
        return false;
    }
    return true;
}

void HandleImporter::closeFence(int fd) const {
    if (fd >= 0) close(fd);
}

void* HandleImporter::lock(buffer_handle_t& handle, uint64_t cpuUsage, size_t size) {
    const Mutex::Autolock lock(mLock);
    if (!mInitialized) initializeLocked();
    if (mMapperV3 == nullptr && mMapperV2 == nullptr) {
        logBothNull("lock");
        return nullptr;
    }
    if (size > std::numeric_limits<int32_t>::max()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: size %zu is over 31 bits", "lock",
                            size);
        return nullptr;
    }
    void* address = nullptr;
    const auto keep = [&address](auto error, void* data) {
        if (static_cast<int>(error) == 0) {
            address = data;
            return;
        }
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: failed to lock error %d!",
                            "operator()", static_cast<int>(error));
    };
    const Rect row{0, 0, static_cast<int32_t>(size), 1};
    if (mMapperV3 != nullptr) {
        logIfFailed(
            mMapperV3->lock(toBuffer(handle), cpuUsage, toRect<MapperV3>(row), hidl_handle(),
                            [&](MapperErrorV3 error, void* data, int32_t /*perPixel*/,
                                int32_t /*perStride*/) { keep(error, data); }),
            "lock");
    } else {
        logIfFailed(mMapperV2->lock(toBuffer(handle), cpuUsage, row, hidl_handle(), keep), "lock");
    }
    return address;
}

YCbCrLayout HandleImporter::lockYCbCr(buffer_handle_t& handle, uint64_t cpuUsage,
                                      const Rect& accessRegion) {
    const Mutex::Autolock lock(mLock);
    if (!mInitialized) initializeLocked();
    if (mMapperV3 != nullptr) {
        return lockYCbCrInternal<MapperV3, MapperErrorV3>(mMapperV3, handle, cpuUsage,
                                                          accessRegion);
    }
    if (mMapperV2 != nullptr) {
        return lockYCbCrInternal<IMapper, MapperErrorV2>(mMapperV2, handle, cpuUsage, accessRegion);
    }
    logBothNull("lockYCbCr");
    return {};
}

template <typename M, typename E>
YCbCrLayout HandleImporter::lockYCbCrInternal(const sp<M>& mapper, buffer_handle_t& handle,
                                              uint64_t cpuUsage, const Rect& accessRegion) {
    YCbCrLayout layout = {};
    const auto keep = [&layout](E error, const auto& answer) {
        if (error == E::NONE) {
            layout = {answer.y,       answer.cb,      answer.cr,
                      answer.yStride, answer.cStride, answer.chromaStep};
            return;
        }
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: failed to lockYCbCr error %d!",
                            "operator()", static_cast<int>(error));
    };
    logIfFailed(
        mapper->lockYCbCr(toBuffer(handle), cpuUsage, toRect<M>(accessRegion), hidl_handle(), keep),
        "lockYCbCr");
    return layout;
}

int HandleImporter::unlock(buffer_handle_t& handle) {
    if (mMapperV3 != nullptr) return unlockInternal<MapperV3, MapperErrorV3>(mMapperV3, handle);
    if (mMapperV2 != nullptr) return unlockInternal<IMapper, MapperErrorV2>(mMapperV2, handle);
    logBothNull("unlock");
    return -1;
}

template <typename M, typename E>
int HandleImporter::unlockInternal(const sp<M>& mapper, buffer_handle_t& handle) {
    int releaseFence = -1;
    const auto keep = [&releaseFence](E error, const hidl_handle& fence) {
        if (error == E::NONE) {
            releaseFence = releaseFenceOf(fence);
            return;
        }
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: failed to unlock error %d!",
                            "operator()", static_cast<int>(error));
    };
    logIfFailed(mapper->unlock(toBuffer(handle), keep), "unlock");
    return releaseFence;
}

}  // namespace android::hardware::camera::common::V1_0::helper
