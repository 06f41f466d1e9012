#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "FDSession.h"
#include "host/buffer.h"

/** Records as a model and a session can both have them, and in words, to be compared. */
namespace testing_support {

namespace fdstream = vendor::zoru::zoruprovider::fdstream::V1_0;
namespace product = vendor::zoru::zoruprovider::fdstream::V1_0::implementation;

/** What a handle is of: '-' none; A to D buffers, f and g fences; e, q and x below. */
using File = char;
constexpr File kNoHandle = '-';
constexpr File kEmpty = 'e';   // neither descriptors nor integers
constexpr File kFour = 'q';    // four descriptors, so no buffer's
constexpr File kBroken = 'x';  // a buffer's, whose descriptor cannot be duplicated

struct PlainBuffer {
    int32_t stream = 0;
    uint64_t id = 0;
    File handle = kNoHandle;
    uint32_t status = 0;
    File acquire = kNoHandle;
    File release = kNoHandle;
};

struct PlainRequest {
    uint32_t frame = 0;
    uint64_t fmqSize = 0;
    std::string settings;
    PlainBuffer input;
    std::vector<PlainBuffer> outputs;
};

struct PlainResult {
    uint32_t frame = 0;
    uint64_t fmqSize = 0;
    std::string metadata;
    std::vector<PlainBuffer> outputs;
    PlainBuffer input;
    uint32_t partial = 0;
};

/** A graphics buffer; all numbers 0 when it could not be made. */
struct PlainGraphicBuffer {
    File file = kNoHandle;
    int width = 0;
    int height = 0;
    int stride = 0;
    int format = 0;
    uint64_t usage = 0;
    int initCheck = 0;
};

constexpr size_t kMemories = 4;  // buffers A to D

/** A buffer's memory as it should be. Value type. */
struct PlainMemory {
    host::BufferGeometry geometry;
    std::vector<uint8_t> bytes;
};
using Memories = std::array<PlainMemory, kMemories>;

namespace detail {
inline void append(std::string& text, const std::string& part) {
    text += part;
}
inline void append(std::string& text, const char* part) {
    text += part;
}
template <typename Number>
void append(std::string& text, Number number) {
    if constexpr (std::is_same_v<Number, char>) {
        text += number;
    } else if constexpr (std::is_enum_v<Number>) {
        text += std::to_string(static_cast<std::underlying_type_t<Number>>(number));
    } else {
        text += std::to_string(number);
    }
}
}  // namespace detail

/** The parts, one after the other, as text. */
template <typename... Parts>
std::string cat(const Parts&... parts) {
    std::string text;
    (detail::append(text, parts), ...);
    return text;
}

/** The same with a blank after each. */
template <typename... Parts>
std::string words(const Parts&... parts) {
    std::string text;
    ((detail::append(text, parts), text += ' '), ...);
    return text;
}

std::string inWords(const PlainBuffer& buffer);
std::string inWords(const PlainRequest& request);
std::string inWords(const PlainResult& result);
std::string inWords(const PlainGraphicBuffer& buffer);
std::string inWords(const product::StreamConfiguration& configuration);
std::string inWords(const product::SceneControl& control);
std::string inWords(const product::TrackControl& control);
std::string inWords(const fdstream::FDNotifyMsg& message);

}  // namespace testing_support
