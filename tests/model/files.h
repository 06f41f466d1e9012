#pragma once

#include <cutils/native_handle.h>

#include <cstddef>
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

using Handles = std::map<File, const native_handle_t*>;
using Memories = std::vector<host::Buffer>;

/**
 * Handles of each kind that records speak of, and the buffers' memories, all of it twice. The
 * model's handles are on paper: no descriptors, and the name as an integer. A fence is of a kind
 * that may cross to another process.
 */
class Files {
public:
    Files();

    const Handles& handles() const { return mHandles; }
    const Handles& modelsHandles() const { return mModelsHandles; }
    const Memories& memories() const { return mMemories; }
    const Memories& modelsMemories() const { return mModelsMemories; }
    /** Of either kind of handle; '?' for one of something else, or one that is no duplicate. */
    File nameOf(const native_handle_t* handle) const;

private:
    void add(File name, host::UniqueHandle handle);

    Memories mMemories;
    Memories mModelsMemories;
    Handles mHandles = {{kNoHandle, nullptr}};
    Handles mModelsHandles = {{kNoHandle, nullptr}};
    std::map<uint64_t, File> mNames;
    std::vector<host::UniqueHandle> mOwned;
};

}  // namespace testing_support
