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
    const std::pair<const char*, const std::optional<std::string>&> files[] = {
        {"--raw", raw}, {"--y4m", y4m}, {"--json", json}};
    for (const auto& [first, one] : files) {
        for (const auto& [second, other] : files) {
            if (&one != &other && one && one == other)
                return std::string(first) + " and " + second + " cannot both go to " + *one;
        }
    }
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
    if (mChoice.y4m) mY4m.emplace(*mChoice.y4m, mSize, mChoice.perSecond, interrupted);
}

bool Outputs::open() {
    // The figures' file, too: that it cannot be written is found out before a long stream.
    return (!mFolder || mFolder->make()) && (!mRaw || mRaw->open()) && (!mJson || mJson->open()) &&
           (!mY4m || mY4m->open());
}

std::string Outputs::take(const Answer& answer, const Figures& figures) {
    if (mFolder && mSaved) mSaved = mFolder->save(answer.frameNumber, answer.frame, mSize);
    if (mRaw) mRaw->write(bytesOf(answer.frame));
    if (mChoice.watch && !mView) mView.emplace(mSize);
    if (mView) mView->show(answer, figures);
    if (isUnfilled(answer.frame)) {
        takeUnfilled();
        return "came back as delivered, but unfilled";
    }
    if (mY4m) mY4m->write(answer.frame, answer.told.sensorNs);
    return mComparison ? mComparison->faultOf(answer, figures) : std::string();
}

void Outputs::takeUnfilled() {
    if (mY4m) mY4m->repeat();
}

void Outputs::breakOff() {
    // From here on the stream may go on with any frame of the clip.
    if (mComparison) mComparison->startAnew();
}

bool Outputs::isBroken() const {
    return !mSaved || (mRaw && mRaw->isBroken()) || (mY4m && mY4m->isBroken()) ||
           ferror(stdout) != 0;
}

bool Outputs::finish(const Figures& figures, const StreamSettings& settings) {
    const bool isWhole =
        figures.ending == Ending::Complete || figures.ending == Ending::Interrupted;
    bool saved = mSaved;
    const auto finish = [&](auto& output, const OutputFile& file) {
        if (isWhole || file.isBroken()) {
            saved &= output.finish();
        } else if (file.isPart()) {
            warnx("%s is not finished", file.name().c_str());
        }
    };
    if (mRaw) finish(*mRaw, *mRaw);
    if (mY4m) mY4m->flush();
    if (mY4m) finish(*mY4m, mY4m->file());
    if (mJson) saved &= mJson->write(jsonOf(figures, settings)) && mJson->finish();
    return saved;
}

}  // namespace tools
