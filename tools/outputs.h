#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "comparison.h"
#include "figures.h"
#include "frame.h"
#include "output_file.h"
#include "picture_folder.h"
#include "stream_client.h"
#include "terminal_view.h"
#include "y4m_file.h"

namespace tools {

/** What is to become of the pictures and the figures. */
struct OutputChoice {
    std::optional<std::string> png;
    std::optional<std::string> raw;
    std::optional<std::string> json;
    std::optional<std::string> y4m;
    double perSecond = 0;  ///< of that; 0 for what the frames say
    std::optional<std::string> compare;
    bool turned = false;
    bool partial = false;
    bool watch = false;

    bool hasStandardOutput() const { return raw == "-" || json == "-" || y4m == "-"; }
    /** In words, why this cannot be; empty when it can. */
    std::string problem(kit::FrameSize size) const;
};

/** All that is done with the pictures and the figures. For one thread. */
class Outputs {
public:
    /** `interrupted` is asked while nobody reads an output. */
    Outputs(OutputChoice choice, kit::FrameSize size, std::optional<Comparison> comparison,
            std::function<bool()> interrupted);

    /** False after a sentence on stderr. */
    bool open();
    /** Where people are talked to: not where an output goes. */
    FILE* talk() const { return mChoice.hasStandardOutput() ? stderr : stdout; }

    /** In words, what is wrong with the picture; empty when nothing is. */
    std::string take(const Answer& answer, const Figures& figures);
    /** A frame came back without a picture. */
    void takeUnfilled();
    /** The pictures to come do not follow those that came. */
    void breakOff();
    void stopWatching() { mView.reset(); }
    /** Whether an output has failed, so that nothing more is needed. */
    bool isBroken() const;
    /** Whether it is one that nobody wants to read any more, which is no failure. */
    bool hasNoReader() const { return mY4m && mY4m->hasNoReader(); }

    /** Whether all is written; if not, after a sentence on stderr. */
    bool finish(const Figures& figures, const StreamSettings& settings);

private:
    const OutputChoice mChoice;
    const kit::FrameSize mSize;
    std::optional<PictureFolder> mFolder;
    std::optional<OutputFile> mRaw;
    std::optional<OutputFile> mJson;
    std::optional<Y4mFile> mY4m;
    std::optional<Comparison> mComparison;
    std::optional<TerminalView> mView;
    bool mSaved = true;
};

}  // namespace tools
