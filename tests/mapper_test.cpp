// The mapper where the kernel is short of something, or a client is quick, its fuzzer has the rest.
// And the handle importer, with the real mapper behind both versions of its service.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <optional>
#include <tuple>

#include "HandleImporter.h"
#include "buffer_format.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "support/stress.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::helper::HandleImporter;

TEST(MapperTest, SealsItsOwnBuffersAndHasOneName) {
    EXPECT_EQ(fcntl(allocate({8, 6}).handle()->data[0], F_GET_SEALS),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_TRUE(host::Buffer::allocate({2, 255, 1U << 20, 8192}));
    EXPECT_FALSE(host::Buffer::allocate({2, 255, 1U << 20, 8194}));
    EXPECT_FALSE(host::Buffer::allocate({2, 1U << 15, 1U << 20, 2}));  // 0 in 32 bits
    EXPECT_EQ(mapper3::IMapper::getService("another"), nullptr);
    EXPECT_EQ(mapper2::IMapper::getService("another"), nullptr);
}

TEST(MapperTest, TellsTwoFilesApartWhoseInodesHaveTheSameNumber) {
    const OneInodeNumber same;
    const int64_t maps = host::mapperCounters().maps;
    const sp<GraphicBuffer> one = wrap(allocate({8, 4}));
    const sp<GraphicBuffer> other = wrap(allocate({8, 4}));
    EXPECT_EQ(host::mapperCounters().maps, maps + 2);
}

TEST(MapperTest, HasNothingLeftOfAnImportThatFails) {
    const host::Buffer buffer = allocate({64, 64});
    const int64_t before = host::mapperCounters().mappings;
    FewDuplicates none;
    none.limitTo(0);
    const sp<GraphicBuffer> wrapped = wrap(buffer);
    EXPECT_TRUE(wrapped->initCheck() == 5 && wrapped->width == 0 && wrapped->format == 0);
    EXPECT_EQ(host::mapperCounters().mappings, before);
}

TEST(MapperTest, RefusesAFileThatShrinksBetweenTwoLooks) {
    // Before the first look, the second one and so on: one that is refused by an early look may
    // pass when it shrinks later.
    int looks = 0;
    for (int look = 1; looks >= look - 1 && look < 10; ++look) {
        const int file = memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(ftruncate(file, 64 * 96), 0);
        const host::UniqueHandle raw = host::detail::encode(host::UniqueFd(file), {64, 64, 64, 64});
        looks = 0;
        const FileWatch watch(file, Watching::ALL, [&] {
            if (++looks != look) return;
            EXPECT_EQ(ftruncate(file, 0), 0);
            fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK);  // itself a look, too
        });
        const sp<GraphicBuffer> buffer =
            new GraphicBuffer(raw.get(), GraphicBuffer::CLONE_HANDLE, 64, 64, 35, 1, 0x33, 64);
        EXPECT_TRUE(looks > 0 && buffer->initCheck() == 2) << look;
    }
}

/** With mapper 3.0, or without one. */
struct ImporterTest : public testing::TestWithParam<bool> {
    ~ImporterTest() override { native_handle_delete(fence); }
    Lines said() { return log.take("HandleImporter"); }

    const android::sp<SpyMapper3> spy3 = new SpyMapper3(host::realMapper3());
    const android::sp<SpyMapper2> spy2 = new SpyMapper2(host::realMapper2());
    Spied& spy = GetParam() ? static_cast<Spied&>(*spy3) : *spy2;
    const host::ScopedMapper scope{GetParam() ? spy3 : nullptr, spy2};
    LogLines log;
    native_handle_t* const fence = native_handle_create(2, 1);
    const host::Buffer buffer = allocate({64, 32}, {0, 0, 0, 70});
    buffer_handle_t handle = buffer.handle();
    HandleImporter importer;
    /** The operations by their names, and whether nothing comes of them. */
    const std::map<std::string, std::function<bool()>> calls = {
        {"freeBuffer", [&] { return importer.freeBuffer(handle), true; }},
        {"importBuffer", [&] { return !importer.importBuffer(handle); }},
        {"lock", [&] { return importer.lock(handle, 3, 64) == nullptr; }},
        {"lockYCbCr", [&] { return importer.lockYCbCr(handle, 3, {}).y == nullptr; }},
        {"unlock", [&] { return importer.unlock(handle) == -1; }}};
};

TEST_P(ImporterTest, ImportsLocksAndFreesAndTurnsFencesIntoDescriptors) {
    for (const auto& [descriptors, integers] : {std::pair(0, 0), {1, 0}, {0, 1}}) {
        std::tie(fence->numFds, fence->numInts) = std::tuple(descriptors, integers);
        buffer_handle_t given = fence;
        const bool isEmpty = descriptors + integers == 0;  // which half empty is not
        EXPECT_EQ(importer.importBuffer(given), isEmpty);
        EXPECT_EQ(given, isEmpty ? nullptr : fence);
    }
    ASSERT_TRUE(importer.importBuffer(handle));
    auto* const bytes = static_cast<uint8_t*>(importer.lock(handle, 0x100000033, 2048));
    EXPECT_EQ(spy.locked, (std::array<int64_t, 6>{0x100000033, 0, 0, 2048, 1, 0}));
    const auto at = importer.lockYCbCr(handle, 3, {2, 4, 8, 16});
    EXPECT_EQ(spy.locked, (std::array<int64_t, 6>{3, 2, 4, 8, 16, 0}));
    EXPECT_EQ(std::tuple(at.y, at.cb, at.cr, at.yStride, at.cStride, at.chromaStep),
              std::tuple(bytes, bytes + 2048, bytes + 2049, 64U, 70U, 2U));
    for (const size_t size : {size_t{INT32_MAX}, size_t{1} << 31, (size_t{1} << 32) + 64})
        EXPECT_EQ(importer.lock(handle, 3, size), nullptr);
    EXPECT_EQ(said(), (Lines{"E operator(): failed to lock error 3!",  // of the mapper, by its size
                             "E lock: size 2147483648 is over 31 bits",
                             "E lock: size 4294967360 is over 31 bits"}));
    // The service was fetched once, and 2.0 only where there is no 3.0.
    EXPECT_EQ(std::pair(scope.asked3(), scope.asked2()), std::pair(1, GetParam() ? 0 : 1));

    const std::string bad = "E operator(): bad release fence ";
    const std::string many = "E invalid fence handle with ";
    const std::tuple<int, int, int, Lines> rows[] = {
        {1, 0, STDERR_FILENO, {}},
        {1, 1, STDERR_FILENO, {bad + "numInts 1 numFds 1"}},
        {1, 0, -7, {"E failed to dup fence fd -7", bad + "FD -1"}},
        {-1, 0, 2, {many + "-1 file descriptors", bad + "numInts 0 numFds -1"}},
        {2, 0, 2, {many + "2 file descriptors", bad + "numInts 0 numFds 2"}}};
    EXPECT_EQ(importer.unlock(handle), -1);  // with no fence at all
    spy.releaseFence.setTo(fence);
    for (const auto& [descriptors, integers, descriptor, lines] : rows) {
        std::tie(fence->numFds, fence->numInts) = std::tuple(descriptors, integers);
        fence->data[0] = descriptor;
        int fd = 99;
        EXPECT_TRUE(importer.importFence(nullptr, fd) && fd == -1);
        EXPECT_EQ(importer.importFence(fence, fd), lines.size() < 2);
        const int released = importer.unlock(handle);
        EXPECT_EQ(said(), lines);
        EXPECT_EQ(fd > STDERR_FILENO, lines.size() < 2);
        EXPECT_EQ(released > STDERR_FILENO, lines.empty());
        importer.closeFence(fd);
        importer.closeFence(released);
        EXPECT_EQ(fcntl(fd, F_GETFD) + fcntl(released, F_GETFD), -2);
        importer.lock(handle, 3, 64);
    }
    importer.freeBuffer(handle);
    const int input = dup(STDIN_FILENO);
    importer.closeFence(STDIN_FILENO);
    EXPECT_EQ(dup(input), STDIN_FILENO);  // the lowest one that is free
    close(input);
}

TEST_P(ImporterTest, TellsHowACallOfTheMapperFailedInsideWhichItIsLocked) {
    spy.releaseFence.setTo(fence);
    // No answer, none on the way, and the mapper's own errors.
    for (const int fault : {-2, -1, 1, 2, 3, 5, 7}) {
        for (const auto& [name, givesNothing] : calls) {
            handle = buffer.handle();
            ASSERT_TRUE(importer.importBuffer(handle));
            ASSERT_NE(importer.lock(handle, 3, 64), nullptr);
            const buffer_handle_t imported = handle;
            std::optional<Meanwhile> other;
            spy.fault = [fault = fault] { return fault; };
            if (fault == -2)  // the other thread has no answer either, and both say nothing
                spy.during = [&, expected = name == "unlock" ? Other::GOES_ON : Other::WAITS] {
                    other.emplace([&] { importer.lock(handle, 3, 64); }, expected);
                };
            EXPECT_TRUE(givesNothing()) << name << fault;
            other.reset();
            spy.fault = nullptr;
            Lines lines;  // none about the refusal of an import or of a free
            const bool isOfBuffer = name.find("Buffer") != std::string::npos;
            if (fault == -1)
                lines = {"E " + name + (name == "importBuffer" ? "Internal" : "") + ": mapper " +
                         (isOfBuffer ? name : "call") +
                         " failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"};
            if (fault > 0 && !isOfBuffer)
                lines = {"E operator(): failed to " + name + " error " + std::to_string(fault) +
                         "!"};
            EXPECT_EQ(said(), lines);
            EXPECT_EQ(handle, imported);
            if (name != "freeBuffer") importer.freeBuffer(handle);
        }
    }
}

TEST_P(ImporterTest, AsksAgainWhileThereIsNoMapper) {
    for (int round = 0; round < 2; ++round) {
        std::optional<host::ScopedMapper> none(std::in_place, nullptr, nullptr);
        Lines lines;
        importer.freeBuffer(nullptr);
        for (const auto& [name, givesNothing] : calls) {
            EXPECT_TRUE(givesNothing());
            if (name != "freeBuffer" && name != "unlock")  // which do not connect
                lines.emplace_back("E initializeLocked: cannnot acccess graphics mapper HAL!");
            lines.push_back("E " + name + ": mMapperV3 and mMapperV2 are both null!");
        }
        EXPECT_EQ(said(), lines);
        EXPECT_EQ(std::pair(none->asked3(), none->asked2()), std::pair(3, 3));
        // One that appears is found, and forgotten by cleanup(), which takes no lock.
        none.reset();
        handle = buffer.handle();
        ASSERT_TRUE(importer.importBuffer(handle));
        spy.during = [this] { Meanwhile([this] { importer.cleanup(); }, Other::GOES_ON); };
        importer.freeBuffer(handle);
        handle = buffer.handle();
    }
}

INSTANTIATE_TEST_SUITE_P(HasMapper3, ImporterTest, testing::Bool());

}  // namespace testing_support
