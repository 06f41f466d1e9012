#pragma once

#include <cutils/native_handle.h>

#include <cstdint>
#include <map>
#include <vector>

#include "host/buffer.h"
#include "host/unique_handle.h"

namespace testing_support {

/** What a handle is of: '-' none; A to D buffers, f and g fences; e, q and x below. */
using File = char;
constexpr File kNoHandle = '-';
constexpr File kEmpty = 'e';   // neither descriptors nor integers
constexpr File kFour = 'q';    // four descriptors, so no buffer's
constexpr File kBroken = 'x';  // a buffer's, whose descriptor cannot be duplicated

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

}  // namespace testing_support
