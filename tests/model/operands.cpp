#include "model/operands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "model/words.h"

namespace testing_support {

namespace {

using product::StreamBuffer;

constexpr uint64_t kIds[] = {1, 7, 0xfffffffffffffffe};
constexpr int32_t kStreams[] = {0, 0, 0, -3};
constexpr std::string_view kHandles = "-ABCDA-BCDeqxABC-D";
constexpr std::string_view kFences = "---fg--f-ge-x---";

uint64_t inodeOf(const native_handle_t* handle) {
    struct stat file = {};
    return handle->numFds > 0 && fstat(handle->data[0], &file) == 0 ? file.st_ino : 0;
}

/** A pipe's ends may cross to another process. */
host::UniqueHandle handleOfPipes(int count) {
    host::UniqueHandle handle(native_handle_create(2 * count, 0));
    for (int i = 0; i < count; ++i)
        pipe2(&handle->data[2 * i], O_CLOEXEC);
    return handle;
}

}  // namespace

FileSet::FileSet() {
    using host::ChromaOrder;
    const host::BufferGeometry geometries[] = {{8, 6, 9},
                                               {8, 6, 0, 0, ChromaOrder::CrFirst},
                                               {6, 4, 8},
                                               {8, 6, 0, 0, ChromaOrder::CbFirst, 1}};
    for (const host::BufferGeometry& geometry : geometries) {
        const auto name = static_cast<File>('A' + memories.size());
        memories.push_back(host::Buffer::allocate(geometry).value());
        handles[name].reset(native_handle_clone(memories.back().handle()));
    }
    for (const auto& [name, pipes] : {std::pair('f', 1), {'g', 1}, {'e', 0}, {'q', 2}})
        handles[name] = handleOfPipes(pipes);
    for (const auto& [name, handle] : handles)
        mNames[inodeOf(handle.get())] = name;
    handles['-'] = nullptr;
    handles['x'].reset(native_handle_clone(memories[0].handle()));
    close(std::exchange(handles['x']->data[0], -1));
}

File FileSet::nameOf(const native_handle_t* handle) const {
    if (handle == nullptr) return '-';
    const auto found = mNames.find(inodeOf(handle));
    if (found == mNames.end()) return '?';
    const native_handle_t* const original = handles.at(found->second).get();
    const int* const integers = &original->data[original->numFds];
    const bool isDuplicate =
        handle != original && handle->numFds == original->numFds &&
        handle->numInts == original->numInts &&
        std::equal(integers, integers + original->numInts, &handle->data[handle->numFds]) &&
        (handle->numFds == 0 || handle->data[0] != original->data[0]);
    return isDuplicate ? found->second : '?';
}

StreamBuffer bufferOf(const Args& args, const FileSet& files, size_t first) {
    const auto arg = [&](size_t i) { return args[(first + i) % args.size()]; };
    const auto handle = [&](std::string_view names, size_t i) {
        return files.handles.at(names[arg(i) % names.size()]).get();
    };
    return {oneOf(kStreams, arg(0)),           oneOf(kIds, arg(1)), handle(kHandles, 2),
            product::BufferStatus(arg(3) % 3), handle(kFences, 4),  handle(kFences, 5)};
}

template <typename Record>
Record recordOf(const Args& args, const FileSet& files) {
    Record record = {};
    std::get<2>(fieldsOf(record)).resize(args[7] % 4);
    fill(record, args[0]);
    // One output mostly, and not always an input buffer.
    record.outputBuffers.resize(oneOf({1U, 1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[9]));
    for (size_t i = 0; i < record.outputBuffers.size(); ++i)
        record.outputBuffers[i] = bufferOf(args, files, 1 + 5 * i);
    record.inputBuffer = {-1, 0, {}, {}, {}, {}};
    if (args[10] % 4 == 0) record.inputBuffer = bufferOf(args, files, 8);
    return record;
}

template product::CaptureRequest recordOf(const Args& args, const FileSet& files);
template product::CaptureResult recordOf(const Args& args, const FileSet& files);

product::StreamConfiguration configurationOf(const Args& args) {
    product::StreamConfiguration configuration = {};
    configuration.streams.resize(oneOf({1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[0]));
    fill(configuration, args[4]);
    for (auto& stream : configuration.streams) {
        const auto [width, height] =
            oneOf<std::array<uint32_t, 2>>({{8, 6}, {8, 6}, {6, 4}, {5, 5}, {0, 9}}, args[1]);
        stream.id = oneOf(kStreams, args[2]);
        stream.width = width;
        stream.height = height;
        stream.usage = oneOf<uint64_t>({0x33, 0x100000033, 0x300000003, 0x100000000}, args[3]);
    }
    return configuration;
}

}  // namespace testing_support
