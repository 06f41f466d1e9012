// The program that finds faces: what it looks at, what it says of it, and how it ends.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ZoruUtil.h"
#include "host/channel.h"
#include "support/block_cascade.h"
#include "support/client_tool_fixture.h"
#include "view/faces.h"

namespace testing_support {

namespace {

using camera::Rect;

constexpr Rect kFace = {200, 100, 96, 96};
constexpr Rect kView = {320, 180, 640, 360};

class DetectToolTest : public ClientToolFixture {
protected:
    DetectToolTest() {
        program = DETECT_TOOL;
        writeBlockCascade(folder / "cascade");
        fillBy([this](const CaptureRequest& request) { return fillAndTell(request); });
    }
    ~DetectToolTest() override { fillBy({}); }

    int detect(const std::string& arguments, const std::string& before = "") {
        return run("--cascade cascade --size 640x360 " + arguments, before);
    }

    /** A face, after what is told of its frame. */
    BufferStatus fillAndTell(const CaptureRequest& request) {
        const uint32_t number = request.frameNumber;
        if (tells) {
            for (FDNotifyMsg msg : {camera::shutterOf(number, 1), camera::viewOf(number, kView),
                                    camera::pictureOf(number, {{1280, 720}, isTurned})})
                session->sendNotify(msg);
        }
        kit::Frame frame(640 * 360 * 3 / 2, 128);
        for (int y = 0; y < kFace.height; ++y)
            memset(&frame[static_cast<size_t>((kFace.y + y) * 640 + kFace.x)],
                   blockLuma(y, kFace.height), static_cast<size_t>(kFace.width));
        ZoruUtil::copyTo(frame.data(), session->getBufferForId(request.outputBuffers[0].bufferId));
        return BufferStatus::OK;
    }

    /** The lines of a kind that the program wrote to "json". */
    std::vector<std::string> lines(const std::string& outcome) const {
        std::vector<std::string> lines;
        std::istringstream json(read("json"));
        for (std::string line; std::getline(json, line);) {
            if (has(line, "\"outcome\": \"" + outcome)) lines.push_back(line);
        }
        return lines;
    }

    std::atomic<bool> tells{true};
    std::atomic<bool> isTurned{false};
};

/** The first face in a line's field; none when it is unknown or empty. */
Rect faceIn(const std::string& line, const char* field) {
    Rect face;
    const size_t at = line.find(std::string("\"") + field + "\": [[");
    if (at == std::string::npos) return face;
    sscanf(line.c_str() + line.find("[[", at), "[[%d, %d, %d, %d]", &face.x, &face.y, &face.width,
           &face.height);
    return face;
}

}  // namespace

TEST_F(DetectToolTest, FindsFacesInTheFrameAndInThePicture) {
    pauseUs = 10000;
    for (const auto& [told, turned] : {std::pair(true, false), {true, true}, {false, false}}) {
        tells = told;
        isTurned = turned;
        EXPECT_EQ(detect("--frames 40 --json json --png png"), 0) << read("err");
        const std::vector<std::string> seen = lines("detected");
        ASSERT_GE(seen.size(), 2U) << read("json");
        EXPECT_EQ(faceIn(seen[0], "faces").width, 0) << seen[0];  // from the second time on
        const Rect face = faceIn(seen.back(), "faces");
        EXPECT_GE(camera::overlap(face, kFace), 0.3) << seen.back();
        const Rect place = camera::inPicture(face, {640, 360}, kView, turned);
        EXPECT_EQ(faceIn(seen.back(), "faces_in_picture"), told ? place : Rect()) << seen.back();
        EXPECT_EQ(has(seen.back(), "\"view\": [320, 180, 640, 360]"), told) << seen.back();
        EXPECT_EQ(has(seen.back(), "\"camera_to_faces_ms\": null"), !told) << seen.back();
        EXPECT_EQ(lines("").size(), 40U);
        const std::string number = seen.back().substr(10, seen.back().find(',') - 10);
        EXPECT_TRUE(exists("png/frame-" + number + ".png")) << number;
        EXPECT_FALSE(has(read("json"), "{\"frame\": 0,"));
    }
}

TEST_F(DetectToolTest, LeavesOutThePlacesOfTheFirstFramesAfterATurn) {
    pauseUs = 20000;
    after(10, [this] { isTurned = true; });
    EXPECT_EQ(detect("--frames 30 --json json"), 0);
    std::vector<std::string> all = lines("");
    const auto turn = std::find_if(all.begin(), all.end(), [](const std::string& line) {
        return has(line, "\"turned\": true");
    });
    ASSERT_GE(all.end() - turn, 7);
    for (auto line = turn; line != turn + 7; ++line) {
        if (!has(*line, "detected")) continue;
        EXPECT_EQ(has(*line, "\"faces_in_picture\": null"), line - turn < 5) << *line;
    }
}

TEST_F(DetectToolTest, LooksAtTheNewestFrameAndSkipsTheOthersAtOnce) {
    EXPECT_EQ(detect("--frames 200 --factor 1.02 --json json"), 0) << read("err");
    const size_t looked = lines("detected").size();
    const size_t skipped = lines("skipped").size();
    EXPECT_EQ(looked + skipped, 200U);
    EXPECT_GT(skipped, 2 * looked);  // the provider did not wait for the detector
    EXPECT_TRUE(matches(read("out"), " 200 +" + std::to_string(skipped) + " +")) << read("out");
}

TEST_F(DetectToolTest, EndsAsItsDocumentsSay) {
    EXPECT_EQ(run("--cascade nowhere"), 2);
    EXPECT_TRUE(has(read("err"), "nowhere: No such file")) << read("err");
    EXPECT_EQ(run("--cascade socket"), 2);
    EXPECT_EQ(detect("--json - --y4m -"), 2);
    EXPECT_EQ(detect("--buffers 2"), 2);
    EXPECT_EQ(run("--help"), 0);
    EXPECT_FALSE(matches(read("out"), "[^\n]{81}")) << read("out");
    detect("--y4m -; echo $? >code; } | head -c 3000000 >y4m", "{");
    EXPECT_EQ(read("code"), "0\n");
    EXPECT_EQ(read("y4m").rfind("YUV4MPEG2 W640 H360 F25:1 ", 0), 0U);
    after(5, [this] { EXPECT_TRUE(client->setCallback(callback).isOk()); });
    EXPECT_EQ(detect(""), 4);
    after(5, [this] { server.reset(); });
    EXPECT_EQ(detect(""), 3);
}

}  // namespace testing_support
