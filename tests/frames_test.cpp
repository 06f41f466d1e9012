// Frames in memory and in files: the copies, the dumps, and the raw YUV file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

constexpr const char* kTag = "zoruutil";

void randomise(const host::Buffer& buffer, unsigned seed) {
    std::minstd_rand random(seed);
    std::generate_n(buffer.bytes(), buffer.size(), [&] { return static_cast<uint8_t>(random()); });
}

/** The rows of a buffer without their padding. */
std::vector<uint8_t> packed(const host::Buffer& buffer) {
    const host::BufferGeometry& geometry = buffer.geometry();
    std::vector<uint8_t> result;
    for (uint32_t y = 0; y < geometry.height; ++y) {
        result.insert(result.end(), buffer.lumaRow(y), buffer.lumaRow(y) + geometry.width);
    }
    for (uint32_t y = 0; y < geometry.height / 2; ++y) {
        result.insert(result.end(), buffer.chromaRow(y), buffer.chromaRow(y) + geometry.width);
    }
    return result;
}

host::BufferGeometry strided(host::ChromaOrder order = host::ChromaOrder::CbFirst) {
    host::BufferGeometry geometry;
    geometry.stride = 1536;
    geometry.chromaStride = 1600;
    geometry.order = order;
    return geometry;
}

class FramesTest : public testing::Test {
protected:
    FramesTest() {
        char name[] = "/tmp/fdstream-test-XXXXXX";
        folder = mkdtemp(name);
    }
    ~FramesTest() override { std::filesystem::remove_all(folder); }

    std::string path(const std::string& name) const { return folder + "/" + name; }
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    host::LogCapture log;
    std::string folder;
};

}  // namespace

TEST_F(FramesTest, CopiesFramesAndNoPadding) {
    for (const auto order : {host::ChromaOrder::CbFirst, host::ChromaOrder::CrFirst}) {
        for (const auto& [width, height] : {std::pair{1280U, 720U}, {33U, 5U}, {16U, 1U}}) {
            const host::Buffer source = allocate(width, height, strided(order));
            const host::Buffer target = allocate(width, height, strided(order));
            randomise(source, width);
            const std::vector<uint8_t> expected = packed(source);
            std::vector<uint8_t> memory(expected.size() + 1, 0xAA);
            EXPECT_EQ(ZoruUtil::copyFrom(memory.data(), wrap(source)), 0);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), memory.begin()));
            EXPECT_EQ(memory.back(), 0xAA);

            std::fill_n(target.bytes(), target.size(), uint8_t{0x55});
            EXPECT_EQ(ZoruUtil::copyTo(memory.data(), wrap(target)), 0);
            EXPECT_EQ(packed(target), expected);
            EXPECT_EQ(target.lumaRow(0)[width], 0x55);
            EXPECT_EQ(target.chromaRow(0)[width], 0x55);

            std::fill_n(target.bytes(), target.size(), uint8_t{0x55});
            EXPECT_EQ(ZoruUtil::copy(wrap(target), wrap(source)), 0);
            EXPECT_EQ(packed(target), expected);
            EXPECT_EQ(target.lumaRow(0)[width], 0x55);
        }
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramesTest, DescribesAPaddedFrameInMemory) {
    std::vector<uint8_t> memory(1408 * 1024, 3);
    const zoru_ycbcr hd(memory.data(), 1280, 720);
    EXPECT_EQ(hd.cb, memory.data() + 942080);
    EXPECT_EQ(hd.cr, memory.data() + 942081);
    EXPECT_EQ(hd.ystride, 1280U);
    EXPECT_EQ(hd.cstride, 1280U);
    EXPECT_EQ(hd.chroma_step, 2U);
    EXPECT_EQ(hd.height, 720);
    zoru_ycbcr odd(memory.data(), 1000, 33);
    EXPECT_EQ(odd.ystride, 1024U);
    EXPECT_EQ(odd.cb, memory.data() + 65536);
    EXPECT_EQ(zoru_ycbcr(memory.data(), 128, 0).cb, memory.data() + 4096);

    const host::Buffer target = allocate(100, 20);
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    odd.cr = memory.data() + 60000;  // the lower of the two counts
    EXPECT_EQ(ZoruUtil::copy(wrap(target), odd), 0);
    EXPECT_TRUE(std::equal(target.lumaRow(19), target.lumaRow(19) + 100, &memory[19 * 1024]));
    EXPECT_TRUE(
        std::equal(target.chromaRow(9), target.chromaRow(9) + 100, &memory[60000 + 9 * 1024]));

    // Over 32 bits, or nothing there: no chroma addresses, so no operation takes it.
    zoru_ycbcr huge(memory.data(), 65536, 65536);
    zoru_ycbcr nothing(nullptr, 16, 16);
    zoru_ycbcr widest(memory.data(), INT32_MAX, 1);
    for (zoru_ycbcr* const frame : {&huge, &nothing, &widest}) {
        EXPECT_EQ(ZoruUtil::copy(wrap(target), *frame), -1);
    }
    EXPECT_EQ(ZoruUtil::copy(nullptr, odd), -1);
    EXPECT_EQ(log.count("copy:372: Invalid args \n"), 4);
}

TEST_F(FramesTest, TellsWhyAFrameIsNotCopied) {
    host::BufferGeometry planarGeometry;
    planarGeometry.chromaStep = 1;
    host::BufferGeometry wideGeometry;
    wideGeometry.chromaStep = 4;
    const sp<GraphicBuffer> good = wrap(allocate(8, 4));
    const sp<GraphicBuffer> planar = wrap(allocate(8, 4, planarGeometry));
    const sp<GraphicBuffer> wide = wrap(allocate(8, 4, wideGeometry));
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);
    const sp<GraphicBuffer> small = wrap(allocate(4, 4));
    const sp<GraphicBuffer> low = wrap(allocate(8, 2));
    std::vector<uint8_t> memory(48, 9);
    zoru_ycbcr frame(memory.data(), 8, 4);
    frame.cb = memory.data();
    frame.cr = memory.data() + 1;
    frame.ystride = frame.cstride = 8;
    const host::MapperCounters before = host::mapperCounters();
    const auto fails = [&](int result, const std::vector<std::string>& lines) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.texts(kTag), lines);
        log.clear();
        const host::MapperCounters now = host::mapperCounters();
        EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    };
    const std::string unhandled = "420 planar format is not handled \n";
    fails(ZoruUtil::copyTo(nullptr, good), {"Invalid params: buffer((nil)) \n"});
    fails(ZoruUtil::copyFrom(nullptr, good), {"Invalid params: buffer((nil)) \n"});
    EXPECT_EQ(host::mapperCounters().locks, before.locks);
    fails(ZoruUtil::copyFrom(memory.data(), closed), {"lockYCbCr failed, error (3) \n"});
    fails(ZoruUtil::copyTo(memory.data(), closed), {"lockYCbCr failed, error(3) \n"});
    fails(ZoruUtil::copyFrom(memory.data(), planar), {unhandled});
    fails(ZoruUtil::copyTo(memory.data(), planar), {unhandled});
    fails(ZoruUtil::copy(good, planar), {unhandled});
    fails(ZoruUtil::copy(wide, good), {unhandled});
    fails(ZoruUtil::copy(planar, frame), {unhandled});
    fails(ZoruUtil::copy(good, closed), {"325:lock failed, error (3) \n"});
    fails(ZoruUtil::copy(closed, good), {"332:lock failed, error (3) \n"});
    fails(ZoruUtil::copy(closed, frame), {"copy:379: lockYCbCr failed, error (3) \n"});
    fails(ZoruUtil::copy(good, small),
          {"source is smaller: width(4) height(4), not width(8) height(4) \n"});
    fails(ZoruUtil::copy(good, low),
          {"source is smaller: width(8) height(2), not width(8) height(4) \n"});
    EXPECT_EQ(ZoruUtil::copyFrom(memory.data(), wide), -1);
    ASSERT_EQ(log.texts(kTag).size(), 1U);
    EXPECT_EQ(log.texts(kTag)[0].rfind(" unhanlded buffer format: y(0x", 0), 0U);
    EXPECT_NE(log.texts(kTag)[0].find(") ystride(8) cstride(16) chroma_step(4) \n"),
              std::string::npos);
    log.clear();
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), {unhandled});

    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory.data(), good), {"unlock failed, error (-8) \n"});
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory.data(), good), {"unlock failed, error(-8) \n"});
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
}

TEST_F(FramesTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    ZoruUtil::dumpCaptureRequest(request);
    StreamConfiguration configuration = configurationOf(2, 1280, 720);
    configuration.streams[0].format =
        android::hardware::graphics::common::V1_0::PixelFormat::YCBCR_420_888;
    ZoruUtil::dumpConfiguration(configuration);
    StreamConfiguration none = {};
    ZoruUtil::dumpConfiguration(none);
    const std::vector<std::string> lines = {
        "dumpCaptureRequest: dumping received capture reqest:  \n",
        "dumpCaptureRequest: frameNumber(7)  \n",
        "dumpCaptureRequest: outputBuffersCount(1)  \n",
        "dumpCaptureRequest: streamId(-3) bufferId(18446744073709551615) \n",
        "dumpConfiguration: dumping stream configuration:  \n",
        "dumpConfiguration: operationMode(32769)  \n",
        "dumpConfiguration: streamsCount(1)  \n",
        "dumpConfiguration: streamId(2) streamType(0) width(1280) height(720) format(0x23) usage(0x33) rotation(0)\n",
        "dumpConfiguration: dumping stream configuration:  \n",
        "dumpConfiguration: operationMode(0)  \n",
        "dumpConfiguration: streamsCount(0)  \n"};
    EXPECT_EQ(log.texts(kTag), lines);
}

// ---- The raw file ----

TEST_F(FramesTest, PlaysWholeFramesInALoop) {
    const std::string file = write("2.5", std::string(6, 'a') + std::string(6, 'b') + "ccc");
    YUVFile frames(file.c_str(), 2, 2);
    for (const char frame : {'a', 'b', 'a', 'b', 'a'}) {
        const uint8_t* const bytes = frames.getFrame();
        ASSERT_NE(bytes, nullptr);
        EXPECT_TRUE(
            std::all_of(bytes, bytes + 6, [&](uint8_t byte) { return char(byte) == frame; }));
    }
    EXPECT_EQ(frames.putFrame(), -1);  // it serves one direction
    EXPECT_EQ(log.texts(kTag), std::vector<std::string>{"file writing failed, status - 0 error - "
                                                        "Bad file descriptor \n"});
    YUVFile one(write("1", "123456").c_str(), 2, 2);
    EXPECT_NE(one.getFrame(), nullptr);
    EXPECT_NE(one.getFrame(), nullptr);
}

TEST_F(FramesTest, TellsWhyThereIsNoFrameAndTriesAgain) {
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
    const std::vector<std::string> lines = {
        "file reading failed, status - 3 error - Success \n",
        "file " + path("later") + " open failed, error - No such file or directory \n",
        "file reading failed, status - 0 error - Illegal seek \n"};
    EXPECT_EQ(log.texts(kTag), lines);
}

TEST_F(FramesTest, RefusesAGeometryThatCannotBe) {
    YUVFile none(nullptr, 2, 2);
    YUVFile flat(path("x").c_str(), 0, 720);
    YUVFile huge(path("x").c_str(), 65536, 65536);  // a product of 0 in 32 bits
    YUVFile large(path("x").c_str(), 26755, 26755);
    EXPECT_EQ(log.count("invalid args: inFile((nil)) width(2) height(2) \n"), 1);
    EXPECT_EQ(log.texts(kTag).size(), 4U);
    log.clear();
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
    EXPECT_EQ(log.count(" Invalid handle \n"), 4);
}

TEST_F(FramesTest, AppendsFramesOfEverySource) {
    const std::string name = write("out", "what was there before");
    {
        const host::Buffer buffer = allocate(4, 4, strided());
        randomise(buffer, 1);
        std::vector<uint8_t> memory(128 * 32 + 128 * 16);
        std::iota(memory.begin(), memory.end(), uint8_t{0});
        zoru_ycbcr frame(memory.data(), 4, 4);
        YUVFile file(name.c_str(), 4, 4);
        EXPECT_EQ(file.putFrame(), 24);
        EXPECT_EQ(file.putFrame(wrap(buffer)), 24);
        EXPECT_EQ(file.putFrame(const_cast<native_handle_t*>(buffer.handle())), 24);
        EXPECT_EQ(file.putFrame(frame), 24);
        std::swap(frame.cb, frame.cr);  // the lower address counts
        EXPECT_EQ(file.putFrame(frame), 24);
        frame.height = 1;  // one luma row, no chroma: the rest is that of the frame before
        EXPECT_EQ(file.putFrame(frame), 24);
        frame.height = frame.width = -6;  // nothing is copied, and all of it written again
        EXPECT_EQ(file.putFrame(frame), 24);
        frame.width = 4;

        // A larger one is refused: nothing written, nothing past the frame memory.
        EXPECT_EQ(file.putFrame(wrap(allocate(6, 4))), -1);
        frame.height = 5;
        EXPECT_EQ(file.putFrame(frame), -1);

        std::ifstream in(name, std::ios::binary);
        const std::string all((std::istreambuf_iterator<char>(in)), {});
        ASSERT_EQ(all.size(), 168U);
        const std::vector<uint8_t> fromBuffer = packed(buffer);
        const std::string expected(fromBuffer.begin(), fromBuffer.end());
        EXPECT_EQ(all.substr(0, 24), std::string(24, '\0'));
        EXPECT_EQ(all.substr(24, 24), expected);
        EXPECT_EQ(all.substr(48, 24), expected);
        const std::string rows(
            "\x00\x01\x02\x03\x80\x81\x82\x83\x00\x01\x02\x03\x80\x81\x82\x83"
            "\x00\x01\x02\x03\x80\x81\x82\x83",
            24);
        EXPECT_EQ(all.substr(72, 24), rows);
        EXPECT_EQ(all.substr(96, 24), rows);
        EXPECT_EQ(all.substr(120, 24), rows);
        EXPECT_EQ(all.substr(144, 24), rows);
    }
    const std::vector<std::string> lines = {
        "frame is too large: width(6) height(4), file width(4) height(4) \n",
        "frame is too large: width(4) height(5), file width(4) height(4) \n"};
    EXPECT_EQ(log.texts(kTag), lines);
}

TEST_F(FramesTest, TellsWhyNothingWasWritten) {
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
    const std::vector<std::string> lines = {
        "file writing failed, status - 6 error - No space left on device \n",
        "file " + path("no/such/folder") + " open failed, error - No such file or directory \n",
        "invalid Graphics buffer \n",
        " Invalid handle \n",
        "Failed to get Graphics buffer \n",
        "lockYCbCr failed, error (3) \n",
        "Failed to from Graphics buffer \n"};
    EXPECT_EQ(log.texts(kTag), lines);
}

TEST_F(FramesTest, KeepsTheFirst255CharactersOfAPath) {
    // Folders of 49 characters make a long path of which 255 characters are a file's name.
    std::string base = folder;
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
