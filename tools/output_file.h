#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/unique_fd.h"

namespace tools {

/**
 * What a program writes for its user. A file has ".part" behind its name until it is finished: so
 * nobody takes half of one for a whole, and an older one stays until then. "-" is the standard
 * output; that, a device and a pipe are written to as they are.
 *
 * Operations give false after a sentence on stderr, and from the first failure on at once. For one
 * thread. REQUIRES: SIGPIPE is ignored.
 */
class OutputFile {
public:
    /** Whether one that goes away is worth a sentence. */
    enum class Reader { HasToStay, MayLeave };

    /** `interrupted` is asked while nobody reads: whether to wait no longer. */
    OutputFile(std::string path, std::function<bool()> interrupted,
               Reader reader = Reader::HasToStay);
    /** A file that was not finished stays, unless nothing was written to it. */
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool open();
    bool write(std::string_view bytes);
    /** Gives the file its own name. */
    bool finish();

    bool isBroken() const { return mBroken; }
    /** Whether it is broken by a reader that went away, which may. */
    bool hasNoReader() const { return mHasNoReader; }
    /** Whether there is a part that has not got its own name. */
    bool isPart() const { return mFd.isValid() && mName != mPath; }
    /** Where it is written to now, in words. */
    const std::string& name() const { return mName; }

private:
    bool openPart();
    bool openPipe();
    bool waitForReader();
    bool fail(int error);

    std::string mPath;
    std::string mName;
    const std::function<bool()> mInterrupted;
    const Reader mReader;
    host::UniqueFd mFd;
    bool mHasBytes = false;
    bool mBroken = false;
    bool mHasNoReader = false;
};

}  // namespace tools
