// What holds on a device as it does on a host: the controls, a described frame, a raw file.
// Includes nothing that a host has and a device has not, and reads no log.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "FDSession.h"
#include "YUVFile.h"
#include "zoru_ycbcr.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

SceneControl sceneOf(int32_t people) {
    SceneControl scene = {};
    scene.crops = {Crop{people, 2, 3, 4}};
    scene.frameWidth = 1920;
    scene.frameHeight = 1080;
    scene.sceneId = 7;
    scene.sceneFlags = 8;
    scene.peopleCount = people;
    return scene;
}

bool same(const SceneControl& a, const SceneControl& b) {
    if (a.crops.size() != b.crops.size()) return false;
    for (size_t i = 0; i < a.crops.size(); ++i) {
        if (memcmp(&a.crops[i], &b.crops[i], sizeof(Crop)) != 0) return false;
    }
    return a.frameWidth == b.frameWidth && a.frameHeight == b.frameHeight &&
           a.sceneId == b.sceneId && a.sceneFlags == b.sceneFlags && a.peopleCount == b.peopleCount;
}

/** What it was told, in order, and whether the session had it stored by then. */
class Observer : public ISceneCallback {
public:
    explicit Observer(FDSession& session) : mSession(session) {}

    void onSceneControl(SceneControl scene) override {
        SceneControl stored = {};
        mSession.getSceneControl(stored);
        tell("scene", same(stored, scene));
    }
    void onPTZControl(SceneControl ptz) override {
        SceneControl stored = {};
        mSession.getPTZControl(stored);
        tell("ptz", same(stored, ptz));
    }
    void onTrackControl(TrackControl track) override {
        TrackControl stored = {};
        mSession.getTrackControl(stored);
        tell("track", stored.timestampNs == track.timestampNs && stored.zoom == track.zoom);
    }
    void onTrackingMode(TrackingMode mode) override {
        tell("mode " + std::to_string(static_cast<int>(mode)), mSession.getTrackingMode() == mode);
    }
    std::vector<std::string> take() { return std::exchange(mTold, {}); }

private:
    void tell(const std::string& what, bool isStored) {
        mTold.push_back(what + (isStored ? "" : " before it was stored"));
    }

    FDSession& mSession;
    std::vector<std::string> mTold;
};

using Told = std::vector<std::string>;

class DeviceTest : public testing::Test {
protected:
    /** Its thread stays, so it is there before a test begins. */
    static void SetUpTestSuite() { FDSession::getInstance(); }
};

TEST_F(DeviceTest, StoresControlsAndTellsItsObserver) {
    const sp<FDSession> session = FDSession::getInstance();
    ASSERT_EQ(session, FDSession::getInstance());
    Observer observer(*session);
    session->setSceneCallback(&observer);
    session->setSceneControl(sceneOf(3));
    EXPECT_EQ(session->getPeopleCount(), 3);
    TrackControl track = {};
    track.timestampNs = 123456789012;
    track.zoom = 1.5F;
    session->setTrackControl(track);
    session->setTrackingMode(TrackingMode::GROUP);
    session->setTrackingMode(TrackingMode::GROUP);  // the same: nobody is told
    session->setPTZControl(sceneOf(1));
    EXPECT_EQ(observer.take(), (Told{"scene", "track", "mode 1", "ptz"}));

    session->setTrackingMode(TrackingMode::OFF);  // the view goes back, without a word of it
    SceneControl ptz = {};
    session->getPTZControl(ptz);
    SceneControl whole = sceneOf(1);  // but for what the view is
    whole.crops = {Crop{0, 0, 1280, 720}};
    whole.frameWidth = 1280;
    whole.frameHeight = 720;
    EXPECT_TRUE(same(ptz, whole));
    EXPECT_EQ(observer.take(), Told{"mode 0"});
    session->setSceneCallback(nullptr);
    session->setSceneControl({});
    EXPECT_EQ(observer.take(), Told{});
}

TEST_F(DeviceTest, DescribesAPaddedFrameInMemory) {
    std::vector<uint8_t> memory(1408 * 1024, 3);
    const zoru_ycbcr hd(memory.data(), 1280, 720);
    EXPECT_EQ(hd.cb, memory.data() + 942080);
    EXPECT_EQ(hd.cr, memory.data() + 942081);
    EXPECT_EQ(hd.ystride, 1280U);
    EXPECT_EQ(hd.cstride, 1280U);
    EXPECT_EQ(hd.chroma_step, 2U);
    EXPECT_EQ(hd.height, 720);
    const zoru_ycbcr odd(memory.data(), 1030, 33);
    EXPECT_EQ(odd.ystride, 1152U);
    EXPECT_EQ(odd.cb, memory.data() + 73728);
    for (const int height : {0, 1, 32})
        EXPECT_EQ(zoru_ycbcr(memory.data(), 128, height).cb, memory.data() + 4096);
}

TEST_F(DeviceTest, WritesFramesOfMemoryAndPlaysThemInALoop) {
    // A device's own place for what tests write is not everybody's.
    const bool isDevice = access("/data/local/tmp", W_OK) == 0;
    const std::string folder = isDevice ? "/data/local/tmp/" : testing::TempDir();
    const std::string name = folder + "fdstream-device-test.nv12";
    std::ofstream(name) << "what was there before";
    std::vector<uint8_t> memory(128 * 32 + 128 * 16);
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    zoru_ycbcr frame(memory.data(), 4, 4);
    {
        YUVFile out(name.c_str(), 4, 4);
        EXPECT_EQ(out.putFrame(), 24);
        EXPECT_EQ(out.putFrame(frame), 24);
        frame.width = 6;  // larger than the file's: refused, and nothing written
        EXPECT_EQ(out.putFrame(frame), -1);
    }
    // Four rows of luma, and two of chroma behind 32 of 128 bytes.
    std::string row("\x00\x01\x02\x03\x80\x81\x82\x83", 8);
    const std::string written = row + row + row;
    YUVFile in(name.c_str(), 4, 4);
    for (const std::string& expected : {std::string(24, '\0'), written, std::string(24, '\0')}) {
        const uint8_t* const bytes = in.getFrame();
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, bytes + 24), expected);
    }
    EXPECT_EQ(in.putFrame(), -1);  // it serves one direction
    remove(name.c_str());
}

}  // namespace
