// Looks at the scene, view and tracking controls of a running provider, and sets them.

#include <err.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "IFDControl.h"
#include "command_line.h"
#include "control_json.h"
#include "control_words.h"
#include "default_socket.h"
#include "host/channel.h"
#include "run_program.h"
#include "signals.h"

namespace {

using android::sp;
using android::hardware::Return;
using control::Answer;
using control::CameraStatus;
using control::IFDControl;
using control::SceneControl;
using control::TrackingMode;

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kBadUsage = 2;
constexpr int kNoProvider = 3;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-ctl ptz                           the view, as JSON\n"
    "  fdstream-ctl ptz 320,180,640,360 --of 1280x720\n"
    "                                             shows the middle of the picture\n"
    "  fdstream-ctl ptz 0,0,640,480               the same in pixels of the picture\n"
    "  fdstream-ctl scene 10,20,64,64 90,20,64,64 --people 2\n"
    "                                             two faces and two people\n"
    "  fdstream-ctl people 3                      the same scene, with three\n"
    "  fdstream-ctl mode 0                        nobody moves the view any more\n"
    "  fdstream-ctl status                        what the camera plays\n"
    "  fdstream-ctl observe                       a line for each, until Ctrl-C\n"
    "  fdstream-ctl --socket ./cam.sock mode      of another provider\n"
    "\n"
    "Without a value each command tells what is there, else it sets it and prints\n"
    "what it has set. Modes: 0 off, 1 group, 2 speaker, 3 presenter; a change to 0\n"
    "brings the default view back. fdstream-ctl COMMAND --help says more. Start\n"
    "fdstream-provider first, in another terminal.\n"
    "\n"
    "Exit code: 0 done, 1 refused, 2 bad usage, or a value that is no number or does\n"
    "not fit, 3 there is no provider, or it has gone.";

constexpr const char* kSceneExamples =
    "Without arguments it prints what is there. What is sent is the whole: what is\n"
    "not said is 0, and a scene without rectangles needs no size.\n"
    "\n"
    "  fdstream-ctl scene | jq .peopleCount\n"
    "  fdstream-ctl scene 10,20,64,64 90,20,64,64 --of 1280x720 --people 2\n"
    "  fdstream-ctl scene --none                  nobody and nothing";

constexpr const char* kPtzExamples =
    "The camera shows the first rectangle, grown or cut to the stream's shape, so\n"
    "that nothing is stretched. Any numbers are sent; who follows moves it on.\n"
    "\n"
    "  fdstream-ctl mode 0                        first, when somebody follows\n"
    "  fdstream-ctl ptz 25,25,50,50 --of 100x100  the middle, in hundredths";

constexpr const char* kModeExamples =
    "A change to 0 brings the default view back. From its answer on no follower\n"
    "(fdstream-detect --follow) moves the view, until the mode is another one.";

constexpr const char* kTrackExamples =
    "  fdstream-ctl track --id 7 --target 300,200,80,80 --zoom 1.5 --speed 0.25";

constexpr const char* kObserveExamples =
    "Each line is an object. The first is {\"event\":\"observing\"}; from then on\n"
    "nothing is missed: \"event\" is scene, ptz, track or mode, with the record under\n"
    "that name, and \"timeNs\" is the monotonic clock's. 1000 wait for who does not\n"
    "read; of more there is a line {\"event\":\"missed\",\"count\":N} in their place.\n"
    "\n"
    "  fdstream-ctl observe | jq --unbuffered 'select(.event == \"mode\").mode'\n"
    "  fdstream-ctl observe --count 1             waits for the next";

struct Options {
    std::optional<std::string> socket;
    std::optional<std::string> control;
    tools::SceneWords scene;
    tools::SceneWords ptz;
    tools::TrackWords track;
    std::optional<int32_t> mode;
    std::optional<int32_t> people;
    std::optional<uint64_t> count;
};

/** Says a record. The exit code, after a sentence on stderr when nobody takes it. */
int print(const std::string& line) {
    puts(line.c_str());
    return kit::finishStandardOutput() ? kDone : kRefused;
}

/** The control operations of a provider, with a sentence and an exit code for each failure. */
class Provider {
public:
    explicit Provider(sp<IFDControl> control) : mControl(std::move(control)) {}

    /** Nothing when the call was answered OK, else the exit code, after a sentence on stderr. */
    std::optional<int> failureOf(const Return<Answer>& answer) const {
        if (!answer.isOk()) {
            warnx("%s", answer.description().c_str());
            return mControl->ping().isOk() ? kRefused : kNoProvider;
        }
        if (static_cast<Answer>(answer) == Answer::OK) return std::nullopt;
        warnx("%s", control::inWords(answer));
        return kRefused;
    }

    /** Gets a record and prints it. */
    template <typename Record>
    int show(Return<Answer> (IFDControl::*get)(Record&)) const {
        Record record = {};
        const auto failure = failureOf((mControl.get()->*get)(record));
        if (failure) return *failure;
        return print(tools::json(record));
    }

    /** Sets one and prints it. */
    template <typename Record, typename Argument>
    int set(Return<Answer> (IFDControl::*put)(Argument), const Record& record) const {
        const auto failure = failureOf((mControl.get()->*put)(record));
        return failure ? *failure : print(tools::json(record));
    }

    /** Nothing, and an exit code, after a sentence on stderr. */
    std::optional<tools::FrameSides> pictureSize(int& code) const {
        CameraStatus status;
        const Return<Answer> answer = mControl->getStatus(status);
        if (answer.isOk() && static_cast<Answer>(answer) == Answer::NO_PICTURE) {
            warnx("%s; say with --of WxH what the rectangles are in", control::inWords(answer));
            code = kRefused;
        } else if (const auto failure = failureOf(answer)) {
            code = *failure;
        } else {
            return tools::FrameSides{status.width, status.height};
        }
        return std::nullopt;
    }

    int setScene(Return<Answer> (IFDControl::*put)(const SceneControl&),
                 const tools::SceneWords& words) const {
        std::optional<tools::FrameSides> of = words.of;
        int code = kDone;
        if (!of && !words.crops.empty()) of = pictureSize(code);
        if (code != kDone) return code;
        return set(put, words.record(of.value_or(tools::FrameSides{})));
    }

    int showStatus() const {
        CameraStatus status;
        const Return<Answer> answer = mControl->getStatus(status);
        if (answer.isOk() && static_cast<Answer>(answer) == Answer::NO_PICTURE) {
            return print(tools::json(std::optional<CameraStatus>()));
        }
        const auto failure = failureOf(answer);
        return failure ? *failure : print(tools::json(std::optional(status)));
    }

    /** Until so many calls have come, the provider goes, or nobody reads. */
    int observe(std::optional<uint64_t> count) const;

private:
    const sp<IFDControl> mControl;
};

/** Whether who reads the standard output has gone. */
bool isUnread() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0;
}

int Provider::observe(std::optional<uint64_t> count) const {
    uint64_t seen = 0;
    bool isFirst = true;
    while (!count || seen < *count) {
        control::Event event;
        if (const auto failure = failureOf(mControl->watch(event))) return *failure;
        const bool isCall = event.kind != control::Event::Kind::NONE;
        if (isFirst) printf("{\"event\":\"observing\"}\n");
        if (event.missed > 0) {
            printf("{\"event\":\"missed\",\"count\":%llu}\n",
                   static_cast<unsigned long long>(event.missed));
        }
        if (isCall) puts(tools::json(event).c_str());
        isFirst = false;
        seen += isCall ? 1 : 0;
        if (isUnread()) return kDone;
        if (fflush(stdout) != 0) {
            if (errno == EPIPE) return kDone;
            warn("standard output cannot be written");
            return kRefused;
        }
    }
    return kDone;
}

void declareCommands(CLI::App& app, Options& options) {
    const auto add = [&app](const char* name, const char* what, const char* footer = "") {
        CLI::App* const command = app.add_subcommand(name, what);
        command->footer(footer);
        command->fallthrough();  // the sockets may be said behind it, too
        return command;
    };
    options.scene.addTo(
        *add("scene", "The rectangles that matter, and the people.", kSceneExamples));
    options.ptz.addTo(*add("ptz", "The view: its first rectangle is what is shown.", kPtzExamples));
    tools::addNumber(*add("mode", "How the view follows people.", kModeExamples), "mode",
                     options.mode, "0 off, 1 group, 2 speaker, 3 presenter");
    options.track.addTo(
        *add("track", "How the view is moved; what is not said is 0.", kTrackExamples));
    tools::addNumber(*add("people", "The scene's count of people."), "count", options.people,
                     "stores the stored scene with this count");
    add("status", "What the camera plays: nulls, where there is none.");
    tools::addNumber(*add("observe", "A line for each control that is stored.", kObserveExamples),
                     "--count", options.count, "ends after so many");
}

/** Nothing when the tool is to go on, else the exit code. */
std::optional<int> parse(CLI::App& app, int argc, char** argv, Options& options) {
    app.require_subcommand(1);
    app.add_option("--socket", options.socket,
                   std::string("the provider's socket, beside which that of its controls is; "
                               "without it ") +
                       kit::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_option("--control", options.control,
                   "the socket of its controls, when the provider was told one")
        ->type_name("PATH");
    declareCommands(app, options);
    app.footer(kExamples);
    return kit::parseCommandLine(app, argc, argv, kBadUsage);
}

/** Null after a sentence on stderr. */
sp<IFDControl> findProvider(const Options& options) {
    std::string problem;
    std::optional<std::string> path = options.control;
    if (!path) path = options.socket ? options.socket : kit::defaultSocket(problem);
    if (path && !options.control) path = kit::controlSocketOf(*path);
    sp<IFDControl> control;
    if (path) control = host::connect<IFDControl>(*path, problem);
    if (control == nullptr) {
        warnx("there is no provider: %s", problem.c_str());
        warnx("start one with fdstream-provider in another terminal");
    }
    return control;
}

int act(const std::string& command, const Options& options, const Provider& provider) {
    if (command == "scene" && options.scene.isSet())
        return provider.setScene(&IFDControl::setScene, options.scene);
    if (command == "scene") return provider.show(&IFDControl::getScene);
    if (command == "ptz" && options.ptz.isSet())
        return provider.setScene(&IFDControl::setPtz, options.ptz);
    if (command == "ptz") return provider.show(&IFDControl::getPtz);
    if (command == "mode" && options.mode) {
        return provider.set(&IFDControl::setMode, static_cast<TrackingMode>(*options.mode));
    }
    if (command == "mode") return provider.show(&IFDControl::getMode);
    if (command == "track" && options.track.isSet()) {
        return provider.set(&IFDControl::setTrack, options.track.record());
    }
    if (command == "track") return provider.show(&IFDControl::getTrack);
    if (command == "people" && options.people) {
        return provider.set(&IFDControl::setPeople, *options.people);
    }
    if (command == "people") return provider.show(&IFDControl::getPeople);
    if (command == "status") return provider.showStatus();
    return provider.observe(options.count);
}

int run(int argc, char** argv) {
    Options options;
    CLI::App app("Looks at the scene, view and tracking of a running provider, and sets them.",
                 "fdstream-ctl");
    if (const std::optional<int> code = parse(app, argc, argv, options)) return *code;
    kit::openStandardStreams();
    signal(SIGPIPE, SIG_IGN);  // who reads may go away
    const sp<IFDControl> control = findProvider(options);
    if (control == nullptr) return kNoProvider;
    return act(app.get_subcommands().front()->get_name(), options, Provider(control));
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kRefused);
}
