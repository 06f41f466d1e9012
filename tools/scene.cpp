#include "scene.h"

#include <err.h>
#include <unistd.h>

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
    Reporter(std::string name, bool hushed)
        : mName(std::move(name)), mHushed(hushed), mTerminal(isatty(STDOUT_FILENO) != 0) {}
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
            printf("\r%s: %u%s frames", mName.c_str(), answered, of.c_str());
            mOnLine = true;
        } else if (answered == wanted || answered % kSparse == 0) {
            printf("%s: %u%s frames\n", mName.c_str(), answered, of.c_str());
        }
        fflush(stdout);
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
        printf("\n");
        fflush(stdout);
        mOnLine = false;
    }

private:
    const std::string mName;
    const bool mHushed;
    const bool mTerminal;
    bool mOnLine = false;
    std::vector<std::string> mKept;
};

/** One run of a client, from its first request to its last answer. */
class Run {
public:
    Run(const sp<IFDSession>& session, const Direction& direction)
        : mDirection(direction),
          mReporter(direction.name, direction.hushed),
          mClient(session, direction.stream) {
        mFigures.scene = direction.name;
        mFigures.wanted = direction.stream.frames;
    }

    bool start() {
        std::string problem;
        if (mClient.start(problem)) return true;
        mFigures.ending = problem.empty() ? Ending::Gone : Ending::Refused;
        mReporter.complain(problem.empty() ? "the provider is gone: " + mClient.loss() : problem);
        return false;
    }

    /** Waits for the next answer and counts it; nothing when the run is over. */
    std::optional<Answer> take() {
        Clock::time_point silent = Clock::now();
        while (mFigures.answered() < mClient.wanted()) {
            if (mDirection.interrupted() && !interrupt()) break;
            if (std::optional<Answer> answer = mClient.next(kLook)) {
                mFigures.add(*answer);
                return answer;
            }
            const Clock::time_point now = Clock::now();
            if (mClient.isIdle()) silent = now;
            if (!mayGoOn(now - silent)) break;
        }
        mFigures.asked = mClient.asked();
        return std::nullopt;
    }

    void progress() { mReporter.progress(mFigures, mClient.wanted()); }
    Reporter& reporter() { return mReporter; }
    Figures& figures() { return mFigures; }

private:
    /** The first time lets the requests under way come back; false from then on. */
    bool interrupt() {
        if (mFigures.ending == Ending::Interrupted) return false;
        mFigures.ending = Ending::Interrupted;
        mReporter.complain("interrupted: waiting for the requests under way, no further ones");
        mClient.stopAsking();
        return true;
    }

    bool mayGoOn(Clock::duration silence) {
        const std::string loss = mClient.loss();
        if (!loss.empty()) {
            mFigures.ending = Ending::Gone;
            mReporter.complain("the provider is gone: " + loss);
            return false;
        }
        if (silence < kPatience) return true;
        mFigures.ending = Ending::Silent;
        mReporter.complain("nothing came for " + std::to_string(kPatience.count()) + " seconds");
        return false;
    }

    const Direction& mDirection;
    Reporter mReporter;
    Figures mFigures;
    StreamClient mClient;
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
        case Answer::Outcome::ForeignPicture:
        case Answer::Outcome::ForeignError:
            break;
    }
    return {};
}

}  // namespace

Figures playStream(const sp<IFDSession>& session, const Direction& direction) {
    Run run(session, direction);
    if (!run.start()) return run.figures();
    while (const std::optional<Answer> answer = run.take()) {
        const bool filled = answer->outcome == Answer::Outcome::Filled;
        const std::string fault =
            filled ? direction.look(*answer, run.figures()) : faultWithout(*answer);
        if (!fault.empty()) run.reporter().complain(*answer, fault);
        if (!fault.empty() && (filled || answer->outcome == Answer::Outcome::Stray))
            ++run.figures().wrong;
        run.progress();
    }
    run.reporter().leaveLine();
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
