// The raw YUV file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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

TEST_F(YuvFileTest, TellsWhyThereIsNoFrameAndTriesAgain) {
    YUVFile shorter(write("short", "abc").c_str(), 2, 2);
    EXPECT_EQ(shorter.getFrame(), nullptr);
    YUVFile missing(path("later").c_str(), 2, 2);
    EXPECT_EQ(missing.getFrame(), nullptr);
    write("later", "123456");
    EXPECT_NE(missing.getFrame(), nullptr);
    EXPECT_EQ(missing.putFrame(), -1);  // it serves one direction
    // A pipe has no beginning to play from again.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(::write(ends[1], "abc", 3), 3);
    YUVFile pipe(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), 2, 2);
    close(ends[1]);
    EXPECT_EQ(pipe.getFrame(), nullptr);
    close(ends[0]);
    EXPECT_EQ(
        log.said(kTag),
        (Lines{"E file reading failed, status - 3 error - Success \n",
               "E file " + path("later") + " open failed, error - No such file or directory \n",
               "E file writing failed, status - 0 error - Bad file descriptor \n",
               "E file reading failed, status - 0 error - Illegal seek \n"}));
}

TEST_F(YuvFileTest, RefusesAGeometryThatCannotBe) {
    YUVFile none(nullptr, 2, 2);
    YUVFile flat(path("x").c_str(), 0, 720);
    YUVFile huge(path("x").c_str(), 65536, 65536);  // a product of 0 in 32 bits
    YUVFile large(path("x").c_str(), 26755, 26755);
    EXPECT_EQ(log.timesSaid("E invalid args: inFile((nil)) width(2) height(2) \n"), 1);
    EXPECT_EQ(log.take(kTag).size(), 4U);
    const sp<GraphicBuffer> buffer = wrap(allocate(2, 2));
    std::vector<uint8_t> memory(8192);
    zoru_ycbcr frame(memory.data(), 2, 2);
    for (YUVFile* const file : {&none, &flat, &huge, &large}) {
        EXPECT_EQ(file->getFrame(), nullptr);
        EXPECT_EQ(file->putFrame(), -1);
        EXPECT_EQ(file->putFrame(buffer), -1);
        EXPECT_EQ(file->putFrame(frame), -1);
    }
    EXPECT_FALSE(std::filesystem::exists(path("x")));
    EXPECT_EQ(log.timesSaid("E  Invalid handle \n"), 4);
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
    EXPECT_EQ(nowhere.putFrame(wrap(allocate(6, 4))), -1);
    EXPECT_EQ(log.said(kTag),
              (Lines{"E file writing failed, status - 6 error - No space left on device \n",
                     "E file " + path("no/such/folder") +
                         " open failed, error - No such file or directory \n",
                     "E invalid Graphics buffer \n", "E  Invalid handle \n",
                     "E Failed to get Graphics buffer \n", "E lockYCbCr failed, error (3) \n",
                     "E Failed to from Graphics buffer \n",
                     "E frame is too large: width(6) height(4), file width(2) height(2) \n"}));
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
