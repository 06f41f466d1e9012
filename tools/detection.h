#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "detect_figures.h"
#include "detect_outputs.h"
#include "face_finder.h"
#include "faces/face_detector.h"
#include "follower.h"
#include "scene.h"
#include "signals.h"
#include "stream_options.h"

namespace tools {

/** What the detector is to do. Value type. */
struct DetectOptions {
    StreamOptions stream;
    camera::FaceSearch search;
    DetectChoice outputs;
    bool follow = false;
    std::optional<std::string> control;  ///< socket; without it that beside the session's
};

/**
 * Looks at the newest frame of a stream, again and again, and tells of the faces. All but the
 * stream's callback is on the thread that runs it.
 */
class Detection {
public:
    /** `options` and `signals` have to outlive it. */
    Detection(const DetectOptions& options, std::unique_ptr<camera::FaceDetector> detector,
              const kit::Signals& signals);

    /** Until the stream's end; the program's exit code, after sentences on stderr. */
    int run();

private:
    Direction direction();
    std::string look(const Answer& answer, const Figures& figures);
    void lookAway(const Answer& answer);
    /** Nothing when it follows now, else the exit code. */
    std::optional<int> beginToFollow();
    /** At once, or later when a terminal shows the stream. */
    void say(const std::string& sentence);

    const DetectOptions& mOptions;
    const kit::Signals& mSignals;
    FaceFinder mFinder;
    DetectOutputs mOutputs;
    DetectFigures mFigures;
    std::unique_ptr<Follower> mFollower;
    std::vector<std::string> mKept;
};

}  // namespace tools
