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
    const auto wrapAs = [&buffer](uint32_t width, uint32_t height) {
        return sp<GraphicBuffer>(new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE,
                                                   width, height, 35, 1, 0x100000033, 1));
    };
    const sp<GraphicBuffer> wrapped = wrapAs(320, 480);
    EXPECT_EQ(wrapped->initCheck(), 0);
    EXPECT_EQ(std::tuple(wrapped->getWidth(), wrapped->getHeight(), wrapped->stride,
                         wrapped->format, wrapped->getUsage()),
              std::tuple(320U, 480U, 1, 35, 0x100000033U));
    android_ycbcr at = {};
    at.y = &at;
    EXPECT_EQ(wrapped->lockYCbCr(0xF00, &at), 3);
    for (const auto& [width, height] :
         {std::pair{641U, 480U}, {640U, 481U}, {0U, 480U}, {640U, 0U}}) {
        const sp<GraphicBuffer> wrong = wrapAs(width, height);
        EXPECT_EQ(wrong->initCheck(), 3);
        EXPECT_EQ(wrong->width + wrong->height + wrong->stride + wrong->format, 0);
        EXPECT_EQ(wrong->getUsage(), 0U);
        EXPECT_EQ(wrong->handle, nullptr);
        EXPECT_EQ(wrong->lockYCbCr(0x33, &at), 2);
    }
    EXPECT_EQ(at.y, &at);  // left alone by a failure
    EXPECT_EQ(wrapped->lockYCbCr(0x33, &at), 0);
    EXPECT_EQ(at.ystride, 640U);
    EXPECT_EQ(wrapped->unlock(), 0);
    EXPECT_EQ(wrapped->unlock(), 0);  // the mapper refuses, and nobody is told
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
    const host::MapperCounters before = host::mapperCounters();
    FewDuplicates none;
    none.limitTo(0);
    const auto refused = [](mapper3::Error error, void* imported) {
        EXPECT_EQ(error, mapper3::Error::NO_RESOURCES);
        EXPECT_EQ(imported, nullptr);
    };
    EXPECT_TRUE(host::realMapper3()->importBuffer(buffer.handle(), refused).isOk());
    EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
    EXPECT_EQ(host::mapperCounters().imports, before.imports);
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
