#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "figures.h"
#include "nv12_file.h"
#include "stream_client.h"

namespace tools {

/**
 * Tells whether a stream is what a file has. A provider goes on in its file from client to client,
 * so the stream may start at any frame; from there on it has to follow the file. Value type.
 */
class Comparison {
public:
    Comparison(Nv12File clip, bool turned) : mClip(std::move(clip)), mTurned(turned) {}

    /** With the clip of this name, as Nv12File opens it; nothing after a sentence on stderr. */
    static std::optional<Comparison> with(const std::string& clip, bool turned, bool partial);

    /**
     * In words, what is wrong with a picture; empty when it is the one that it has to be. `figures`
     * are those of the answers so far.
     */
    std::string faultOf(const Answer& answer, const Figures& figures);
    /** The pictures to come may start at any frame again. */
    void startAnew() { mStarts.clear(); }

private:
    /** A frame of the stream as the file has it, and the reverse. */
    kit::Frame inFileDirection(const kit::Frame& frame) const;
    /** Where the file can have been at the stream's start for it to have this frame now. */
    std::vector<size_t> startsOf(const kit::Frame& frame, size_t offset) const;
    std::string mismatch(const kit::Frame& frame, size_t offset) const;

    Nv12File mClip;
    bool mTurned;
    // Where the stream can have started; a file may show the same picture more than once. Empty
    // until a picture was found.
    std::vector<size_t> mStarts;
};

}  // namespace tools
