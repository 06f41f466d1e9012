// The mapper, which takes handles from a process that it does not trust.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "host/buffer.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

TEST(MapperTest, MapsABufferOnceHoweverOftenItIsImported) {
    const host::Buffer buffer = allocate(640, 480);
    const host::MapperCounters before = host::mapperCounters();
    {
        const sp<GraphicBuffer> first = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, 640, 480, 35, 1, 0x33, 640);
        const sp<GraphicBuffer> again =
            new GraphicBuffer(first->handle, GraphicBuffer::CLONE_HANDLE, 320, 480, 35, 1, 0x33, 1);
        EXPECT_EQ(again->initCheck(), 0);
        EXPECT_EQ(again->stride, 1);
        android_ycbcr planes = {};
        EXPECT_EQ(again->lockYCbCr(0x33, &planes), 0);
        EXPECT_EQ(planes.ystride, 640U);
        EXPECT_EQ(again->unlock(), 0);
        EXPECT_EQ(again->unlock(), 0);  // the mapper refuses, and nobody is told
        EXPECT_EQ(again->lockYCbCr(0xF00, &planes), 3);
        host::failLock(5);
        planes.ystride = 1;
        planes.y = &planes;
        EXPECT_EQ(again->lockYCbCr(0x33, &planes), 5);
        EXPECT_EQ(planes.ystride, 1U);  // left alone by a failure
        EXPECT_EQ(planes.y, &planes);
        for (const uint32_t usage : {0x3U, 0x30U}) {  // either is enough
            EXPECT_EQ(again->lockYCbCr(usage, &planes), 0);
            EXPECT_EQ(again->unlock(), 0);
        }
        EXPECT_EQ(host::mapperCounters().mappings, before.mappings + 1);
        EXPECT_EQ(host::mapperCounters().maps, before.maps + 1);

        for (const auto& [width, height] :
             {std::pair{641U, 480U}, {640U, 481U}, {0U, 480U}, {640U, 0U}}) {
            const sp<GraphicBuffer> wrong = new GraphicBuffer(
                buffer.handle(), GraphicBuffer::CLONE_HANDLE, width, height, 35, 1, 0x33, width);
            EXPECT_NE(wrong->initCheck(), 0);
            EXPECT_EQ(wrong->width + wrong->height + wrong->stride + wrong->format, 0);
            EXPECT_EQ(wrong->handle, nullptr);
            EXPECT_GT(wrong->lockYCbCr(0x33, &planes), 0);
        }
        const sp<GraphicBuffer> none =
            new GraphicBuffer(nullptr, GraphicBuffer::CLONE_HANDLE, 640, 480, 35, 1, 0x33, 640);
        EXPECT_NE(none->initCheck(), 0);
    }
    EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
}

TEST(MapperTest, LaysOutAndSealsItsOwnBuffersUpToTheirLimit) {
    host::BufferGeometry planar;
    planar.chromaStep = 1;
    const host::Buffer buffer = allocate(8, 6, planar);
    EXPECT_EQ(buffer.size(), 8U * 6 + 2 * 4 * 3);
    android_ycbcr planes = {};
    const sp<GraphicBuffer> wrapped = wrap(buffer);
    ASSERT_EQ(wrapped->lockYCbCr(0x33, &planes), 0);
    EXPECT_EQ(static_cast<uint8_t*>(planes.cr) - static_cast<uint8_t*>(planes.cb), 4 * 3);
    const sp<GraphicBuffer> crFirst =
        wrap(allocate(8, 6, {0, 0, 0, 0, host::ChromaOrder::CrFirst}));
    ASSERT_EQ(crFirst->lockYCbCr(0x33, &planes), 0);
    EXPECT_EQ(static_cast<uint8_t*>(planes.cb) - static_cast<uint8_t*>(planes.cr), 1);
    EXPECT_EQ(fcntl(buffer.handle()->data[0], F_GET_SEALS),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_TRUE(host::Buffer::allocate({2, 255, 1U << 20, 8192}));
    EXPECT_FALSE(host::Buffer::allocate({2, 255, 1U << 20, 8194}));
    EXPECT_EQ(mapper3::IMapper::getService("another"), nullptr);
    EXPECT_EQ(mapper2::IMapper::getService("another"), nullptr);
}

TEST(MapperTest, TellsTwoFilesApartWhoseInodesHaveTheSameNumber) {
    const OneInodeNumber wrapped;
    const host::Buffer one = allocate(8, 4);
    const host::Buffer other = allocate(8, 4);
    other.bytes()[0] = 7;
    const sp<GraphicBuffer> first = wrap(one);
    const sp<GraphicBuffer> second = wrap(other);
    android_ycbcr planes = {};
    ASSERT_EQ(second->lockYCbCr(0x33, &planes), 0);
    EXPECT_EQ(*static_cast<uint8_t*>(planes.y), 7);
}

TEST(MapperTest, RefusesARegionOutsideTheBufferAndAHandleItDoesNotKnow) {
    using android::hardware::graphics::mapper::V3_0::Error;
    const auto mapper = host::realMapper3();
    const host::Buffer buffer = allocate(64, 32);
    void* imported = nullptr;
    Error error = Error::NONE;
    const auto keep = [&](Error answer, void* handle) { error = answer, imported = handle; };
    const auto lock = [&](int32_t left, int32_t top, int32_t width, int32_t height) {
        EXPECT_TRUE(mapper
                        ->lock(imported, 3, {left, top, width, height}, nullptr,
                               [&](Error answer, void*, int32_t, int32_t) { error = answer; })
                        .isOk());
        return error;
    };
    FewDuplicates none;
    none.limitTo(0);
    EXPECT_TRUE(mapper->importBuffer(buffer.handle(), keep).isOk());
    EXPECT_EQ(error, Error::NO_RESOURCES);
    EXPECT_EQ(imported, nullptr);
    none.lift();
    ASSERT_TRUE(mapper->importBuffer(buffer.handle(), keep).isOk());
    EXPECT_EQ(lock(0, 0, 64, 32), Error::NONE);
    EXPECT_EQ(lock(60, 31, 4, 1), Error::NONE);
    EXPECT_EQ(lock(0, 0, 3072, 1), Error::NONE);  // all its bytes, as one row
    EXPECT_EQ(lock(0, 0, 3073, 1), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 0, 65, 2), Error::BAD_VALUE);
    EXPECT_EQ(lock(61, 0, 4, 2), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 31, 4, 2), Error::BAD_VALUE);
    EXPECT_EQ(lock(1, 0, 70, 1), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 1, 70, 1), Error::BAD_VALUE);
    EXPECT_EQ(lock(-1, 0, 4, 4), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, -1, 4, 4), Error::BAD_VALUE);
    EXPECT_EQ(lock(4, 0, -1, 4), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 0, -1, 1), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 4, 4, -1), Error::BAD_VALUE);
    EXPECT_EQ(lock(1, 0, INT32_MAX, 2), Error::BAD_VALUE);
    EXPECT_EQ(Error(mapper->freeBuffer(imported)), Error::NONE);
    EXPECT_EQ(Error(mapper->freeBuffer(imported)), Error::BAD_BUFFER);
    EXPECT_EQ(lock(0, 0, 4, 4), Error::BAD_BUFFER);
}

/** A handle of a buffer of 6144 bytes, for a test to put something else into. */
class ForgedHandleTest : public testing::Test {
protected:
    ~ForgedHandleTest() override {
        native_handle_close(forged);
        native_handle_delete(forged);
        EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
    }

    bool imports() {
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(forged, GraphicBuffer::CLONE_HANDLE, 64, 64, 35, 1, 0x33, 64);
        return wrapped->initCheck() == 0;
    }
    /** With this file in place of the buffer's. */
    bool importsFile(const host::UniqueFd& file) {
        EXPECT_GE(file.get(), 0);
        const int own = std::exchange(forged->data[0], file.get());
        const bool result = imports();
        forged->data[0] = own;
        return result;
    }
    static host::UniqueFd memory(off_t size, int seals) {
        host::UniqueFd fd(memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        EXPECT_EQ(ftruncate(fd.get(), size), 0);
        EXPECT_EQ(fcntl(fd.get(), F_ADD_SEALS, seals), 0);
        return fd;
    }
    static host::UniqueFd opened(const std::string& name, int flags) {
        return host::UniqueFd(open(name.c_str(), flags | O_CLOEXEC, 0600));
    }

    const host::Buffer buffer = allocate(64, 64);
    native_handle_t* forged = native_handle_clone(buffer.handle());
    const host::MapperCounters before = host::mapperCounters();
};

TEST_F(ForgedHandleTest, IsRefusedWhenItsIntegersLie) {
    EXPECT_TRUE(imports());
    // Each lie alone, with the most memory that there can be behind it.
    const host::UniqueFd large = memory(host::kMaxBufferBytes, F_SEAL_SHRINK);
    const int own = std::exchange(forged->data[0], large.get());
    const std::vector<int> honest(&forged->data[1], &forged->data[8]);
    using Lie = std::vector<std::pair<int, int>>;  // words, and what they say
    for (const Lie& lie :
         {Lie{{1, 0x46444232}}, Lie{{2, 0}}, Lie{{2, 32769}, {4, 32770}, {5, 32770}}, Lie{{3, 0}},
          Lie{{3, 32769}}, Lie{{3, 4096}, {4, 1 << 20}}, Lie{{4, 63}}, Lie{{4, -1}},
          Lie{{4, (1 << 20) + 1}}, Lie{{5, 63}}, Lie{{5, (1 << 20) + 1}}, Lie{{6, 2}}, Lie{{7, 0}},
          Lie{{7, 9}, {5, 9 * 32}}}) {
        for (const auto& [word, value] : lie)
            forged->data[word] = value;
        EXPECT_FALSE(imports()) << "word " << lie[0].first << " says " << lie[0].second;
        std::copy(honest.begin(), honest.end(), &forged->data[1]);
    }
    for (int* const count : {&forged->version, &forged->numInts}) {
        *count -= 1;
        EXPECT_FALSE(imports());
        *count += 1;
    }
    native_handle_t* longer = native_handle_create(1, forged->numInts + 1);
    std::copy_n(&forged->data[0], forged->numInts + 1, &longer->data[0]);
    std::swap(forged, longer);
    EXPECT_FALSE(imports());
    std::swap(forged, longer);
    native_handle_delete(longer);
    forged->data[0] = own;
    EXPECT_FALSE((forged->data[3] = 66, imports()));  // beyond the file's own size
    EXPECT_EQ(host::mapperCounters().imports - before.imports, 1);
}

TEST_F(ForgedHandleTest, IsRefusedWhenItsFileIsNoSealedMemoryOrNotEnough) {
    EXPECT_TRUE(importsFile(memory(6144, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(6144, F_SEAL_GROW)));
    EXPECT_FALSE(importsFile(memory(6143, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(6144, F_SEAL_SHRINK | F_SEAL_WRITE)));
    const auto most = static_cast<off_t>(host::kMaxBufferBytes);
    EXPECT_TRUE(importsFile(memory(most - 1, F_SEAL_SHRINK)));
    EXPECT_TRUE(importsFile(memory(most, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(most + 1, F_SEAL_SHRINK)));
    const host::UniqueFd writable = memory(6144, F_SEAL_SHRINK);
    const std::string name = "/proc/self/fd/" + std::to_string(writable.get());
    EXPECT_FALSE(importsFile(opened(name, O_RDONLY)));
    EXPECT_FALSE(importsFile(opened("/dev/zero", O_RDWR)));
    EXPECT_FALSE(importsFile(opened("/tmp", O_RDONLY | O_DIRECTORY)));
    const host::UniqueFd file = opened("/tmp", O_RDWR | O_TMPFILE);
    EXPECT_EQ(ftruncate(file.get(), 6144), 0);
    EXPECT_FALSE(importsFile(file));
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    for (const int end : ends)
        EXPECT_FALSE(importsFile(host::UniqueFd(end)));
    EXPECT_EQ(host::mapperCounters().imports - before.imports, 3);
}

TEST_F(ForgedHandleTest, IsRefusedWhenItsFileShrinksBetweenTwoLooks) {
    bool mayImport = true;
    for (int look = 1; mayImport && look < 10; ++look) {
        const host::UniqueFd file = memory(6144, 0);
        int looks = 0;
        const FileWatch watch(file.get(), Watching::ALL, [&] {
            if (++looks != look) return;
            EXPECT_EQ(ftruncate(file.get(), 0), 0);
            syscall(SYS_fcntl, file.get(), F_ADD_SEALS, F_SEAL_SHRINK);
        });
        EXPECT_FALSE(importsFile(file)) << look;
        mayImport = looks >= look;
    }
}

}  // namespace testing_support
