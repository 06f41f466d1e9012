// The raw YUV file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "YUVFile.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

constexpr const char* kTag = "zoruutil";

class YuvFileTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return folder / name; }
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    LogLines log;
    const kit::TemporaryFolder folder;
};

}  // namespace

TEST_F(YuvFileTest, PlaysWholeFramesInALoop) {
    const std::string file = write("1.5", "123456abc");
    YUVFile frames(file.c_str(), 2, 2);
    for (int i = 0; i < 2; ++i) {
        const uint8_t* const bytes = frames.getFrame();
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, bytes + 6), "123456");
    }
    EXPECT_EQ(frames.putFrame(), -1);  // it serves one direction
    EXPECT_EQ(log.said(kTag),
              Lines{"E file writing failed, status - 0 error - Bad file descriptor \n"});
    YUVFile one(write("1", "123456").c_str(), 2, 2);
    EXPECT_NE(one.getFrame(), nullptr);
    EXPECT_NE(one.getFrame(), nullptr);
    YUVFile running("/proc/self/exe", 2, 2);  // which nobody may open for writing
    EXPECT_NE(running.getFrame(), nullptr);
}

TEST_F(YuvFileTest, TellsWhyThereIsNoFrameAndTriesAgain) {
    YUVFile shorter(write("short", "abc").c_str(), 2, 2);
    EXPECT_EQ(shorter.getFrame(), nullptr);
    YUVFile missing(path("later").c_str(), 2, 2);
    EXPECT_EQ(missing.getFrame(), nullptr);
    write("later", "123456");
    EXPECT_NE(missing.getFrame(), nullptr);
    // A pipe has no beginning to play from again.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(::write(ends[1], "abc", 3), 3);
    YUVFile pipe(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), 2, 2);
    close(ends[1]);
    EXPECT_EQ(pipe.getFrame(), nullptr);
    close(ends[0]);
    EXPECT_EQ(log.said(kTag), (Lines{"E file reading failed, status - 3 error - Success \n",
                                     "E file " + path("later") +
                                         " open failed, error - No such file or directory \n",
                                     "E file reading failed, status - 0 error - Illegal seek \n"}));
}

TEST_F(YuvFileTest, RefusesAGeometryThatCannotBe) {
    YUVFile none(nullptr, 2, 2);
    YUVFile flat(path("x").c_str(), 0, 720);
    YUVFile low(path("x").c_str(), 1280, 0);
    YUVFile huge(path("x").c_str(), 65536, 65536);  // a product of 0 in 32 bits
    YUVFile large(path("x").c_str(), 26755, 26755);
    EXPECT_EQ(log.timesSaid("E invalid args: inFile((nil)) width(2) height(2) \n"), 1);
    EXPECT_EQ(log.take(kTag).size(), 5U);
    const sp<GraphicBuffer> buffer = wrap(allocate(2, 2));
    std::vector<uint8_t> memory(8192);
    zoru_ycbcr frame(memory.data(), 2, 2);
    for (YUVFile* const file : {&none, &flat, &low, &huge, &large}) {
        EXPECT_EQ(file->getFrame(), nullptr);
        EXPECT_EQ(file->putFrame(), -1);
        EXPECT_EQ(file->putFrame(buffer), -1);
        EXPECT_EQ(file->putFrame(frame), -1);
    }
    EXPECT_FALSE(std::filesystem::exists(path("x")));
    EXPECT_EQ(log.timesSaid("E  Invalid handle \n"), 5);
    // The file is opened first, and here it has no name.
    EXPECT_EQ(log.timesSaid("E file  open failed, error - No such file or directory \n"), 5);
    YUVFile odd(path("odd").c_str(), 3, 3);
    EXPECT_EQ(odd.putFrame(), 13);
    EXPECT_EQ(odd.putFrame(wrap(allocate(13, 1))), 13);  // no chroma row: it just fits
}

TEST_F(YuvFileTest, AppendsFramesOfEverySource) {
    const std::string name = write("out", "what was there before");
    YUVFile file(name.c_str(), 4, 4);
    std::string expected(24, '\0');
    EXPECT_EQ(file.putFrame(), 24);

    host::BufferGeometry geometry;
    geometry.stride = 64;
    const host::Buffer buffer = kit::allocate({4, 4}, geometry);
    kit::fill(buffer, kit::patternOf({4, 4}));
    EXPECT_EQ(file.putFrame(wrap(buffer)), 24);
    EXPECT_EQ(file.putFrame(const_cast<native_handle_t*>(buffer.handle())), 24);
    const kit::Frame fromBuffer = kit::packed(buffer);
    for (int i = 0; i < 2; ++i)
        expected.append(fromBuffer.begin(), fromBuffer.end());

    kit::Frame memory(128 * 32 + 128 * 16);
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    zoru_ycbcr frame(memory.data(), 4, 4);
    EXPECT_EQ(file.putFrame(frame), 24);
    frame.height = 1;  // one luma row, no chroma: the rest is that of the frame before
    EXPECT_EQ(file.putFrame(frame), 24);
    frame.height = frame.width = -6;  // nothing is copied, and all of it written again
    EXPECT_EQ(file.putFrame(frame), 24);
    for (int i = 0; i < 3 * 3; ++i)
        expected += std::string("\x00\x01\x02\x03\x80\x81\x82\x83", 8);

    // A larger one is refused: nothing written, nothing past the frame memory.
    EXPECT_EQ(file.putFrame(wrap(allocate(6, 4))), -1);
    frame.width = 4;
    frame.height = 5;
    EXPECT_EQ(file.putFrame(frame), -1);
    frame.width = frame.height = 65536;  // a size of 0 in 32 bits
    EXPECT_EQ(file.putFrame(frame), -1);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        EXPECT_EQ(file.putFrame(frame), -1);
        *plane = kept;
    }
    const std::string invalid = "E  Invalid handle \n";
    EXPECT_EQ(log.said(kTag),
              (Lines{"E frame is too large: width(6) height(4), file width(4) height(4) \n",
                     "E frame is too large: width(4) height(5), file width(4) height(4) \n",
                     "E frame is too large: width(65536) height(65536), file width(4) height(4) \n",
                     invalid, invalid, invalid}));

    std::ifstream in(name, std::ios::binary);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), {}), expected);
    EXPECT_NE(file.getFrame(), nullptr);  // opened for reading, too
}

TEST_F(YuvFileTest, TellsWhyNothingWasWritten) {
    YUVFile full("/dev/full", 2, 2);
    EXPECT_EQ(full.putFrame(), -1);
    YUVFile nowhere(path("no/such/folder").c_str(), 2, 2);
    EXPECT_EQ(nowhere.putFrame(), -1);
    EXPECT_EQ(nowhere.putFrame(sp<GraphicBuffer>()), -1);
    EXPECT_EQ(nowhere.putFrame(static_cast<native_handle*>(nullptr)), -1);
    native_handle_t* const noBuffer = native_handle_create(0, 3);
    EXPECT_EQ(nowhere.putFrame(noBuffer), -1);
    native_handle_delete(noBuffer);
    EXPECT_EQ(nowhere.putFrame(wrap(allocate(2, 2), 0)), -1);
    EXPECT_EQ(log.said(kTag),
              (Lines{"E file writing failed, status - 6 error - No space left on device \n",
                     "E file " + path("no/such/folder") +
                         " open failed, error - No such file or directory \n",
                     "E invalid Graphics buffer \n", "E  Invalid handle \n",
                     "E Failed to get Graphics buffer \n", "E lockYCbCr failed, error (3) \n",
                     "E Failed to from Graphics buffer \n"}));
}

TEST_F(YuvFileTest, PlaysOnWhenItsFileHasShrunkAndGrown) {
    constexpr size_t kBytes = 6144;  // more than a stream reads ahead
    const std::string frames = std::string(kBytes, 'a') + std::string(kBytes, 'b');
    for (size_t left = 0; left <= frames.size(); left += 1024) {
        const std::string name = write("shrinks", frames);
        YUVFile file(name.c_str(), 64, 64);
        EXPECT_NE(file.getFrame(), nullptr);
        std::filesystem::resize_file(name, left);
        for (int i = 0; i < 3; ++i) {
            log.clear();
            const uint8_t* const frame = file.getFrame();
            EXPECT_EQ(log.said(kTag).size(), frame == nullptr ? 1U : 0U) << left;
            // What the stream had read ahead may still make a frame.
            EXPECT_TRUE(i == 0 || (frame != nullptr) == (left >= kBytes)) << left;
            const auto isFirst = [&](uint8_t byte) { return byte == frame[0]; };
            EXPECT_TRUE(frame == nullptr || std::all_of(frame, frame + kBytes, isFirst)) << left;
        }
        write("shrinks", frames);
        EXPECT_NE(file.getFrame(), nullptr) << left;
    }
}

TEST_F(YuvFileTest, WritesOnWhenTheDiskWasFull) {
    constexpr int kBytes = 6144;
    signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    for (rlim_t room = 0; room <= 3 * kBytes; room += 512) {
        YUVFile file(path("full").c_str(), 64, 64);
        const rlimit little = {room, before.rlim_max};
        log.clear();
        setrlimit(RLIMIT_FSIZE, &little);
        size_t written = 0;
        for (int i = 0; i < 4; ++i)
            written += file.putFrame() == kBytes ? 1U : 0U;
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(written, room / kBytes);
        const Lines lines = log.take(kTag);
        EXPECT_EQ(lines.size(), 4 - written) << room;
        for (const std::string& line : lines)
            EXPECT_EQ(line.find("E file writing failed, status - "), 0U) << line;
        EXPECT_EQ(file.putFrame(), kBytes);
        EXPECT_TRUE(log.said(kTag).empty());
    }
    signal(SIGXFSZ, SIG_DFL);
}

TEST_F(YuvFileTest, KeepsTheFirst255CharactersOfAPath) {
    // Folders of 49 characters make a long path of which 255 characters are a file's name.
    std::string base = folder.path();
    while (base.size() + 50 < 250) {
        base += "/" + std::string(49, 'd');
        std::filesystem::create_directory(base);
    }
    const std::string wanted = base + "/" + std::string(255 - base.size() - 1, 'f');
    std::ofstream(wanted) << "123456";
    YUVFile file((wanted + std::string(45, 'x')).c_str(), 2, 2);
    EXPECT_NE(file.getFrame(), nullptr);
}

}  // namespace testing_support
