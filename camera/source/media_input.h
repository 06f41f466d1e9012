#pragma once

#include <string>

#include "source/ffmpeg.h"
#include "source/source_options.h"

namespace camera {

/** What FFmpeg is told to open. Moved, not copied; owns its settings. */
struct MediaInput {
    MediaInput() = default;
    ~MediaInput() { av_dict_free(&settings); }
    MediaInput(const MediaInput&) = delete;
    MediaInput& operator=(const MediaInput&) = delete;

    const AVInputFormat* format = nullptr;  ///< null: by the content
    std::string url;
    AVDictionary* settings = nullptr;
    bool isStream = false;  ///< to be read through StreamIo
    bool isLive = false;    ///< a camera
};

/** False, and a sentence's end in `problem`, when there is no such input. */
bool chooseInput(const SourceOptions& options, MediaInput& input, std::string& problem);

}  // namespace camera
