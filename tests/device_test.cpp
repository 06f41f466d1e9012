// What holds on a device as it does on a host: the controls, a described frame, a raw file.
// Includes nothing that a host has and a device has not, and reads no log.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "FDSession.h"
#include "YUVFile.h"
#include "zoru_ycbcr.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

class DeviceTest : public testing::Test {
protected:
    /** Its thread stays, so it is there before a test begins. */
    static void SetUpTestSuite() { FDSession::getInstance(); }
};

TEST_F(DeviceTest, StoresControlsAndPutsTheViewBack) {
    const sp<FDSession> session = FDSession::getInstance();
    ASSERT_EQ(session, FDSession::getInstance());
    SceneControl scene = {};
    scene.crops = {Crop{1, 2, 3, 4}};
    scene.sceneId = 7;
    scene.peopleCount = 3;
    session->setSceneControl(scene);
    EXPECT_EQ(session->getPeopleCount(), 3);
    TrackControl track = {};
    track.zoom = 1.5F;
    session->setTrackControl(track);
    session->getTrackControl(track = {});
    EXPECT_EQ(track.zoom, 1.5F);
    session->setTrackingMode(TrackingMode::GROUP);
    EXPECT_EQ(session->getTrackingMode(), TrackingMode::GROUP);
    session->setPTZControl(scene);
    session->setTrackingMode(TrackingMode::OFF);
    session->getPTZControl(scene = {});
    EXPECT_EQ(scene.crops[0].width, 1280);
    EXPECT_EQ(scene.frameHeight, 720);
    EXPECT_EQ(scene.sceneId, 7);
    session->setSceneControl({});
}

TEST_F(DeviceTest, DescribesAPaddedFrameInMemory) {
    std::vector<uint8_t> memory(1408 * 1024);
    const zoru_ycbcr hd(memory.data(), 1280, 720);
    EXPECT_EQ(hd.cb, memory.data() + 942080);
    EXPECT_EQ(hd.cr, memory.data() + 942081);
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
        EXPECT_EQ(out.putFrame(frame), 24);
        frame.width = 6;  // larger than the file's: refused, and nothing written
        EXPECT_EQ(out.putFrame(frame), -1);
    }
    YUVFile in(name.c_str(), 4, 4);
    // Four rows of luma, and two of chroma behind 32 of 128 bytes.
    const std::string row("\x00\x01\x02\x03\x80\x81\x82\x83", 8);
    for (int i = 0; i < 2; ++i) {
        const uint8_t* const bytes = in.getFrame();
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, bytes + 24), row + row + row);
    }
    remove(name.c_str());
}

}  // namespace
