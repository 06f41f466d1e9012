// A clip that a camera plays into a client's buffers, over two processes, and a detector that looks
// at each frame, against loops that do as much in one process.

#include "bench.h"

#ifdef BENCH_HAS_CAMERA

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <numeric>

#include "child_process.h"
#include "faces/face_detector.h"
#include "loops.h"
#include "session.h"
#include "signals.h"
#include "source/camera.h"
#include "statistics.h"
#include "temporary_folder.h"

namespace bench {

namespace {

using Faces = std::vector<camera::Rect>;

constexpr double kAimMs = 0.3;  // beyond the first loop, without the detection

/** Microseconds a frame, of the processors of all that take part. */
const std::vector<std::string> kMeasures = {"", ", the detection alone"};

double threadMicroseconds() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/** A detector that keeps what it sees in one pass through the clip, and what that took. */
class Watch {
public:
    explicit Watch(kit::FrameSize size) : mSize(size) {
        std::string problem;
        mDetector = camera::FaceDetector::open({}, problem);
        expect(mDetector != nullptr, problem.c_str());
    }

    /** REQUIRES: it outlives this. */
    Look look() {
        return [this](const uint8_t* luma, size_t stride) {
            const double before = threadMicroseconds();
            mSeen.push_back(mDetector->find(luma, mSize, stride));
            mTook += threadMicroseconds() - before;
        };
    }
    /** Of a pass; `other`: the process that takes part. */
    Sample sample(const std::function<void()>& play, pid_t other = 0) {
        const auto processors = [=] {
            return processorMicroseconds() + (other != 0 ? processorMicroseconds(other) : 0);
        };
        const std::vector<Faces> last = std::exchange(mSeen, {});
        mTook = 0;
        const double before = processors();
        play();
        const double all = processors() - before;
        expect(!mSeen.empty() && (last.empty() || last == mSeen),
               "what is seen differs from pass to pass");
        const auto frames = static_cast<double>(mSeen.size());
        return {(all - mTook) / frames, mTook / frames};
    }
    const std::vector<Faces>& seen() const { return mSeen; }
    double faces() const {
        return std::accumulate(mSeen.begin(), mSeen.end(), 0.0,
                               [](double sum, const Faces& one) { return sum + double(one.size()); });
    }

private:
    const kit::FrameSize mSize;
    std::unique_ptr<camera::FaceDetector> mDetector;
    std::vector<Faces> mSeen;  // in each frame
    double mTook = 0;
};

/** A photograph that moves over a test picture, if it is there; false when ffmpeg is not. */
bool makeClip(Run& run, const std::string& clip, uint32_t frames) {
    const std::string photo = kit::programFolder() / "../../photo/astronaut.png";
    Arguments words = {"ffmpeg", "-v", "error", "-f", "lavfi",
                       "-i",     "testsrc2=size=1280x720:rate=25"};
    if (std::filesystem::exists(photo)) {
        const char* const moving =
            "[1]scale=384:384[face];[0][face]overlay=x='448+246*sin(n/56)':y='168+84*sin(n/28)'";
        words.insert(words.end(), {"-i", photo, "-filter_complex", moving});
    } else {
        run.leaveOut("A face in the clip, because there is no " + photo + ".");
    }
    words.insert(words.end(), {"-frames:v", std::to_string(frames), "-pix_fmt", "yuv420p", clip});
    std::string problem;
    const auto ffmpeg = kit::ChildProcess::start("/usr/bin/env", words, problem);
    return ffmpeg != nullptr && ffmpeg->exitCode(std::chrono::minutes(2)) == 0;
}

/** One size that the clip is scaled to. Owns who plays it. */
class Scaled {
public:
    Scaled(const std::string& clip, uint32_t frames, kit::FrameSize size)
        : mWhat("1280x720 to " + std::to_string(size.width) + "x" + std::to_string(size.height)),
          mFrames(frames),
          mOurs(size),
          mLibav(size),
          mOpenCv(size),
          mRoad(startRoad({{"camera", clip}, 4, Asking::InRun, size, false, mOurs.look()})),
          mLibavs(libavLoop(clip, size)),
          mOpenCvs(openCvLoop(clip, size)),
          mGstScales(gstLoop(clip, size, false, mProblem)),
          mGstDetects(gstLoop(clip, size, true, mProblem)) {}

    void bench(Run& run) {
        const size_t first = run.pairings.size();
        if (!mOpenCvs) run.leaveOut("OpenCV's own loop, because libopencv-videoio-dev is missing.");
        if (!mGstDetects) run.leaveOut("GStreamer's facedetect, because " + mProblem + ".");
        if (compare(run, "decoded to detected", mWhat, sides(), kMeasures).empty()) return;
        tellDistance(run, run.pairings[first]);
        tellFaces(run);
    }

private:
    std::vector<Side> sides() {
        std::vector<Side> sides = {
            {"ours",
             [&] { return mOurs.sample([&] { mRoad->run(mFrames); }, mRoad->provider()); }},
            {"libavcodec and libswscale",
             [&] { return mLibav.sample([&] { mLibavs(mLibav.look()); }); }}};
        if (mOpenCvs) {
            sides.push_back({"OpenCV's own loop", [&] {
                                 return mOpenCv.sample([&] { mOpenCvs(mOpenCv.look()); });
                             }});
        }
        if (mGstDetects) {
            sides.push_back({"GStreamer's facedetect", [&]() -> Sample {
                                 const double scaling = costOf(mGstScales);
                                 return {scaling, costOf(mGstDetects) - scaling};
                             }});
        }
        return sides;
    }
    double costOf(const FacesLoop& play) {
        const double before = processorMicroseconds();
        mGstFaces = double(play());
        return (processorMicroseconds() - before) / mFrames;
    }

    void tell(Run& run, const std::string& name, double value, const char* unit,
              const std::string& expected = "") const {
        run.facts.push_back({mWhat + ", " + name, value, unit, expected});
    }
    void tellDistance(Run& run, const Pairing& pairing) const {
        std::vector<double> milliseconds;
        for (size_t i = 0; i < pairing.ours.size(); ++i)
            milliseconds.push_back((pairing.ours[i] - pairing.theirs[i]) / 1000);
        const double median = kit::median(milliseconds);
        tell(run, "ours beyond libavcodec's loop", median, "ms a frame",
             std::string("at most 0.30 ") + (median <= kAimMs ? "met" : "**not met**"));
    }
    void tellFaces(Run& run) const {
        uint32_t alike = 0;
        for (size_t i = 0; i < mFrames; ++i)
            alike += mOurs.seen()[i] == mLibav.seen()[i] ? 1U : 0U;
        tell(run, "the very rectangles of that", alike, "frames",
             "all " + std::to_string(mFrames));
        if (alike != mFrames) run.faults.push_back(mWhat + ": other rectangles than libavcodec's");
        tell(run, "faces, ours", mOurs.faces(), "in all frames");
        if (mOpenCvs) tell(run, "faces, OpenCV's own loop", mOpenCv.faces(), "in all frames");
        if (mGstDetects) tell(run, "faces, GStreamer's facedetect", mGstFaces, "in all frames");
    }

    const std::string mWhat;
    const uint32_t mFrames;
    Watch mOurs;
    Watch mLibav;
    Watch mOpenCv;
    const std::unique_ptr<Road> mRoad;
    const Loop mLibavs;
    const Loop mOpenCvs;
    std::string mProblem;
    const FacesLoop mGstScales;
    const FacesLoop mGstDetects;
    double mGstFaces = 0;
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
    const kit::TemporaryFolder folder;
    const std::string clip = folder / "clip.mp4";
    const uint32_t frames = run.quick ? 25 : 100;
    if (!makeClip(run, clip, frames))
        return run.leaveOut("All from decoded to detected, because ffmpeg made no clip.");
    for (const kit::FrameSize size : {kit::FrameSize{640, 360}, k720p})
        Scaled(clip, frames, size).bench(run);
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
