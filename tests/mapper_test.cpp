// The mapper, which takes handles from a process that it does not trust.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "host/buffer.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support/interposed.h"
#include "support/session_fixture.h"

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
        EXPECT_EQ(again->lockYCbCr(0x33, &planes), 5);
        EXPECT_EQ(host::mapperCounters().mappings, before.mappings + 1);
        EXPECT_EQ(host::mapperCounters().maps, before.maps + 1);

        const sp<GraphicBuffer> wrong = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, 641, 480, 35, 1, 0x33, 641);
        EXPECT_NE(wrong->initCheck(), 0);
        EXPECT_EQ(wrong->width + wrong->height + wrong->stride + wrong->format, 0);
        EXPECT_GT(wrong->lockYCbCr(0x33, &planes), 0);
    }
    EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
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
    native_handle_t* const forged = native_handle_clone(buffer.handle());
    const host::MapperCounters before = host::mapperCounters();
};

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
    EXPECT_FALSE(importsFile(opened("/tmp", O_RDWR | O_TMPFILE)));
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
