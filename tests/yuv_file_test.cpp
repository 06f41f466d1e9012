// The raw YUV file where its file is no plain one, or changes; its fuzzer has the rest.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "YUVFile.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

constexpr int kBytes = 6144;  // of 64 x 64: more than a stream reads ahead

void write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

struct YuvFileTest : public testing::Test {
    Lines said() { return log.take("zoruutil"); }

    LogLines log;
    const kit::TemporaryFolder folder;
    const std::string path = folder / "frames";
};

}  // namespace

TEST_F(YuvFileTest, OpensAFileForReadingOnlyAndTriesAgain) {
    EXPECT_NE(YUVFile("/proc/self/exe", 2, 2).getFrame(), nullptr);  // nobody may write it
    // Of a path the first 255 characters count.
    const std::string kept =
        folder.path().string() + std::string(255 - path.size(), '/') + "/frames";
    YUVFile later((kept + std::string(45, 'x')).c_str(), 2, 2);
    EXPECT_EQ(later.getFrame(), nullptr);
    write(path, "123456");
    EXPECT_NE(later.getFrame(), nullptr);
    // A pipe has no beginning to play from again.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    YUVFile pipe(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), 2, 2);
    close(ends[1]);
    EXPECT_EQ(pipe.getFrame(), nullptr);
    close(ends[0]);
    EXPECT_EQ(said(),
              (Lines{"E file " + kept + " open failed, error - No such file or directory \n",
                     "E file reading failed, status - 0 error - Illegal seek \n"}));
}

TEST_F(YuvFileTest, TellsWhyNothingWasWritten) {
    // With a product of 0, or over 31 bits.
    for (const auto& [width, height] :
         {std::pair(65536, 65536), {-6, -6}, {1, INT32_MAX / 3 + 1}, {1, INT32_MAX / 3}})
        YUVFile(path.c_str(), width, height);
    EXPECT_EQ(said().size(), 3U);
    YUVFile none(nullptr, 2, 3);
    EXPECT_EQ(none.putFrame(), -1);
    EXPECT_EQ(none.putFrame(sp<GraphicBuffer>()), -1);
    EXPECT_EQ(none.putFrame(static_cast<native_handle*>(nullptr)), -1);
    YUVFile full("/dev/full", 2, 2);
    EXPECT_EQ(full.putFrame(), -1);
    EXPECT_EQ(full.putFrame(wrap(allocate(2, 2), 0)), -1);
    EXPECT_EQ(said(),
              (Lines{"E invalid args: inFile((nil)) width(2) height(3) \n",
                     "E file  open failed, error - No such file or directory \n",
                     "E invalid Graphics buffer \n", "E  Invalid handle \n",
                     "E file writing failed, status - 6 error - No space left on device \n",
                     "E lockYCbCr failed, error (3) \n", "E Failed to from Graphics buffer \n"}));
}

TEST_F(YuvFileTest, TakesADescribedFrameThatFits) {
    YUVFile none(nullptr, 4, 4), file(path.c_str(), 4, 4);
    log.clear();
    std::vector<uint8_t> memory(128 * 48);
    zoru_ycbcr frame(memory.data(), 4, 4);
    EXPECT_EQ(none.putFrame(frame), -1);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        EXPECT_EQ(file.putFrame(frame), -1);
        *plane = kept;
    }
    EXPECT_EQ(said(), Lines(4, "E  Invalid handle \n"));
    // One without an extent has no rows.
    const int rows[][3] = {{4, 4, 24},   {2, 9, -1}, {5, 4, -1}, {65536, 65536, -1},
                           {-6, -6, 24}, {0, 3, 24}, {3, 0, 24}};
    for (const auto& [width, height, status] : rows) {
        frame.width = width;
        frame.height = height;
        EXPECT_EQ(file.putFrame(frame), status);
        EXPECT_EQ(said().size(), status < 0 ? 1U : 0U);
    }
}

TEST_F(YuvFileTest, PlaysOnWhenItsFileHasShrunkAndGrown) {
    const std::string frames = std::string(kBytes, 'a') + std::string(kBytes, 'b');
    for (size_t left = 0; left <= frames.size(); left += 1024) {
        write(path, frames);
        YUVFile file(path.c_str(), 64, 64);
        EXPECT_NE(file.getFrame(), nullptr);
        std::filesystem::resize_file(path, left);
        // What the stream had read ahead may still make a frame, once.
        for (int i = 0; i < 3; ++i) {
            const uint8_t* const frame = file.getFrame();
            EXPECT_EQ(said().size(), frame == nullptr ? 1U : 0U) << left;
            EXPECT_TRUE(i == 0 || (frame != nullptr) == (left >= kBytes)) << left;
            EXPECT_TRUE(frame == nullptr || std::count(frame, frame + kBytes, *frame) == kBytes);
        }
        write(path, frames);
        EXPECT_NE(file.getFrame(), nullptr) << left;
    }
}

TEST_F(YuvFileTest, WritesOnWhenTheDiskWasFull) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    for (rlim_t room = 0; room <= 3 * kBytes; room += 512) {
        YUVFile file(path.c_str(), 64, 64);
        const rlimit little = {room, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &little);
        for (rlim_t i = 1; i <= 4; ++i) {
            const bool fits = i * kBytes <= room;
            EXPECT_EQ(file.putFrame(), fits ? kBytes : -1) << room;
            EXPECT_EQ(said().size(), fits ? 0U : 1U) << room;
        }
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(file.putFrame(), kBytes);
    }
    signal(SIGXFSZ, SIG_DFL);
}

}  // namespace testing_support
