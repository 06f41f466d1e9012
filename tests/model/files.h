#pragma once

#include <cutils/native_handle.h>
#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "FDSession.h"
#include "host/buffer.h"
#include "host/unique_handle.h"
#include "model/plain_records.h"

namespace testing_support {

/**
 * Handles of each kind that records speak of, their names again, and records of either form. A
 * fence is of a kind that may cross to another process.
 */
class Files {
public:
    Files();

    const native_handle_t* handleOf(File file) const;
    /** '?' for a handle of something else, or one that is no duplicate. */
    File nameOf(const native_handle_t* handle) const;
    const host::Buffer& memory(size_t i) const { return mBuffers[i]; }
    Memories memories() const;

    product::CaptureRequest recordOf(const PlainRequest& plain) const;
    product::CaptureResult recordOf(const PlainResult& plain) const;
    PlainRequest plainOf(const product::CaptureRequest& request) const;
    PlainResult plainOf(const product::CaptureResult& result) const;

private:
    struct Entry {
        File name;
        uint64_t inode;
        const native_handle_t* handle;
    };

    product::StreamBuffer recordOf(const PlainBuffer& plain) const;
    android::hardware::hidl_vec<product::StreamBuffer> recordOf(
        const std::vector<PlainBuffer>& plain) const;
    PlainBuffer plainOf(const product::StreamBuffer& buffer) const;
    std::vector<PlainBuffer> plainOf(
        const android::hardware::hidl_vec<product::StreamBuffer>& buffers) const;
    void add(File name, const native_handle_t* handle);
    const Entry* entryOf(File name) const;

    std::vector<host::Buffer> mBuffers;
    std::vector<host::UniqueHandle> mOthers;
    std::vector<Entry> mEntries;
};

}  // namespace testing_support
