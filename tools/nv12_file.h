#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "frame.h"
#include "host/unique_fd.h"

namespace tools {

/** How a clip that was named on a command line is called in a sentence. */
std::string clipInWords(const std::string& name);

/**
 * A headerless NV12 file of a clip's size, read without the library's help, so that what came
 * through the library can be compared with it. Owns its descriptor; moved, not copied. One thread
 * at a time.
 */
class Nv12File {
public:
    /**
     * Opens the file of this name. What a pipe has, or standard input ("-"), is read to its end
     * first and kept; that can take long, so signals should still end the program.
     *
     * Nothing, and the reason in `problem`, unless it has at least one whole frame and does not
     * begin as a file of a known other format. A part of a frame at its end is refused as well, or
     * left out with `partial`.
     */
    static std::optional<Nv12File> open(const std::string& name, std::string& problem,
                                        bool partial = false);

    size_t frameCount() const { return mFrameCount; }
    /** Where programs of this user find it while this object lives. */
    const std::filesystem::path& path() const { return mPath; }
    /** In words, what it is taken for: nothing in such a file says so. */
    std::string description() const;
    /** Whether it has become shorter since it was opened. */
    bool isCut() const;
    /** The frame of this index, counted round and round; empty when it can't be read any more. */
    kit::Frame frame(size_t index) const;

private:
    Nv12File(host::UniqueFd file, std::filesystem::path path, off_t size);

    host::UniqueFd mFile;
    std::filesystem::path mPath;
    off_t mSize;
    size_t mFrameCount;
};

}  // namespace tools
