// What other programs get of a stream.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "support/client_tool_fixture.h"
#include "ui/GraphicBuffer.h"
#include "view/announcements.h"

namespace testing_support {

namespace {

constexpr uint8_t kCb = 90;
constexpr uint8_t kCr = 200;

class ClientY4mTest : public ClientToolFixture {
protected:
    ~ClientY4mTest() override { fillBy({}); }

    /** Luma is the frame's number; Cb and Cr have values of their own. */
    BufferStatus fillWithNumber(const CaptureRequest& request) {
        const uint64_t id = request.outputBuffers[0].bufferId;
        const sp<GraphicBuffer> memory = session->getBufferForId(id);
        android_ycbcr planes = {};
        EXPECT_EQ(memory->lockYCbCr(0x33, &planes), 0);
        const auto height = memory->getHeight();
        for (size_t y = 0; y < height; ++y)
            memset(static_cast<uint8_t*>(planes.y) + y * planes.ystride,
                   static_cast<int>(request.frameNumber), memory->getWidth());
        for (size_t y = 0; y < (height + 1) / 2; ++y) {
            for (size_t x = 0; x < (memory->getWidth() + 1) / 2; ++x) {
                const size_t at = y * planes.cstride + x * planes.chroma_step;
                static_cast<uint8_t*>(planes.cb)[at] = kCb;
                static_cast<uint8_t*>(planes.cr)[at] = kCr;
            }
        }
        memory->unlock();
        return BufferStatus::OK;
    }
};

std::string frame(size_t luma, size_t chroma, uint32_t number) {
    return "FRAME\n" + std::string(luma, static_cast<char>(number)) +
           std::string(chroma, static_cast<char>(kCb)) +
           std::string(chroma, static_cast<char>(kCr));
}

}  // namespace

TEST_F(ClientY4mTest, HasThePlanesTheRateAndTheLastFrameForOneThatIsMissing) {
    const struct {
        const char* arguments;
        double announced;  // frames a second; 0: nothing is
        const char* header;
        size_t luma, chroma;
    } cases[] = {
        {"--frames 12", 30000 / 1001.0, "W1280 H720 F30000:1001", 921600, 230400},
        {"--frames 3 --size 35x23", 24, "W35 H23 F24:1", 805, 216},  // ends before the tenth
        {"--frames 12 --size 1x1", 0, "W1 H1 F25:1", 1, 1},
        {"--frames 4 --size 6x3 --fps 12.5", 30, "W6 H3 F12500:1000", 18, 6},
        {"--frames 12 --size 2x1", 30, "W2 H1 F30:1", 2, 1},
    };
    for (const auto& c : cases) {
        fillBy([&](const CaptureRequest& request) {
            if (request.frameNumber == 1) return BufferStatus::ERROR;
            if (c.announced == 0) return fillWithNumber(request);
            const double ns = 1e9 + 1e9 / c.announced * request.frameNumber;
            FDNotifyMsg shutter = camera::shutterOf(request.frameNumber, static_cast<uint64_t>(ns));
            session->sendNotify(shutter);
            return fillWithNumber(request);
        });
        EXPECT_EQ(run(std::string(c.arguments) + " --buffers 2 --y4m y4m --raw raw"), 1);
        std::string expected =
            "YUV4MPEG2 " + std::string(c.header) + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
        const auto frames = static_cast<uint32_t>(std::stoul(std::string(c.arguments).substr(9)));
        for (uint32_t number = 0; number < frames; ++number)
            expected += frame(c.luma, c.chroma, number == 1 ? 0 : number);
        EXPECT_TRUE(read("y4m") == expected) << c.arguments << ' ' << read("y4m").substr(0, 70);
        EXPECT_EQ(read("raw").size(), (frames - 1) * (c.luma + 2 * c.chroma)) << c.arguments;
    }
}

TEST_F(ClientY4mTest, EndsInSilenceWithItsReader) {
    fillBy([&](const CaptureRequest& request) { return fillWithNumber(request); });
    run("--frames 0 --size 64x64 --y4m -; echo $? >code; } | head -c 100000 >read", "{");
    EXPECT_EQ(read("code"), "0\n");
    EXPECT_EQ(read("read").size(), 100000U);
    EXPECT_TRUE(matches(read("err"), "^(client: [0-9]+ frames\n)*$")) << read("err");
}

}  // namespace testing_support
