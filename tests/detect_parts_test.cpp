// What of the program that finds faces needs no detector: what it says of a frame, and what it
// draws.

#include <gtest/gtest.h>

#include <string>

#include "boxes.h"
#include "faces_json.h"
#include "whole_frame.h"

namespace testing_support {

TEST(DetectPartsTest, SaysOfAFrameWhatIsKnown) {
    tools::Answer answer = {};
    answer.frameNumber = 7;
    answer.outcome = tools::Answer::Outcome::Skipped;
    const std::string unknown = R"("faces": null, "faces_in_picture": null, )"
                                R"("detection_ms": null, "camera_to_faces_ms": null})";
    EXPECT_EQ(tools::lineOf(answer, nullptr),
              R"({"frame": 7, "outcome": "skipped", "sensor_ns": null, "picture": null, )"
              R"("turned": null, "view": null, )" +
                  unknown + "\n");
    answer.told.sensorNs = 5000000000;
    answer.told.picture = camera::Picture{{1280, 720}, true};
    answer.told.view = camera::Rect{1, 2, 3, 4};
    const tools::Sight sight = {{{5, 6, 7, 8}, {9, 10, 11, 12}}, {{}}, 1.5, {}};
    EXPECT_EQ(tools::lineOf(answer, &sight),
              R"({"frame": 7, "outcome": "detected", "sensor_ns": 5000000000, )"
              R"("picture": [1280, 720], "turned": true, "view": [1, 2, 3, 4], )"
              R"("faces": [[5, 6, 7, 8], [9, 10, 11, 12]], "faces_in_picture": [], )"
              R"("detection_ms": 1.500, "camera_to_faces_ms": null})"
              "\n");
}

TEST(DetectPartsTest, DrawsOfABoxWhatIsInsideAFrameOfAnySize) {
    const kit::FrameSize size = {15, 9};
    kit::Frame frame(tools::wholeBytes(size), 1);
    tools::drawBoxes(frame, size, {{-5, 2, 12, 40}, {8, -100, 100, 300}, {50, 50, 5, 5}}, 1);
    std::string drawn;
    for (size_t at = 0; at < size.lumaBytes(); ++at)
        drawn += frame[at] == 1 ? '.' : '#';
    const std::string row = "......#.#......";
    EXPECT_EQ(drawn,
              "........#..............#......#######.#......" + row + row + row + row + row + row);
}

}  // namespace testing_support
