#include "detection.h"

#include <err.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>

#include "IFDControl.h"
#include "command_line.h"
#include "default_socket.h"
#include "host/buffer.h"
#include "host/channel.h"

namespace tools {

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

bool isUntouched(const host::Buffer& buffer) {
    return std::all_of(buffer.bytes(), buffer.bytes() + buffer.size(),
                       [](uint8_t byte) { return byte == kNotWritten; });
}

}  // namespace

Detection::Detection(const DetectOptions& options, std::unique_ptr<camera::FaceDetector> detector,
                     const kit::Signals& signals)
    : mOptions(options),
      mSignals(signals),
      mFinder(std::move(detector)),
      mOutputs(options.outputs, options.stream.frameSize(),
               [&signals] { return signals.poll() != 0; }) {}

int Detection::run() {
    if (!mOutputs.open()) return kBadUsage;
    const sp<IFDSession> session = findProvider(mOptions.stream, mSignals);
    if (session == nullptr) return kProviderGone;
    // Before it takes the session over from one that follows already.
    if (mOptions.follow) {
        if (const std::optional<int> code = beginToFollow()) return *code;
    }
    const Figures figures = playStream(session, direction());
    mFollower.reset();
    for (const std::string& sentence : mKept)
        warnx("%s", sentence.c_str());
    const bool isAlone = mOutputs.hasNoReader();
    if (!isAlone) mFigures.print(mOutputs.talk());
    const bool saved = mOutputs.finish(figures.ending);
    const bool printed = kit::finishStandardOutput();
    const int code = isAlone ? kAllDelivered : codeOf(figures);
    return code == kAllDelivered && !(saved && printed) ? kSomeFailed : code;
}

Direction Detection::direction() {
    Direction direction;
    direction.name = "detect";
    direction.stream = mOptions.stream.settings();
    direction.stream.lends = true;
    // So that what is told of an earlier client's frames is not taken for what is told of these.
    direction.stream.numbersFrom = std::random_device()() / 2;
    direction.hushed = mOptions.outputs.watch;
    direction.talk = mOutputs.talk();
    direction.look = [this](const Answer& answer, const Figures& figures) {
        return look(answer, figures);
    };
    direction.lookAway = [this](const Answer& answer) { lookAway(answer); };
    direction.interrupted = [this] { return mSignals.poll() != 0; };
    direction.broken = [this] { return mOutputs.isBroken(); };
    direction.connectAnew = [this] { return findProvider(mOptions.stream, mSignals); };
    direction.curtain = [this] { mOutputs.stopWatching(); };
    return direction;
}

std::string Detection::look(const Answer& answer, const Figures& figures) {
    if (isUntouched(*answer.lent)) {
        lookAway(answer);
        return "came back as delivered, but unfilled";
    }
    const Sight sight = mFinder.look(answer);
    mFigures.add(sight, Clock::now());
    if (mFollower) mFollower->follow(answer, sight);
    mOutputs.take(answer, sight, figures);
    return {};
}

void Detection::lookAway(const Answer& answer) {
    mFinder.pass(answer);
    if (answer.outcome == Answer::Outcome::Skipped) mFigures.addSkipped();
    mOutputs.pass(answer);
}

std::optional<int> Detection::beginToFollow() {
    std::string problem;
    std::optional<std::string> path = mOptions.control;
    if (!path) path = mOptions.stream.socket ? mOptions.stream.socket : kit::defaultSocket(problem);
    if (path && !mOptions.control) path = kit::controlSocketOf(*path);
    sp<control::IFDControl> controls;
    if (path) controls = host::connect<control::IFDControl>(*path, problem);
    if (controls == nullptr) {
        warnx("the provider's controls are not there: %s", problem.c_str());
        return kProviderGone;
    }
    mFollower = Follower::begin(controls, mOptions.stream.frameSize(),
                                [this](const std::string& sentence) { say(sentence); });
    return mFollower ? std::nullopt : std::optional(kSomeFailed);
}

void Detection::say(const std::string& sentence) {
    if (mOptions.outputs.watch) {
        mKept.push_back(sentence);
    } else {
        warnx("%s", sentence.c_str());
    }
}

}  // namespace tools
