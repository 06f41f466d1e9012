#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>

#include "model/operands.h"

/** Numbers, texts and records in words, to be compared. */
namespace testing_support {

template <typename Part>
void append(std::string& text, const Part& part) {
    if constexpr (std::is_enum_v<Part>) {
        text += std::to_string(static_cast<std::underlying_type_t<Part>>(part));
    } else if constexpr (std::is_arithmetic_v<Part> && !std::is_same_v<Part, char>) {
        text += std::to_string(part);
    } else {
        text += part;
    }
}

/** The parts, one after the other, as text. */
template <typename... Parts>
std::string cat(const Parts&... parts) {
    std::string text;
    (append(text, parts), ...);
    return text;
}

/** The same with a blank after each. */
template <typename... Parts>
std::string words(const Parts&... parts) {
    return cat(cat(parts, ' ')...);
}

/** Each field of a record once. */
template <typename R>
auto fieldsOf(R& r) {
    using Record = std::remove_const_t<R>;
    if constexpr (std::is_same_v<Record, product::StreamBuffer>) {
        return std::tie(r.streamId, r.bufferId, r.buffer, r.status, r.acquireFence, r.releaseFence);
    } else if constexpr (std::is_same_v<Record, product::CaptureRequest>) {
        return std::tie(r.frameNumber, r.fmqSettingsSize, r.settings, r.inputBuffer,
                        r.outputBuffers);
    } else if constexpr (std::is_same_v<Record, product::CaptureResult>) {
        return std::tie(r.frameNumber, r.fmqResultSize, r.result, r.partialResult, r.inputBuffer,
                        r.outputBuffers);
    } else if constexpr (std::is_same_v<Record, product::StreamConfiguration>) {
        return std::tie(r.streams, r.operationMode);
    } else if constexpr (std::is_same_v<Record, product::Crop>) {
        return std::tie(r.x, r.y, r.width, r.height);
    } else if constexpr (std::is_same_v<Record, product::SceneControl>) {
        return std::tie(r.crops, r.frameWidth, r.frameHeight, r.sceneId, r.sceneFlags,
                        r.peopleCount);
    } else if constexpr (std::is_same_v<Record, product::TrackControl>) {
        return std::tie(r.timestampNs, r.trackId, r.target, r.bounds, r.pan, r.tilt, r.zoom,
                        r.speed);
    } else if constexpr (std::is_same_v<Record, fdstream::FDNotifyMsg>) {
        return std::tie(r.type, r.frameNumber, r.value);
    } else {
        return std::tie(r.id, r.streamType, r.width, r.height, r.format, r.usage, r.dataSpace,
                        r.rotation);
    }
}

template <typename Element>
uint64_t fill(android::hardware::hidl_vec<Element>& elements, uint64_t next);

/** Gives each number in a record another value with many bytes; returns the one that is next. */
template <typename Record>
uint64_t fill(Record& record, uint64_t next) {
    if constexpr (std::is_arithmetic_v<Record> || std::is_enum_v<Record>) {
        record = static_cast<Record>(next++ * 0x9e3779b97f4a7c15);
    } else if constexpr (!std::is_same_v<Record, android::hardware::hidl_handle>) {
        std::apply([&](auto&... fields) { ((next = fill(fields, next)), ...); }, fieldsOf(record));
    }
    return next;
}

template <typename Element>
uint64_t fill(android::hardware::hidl_vec<Element>& elements, uint64_t next) {
    for (Element& element : elements)
        next = fill(element, next);
    return next;
}

template <typename Element>
std::string inWords(const FileSet& files, const android::hardware::hidl_vec<Element>& elements) {
    std::string text = "( ";
    for (const Element& element : elements)
        text += inWords(files, element);
    return text + ") ";
}

template <typename Record>
std::string inWords(const FileSet& files, const Record& record) {
    if constexpr (std::is_arithmetic_v<Record> || std::is_enum_v<Record>) {
        return words(record);
    } else if constexpr (std::is_same_v<Record, android::hardware::hidl_handle>) {
        return words(files.nameOf(record));
    } else {
        return std::apply([&](const auto&... fields) { return cat(inWords(files, fields)...); },
                          fieldsOf(record));
    }
}

}  // namespace testing_support
