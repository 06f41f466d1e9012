#pragma once

#include <cutils/native_handle.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "frame.h"
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
struct FileSet {
    std::map<File, const native_handle_t*> handles = {{kNoHandle, nullptr}};
    std::vector<host::Buffer> memories;
};

/** One set for the session, and one for its model. */
class Files {
public:
    Files();

    FileSet sessions;
    FileSet models;
    /** '?' for a handle of something else, or one that is no duplicate. */
    File nameOf(const native_handle_t* handle) const;

private:
    void addMemory(kit::FrameSize size, uint32_t stride, host::ChromaOrder order, uint32_t step);
    void addOther(File name, host::UniqueHandle handle);
    void add(FileSet& set, File name, const native_handle_t* handle);

    struct Entry {
        File name;
        const native_handle_t* handle;
    };
    std::map<uint64_t, Entry> mEntries;  // by the inode, or 0
    std::vector<host::UniqueHandle> mOthers;
};

}  // namespace testing_support
