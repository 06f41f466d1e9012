#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "frame.h"
#include "output_file.h"

namespace tools {

/** The header of such a stream. REQUIRES: the rate is above 0. */
std::string y4mHeader(kit::FrameSize size, double perSecond);

/**
 * Frames for other programs, as a YUV4MPEG2 stream: of limited range, each chroma plane of
 * (width + 1) / 2 by (height + 1) / 2 samples. The rate in its header is what is asked for or, with
 * 0, what the sensor times of the first frames say, which are kept until then; 25 when they say
 * nothing. A reader that goes away is no failure, but there is nothing more to write then.
 *
 * Operations are those of OutputFile, and for one thread like them.
 */
class Y4mFile {
public:
    Y4mFile(const std::string& path, kit::FrameSize size, double perSecond,
            std::function<bool()> interrupted);

    bool open() { return mFile.open(); }
    /** The next frame, as wholeFrame() has it, and when it was due, if that is known. */
    bool write(const kit::Frame& frame, std::optional<uint64_t> sensorNs);
    /** The last frame once more, for one that nobody filled. Before the first there is none. */
    bool repeat();
    /** Writes what is kept: no more times are to come. */
    bool flush();
    bool finish();

    bool isBroken() const { return mFile.isBroken(); }
    bool hasNoReader() const { return mFile.hasNoReader(); }
    const OutputFile& file() const { return mFile; }

private:
    struct Due {
        size_t place;  // among the frames
        uint64_t sensorNs;
    };

    double measuredRate() const;
    bool begin();
    bool put();

    const kit::FrameSize mSize;
    const double mPerSecond;
    OutputFile mFile;
    std::string mLast;  // a frame with its line, as it is written
    std::optional<std::vector<std::string>> mKept{std::in_place};  // until the header is written
    std::vector<Due> mTimes;                                       // of those
};

}  // namespace tools
