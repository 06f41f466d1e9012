#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "child_process.h"

namespace bench {

/** This program once more, as a provider in a process of its own; it ends with this object. */
class RoadProvider {
public:
    /** Null, and a sentence in `problem`, when it does not start. */
    static std::unique_ptr<RoadProvider> start(bool pictures, std::string& problem);

    ~RoadProvider();
    RoadProvider(const RoadProvider&) = delete;
    RoadProvider& operator=(const RoadProvider&) = delete;

    const std::string& socket() const { return mSocket; }
    pid_t id() const { return mChild->id(); }

private:
    RoadProvider(std::string socket, std::unique_ptr<tools::ChildProcess> child);

    const std::string mSocket;
    const std::unique_ptr<tools::ChildProcess> mChild;
};

/**
 * What that process does: a provider without a pace: it takes each request on the thread that
 * brought it, right after the session has accepted it. Serves until SIGTERM; the exit code of the
 * process. With `pictures` it copies a 720p frame that is marked with its number into each buffer.
 */
int serveRoad(const std::string& socket, bool pictures);

/** The mark of a frame, in the first bytes of its luma and the last of its chroma. */
void mark(uint8_t* packed, size_t bytes, uint32_t frameNumber);
/** Whether the frame from `begin` to `end` has that mark. */
bool isMarked(const uint8_t* begin, const uint8_t* end, uint32_t frameNumber);

}  // namespace bench
