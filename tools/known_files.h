#pragma once

#include <cstddef>
#include <string_view>

namespace tools {

/** The bytes of a file's beginning that tell its kind. */
constexpr size_t kTellingBytes = 16;

/**
 * What a file seems to be that begins so, when that is a video or a picture in a format of its own;
 * null for anything else, which includes raw frames.
 */
const char* knownKind(std::string_view beginning);

}  // namespace tools
