#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/unique_fd.h"
#include "source/ffmpeg.h"
#include "source/stop_signal.h"

namespace camera {

/**
 * What FFmpeg reads a pipe, a FIFO or the standard input through: its own way of doing so cannot be
 * interrupted while nothing comes. For one thread; `stop` ends a read from any other.
 */
class StreamIo {
public:
    /** Null, and a sentence's end in `problem`, when it cannot be opened. "-": standard input. */
    static std::unique_ptr<StreamIo> open(const std::string& name, const StopSignal& stop,
                                          std::string& problem);
    ~StreamIo();
    StreamIo(const StreamIo&) = delete;
    StreamIo& operator=(const StreamIo&) = delete;

    AVIOContext* context() const { return mContext; }

    /** Until then reads wait for what comes, and fail when it is later. */
    void failAfter(StopSignal::Clock::time_point deadline) { mDeadline = deadline; }
    /**
     * From now on a read waits until something comes, and calls this when nothing has for so long,
     * once. So the stream goes on where it was, however long it had stalled.
     */
    void tellAfter(std::chrono::milliseconds patience, std::function<void()> onStalled);

    /** Whether it cannot be opened anew. */
    bool isStandardInput() const { return !mOwned.isValid(); }

private:
    StreamIo(host::UniqueFd owned, const StopSignal& stop);
    static int read(void* self, uint8_t* to, int size);
    int wait();

    const host::UniqueFd mOwned;  // invalid for the standard input
    const StopSignal& mStop;
    AVIOContext* mContext = nullptr;
    StopSignal::Clock::time_point mDeadline;
    std::chrono::milliseconds mPatience{0};
    std::function<void()> mOnStalled;
};

}  // namespace camera
