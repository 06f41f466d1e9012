// A clip that a camera plays into a client's buffers, over two processes, and a detector that looks
// at each frame, against loops that do as much in one process.

#include "bench.h"

#ifdef BENCH_HAS_CAMERA

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numeric>

#include "child_process.h"
#include "loops.h"
#include "session.h"
#include "signals.h"
#include "source/camera.h"
#include "statistics.h"
#include "temporary_folder.h"
#include "watch.h"

namespace bench {

namespace {

constexpr double kAimMs = 0.3;  // beyond the first loop, without the detection

/** Microseconds a frame, of the processors of all that take part: of a pass, then of another. */
const std::vector<std::string> kMeasures = {"", ", beside the detection", ", the detection alone"};

/** A photograph that moves over a test picture, if it is there; false when ffmpeg is not. */
bool makeClip(Run& run, const std::string& clip, uint32_t frames) {
    const std::string photo = kit::programFolder() / "../../photo/astronaut.png";
    Arguments words = {
        "ffmpeg", "-v", "error", "-f", "lavfi", "-i", "smptebars=size=1280x720:rate=25"};
    if (std::filesystem::exists(photo)) {
        const char* const moving =
            "[1]scale=640:640[face];[0][face]overlay=x='320+200*sin(n/56)':y='40+40*sin(n/28)'";
        words.insert(words.end(), {"-i", photo, "-filter_complex", moving});
    } else {
        run.leaveOut("A face in the clip: ./run bench fetches the photograph.");
    }
    words.insert(words.end(), {"-frames:v", std::to_string(frames), "-pix_fmt", "yuv420p", clip});
    std::string problem;
    const auto ffmpeg = kit::ChildProcess::start("/usr/bin/env", words, problem);
    return ffmpeg != nullptr && ffmpeg->exitCode(std::chrono::minutes(2)) == 0;
}

/** One size that the clip is scaled to, and who does that. */
class Contest {
public:
    Contest(Run& run, const std::string& clip, uint32_t frames, kit::FrameSize size, bool detects)
        : mWhat("1280x720 to " + std::to_string(size.width) + "x" + std::to_string(size.height)),
          mSize(size),
          mFrames(frames),
          mDetects(detects) {
        // The buffers' count and the thread that looks are fdstream-detect's.
        mRoad = startRoad({{"camera", clip},
                           4,
                           Asking::InRun,
                           size,
                           false,
                           [this](const uint8_t* luma, size_t stride) { mLook(luma, stride); }});
        const auto ours = [this](const Look& look) {
            mLook = look;
            mRoad->run(mFrames);
        };
        add("ours", ours, mRoad->provider());
        add("libavcodec and libswscale", libavLoop(clip, size));
        if (const Loop loop = openCvLoop(clip, size)) {
            add("OpenCV's own loop", loop);
        } else {
            run.leaveOut("OpenCV's own loop, because libopencv-videoio-dev is missing.");
        }
        addGst(run, clip);
    }

    void bench(Run& run) {
        const std::vector<std::string> measures(kMeasures.begin(),
                                                kMeasures.begin() + (mDetects ? 3 : 1));
        const size_t first = run.pairings.size();
        if (compare(run, "decoded to detected", mWhat, mSides, measures).empty()) return;
        const double median = distance(run.pairings[first]);
        tell(run, "ours beyond libavcodec", median, "ms a frame",
             std::string("at most 0.30, ") + (median <= kAimMs ? "met" : "**not met**"));
        if (!mDetects) return;
        tell(run, "the same beside the detection", distance(run.pairings[first + 1]), "ms a frame");
        tellFaces(run);
    }

private:
    void add(const std::string& name, const Loop& loop, pid_t other = 0) {
        mWatches.push_back(std::make_unique<Watch>(mSize, mFrames));
        Watch& watch = *mWatches.back();
        mSides.push_back({name, [this, loop, other, &watch] {
                              return watch.sample([&] { loop(watch.look()); }, mDetects, other);
                          }});
    }
    /** Its detection is what a second pass takes more. */
    void addGst(Run& run, const std::string& clip) {
        std::string problem;
        const FacesLoop scaling = gstLoop(clip, mSize, false, problem);
        const FacesLoop detecting = scaling ? gstLoop(clip, mSize, true, problem) : nullptr;
        if (!detecting) return run.leaveOut("GStreamer's facedetect, because " + problem + ".");
        const auto costOf = [this](const FacesLoop& play) {
            const double before = processorMicroseconds();
            mGstFaces = play();
            return (processorMicroseconds() - before) / mFrames;
        };
        mSides.push_back({"GStreamer's facedetect", [=]() -> Sample {
                              const double plain = costOf(scaling);
                              if (!mDetects) return {plain};
                              return {plain, plain, costOf(detecting) - plain};
                          }});
    }

    /** In milliseconds. */
    static double distance(const Pairing& pairing) {
        std::vector<double> distances;
        for (size_t i = 0; i < pairing.ours.size(); ++i)
            distances.push_back((pairing.ours[i] - pairing.theirs[i]) / 1000);
        return kit::median(distances);
    }
    void tell(Run& run, const std::string& name, double value, const char* unit,
              const std::string& expected = "") const {
        run.facts.push_back({mWhat + ", " + name, value, unit, expected});
    }
    void tellFaces(Run& run) const {
        const std::vector<Faces>& ours = mWatches[0]->seen();
        const std::vector<Faces>& libav = mWatches[1]->seen();
        const auto alike = std::inner_product(ours.begin(), ours.end(), libav.begin(), 0U,
                                              std::plus<>(), std::equal_to<>());
        tell(run, "the same rectangles", alike, "frames", "all " + std::to_string(mFrames));
        if (alike != mFrames) run.faults.push_back(mWhat + ": not the rectangles of libavcodec");
        for (size_t i = 0; i < mSides.size(); ++i) {
            const bool isGst = i == mWatches.size();
            tell(run, "faces, " + mSides[i].name, isGst ? mGstFaces : mWatches[i]->faces(),
                 "in all frames");
        }
    }

    const std::string mWhat;
    const kit::FrameSize mSize;
    const uint32_t mFrames;
    const bool mDetects;
    std::unique_ptr<Road> mRoad;
    Look mLook;
    std::vector<std::unique_ptr<Watch>> mWatches;
    double mGstFaces = 0;
    std::vector<Side> mSides;  // ours, libavcodec's, then who is there; GStreamer's has no watch
};

}  // namespace

int serveCamera(const Arguments& arguments) {
    const kit::Signals blocked({SIGTERM, SIGINT});  // for the camera's threads, too
    camera::SourceOptions options;
    options.input = arguments.at(0);
    options.fps = 0;
    options.decodingThreads = 1;
    camera::Camera camera(FDSession::getInstance(), options,
                          [](const std::string& line) { fprintf(stderr, "%s\n", line.c_str()); });
    std::string problem;
    expect(camera.start(problem), problem.c_str());
    const auto clientSet = [&](bool isThere) {
        isThere ? camera.clientCame() : camera.clientWent();
    };
    return serveSession(arguments.at(1), {clientSet, {}});
}

void benchCamera(Run& run) {
    if (!std::filesystem::exists(camera::kUsualCascade))
        return run.leaveOut("All from decoded to detected, because opencv-data is missing.");
    const kit::TemporaryFolder folder;
    const std::string clip = folder / "clip.mp4";
    constexpr uint32_t kFrames = 25;
    if (!makeClip(run, clip, kFrames))
        return run.leaveOut("All from decoded to detected, because ffmpeg made no clip.");
    Contest(run, clip, kFrames, {640, 360}, true).bench(run);
    Contest(run, clip, kFrames, k720p, false).bench(run);
}

}  // namespace bench

#else

int bench::serveCamera(const Arguments& /*arguments*/) {
    return 1;
}

void bench::benchCamera(Run& run) {
    run.leaveOut("All from decoded to detected: the camera or OpenCV is not in this build.");
}

#endif
