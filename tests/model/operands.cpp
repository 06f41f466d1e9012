#include "model/operands.h"

#include <cstddef>
#include <string_view>
#include <vector>

#include "model/words.h"

namespace testing_support {

namespace {

using product::StreamBuffer;
using Buffers = android::hardware::hidl_vec<StreamBuffer>;

constexpr uint64_t kIds[] = {1, 7, 0xfffffffffffffffe};
constexpr int32_t kStreams[] = {0, 0, 0, -3};
constexpr std::string_view kHandles = "-ABCDA-BCDeqxABC-D";
constexpr std::string_view kFences = "---fg--f-ge-x---";

/** A number of 32 bits in which no byte is like another. */
uint32_t wide(uint8_t arg) {
    return uint32_t{arg} << 24 | uint32_t{arg} * 3 << 8 | arg;
}

/** A buffer from six arguments from this one on. */
StreamBuffer bufferOf(const Args& args, const FileSet& files, size_t first) {
    const auto arg = [&](size_t i) { return args[(first + i) % args.size()]; };
    StreamBuffer buffer = {};
    buffer.streamId = oneOf(kStreams, arg(0));
    buffer.bufferId = oneOf(kIds, arg(1));
    buffer.buffer = files.handles.at(kHandles[arg(2) % kHandles.size()]);
    buffer.status = static_cast<product::BufferStatus>(arg(3) % 3);
    buffer.acquireFence = files.handles.at(kFences[arg(4) % kFences.size()]);
    buffer.releaseFence = files.handles.at(kFences[arg(5) % kFences.size()]);
    return buffer;
}

/** What requests and results have alike: one output mostly, and not always an input buffer. */
template <typename Record>
Record recordOf(const Args& args, const FileSet& files) {
    Record record = {};
    record.frameNumber = wide(args[0]);
    record.outputBuffers.resize(oneOf({1U, 1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[9]));
    for (size_t i = 0; i < record.outputBuffers.size(); ++i)
        record.outputBuffers[i] = bufferOf(args, files, 1 + 5 * i);
    record.inputBuffer.streamId = -1;
    if (args[10] % 4 == 0) record.inputBuffer = bufferOf(args, files, 8);
    return record;
}

std::vector<uint8_t> dataOf(uint8_t arg) {
    return std::vector<uint8_t>(arg % 4U, static_cast<uint8_t>('a' + arg % 26));
}

std::string inWords(const Files& files, const StreamBuffer& buffer) {
    return words('(', buffer.streamId, buffer.bufferId, files.nameOf(buffer.buffer), buffer.status,
                 files.nameOf(buffer.acquireFence), files.nameOf(buffer.releaseFence), ')');
}

template <typename Record>
std::string buffersInWords(const Files& files, const Record& record) {
    std::string text = inWords(files, record.inputBuffer) + "buffers ";
    for (const StreamBuffer& buffer : record.outputBuffers)
        text += inWords(files, buffer);
    return text;
}

std::string inWords(const android::hardware::hidl_vec<uint8_t>& data) {
    return words("data", std::string(data.begin(), data.end()));
}

/** Of a record that is copied as bytes; the last four carry no field. */
constexpr size_t kTrackBytes = sizeof(product::TrackControl) - 4;

std::string bytesInWords(const void* record, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i)
        text += words(static_cast<const uint8_t*>(record)[i]);
    return text;
}

}  // namespace

product::CaptureRequest requestOf(const Args& args, const FileSet& files) {
    auto request = recordOf<product::CaptureRequest>(args, files);
    request.fmqSettingsSize = wide(args[7]) * 257ULL;
    request.settings = dataOf(args[7]);
    return request;
}

product::CaptureResult resultOf(const Args& args, const FileSet& files) {
    auto result = recordOf<product::CaptureResult>(args, files);
    result.fmqResultSize = wide(args[7]) * 257ULL;
    result.result = dataOf(args[7]);
    result.partialResult = args[8] % 3U;
    return result;
}

product::StreamConfiguration configurationOf(const Args& args) {
    product::StreamConfiguration configuration = {};
    configuration.streams.resize(oneOf({1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[0]));
    for (auto& stream : configuration.streams) {
        const auto [width, height] =
            oneOf<std::array<uint32_t, 2>>({{8, 6}, {8, 6}, {6, 4}, {5, 5}, {0, 9}}, args[1]);
        stream.id = oneOf(kStreams, args[2]);
        stream.width = width;
        stream.height = height;
        stream.usage = oneOf<uint64_t>({0x33, 0x100000033, 0x300000003, 0x100000000}, args[3]);
        stream.streamType = static_cast<decltype(stream.streamType)>(args[4] % 2);
        stream.rotation = static_cast<decltype(stream.rotation)>(args[5] % 4);
        stream.format = static_cast<decltype(stream.format)>(wide(args[6]));
        stream.dataSpace = static_cast<decltype(stream.dataSpace)>(wide(args[7]));
    }
    configuration.operationMode = static_cast<decltype(configuration.operationMode)>(wide(args[8]));
    return configuration;
}

// Few different ones of these two, so that some are stored again.

product::SceneControl sceneOf(const Args& args) {
    const int32_t variant = args[1] % 3;
    product::SceneControl control = {};
    control.crops.resize(args[0] % 4);
    for (size_t i = 0; i < control.crops.size(); ++i) {
        const auto at = static_cast<int32_t>(i);
        control.crops[i] = {at - 1, variant + at, variant * 1000, -2};
    }
    control.frameWidth = variant + 10;
    control.frameHeight = variant + 20;
    control.sceneId = variant + 30;
    control.sceneFlags = variant + 40;
    control.peopleCount = variant + 50;
    return control;
}

product::TrackControl trackOf(const Args& args) {
    product::TrackControl control = {};
    for (size_t i = 0; i < kTrackBytes; ++i)
        reinterpret_cast<uint8_t*>(&control)[i] = static_cast<uint8_t>(args[0] % 3U * 70 + i);
    return control;
}

fdstream::FDNotifyMsg messageOf(const Args& args) {
    fdstream::FDNotifyMsg message = {};
    for (size_t i = 0; i < sizeof(message); ++i)
        reinterpret_cast<uint8_t*>(&message)[i] = static_cast<uint8_t>(args[i % args.size()] ^ i);
    return message;
}

StreamBuffer nameOf(const Args& args) {
    StreamBuffer buffer = {};
    buffer.bufferId = oneOf(kIds, args[0]);
    buffer.streamId = oneOf(kStreams, args[1]);
    return buffer;
}

std::string inWords(const Files& files, const product::CaptureRequest& request) {
    return words("request", request.frameNumber, request.fmqSettingsSize) +
           inWords(request.settings) + buffersInWords(files, request);
}

std::string inWords(const Files& files, const product::CaptureResult& result) {
    return words("result", result.frameNumber, result.fmqResultSize, result.partialResult) +
           inWords(result.result) + buffersInWords(files, result);
}

std::string inWords(const Files& files, const android::GraphicBuffer& buffer) {
    return words("graphics buffer", files.nameOf(buffer.handle), buffer.width, buffer.height,
                 buffer.stride, buffer.format, buffer.getUsage(), buffer.initCheck());
}

std::string inWords(const product::StreamConfiguration& configuration) {
    std::string text = words("configuration", configuration.operationMode);
    for (const auto& stream : configuration.streams) {
        text += words("stream", stream.id, stream.streamType, stream.width, stream.height,
                      stream.format, stream.usage, stream.dataSpace, stream.rotation);
    }
    return text;
}

std::string inWords(const product::SceneControl& control) {
    std::string text = words("control", control.frameWidth, control.frameHeight, control.sceneId,
                             control.sceneFlags, control.peopleCount);
    for (const product::Crop& crop : control.crops)
        text += words("crop", crop.x, crop.y, crop.width, crop.height);
    return text;
}

std::string inWords(const product::TrackControl& control) {
    return bytesInWords(&control, kTrackBytes);
}

std::string inWords(const fdstream::FDNotifyMsg& message) {
    return bytesInWords(&message, sizeof(message));
}

}  // namespace testing_support
