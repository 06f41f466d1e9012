#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "source/handover.h"
#include "source/media.h"
#include "source/source_options.h"
#include "source/stop_signal.h"
#include "view/pace.h"

namespace camera {

/**
 * Decodes a source and hands each frame over when it is due, again from the beginning at its end.
 * Without a source it tries to open it anew each second. open() and description() are for one
 * thread, run() for another afterwards.
 */
class Player {
public:
    /** REQUIRES: both outlive it. */
    Player(SourceOptions options, Handover& handover, const StopSignal& stop);

    /** False, and a sentence's end in `problem`, when there is no source to begin with. */
    bool open(std::string& problem);
    /** What is played, for a line at the start. */
    std::string description() const;
    /** Until it is stopped. REQUIRES: it was opened. */
    void run();

private:
    std::unique_ptr<Media> openMedia(std::string& problem);
    void playOn();
    void present(MediaFrame&& frame);
    void atEnd();
    void repeat();
    void fail(const std::string& reason);
    void tryAgain();
    bool isPaced() const { return !mOptions.fps || *mOptions.fps > 0; }

    const SourceOptions mOptions;
    Handover& mHandover;
    const StopSignal& mStop;
    Pace mPace;
    std::unique_ptr<Media> mMedia;  // null while there is no source
    std::string mDescription;
    std::optional<int64_t> mFirstStampNs;  // of the file, to be found again when it was rewound
    uint64_t mFramesOfPass = 0;
    bool mCanRewind = true;
    bool mIsOver = false;
    FramePtr mLast;  // kept while it can be the only one
    StopSignal::Clock::time_point mNextTry;
};

}  // namespace camera
