// Storms of clients against a provider in a process of its own, with pauses in which it must hold
// no more than at the first one.

#include <android/hardware/camera/common/1.0/types.h>
#include <android/log.h>
#include <err.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "command_line.h"
#include "host/accepted.h"
#include "host/log.h"
#include "records.h"
#include "run_program.h"
#include "signals.h"
#include "soak_frames.h"
#include "soak_ledger.h"
#include "soak_process.h"
#include "soak_share.h"
#include "soak_storm.h"
#include "stream_client.h"

namespace {

using android::sp;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tools::Clock;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr int kHeld = 0;
constexpr int kNotHeld = 1;
constexpr int kNotRun = 2;

constexpr const char* kExamples =
    "What comes: clients, each a process, eight at a time. Orderly ones (\"order\")\n"
    "work and go, and compare every byte of every frame with what it has to be;\n"
    "others configure anew while frames are in flight (\"chang\"), never answer or\n"
    "read a callback (\"hang\"), make requests as fast as they can and read no answer\n"
    "(\"flood\"), or send what is no message (\"noise\"). One that hangs is always there.\n"
    "Two of five are killed within a second, unless they have gone before. Meanwhile\n"
    "frames are turned or not, and who fills the buffers changes: a provider's\n"
    "thread, the test frame source, both, or nobody.\n"
    "\n"
    "What has to hold: in the storm somebody gets a frame in any 7 seconds. Every 10\n"
    "seconds, in runs of more than five minutes once a minute, it pauses until all\n"
    "clients are gone. Then a client gets 24 frames upright and 24 turned, all right,\n"
    "and the provider has as many descriptors (fds), threads (thr), mappings of\n"
    "buffers (map) and imported buffers (buf) as at the first pause, and at most 2 MB\n"
    "more memory (MB, resident) than at the third. Errors are answers without a\n"
    "frame; in a storm, where clients take the session from each other, they are as\n"
    "expected.\n"
    "\n"
    "Examples (./run soak is this program, built if need be):\n"
    "  ./run soak                    one minute\n"
    "  ./run soak 30                 thirty\n"
    "  ./run soak 5 --seed 4711      the clients that came with this seed, as far as\n"
    "                                chance has no part: they are processes, and the\n"
    "                                moments are the machine's\n"
    "  ./run soak --share            a table of what one client can take at most\n"
    "\n"
    "Exit code: 0 all held, 1 something did not, 2 nothing was run.";

struct Options {
    uint32_t minutes = 1;
    uint32_t seed = std::random_device()();
    bool isShort = false;
    bool share = false;

    seconds duration() const { return isShort ? 2 * period() : std::chrono::minutes(minutes); }
    seconds period() const { return seconds(isShort ? 3 : minutes <= 5 ? 10 : 60); }
};

/** Nothing when the soak is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app(
        "Serves orderly and hostile clients in other processes for a while, kills some of them, and "
        "shows that nothing of them stays with the provider.",
        "fdstream-soak");
    app.footer(kExamples);
    app.add_option("MINUTES", options.minutes, "how long; 1 if nothing else is said")
        ->type_name("")
        ->check(CLI::Range(1U, 10000U).description(""));
    app.add_option("--seed", options.seed, "of the clients; by default another one each time")
        ->type_name("N");
    app.add_flag("--short", options.isShort, "six seconds with two pauses, as a test");
    app.add_flag("--share", options.share,
                 "measure instead what one client can take of the provider");
    return kit::parseCommandLine(app, argc, argv, kNotRun);
}

/** Changes how frames are filled, now and then. */
class Weather {
public:
    Weather(tools::SoakProcess& provider, uint32_t seed) : mProvider(provider), mRandom(seed) {}

    /** False when the provider does not answer. */
    bool change() {
        static constexpr std::array<const char*, 8> kChanges = {
            "feed thread", "feed thread", "feed file", "feed both",
            "feed nobody", "flip true",   "flip true", "flip false"};
        if (Clock::now() < mNext) return true;
        mNext = Clock::now() + milliseconds(mRandom() % 600);
        return mProvider.ask(kChanges[mRandom() % kChanges.size()]).has_value();
    }

private:
    tools::SoakProcess& mProvider;
    std::mt19937 mRandom;
    Clock::time_point mNext;
};

/** Gets frames, all at once as they have to be. Empty, or what is wrong. */
std::string receiveFrames(const sp<IFDSession>& session, const tools::SoakFrames& frames,
                          bool turned) {
    constexpr uint32_t kFrames = 24;
    tools::StreamSettings settings = {};
    settings.frames = kFrames;
    settings.buffers = 4;
    tools::StreamClient client(session, settings);
    std::string problem;
    if (!client.start(problem)) return problem.empty() ? client.lossInWords() : problem;
    for (uint32_t right = 0; right < kFrames;) {
        const std::optional<tools::Answer> answer = client.next(seconds(10));
        if (!answer) return "nothing came for 10 seconds; " + client.lossInWords();
        const std::string frame = "frame " + std::to_string(answer->frameNumber);
        switch (answer->outcome) {
            case tools::Answer::Outcome::Filled:
                if (answer->frame != frames.of(answer->frameNumber, turned))
                    return frame + " is not what it has to be";
                ++right;
                break;
            case tools::Answer::Outcome::ForeignPicture:
            case tools::Answer::Outcome::ForeignError:
                break;  // for a client that is gone
            default:
                return frame + " did not come";
        }
    }
    return {};
}

/**
 * A client that finds all as it has to be, and has the session let go of all buffers. Empty, or
 * what is wrong.
 */
std::string servesOrdinaryClient(tools::SoakProcess& provider, const tools::SoakFrames& frames) {
    for (const bool turned : {true, false}) {
        if (!provider.ask(turned ? "flip true" : "flip false"))
            return "the provider does not answer";
        std::string problem;
        const sp<IFDSession> session = provider.connect(problem);
        if (session != nullptr) problem = receiveFrames(session, frames, turned);
        if (!problem.empty()) return "a client after the storm: " + problem;
        if (!host::isAccepted(session->configure(kit::configurationOf(kit::kClipSize))))
            return "a client after the storm: the stream cannot be configured anew";
    }
    return {};
}

class Soak {
public:
    Soak(const Options& options, const kit::Signals& signals, tools::SoakProcess& provider)
        : mOptions(options),
          mSignals(signals),
          mProvider(provider),
          mStorm(provider.socket(), options.seed),
          mWeather(provider, options.seed + 1) {}

    /** Empty when all held, else what did not. */
    std::string run() {
        tools::SoakLedger::printHead();
        const int64_t pauses = mOptions.duration() / mOptions.period();
        for (int64_t number = 1; number <= pauses; ++number) {
            constexpr seconds kShortest(3);  // after a pause that took long
            const Clock::time_point end = mStart + number * mOptions.period();
            std::string fault = blowUntil(std::max(end, Clock::now() + kShortest));
            if (fault.empty()) fault = pause();
            std::string ending = mProvider.ending();
            if (!ending.empty()) return ending;
            if (!fault.empty()) return fault;
        }
        return {};
    }
    std::string verdict() const { return mLedger.verdict(); }

private:
    std::string blowUntil(Clock::time_point end) {
        constexpr seconds kLongestSilence(7);  // clients that hang cost a second each
        uint64_t frames = mStorm.counts().frames;
        Clock::time_point heard = Clock::now();
        do {
            if (mSignals.poll() != 0) return "it was interrupted";
            if (!mWeather.change()) return "the provider does not answer";
            std::string fault = mStorm.blow();
            if (!fault.empty()) return fault;
            if (std::exchange(frames, mStorm.counts().frames) != mStorm.counts().frames)
                heard = Clock::now();
            if (Clock::now() - heard > kLongestSilence)
                return "no client got a frame for 7 seconds";
            std::this_thread::sleep_for(milliseconds(10));
        } while (Clock::now() < end);
        return {};
    }

    std::string pause() {
        if (!mProvider.ask("feed thread")) return "the provider does not answer";
        std::string fault = mStorm.calmDown();
        if (fault.empty()) fault = servesOrdinaryClient(mProvider, mFrames);
        if (!fault.empty()) return fault;
        const std::optional<tools::SoakHoldings> holdings = mProvider.holdings(mLedger.first());
        if (!holdings) return "the provider does not answer";
        const auto time = std::chrono::duration_cast<seconds>(Clock::now() - mStart);
        return mLedger.add({time, mStorm.counts(), *holdings});
    }

    const Options& mOptions;
    const kit::Signals& mSignals;
    const Clock::time_point mStart = Clock::now();
    const tools::SoakFrames mFrames{kit::kClipSize};
    tools::SoakProcess& mProvider;
    tools::Storm mStorm;
    Weather mWeather;
    tools::SoakLedger mLedger;
};

int share() {
    const std::string fault = tools::printShare();
    if (!fault.empty()) warnx("%s", fault.c_str());
    return kit::finishStandardOutput() && fault.empty() ? kHeld : kNotHeld;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    host::setStderrLogPriority(ANDROID_LOG_SILENT);
    if (options.share) return share();
    const kit::Signals signals({SIGINT});  // so that folders and processes are cleared away
    std::string problem;
    const std::unique_ptr<tools::SoakProcess> provider = tools::SoakProcess::start(problem);
    if (provider == nullptr) {
        warnx("%s", problem.c_str());
        return kNotRun;
    }
    printf("seed %u\n", options.seed);
    Soak soak(options, signals, *provider);
    std::string fault = soak.run();
    if (fault.empty()) fault = provider->stop();
    printf("%s\n", fault.empty() ? soak.verdict().c_str() : ("NOT HELD: " + fault).c_str());
    if (!kit::finishStandardOutput()) return kNotHeld;
    return fault.empty() ? kHeld : kNotHeld;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kNotHeld);
}
