// A detecting client at a camera whose picture is known: one that hangs upside down, and one whose
// view follows a face. Or at one's own picture, which nobody judges.

#include <android/log.h>
#include <err.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "command_line.h"
#include "face_clip.h"
#include "face_judge.h"
#include "face_sheet.h"
#include "fifo_feeder.h"
#include "host/log.h"
#include "picture_folder.h"
#include "provider_process.h"
#include "run_program.h"

namespace {

namespace fs = std::filesystem;

constexpr int kAllRight = 0;
constexpr int kNotRight = 1;
constexpr int kNotPlayed = 2;

constexpr camera::FrameSize kStream = {960, 540};
constexpr int kEnough = 95;  ///< of a hundred

constexpr const char* kExamples =
    "Examples (./run demo --faces is this program, with all that it needs):\n"
    "  ./run demo --faces              both scenes, and a face on a known path\n"
    "  ./run demo --faces street.mp4   your own video, and the view follows the faces\n"
    "  ./run demo --faces /dev/video0  your own webcam\n"
    "\n"
    "The face is Eileen Collins, photographed by NASA, in the public domain.\n"
    "\n"
    "Exit code: 0 the faces were found and followed, 1 they were not, 2 nothing was\n"
    "played.";

struct Options {
    std::optional<std::string> input;
    std::string photo;
    std::string out = "out/demo";
    uint32_t frames = tools::FaceClip::kFrames;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app(
        "Plays a picture with a face to a provider, has a client in another process find the face, "
        "and compares where it is.",
        "fdstream-faces-demo");
    app.footer(kExamples);
    app.add_option("FILE", options.input, "what to play in the followed scene instead")
        ->type_name("");
    app.add_option("--photo", options.photo, "a square photograph with the face")->type_name("PNG");
    app.add_option("--out", options.out, "folder for the pictures")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--frames", options.frames, "frames of the followed scene")
        ->type_name("N")
        ->check(CLI::Range(1U, 100000U).description(""))
        ->capture_default_str();
    return kit::parseCommandLine(app, argc, argv, kNotPlayed);
}

struct Scene {
    const char* name;
    const char* told;  ///< while it plays
    bool isUpsideDown;
    std::vector<std::string> provider;
    std::vector<std::string> client;
    uint32_t frames;
};

/** What is in a scene's folder. */
struct Place {
    explicit Place(fs::path inFolder)
        : folder(std::move(inFolder)),
          camera(folder / "camera.y4m"),
          json(folder / "faces.json"),
          pictures(folder / "frames") {}
    const fs::path folder;
    const fs::path camera;
    const fs::path json;
    const tools::PictureFolder pictures;
};

/** Whether the client ended as it has to; if not, after a sentence on stderr. */
bool detect(const tools::ProviderProcess& provider, const Scene& scene, const Place& place) {
    std::vector<std::string> arguments = {
        "--socket", provider.socket(), "--frames", std::to_string(scene.frames),
        "--json",   place.json,        "--png",    place.folder / "frames",
        "--size",   "1280x720"};
    arguments.insert(arguments.end(), scene.client.begin(), scene.client.end());
    std::string problem;
    const auto client =
        kit::ChildProcess::start(kit::programFolder() / "fdstream-detect", arguments, problem);
    if (client == nullptr) {
        warnx("%s", problem.c_str());
        return false;
    }
    printf("%s ...\n", scene.told);
    fflush(stdout);
    const std::chrono::seconds patience(60 + scene.frames / 5);
    client->rest(patience);
    const int code = client->exitCode(patience);
    if (code != 0) warnx("the client ended with %d", code);
    return code == 0;
}

/** Plays the scene from this input. False after a sentence on stderr. */
bool play(const Scene& scene, const Place& place, const std::string& input) {
    if (!place.pictures.make() || !place.pictures.clear()) return false;
    std::vector<std::string> arguments = {"--input", input};
    arguments.insert(arguments.end(), scene.provider.begin(), scene.provider.end());
    const auto provider = tools::ProviderProcess::start(arguments);
    return provider != nullptr && detect(*provider, scene, place) && provider->stop();
}

/** A scene with the face, and its page. Nothing after a sentence on stderr. */
std::optional<tools::Judgement> playClip(const Scene& scene, const Options& options,
                                         const tools::FaceClip& clip) {
    const Place place(fs::path(options.out) / scene.name);
    if (!place.pictures.make()) return std::nullopt;
    {
        const tools::FifoFeeder camera(place.camera, [&, number = 0]() mutable {
            const std::string before = number == 0 ? clip.header() : std::string();
            return before + clip.frame(number++ % tools::FaceClip::kFrames, scene.isUpsideDown);
        });
        if (!play(scene, place, place.camera)) return std::nullopt;
    }
    std::string problem;
    const auto looks = tools::readLooks(place.json, clip, scene.isUpsideDown, problem);
    if (!looks) {
        warnx("%s", problem.c_str());
        return std::nullopt;
    }
    if (!tools::writePng(tools::faceSheet(*looks, clip, scene.isUpsideDown, place.pictures),
                         fs::path(options.out) / (std::string(scene.name) + ".png")))
        return std::nullopt;
    return tools::judge(*looks, kStream);
}

void printRow(const char* name, const tools::Judgement& judged) {
    printf("%-34s %9d %9d %9d %8d/%d\n", name, judged.looks, judged.toFind, judged.found,
           judged.inView, judged.late);
}

bool isEnough(int count, int of) {
    return of > 0 && count * 100 >= of * kEnough;
}

int playFaces(const Options& options, const tools::FaceClip& clip) {
    const Scene hanging = {
        "hanging", "The camera hangs upside down, and nobody turns its frames", true, {}, {}, 75};
    const Scene turned = {
        "turned", "The same camera, with \"vendor.zoru.flipped\"", true, {"--flipped"}, {}, 75};
    const Scene followed = {"followed",   "A face moves, and the view follows it",
                            false,        {},
                            {"--follow"}, options.frames};
    const auto first = playClip(hanging, options, clip);
    const auto second = first ? playClip(turned, options, clip) : std::nullopt;
    const auto third = second ? playClip(followed, options, clip) : std::nullopt;
    if (!third) return kNotPlayed;

    printf("\n%-34s %9s %9s %9s %10s\n", "scene", "looked at", "with face", "found", "in view");
    printRow("upside down", *first);
    printRow("upside down, turned by the library", *second);
    printRow("followed", *third);
    printf(
        "\n%s/{hanging,turned,followed}.png  the whole picture with the view and the face, and\n"
        "what the client saw, with its boxes. The face: Eileen Collins, NASA, public domain.\n",
        options.out.c_str());
    const bool right =
        first->toFind > 0 && first->found == 0 && isEnough(second->found, second->toFind) &&
        isEnough(third->found, third->toFind) && isEnough(third->inView, third->late);
    puts(right ? "The face was found when the frames were turned, and the view followed it."
               : "NOT RIGHT: see the table above.");
    return right ? kAllRight : kNotRight;
}

int playOwn(const Options& options) {
    const Scene scene = {"followed",   "Your picture, and the view follows the faces in it",
                         false,        {},
                         {"--follow"}, options.frames};
    const Place place(fs::path(options.out) / scene.name);
    if (!play(scene, place, *options.input)) return kNotPlayed;
    printf("%s  each frame that was looked at, with boxes\n%s  what was found\n",
           (place.folder / "frames").c_str(), place.json.c_str());
    return kAllRight;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    signal(SIGPIPE, SIG_IGN);
    if (options.input) return playOwn(options);
    std::string problem;
    const std::optional<tools::FaceClip> clip = tools::FaceClip::of(options.photo, problem);
    if (clip) return playFaces(options, *clip);
    warnx("%s", problem.c_str());
    return kNotPlayed;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kNotPlayed);
}
