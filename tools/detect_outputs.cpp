#include "detect_outputs.h"

#include <err.h>

#include <algorithm>
#include <utility>

#include "boxes.h"
#include "faces_json.h"
#include "whole_frame.h"

namespace tools {

namespace {

constexpr int kThinnest = 2;
constexpr int kOutlinesAcross = 256;  // so many outlines beside each other fill a picture

kit::Frame boxed(const kit::Frame& frame, kit::FrameSize size, const Sight& sight) {
    kit::Frame copy = frame;
    drawBoxes(copy, size, sight.faces, std::max(kThinnest, size.width / kOutlinesAcross));
    return copy;
}

}  // namespace

std::string DetectChoice::problem() const {
    if (json && json == y4m) return "--json and --y4m cannot both go to " + *json;
    if (watch && hasStandardOutput())
        return "--watch shows the stream on the standard output, where nothing else can go then";
    return watch ? TerminalView::obstacle() : std::string();
}

DetectOutputs::DetectOutputs(DetectChoice choice, kit::FrameSize size,
                             const std::function<bool()>& interrupted)
    : mChoice(std::move(choice)), mSize(size) {
    if (mChoice.json) mJson.emplace(*mChoice.json, interrupted);
    if (mChoice.png) mFolder.emplace(*mChoice.png);
    if (mChoice.y4m) mY4m.emplace(*mChoice.y4m, mSize, 0, interrupted);
}

bool DetectOutputs::open() {
    return (!mFolder || mFolder->make()) && (!mJson || mJson->open()) && (!mY4m || mY4m->open());
}

void DetectOutputs::take(const Answer& answer, const Sight& sight, const Figures& figures) {
    if (mJson) mJson->write(lineOf(answer, &sight));
    if (!mFolder && !mY4m && !mChoice.watch) return;
    const kit::Frame frame = wholeFrame(*answer.lent);
    const kit::Frame picture = boxed(frame, mSize, sight);
    if (mFolder && mSaved) mSaved = mFolder->save(answer.frameNumber, picture, mSize);
    if (mY4m) mY4m->write(picture, answer.told.sensorNs);
    if (mChoice.watch && !mView) mView.emplace(mSize);
    if (mView) {
        Answer shown = answer;
        shown.frame = frame;
        mView->show(shown, figures, {"faces     " + std::to_string(sight.faces.size())},
                    sight.faces);
    }
}

void DetectOutputs::pass(const Answer& answer) {
    if (mJson) mJson->write(lineOf(answer, nullptr));
    if (mY4m && answer.outcome != Answer::Outcome::Skipped) mY4m->repeat();
}

bool DetectOutputs::isBroken() const {
    return !mSaved || (mJson && mJson->isBroken()) || (mY4m && mY4m->isBroken()) ||
           ferror(stdout) != 0;
}

bool DetectOutputs::finish(Ending ending) {
    bool saved = mSaved;
    if (mJson) saved &= mJson->finish();
    if (!mY4m) return saved;
    mY4m->flush();
    if (ending == Ending::Complete || ending == Ending::Interrupted || mY4m->isBroken())
        return (mY4m->finish() || mY4m->hasNoReader()) && saved;
    if (mY4m->file().isPart()) warnx("%s is not finished", mY4m->file().name().c_str());
    return saved;
}

}  // namespace tools
