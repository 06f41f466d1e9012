#pragma once

#include <cutils/native_handle.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "FDSession.h"
#include "host/buffer.h"
#include "host/unique_handle.h"

/** The handles and records that operations carry, from their arguments. */
namespace testing_support {

namespace fdstream = vendor::zoru::zoruprovider::fdstream::V1_0;
namespace product = vendor::zoru::zoruprovider::fdstream::V1_0::implementation;

/**
 * What a handle is of: - none, A to D buffers, f and g fences, e neither descriptors nor integers,
 * q four descriptors, so no buffer's, x a buffer's, whose descriptor cannot be duplicated.
 */
using File = char;

/** Handles of each kind that records speak of, and the buffers' memories. */
class FileSet {
public:
    FileSet();

    /** '?' for a handle of something else, or one that is no duplicate. */
    File nameOf(const native_handle_t* handle) const;

    std::vector<host::Buffer> memories;
    std::map<File, host::UniqueHandle> handles;

private:
    std::map<uint64_t, File> mNames;  // by the inode, or 0
};

using Args = std::array<uint8_t, 11>;

/** One of these, by the argument. */
template <typename T, size_t N>
T oneOf(const T (&choices)[N], uint8_t arg) {
    return choices[arg % N];
}

/** A request or a result. */
template <typename Record>
Record recordOf(const Args& args, const FileSet& files);
product::StreamConfiguration configurationOf(const Args& args);
/** A buffer, from six arguments from this one on. */
product::StreamBuffer bufferOf(const Args& args, const FileSet& files, size_t first = 0);

}  // namespace testing_support
