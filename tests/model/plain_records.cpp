#include "model/plain_records.h"

#include <cstring>

namespace testing_support {

namespace {

std::string allInWords(const std::vector<PlainBuffer>& buffers) {
    std::string text = words("buffers", buffers.size());
    for (const PlainBuffer& buffer : buffers)
        text += inWords(buffer);
    return text;
}

/** The bytes of a record that is copied as bytes, up to this one. */
template <typename Record>
std::string bytesInWords(const Record& record, size_t end) {
    constexpr char kDigits[] = "0123456789abcdef";
    unsigned char bytes[sizeof(Record)];
    memcpy(bytes, &record, sizeof(Record));
    std::string text;
    for (size_t i = 0; i < end; ++i)
        (text += kDigits[bytes[i] >> 4]) += kDigits[bytes[i] & 15];
    return text;
}

}  // namespace

std::string inWords(const PlainBuffer& buffer) {
    return words('(', buffer.stream, buffer.id, buffer.handle, buffer.status, buffer.acquire,
                 buffer.release, ')');
}

std::string inWords(const PlainRequest& request) {
    return words("request", request.frame, request.fmqSize, request.settings.size(),
                 request.settings) +
           inWords(request.input) + allInWords(request.outputs);
}

std::string inWords(const PlainResult& result) {
    return words("result", result.frame, result.fmqSize, result.metadata.size(), result.metadata,
                 result.partial) +
           inWords(result.input) + allInWords(result.outputs);
}

std::string inWords(const PlainGraphicBuffer& buffer) {
    return words("graphics buffer", buffer.file, buffer.width, buffer.height, buffer.stride,
                 buffer.format, buffer.usage, buffer.initCheck);
}

std::string inWords(const product::StreamConfiguration& configuration) {
    std::string text =
        words("configuration", configuration.operationMode, configuration.streams.size());
    for (const auto& stream : configuration.streams) {
        text += words(stream.id, stream.streamType, stream.width, stream.height, stream.format,
                      stream.usage, stream.dataSpace, stream.rotation);
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
    return bytesInWords(control, offsetof(product::TrackControl, speed) + sizeof(control.speed));
}

std::string inWords(const fdstream::FDNotifyMsg& message) {
    return bytesInWords(message, sizeof(message));
}

}  // namespace testing_support
