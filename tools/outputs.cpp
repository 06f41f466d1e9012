#include "outputs.h"

#include <err.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "figures_json.h"

namespace tools {

namespace {

bool isUnfilled(const kit::Frame& frame) {
    return std::all_of(frame.begin(), frame.end(),
                       [](uint8_t byte) { return byte == kNotWritten; });
}

std::string_view bytesOf(const kit::Frame& frame) {
    return {reinterpret_cast<const char*>(frame.data()), frame.size()};
}

}  // namespace

std::string OutputChoice::problem(kit::FrameSize size) const {
    if (raw && raw == json) return "--raw and --json cannot both go to " + *raw;
    if (watch && hasStandardOutput())
        return "--watch shows the stream on the standard output, where nothing else can go then";
    if (compare && size.bytes() != kit::kFrameBytes)
        return "--compare goes with the clip's own size, 1280x720";
    return watch ? TerminalView::obstacle() : std::string();
}

Outputs::Outputs(OutputChoice choice, kit::FrameSize size, std::optional<Comparison> comparison,
                 std::function<bool()> interrupted)
    : mChoice(std::move(choice)), mSize(size), mComparison(std::move(comparison)) {
    if (mChoice.png) mFolder.emplace(*mChoice.png);
    if (mChoice.raw) mRaw.emplace(*mChoice.raw, interrupted);
    if (mChoice.json) mJson.emplace(*mChoice.json, interrupted);
}

bool Outputs::open() {
    // The figures' file, too: that it cannot be written is found out before a long stream.
    return (!mFolder || mFolder->make()) && (!mRaw || mRaw->open()) && (!mJson || mJson->open());
}

std::string Outputs::take(const Answer& answer, const Figures& figures) {
    if (mFolder && mSaved) mSaved = mFolder->save(answer.frameNumber, answer.frame, mSize);
    if (mRaw) mRaw->write(bytesOf(answer.frame));
    if (mChoice.watch && !mView) mView.emplace(mSize);
    if (mView) mView->show(answer, figures);
    if (isUnfilled(answer.frame)) return "came back as delivered, but unfilled";
    return mComparison ? mComparison->faultOf(answer, figures) : std::string();
}

void Outputs::breakOff() {
    // From here on the stream may go on with any frame of the clip.
    if (mComparison) mComparison->startAnew();
}

bool Outputs::isBroken() const {
    return !mSaved || (mRaw && mRaw->isBroken()) || ferror(stdout) != 0;
}

bool Outputs::finish(const Figures& figures, const StreamSettings& settings) {
    const bool isWhole =
        figures.ending == Ending::Complete || figures.ending == Ending::Interrupted;
    bool saved = mSaved;
    if (mRaw && (isWhole || mRaw->isBroken())) {
        saved &= mRaw->finish();
    } else if (mRaw && mRaw->isPart()) {
        warnx("%s is not finished", mRaw->name().c_str());
    }
    if (mJson) saved &= mJson->write(jsonOf(figures, settings)) && mJson->finish();
    return saved;
}

}  // namespace tools
