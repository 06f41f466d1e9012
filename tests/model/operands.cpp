#include "model/operands.h"

#include <string_view>
#include <vector>

#include "model/words.h"

namespace testing_support {

namespace {

using product::StreamBuffer;

constexpr uint64_t kIds[] = {1, 7, 0xfffffffffffffffe};
constexpr int32_t kStreams[] = {0, 0, 0, -3};
constexpr std::string_view kHandles = "-ABCDA-BCDeqxABC-D";
constexpr std::string_view kFences = "---fg--f-ge-x---";

/** Gives each number of a record another value with many bytes; returns the one that is next. */
template <typename Record>
uint64_t fill(Record& record, uint64_t next) {
    const auto fillOne = [&](auto& field) {
        using Field = std::remove_reference_t<decltype(field)>;
        if constexpr (std::is_arithmetic_v<Field> || std::is_enum_v<Field>) {
            field = static_cast<Field>(next++ * 0x9e3779b97f4a7c15);
        } else if constexpr (std::is_same_v<Field, product::Crop>) {
            next = fill(field, next);
        }
    };
    std::apply([&](auto&... fields) { (fillOne(fields), ...); }, fieldsOf(record));
    return next;
}

/** A buffer from six arguments from this one on. */
StreamBuffer bufferOf(const Args& args, const FileSet& files, size_t first) {
    const auto arg = [&](size_t i) { return args[(first + i) % args.size()]; };
    StreamBuffer buffer = {};
    buffer.streamId = oneOf(kStreams, arg(0));
    buffer.bufferId = oneOf(kIds, arg(1));
    buffer.buffer = files.handles.at(kHandles[arg(2) % kHandles.size()]).get();
    buffer.status = static_cast<product::BufferStatus>(arg(3) % 3);
    buffer.acquireFence = files.handles.at(kFences[arg(4) % kFences.size()]).get();
    buffer.releaseFence = files.handles.at(kFences[arg(5) % kFences.size()]).get();
    return buffer;
}

/** What requests and results have alike: one output mostly, and not always an input buffer. */
template <typename Record>
Record recordOf(const Args& args, const FileSet& files) {
    Record record = {};
    fill(record, args[0]);
    record.outputBuffers.resize(oneOf({1U, 1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[9]));
    for (size_t i = 0; i < record.outputBuffers.size(); ++i)
        record.outputBuffers[i] = bufferOf(args, files, 1 + 5 * i);
    record.inputBuffer.streamId = -1;
    if (args[10] % 4 == 0) record.inputBuffer = bufferOf(args, files, 8);
    return record;
}

std::vector<uint8_t> dataOf(uint8_t arg) {
    return std::vector<uint8_t>(arg % 4U, arg);
}

}  // namespace

product::CaptureRequest requestOf(const Args& args, const FileSet& files) {
    auto request = recordOf<product::CaptureRequest>(args, files);
    request.settings = dataOf(args[7]);
    return request;
}

product::CaptureResult resultOf(const Args& args, const FileSet& files) {
    auto result = recordOf<product::CaptureResult>(args, files);
    result.result = dataOf(args[7]);
    return result;
}

product::StreamConfiguration configurationOf(const Args& args) {
    product::StreamConfiguration configuration = {};
    fill(configuration, args[5]);
    configuration.streams.resize(oneOf({1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[0]));
    for (auto& stream : configuration.streams) {
        fill(stream, args[4]);
        const auto [width, height] =
            oneOf<std::array<uint32_t, 2>>({{8, 6}, {8, 6}, {6, 4}, {5, 5}, {0, 9}}, args[1]);
        stream.id = oneOf(kStreams, args[2]);
        stream.width = width;
        stream.height = height;
        stream.usage = oneOf<uint64_t>({0x33, 0x100000033, 0x300000003, 0x100000000}, args[3]);
    }
    return configuration;
}

// Few different ones of these two, so that some are stored again.

product::SceneControl sceneOf(const Args& args) {
    product::SceneControl control = {};
    fill(control, args[1] % 3U);
    control.crops.resize(args[0] % 4);
    for (size_t i = 0; i < control.crops.size(); ++i)
        fill(control.crops[i], args[1] % 3U + i);
    return control;
}

product::TrackControl trackOf(const Args& args) {
    product::TrackControl control = {};
    fill(control, args[0] % 3U);
    return control;
}

fdstream::FDNotifyMsg messageOf(const Args& args) {
    fdstream::FDNotifyMsg message = {};
    fill(message, args[0]);
    return message;
}

StreamBuffer nameOf(const Args& args) {
    StreamBuffer buffer = {};
    buffer.bufferId = oneOf(kIds, args[0]);
    buffer.streamId = oneOf(kStreams, args[1]);
    return buffer;
}

}  // namespace testing_support
