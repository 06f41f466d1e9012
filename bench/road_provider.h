#pragma once

#include <sys/types.h>

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
    RoadProvider(std::string socket, std::unique_ptr<kit::ChildProcess> child);

    const std::string mSocket;
    const std::unique_ptr<kit::ChildProcess> mChild;
};

/**
 * What that process does: a provider without a pace: it takes each request on the thread that
 * brought it, right after the session has accepted it. Serves until SIGTERM; the exit code of the
 * process. With `pictures` it copies a marked frame into each buffer.
 */
int serveRoad(const std::string& socket, bool pictures);

}  // namespace bench
