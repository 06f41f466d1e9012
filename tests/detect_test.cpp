// The program that finds faces: what it looks at and says of it, and how the view follows them.

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "control_server.h"
#include "support/client_tool_fixture.h"
#include "view/crop_rule.h"
#include "view/faces.h"

namespace testing_support {

namespace {

using camera::FrameSize;
using camera::Rect;

constexpr FrameSize kPicture = {1280, 720};
constexpr FrameSize kStream = {640, 360};
constexpr Rect kAll = {0, 0, 1280, 720};

/** A camera with a face in its picture, whose view is what the session has. */
class DetectTest : public ClientToolFixture {
protected:
    DetectTest() {
        program = DETECT_TOOL;
        pauseUs = 10000;
        fillBy([this](const CaptureRequest& request) { return shoot(request); });
    }

    int detect(const std::string& arguments) const {
        return run("--cascade " TEST_DATA "/bright_over_dark.xml --size 640x360 " + arguments);
    }
    Rect wanted() const {
        SceneControl ptz = {};
        session->getPTZControl(ptz);
        return placeOf(ptz.crops[0]);
    }
    static Rect placeOf(const Crop& crop) { return {crop.x, crop.y, crop.width, crop.height}; }
    /** Tells of the frame, and fills it. */
    BufferStatus shoot(const CaptureRequest& request) {
        view = camera::viewFor(wanted(), kPicture, kPicture, kStream);
        // At most 8 % of the picture's width in a second.
        if (isMoving) face.x = 400 + static_cast<int>(300 * std::sin(++moves / 300.0));
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        const auto ns = static_cast<uint64_t>(now.count());
        const uint32_t number = request.frameNumber;
        for (FDNotifyMsg msg : {camera::shutterOf(number, ns), camera::viewOf(number, view),
                                camera::pictureOf(number, {kPicture, isTurned})}) {
            if (tells) session->sendNotify(msg);
        }
        const Rect place = camera::inFrame(face, kStream, view, false);
        kit::Frame frame(kStream.bytes(), 128);
        for (int y = std::max(0, place.y); y < std::min(360, place.y + place.height); ++y)
            for (int x = std::max(0, place.x); x < std::min(640, place.x + place.width); ++x)
                frame[static_cast<size_t>(y * 640 + x)] = y - place.y < place.height / 2 ? 235 : 16;
        return put(frame, request);
    }

    /** The lines with this in them that the program wrote to "json". */
    std::vector<std::string> lines(const std::string& part) const {
        const std::string json = read("json");
        const std::regex line("\\{\"frame[^\n]*" + part + "[^\n]*");
        return {std::sregex_token_iterator(json.begin(), json.end(), line), {}};
    }

    const std::unique_ptr<control::ControlServer> controls =
        control::ControlServer::listen(folder / "socket.control", session, {}, problem);
    Rect view;
    Rect face = {520, 280, 96, 96};
    int moves = 0;
    std::atomic<bool> isMoving{false};
    std::atomic<bool> tells{true};
    std::atomic<bool> isTurned{false};
};

/** The first face in a line's field; none when it is unknown or empty. */
Rect faceIn(const std::string& line, const std::string& field) {
    std::smatch face;
    const std::regex first(field + "\": \\[\\[(\\d+), (\\d+), (\\d+), (\\d+)");
    if (!std::regex_search(line, face, first)) return {};
    return {std::stoi(face[1]), std::stoi(face[2]), std::stoi(face[3]), std::stoi(face[4])};
}

}  // namespace

TEST_F(DetectTest, FindsFacesInTheFrameAndInThePicture) {
    SceneControl ptz = {};
    ptz.crops = std::vector<Crop>{{320, 180, 320, 180}};
    session->setPTZControl(ptz);
    face = {400, 200, 48, 48};
    EXPECT_EQ(camera::overlap(face, face), 1);
    for (const auto& [told, turned] : {std::pair(true, false), {true, true}, {false, false}}) {
        tells = told;
        after(10, [this, turned = turned] { isTurned = turned; });
        EXPECT_EQ(detect("--frames 40 --json json --png png"), 0) << read("err");
        const std::vector<std::string> seen = lines("detected");
        ASSERT_GE(seen.size(), 2U) << read("json");
        EXPECT_EQ(faceIn(seen[0], "faces").width, 0) << seen[0];  // from the second time on
        const std::string& last = seen.back();
        EXPECT_GE(camera::overlap(faceIn(last, "faces"), {160, 40, 96, 96}), 0.3) << last;
        const Rect place = turned ? Rect{512, 292, 48, 48} : face;
        const Rect found = faceIn(last, "faces_in_picture");
        EXPECT_EQ(camera::overlap(found, place) >= 0.3, told) << last;
        EXPECT_EQ(has(last, "\"view\": [320, 180, 320, 180]"), told) << last;
        EXPECT_EQ(has(last, "\"camera_to_faces_ms\": null"), !told) << last;
        EXPECT_EQ(lines("").size(), 40U);
        EXPECT_TRUE(exists("png/frame-" + last.substr(10, last.find(',') - 10) + ".png")) << last;
        EXPECT_FALSE(has(read("json"), "{\"frame\": 0,"));
        // Five frames may have been told of before they were turned, or behind.
        const std::vector<std::string> unsure = lines("turned\": true");
        for (size_t i = 0; i < std::min<size_t>(unsure.size(), 5); ++i)
            EXPECT_TRUE(has(unsure[i], "faces_in_picture\": null")) << unsure[i];
    }
}

TEST_F(DetectTest, LooksAtTheNewestFrameAndSkipsTheOthersAtOnce) {
    pauseUs = 100;
    after(100, [this] { std::ofstream(folder / "go"); });
    // Until then nobody reads the frames that were looked at, of which ten wait for the rate.
    EXPECT_EQ(detect("--frames 200 --json json --y4m - |"
                     " { until [ -e go ]; do sleep 0.01; done; cat; } >/dev/null"),
              0);
    const size_t skipped = lines("skipped").size();
    EXPECT_GT(skipped, 80U);  // the provider did not wait for the detector
    EXPECT_EQ(lines("detected").size() + skipped, 200U);
    // And what it cannot do it says before it takes anybody's session.
    for (const char* wrong : {"--cascade nowhere", "--cascade socket", "--json - --y4m -"})
        EXPECT_EQ(run(wrong), 2) << wrong;
}

TEST_F(DetectTest, FollowsAFaceWhileTheModeIsNotOffAndIsTheOnlyOne) {
    // Takes some seconds: the view takes its time, and the face goes on.
    isMoving = true;
    SceneControl scene = {};
    pid_t first = 0;
    int step = 0;  // one in each frame when the second one has come
    fillBy([&](const CaptureRequest& request) {
        session->getSceneControl(scene);
        if (step == 0 && wanted() != kAll) {
            first = tool;
            const std::string socket = " --socket " + folder / "socket";
            expectRuns("exec", {{DETECT_TOOL " --follow" + socket, 1, "the view cannot follow: "},
                                {CONTROL_TOOL " mode 0" + socket, 0, "0"}});
            step = 1;
        } else if (step > 0 && ++step == 30) {
            EXPECT_EQ(wanted(), kAll);
            session->setTrackingMode(TrackingMode::SPEAKER);
        } else if (step > 30 && view.width < 600 && view.x <= face.x &&
                   view.x + view.width >= face.x + face.width && scene.crops.size() == 1 &&
                   scene.peopleCount == 1 && camera::overlap(placeOf(scene.crops[0]), face) > 0.1) {
            kill(first, SIGTERM);
            step = -1;
        }
        return shoot(request);
    });
    EXPECT_EQ(detect("--follow --frames 0"), 0) << read("err");
    fillBy([](const CaptureRequest&) { return BufferStatus::ERROR; });  // what is here goes now
    EXPECT_TRUE(session->getTrackingMode() == TrackingMode::OFF && wanted() == kAll);
}

}  // namespace testing_support
