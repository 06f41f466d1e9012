#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "face_finder.h"
#include "figures.h"
#include "output_file.h"
#include "picture_folder.h"
#include "terminal_view.h"
#include "y4m_file.h"

namespace tools {

/** What is to become of the frames and the faces in them. */
struct DetectChoice {
    std::optional<std::string> json;
    std::optional<std::string> png;
    std::optional<std::string> y4m;
    bool watch = false;

    bool hasStandardOutput() const { return json == "-" || y4m == "-"; }
    /** In words, why this cannot be; empty when it can. */
    std::string problem() const;
};

/** All that is done with the frames and the faces in them. For one thread. */
class DetectOutputs {
public:
    /** `interrupted` is asked while nobody reads an output. */
    DetectOutputs(DetectChoice choice, kit::FrameSize size,
                  const std::function<bool()>& interrupted);

    /** False after a sentence on stderr. */
    bool open();
    /** Where people are talked to: not where an output goes. */
    FILE* talk() const { return mChoice.hasStandardOutput() ? stderr : stdout; }

    /** A frame that was looked at. REQUIRES: it is still lent. */
    void take(const Answer& answer, const Sight& sight, const Figures& figures);
    /** A frame that was not: skipped, failed or not filled. */
    void pass(const Answer& answer);
    void stopWatching() { mView.reset(); }
    /** Whether an output has failed, so that nothing more is needed. */
    bool isBroken() const;
    /** Whether it is one that nobody wants to read any more, which is no failure. */
    bool hasNoReader() const { return mY4m && mY4m->hasNoReader(); }

    /** Whether all is written; if not, after a sentence on stderr. */
    bool finish(Ending ending);

private:
    const DetectChoice mChoice;
    const kit::FrameSize mSize;
    std::optional<OutputFile> mJson;
    std::optional<PictureFolder> mFolder;
    std::optional<Y4mFile> mY4m;
    std::optional<TerminalView> mView;
    bool mSaved = true;
};

}  // namespace tools
