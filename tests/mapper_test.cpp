// The mapper where the kernel is short of something, or a client is quick; its fuzzer has the rest.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <tuple>
#include <utility>

#include "host/mapper.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

TEST(MapperTest, SealsItsOwnBuffersAndHasOneName) {
    EXPECT_EQ(fcntl(allocate(8, 6).handle()->data[0], F_GET_SEALS),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_TRUE(host::Buffer::allocate({2, 255, 1U << 20, 8192}));
    EXPECT_FALSE(host::Buffer::allocate({2, 255, 1U << 20, 8194}));
    EXPECT_EQ(mapper3::IMapper::getService("another"), nullptr);
    EXPECT_EQ(mapper2::IMapper::getService("another"), nullptr);
}

TEST(MapperTest, WrapsABufferOfThisSizeOrNothing) {
    const host::Buffer buffer = allocate(640, 480);
    for (const auto& [width, height] :
         {std::pair(320U, 480U), {641U, 480U}, {640U, 481U}, {0U, 480U}, {640U, 0U}}) {
        const sp<GraphicBuffer> wrapped = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, width, height, 35, 1, 0x100000033, 1);
        android_ycbcr at = {};
        at.y = &at;  // left alone by a failure
        const int locked = wrapped->lockYCbCr(0x33, &at);
        std::tuple got(wrapped->initCheck(), locked, at.y != &at, wrapped->handle != nullptr,
                       wrapped->getUsage(), wrapped->getWidth(), wrapped->getHeight(),
                       wrapped->stride, wrapped->format);
        const decltype(got) whole(0, 0, true, true, 0x100000033, 320, 480, 1, 35);
        EXPECT_EQ(got, width == 320 ? whole : decltype(got)(3, 2, false, false, 0, 0, 0, 0, 0));
        EXPECT_EQ(wrapped->unlock(), 0);
        EXPECT_EQ(wrapped->unlock(), 0);  // the mapper refuses, and nobody is told
    }
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

TEST(MapperTest, HasNothingLeftOfAnImportWithoutDescriptors) {
    const host::Buffer buffer = allocate(64, 32);
    const int64_t before = host::mapperCounters().mappings;
    FewDuplicates none;
    none.limitTo(0);
    EXPECT_EQ(wrap(buffer)->initCheck(), 5);
    EXPECT_EQ(host::mapperCounters().mappings, before);
}

TEST(MapperTest, RefusesAFileThatShrinksBetweenTwoLooks) {
    const host::Buffer buffer = allocate(64, 64);
    int looks = 1;
    for (int look = 1; look <= looks && look < 10; ++look) {
        const host::UniqueHandle forged(native_handle_clone(buffer.handle()));
        const int own = forged->data[0];
        const int file = memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(ftruncate(file, static_cast<off_t>(buffer.size())), 0);
        forged->data[0] = file;
        close(own);
        looks = 0;
        const FileWatch watch(file, Watching::ALL, [&] {
            if (++looks != look) return;
            EXPECT_EQ(ftruncate(file, 0), 0);
            syscall(SYS_fcntl, file, F_ADD_SEALS, F_SEAL_SHRINK);
        });
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(forged.get(), GraphicBuffer::CLONE_HANDLE, 64, 64, 35, 1, 0x33, 64);
        EXPECT_NE(wrapped->initCheck(), 0) << look;
    }
}

}  // namespace testing_support
