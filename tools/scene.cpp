#include "scene.h"

#include <err.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <vector>

namespace tools {

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

/** An answer takes little over a second at worst. One that takes longer is counted as missing. */
constexpr std::chrono::seconds kPatience(5);

/** Between two looks at whether the scene was interrupted. */
constexpr std::chrono::milliseconds kLook(50);

/** The session's own clock can differ from this program's by a little. */
constexpr std::chrono::milliseconds kStaleAtLeast(980);

/** Says how a scene goes. */
class Reporter {
public:
    explicit Reporter(const Direction& direction)
        : mName(direction.name),
          mHushed(direction.hushed),
          mTalk(direction.talk),
          mTerminal(isatty(fileno(mTalk)) != 0) {}
    ~Reporter() {
        leaveLine();
        for (const std::string& sentence : mKept)
            warnx("%s", sentence.c_str());
    }
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    /** A line that is written over again on a terminal, and a line now and then anywhere else. */
    void progress(const Figures& figures, uint32_t wanted) {
        constexpr uint32_t kSparse = 10;
        if (mHushed) return;
        const uint32_t answered = figures.answered();
        const std::string of = wanted == UINT32_MAX ? "" : " of " + std::to_string(wanted);
        if (mTerminal) {
            fprintf(mTalk, "\r%s: %u%s frames", mName.c_str(), answered, of.c_str());
            mOnLine = true;
        } else if (answered == wanted || answered % kSparse == 0) {
            fprintf(mTalk, "%s: %u%s frames\n", mName.c_str(), answered, of.c_str());
        }
        fflush(mTalk);
    }

    void complain(const std::string& what) {
        const std::string sentence = mName + ": " + what;
        if (mHushed) {
            constexpr size_t kMost = 20;
            if (mKept.size() < kMost) mKept.push_back(sentence);
            return;
        }
        leaveLine();
        warnx("%s", sentence.c_str());
    }

    void complain(const Answer& answer, const std::string& what) {
        complain("frame " + std::to_string(answer.frameNumber) + " " + what);
    }

    void leaveLine() {
        if (!mOnLine) return;
        fprintf(mTalk, "\n");
        fflush(mTalk);
        mOnLine = false;
    }

private:
    const std::string mName;
    const bool mHushed;
    FILE* const mTalk;
    const bool mTerminal;
    bool mOnLine = false;
    std::vector<std::string> mKept;
};

/** One run of a client, from its first request to its last answer. */
class Run {
public:
    Run(const sp<IFDSession>& session, const Direction& direction)
        : mDirection(direction), mSettings(direction.stream), mReporter(direction) {
        mClient.emplace(session, mSettings);
        mFigures.scene = direction.name;
        mFigures.wanted = direction.stream.frames;
    }

    bool start() {
        std::string problem;
        if (mClient->start(problem)) return true;
        if (problem.empty()) return endLost();
        mReporter.complain(problem);
        return end(Ending::Refused);
    }

    /** Waits for the next answer and counts it; nothing when the run is over. */
    std::optional<Answer> take() {
        if (mFigures.ending != Ending::NotKept && mDirection.broken()) stop(Ending::NotKept);
        Clock::time_point silent = Clock::now();
        while (mFigures.answered() + mLost < mClient->wanted()) {
            if (mDirection.interrupted() && !interrupt()) break;
            if (std::optional<Answer> answer = mClient->next(kLook)) {
                mFigures.add(*answer);
                return answer;
            }
            const Clock::time_point now = Clock::now();
            if (mClient->isIdle()) silent = now;
            if (mClient->loss() == Loss::None) {
                if (now - silent >= kPatience && !endSilent()) break;
            } else {
                if (!goOnElsewhere()) break;
                silent = Clock::now();
            }
        }
        mFigures.asked = mClient->asked();
        return std::nullopt;
    }

    void progress() {
        // Nothing more is expected of a stream whose reader went away.
        if (mFigures.ending != Ending::NotKept) mReporter.progress(mFigures, mClient->wanted());
    }
    void giveBack(const Answer& answer) { mClient->giveBack(answer); }
    Reporter& reporter() { return mReporter; }
    Figures& figures() { return mFigures; }

private:
    bool end(Ending how) {
        mFigures.ending = how;
        return false;
    }

    /** Lets the requests under way come back. */
    void stop(Ending why) {
        mFigures.ending = why;
        mClient->stopAsking();
    }

    /** False when it is to end at once, because it was about to end already. */
    bool interrupt() {
        if (mFigures.ending != Ending::Complete) return false;
        mReporter.complain("interrupted: waiting for the requests under way, no further ones");
        stop(Ending::Interrupted);
        return true;
    }

    bool endSilent() {
        mReporter.complain("nothing came for " + std::to_string(kPatience.count()) + " seconds");
        return end(Ending::Silent);
    }

    bool endLost() {
        const bool takenOver = mClient->loss() == Loss::TakenOver;
        mReporter.complain((takenOver ? "" : "the provider is gone: ") + mClient->lossInWords());
        return end(takenOver ? Ending::TakenOver : Ending::Gone);
    }

    /** After a loss: whether the stream goes on all the same. */
    bool goOnElsewhere() {
        if (mClient->loss() != Loss::GivenUp) return endLost();
        mSettings.firstFrame = mClient->asked();
        mSettings.frames = mClient->wanted();
        mLost = mSettings.firstFrame - mFigures.answered();
        mReporter.complain(mClient->lossInWords() +
                           "; frames missing by now: " + std::to_string(mLost));
        if (mSettings.firstFrame == mSettings.frames) return true;
        const sp<IFDSession> session = mDirection.connectAnew();
        if (session == nullptr) {
            mReporter.complain("there is no way to connect anew");
            return end(Ending::Gone);
        }
        mClient.emplace(session, mSettings);
        return start();
    }

    const Direction& mDirection;
    StreamSettings mSettings;
    Reporter mReporter;
    Figures mFigures;
    uint32_t mLost = 0;  // requests that nobody answers any more
    std::optional<StreamClient> mClient;
};

/** In words, why an answer that has no picture is wrong; empty when it belongs to somebody else. */
std::string faultWithout(const Answer& answer) {
    switch (answer.outcome) {
        case Answer::Outcome::Stray:
            return "came, but no request for it is under way";
        case Answer::Outcome::Refused:
            return "was refused by the session";
        case Answer::Outcome::Failed:
            return "came back as an error";
        case Answer::Outcome::Filled:
        case Answer::Outcome::Skipped:
        case Answer::Outcome::ForeignPicture:
        case Answer::Outcome::ForeignError:
            break;
    }
    return {};
}

/** In words, why requests were given up that would have been served; empty when none was. */
std::string adviceOn(const Figures& figures, uint32_t buffers) {
    const auto late =
        std::count_if(figures.frames.begin(), figures.frames.end(), [](const FrameTimes& frame) {
            return frame.outcome == Answer::Outcome::Failed &&
                   frame.answered - frame.requested >= kStaleAtLeast;
        });
    const double rate = framesPerSecond(figures.arrivals());
    if (late == 0 || rate <= 0 || buffers == 1 || buffers < rate) return {};
    char text[160];
    snprintf(
        text, sizeof(text),
        "%d of the requests outlived the second that each may wait: at %.1f frames a second %u in "
        "flight are too many, take --buffers %d",
        static_cast<int>(late), rate, buffers, std::max(1, static_cast<int>(rate) - 1));
    return text;
}

}  // namespace

Figures playStream(const sp<IFDSession>& session, const Direction& direction) {
    Run run(session, direction);
    if (!run.start()) return run.figures();
    while (const std::optional<Answer> answer = run.take()) {
        const bool filled = answer->outcome == Answer::Outcome::Filled;
        const std::string fault =
            filled ? direction.look(*answer, run.figures()) : faultWithout(*answer);
        if (filled) run.giveBack(*answer);
        if (answer->outcome == Answer::Outcome::Failed ||
            answer->outcome == Answer::Outcome::Skipped) {
            direction.lookAway(*answer);
        }
        if (!fault.empty()) run.reporter().complain(*answer, fault);
        if (!fault.empty() && (filled || answer->outcome == Answer::Outcome::Stray))
            ++run.figures().wrong;
        run.progress();
    }
    run.reporter().leaveLine();
    const std::string advice = adviceOn(run.figures(), direction.stream.buffers);
    if (!advice.empty()) run.reporter().complain(advice);
    direction.curtain();
    return run.figures();
}

Figures playUnserved(const sp<IFDSession>& session, const std::string& name, uint32_t requests) {
    Direction direction;
    direction.name = name;
    direction.stream.frames = requests;
    direction.stream.buffers = requests;
    Run run(session, direction);
    if (!run.start()) return run.figures();
    while (const std::optional<Answer> answer = run.take()) {
        if (answer->outcome == Answer::Outcome::Failed && answer->latency >= kStaleAtLeast) {
            printf("%s: frame %u came back with an error, in buffer %u, after %.0f ms\n",
                   name.c_str(), answer->frameNumber, answer->buffer,
                   inMilliseconds(answer->latency));
        } else {
            ++run.figures().wrong;
            run.reporter().complain(*answer, "should have come back as an error after a second");
        }
    }
    return run.figures();
}

}  // namespace tools
