// The view follows the faces that the program finds, by the provider's controls.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "ZoruUtil.h"
#include "control_server.h"
#include "support/block_cascade.h"
#include "support/client_tool_fixture.h"
#include "support/run_shell.h"
#include "view/crop_rule.h"
#include "view/faces.h"

namespace testing_support {

namespace {

using camera::FrameSize;
using camera::Rect;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::SceneControl;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackingMode;

constexpr FrameSize kPicture = {1280, 720};
constexpr FrameSize kStream = {640, 360};
constexpr Rect kAll = {0, 0, 1280, 720};

/** A camera whose picture has a face that moves, and whose view is what the session has. */
class DetectFollowTest : public ClientToolFixture {
protected:
    DetectFollowTest() {
        program = DETECT_TOOL;
        pauseUs = 10000;
        writeBlockCascade(folder / "cascade");
        std::string problem;
        controls = control::ControlServer::listen(folder / "socket.control", session, {}, problem);
        EXPECT_NE(controls, nullptr) << problem;
        fillBy([this](const CaptureRequest& request) { return shoot(request); });
    }
    ~DetectFollowTest() override { fillBy({}); }

    int follow(const std::string& arguments) {
        return run("--cascade cascade --size 640x360 --follow " + arguments);
    }

    Rect wanted() const {
        SceneControl ptz = {};
        session->getPTZControl(ptz);
        const auto& crop = ptz.crops[0];
        return {crop.x, crop.y, crop.width, crop.height};
    }

    BufferStatus shoot(const CaptureRequest& request) {
        const auto now = std::chrono::steady_clock::now();
        view = camera::viewFor(wanted(), kPicture, kPicture, kStream);
        const double seconds = std::chrono::duration<double>(now - start).count();
        face = {400 + static_cast<int>(300 * std::sin(seconds / 3)), 300, 96, 96};  // 8 % a second
        const uint32_t number = request.frameNumber;
        const auto ns = static_cast<uint64_t>(now.time_since_epoch().count());
        for (FDNotifyMsg msg : {camera::shutterOf(number, ns), camera::viewOf(number, view),
                                camera::pictureOf(number, {kPicture, false})}) {
            if (tells) session->sendNotify(msg);
        }
        const Rect place = camera::inFrame(face, kStream, view, false);
        kit::Frame frame(640 * 360 * 3 / 2, 128);
        const int left = std::clamp(place.x, 0, kStream.width);
        const int right = std::clamp(place.x + place.width, left, kStream.width);
        for (int y = std::max(0, place.y); y < std::min(360, place.y + place.height); ++y)
            memset(&frame[static_cast<size_t>(y * 640 + left)],
                   blockLuma(y - place.y, place.height), static_cast<size_t>(right - left));
        ZoruUtil::copyTo(frame.data(), session->getBufferForId(request.outputBuffers[0].bufferId));
        return BufferStatus::OK;
    }

    bool isFaceInView() const {
        return view.x <= face.x && view.x + view.width >= face.x + face.width && view.y <= face.y &&
               view.y + view.height >= face.y + face.height;
    }

    std::unique_ptr<control::ControlServer> controls;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    Rect view;
    Rect face;
    std::atomic<bool> tells{true};
    int framesOff = 0;
    bool hasFollowedAgain = false;
};

}  // namespace

TEST_F(DetectFollowTest, GoesAfterAFaceAndEndsWithModeOff) {
    // Takes three seconds: the view takes its time, and the face goes on.
    after(300, [this] {
        EXPECT_TRUE(isFaceInView()) << view.x << ' ' << face.x;
        EXPECT_LT(view.width, 600);
        EXPECT_EQ(session->getTrackingMode(), TrackingMode::GROUP);
        SceneControl scene = {};
        session->getSceneControl(scene);
        EXPECT_EQ(scene.crops.size(), 1U);
        for (const auto& crop : scene.crops)
            EXPECT_GT(camera::overlap({crop.x, crop.y, crop.width, crop.height}, face), 0.1);
        EXPECT_EQ(session->getPeopleCount(), 1);
        kill(tool, SIGTERM);
    });
    EXPECT_EQ(follow("--frames 0"), 0) << read("err");
    EXPECT_EQ(session->getTrackingMode(), TrackingMode::OFF);
    SceneControl scene = {};
    session->getSceneControl(scene);
    EXPECT_EQ(scene.crops.size() + static_cast<size_t>(session->getPeopleCount()), 0U);
    EXPECT_EQ(wanted(), kAll);
}

TEST_F(DetectFollowTest, SendsNothingWhileTheModeIsOffAndIsTheOnlyOne) {
    // Takes over a second: the view moves as slowly as it may.
    after(60, [this] {
        EXPECT_NE(wanted(), kAll);
        const Output second =
            runShell(DETECT_TOOL " --follow --socket " + (folder / "socket") + " 2>&1");
        EXPECT_EQ(second.exitCode, 1);
        EXPECT_TRUE(has(second.text, "the view cannot follow: ")) << second.text;
        session->setTrackingMode(TrackingMode::OFF);
    });
    fillBy([this](const CaptureRequest& request) {
        const bool isOff = session->getTrackingMode() == TrackingMode::OFF;
        if (isOff && framesOff++ == 30) {
            EXPECT_EQ(wanted(), kAll);
            session->setTrackingMode(TrackingMode::SPEAKER);
        }
        hasFollowedAgain = hasFollowedAgain || (framesOff > 30 && wanted() != kAll);
        return shoot(request);
    });
    EXPECT_EQ(follow("--frames 180"), 0) << read("err");
    EXPECT_EQ(framesOff, 31);
    EXPECT_TRUE(hasFollowedAgain);
}

TEST_F(DetectFollowTest, SaysOnceThatItIsNotToldWhatItNeeds) {
    after(10, [this] { tells = false; });
    EXPECT_EQ(follow("--frames 100"), 0) << read("err");
    const std::string err = read("err");
    const size_t first = err.find("does not tell");
    EXPECT_NE(first, std::string::npos) << err;
    EXPECT_EQ(err.find("does not tell", first + 1), std::string::npos) << err;
    EXPECT_EQ(wanted(), kAll);
}

}  // namespace testing_support
