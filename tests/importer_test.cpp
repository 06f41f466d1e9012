// The handle importer, against the real mapper behind both versions of its service.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <tuple>

#include "HandleImporter.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "support/stress.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::helper::HandleImporter;

/** With mapper 3.0, or without one. */
class ImporterTest : public testing::TestWithParam<bool> {
protected:
    /** An operation when nothing comes of it. */
    struct Call {
        std::function<bool()> givesNothing;
        std::string name;
        std::string failed;  ///< how its line begins when it has not reached the mapper
    };

    int unlockWith(int descriptors, int integers, int descriptor) {
        native_handle_t* const fence = native_handle_create(descriptors, integers);
        if (descriptors > 0) fence->data[0] = descriptor;
        spy.releaseFence.setTo(fence);
        importer.lock(handle, 3, 64);
        const int result = importer.unlock(handle);
        spy.releaseFence.setTo(nullptr);
        native_handle_delete(fence);
        return result;
    }
    /** What another thread's operation does when it comes while this one is inside the mapper. */
    void expectInside(const std::function<void()>& operation, Other expected,
                      const std::function<void()>& other) const {
        std::optional<Meanwhile> meanwhile;
        spy.during = [&] { meanwhile.emplace(other, expected); };
        operation();
        EXPECT_TRUE(meanwhile.has_value());
    }
    Lines said() { return log.take("HandleImporter"); }

    const android::sp<SpyMapper3> spy3 = new SpyMapper3(host::realMapper3());
    const android::sp<SpyMapper2> spy2 = new SpyMapper2(host::realMapper2());
    Spied& spy = GetParam() ? static_cast<Spied&>(*spy3) : *spy2;
    const host::ScopedMapper scope{GetParam() ? spy3 : android::sp<SpyMapper3>(), spy2};
    LogLines log;
    const host::Buffer buffer = allocate(64, 32, {0, 0, 0, 70});
    buffer_handle_t handle = buffer.handle();
    HandleImporter importer;
    const std::vector<Call> calls = {
        {[&] { return importer.freeBuffer(handle), true; }, "freeBuffer",
         "freeBuffer: mapper freeBuffer"},
        {[&] { return importer.unlock(handle) == -1; }, "unlock", "unlock: mapper call"},
        {[&] { return importer.lock(handle, 3, 64) == nullptr; }, "lock", "lock: mapper call"},
        {[&] {
             const auto layout = importer.lockYCbCr(handle, 3, {0, 0, 64, 32});
             return layout.y == nullptr && layout.cStride == 0;
         },
         "lockYCbCr", "lockYCbCr: mapper call"},
        {[&] {
             buffer_handle_t raw = buffer.handle();
             return !importer.importBuffer(raw) && raw == buffer.handle();
         },
         "importBuffer", "importBufferInternal: mapper importBuffer"}};
};

TEST_P(ImporterTest, ImportsLocksAndFrees) {
    ASSERT_TRUE(importer.importBuffer(handle));
    auto* const bytes = static_cast<uint8_t*>(importer.lock(handle, 0x100000033, 2048));
    EXPECT_EQ(spy.locked, (std::array<int64_t, 6>{0x100000033, 0, 0, 2048, 1, 0}));
    ASSERT_NE(bytes, nullptr);
    bytes[5] = 77;
    EXPECT_EQ(buffer.bytes()[5], 77);
    EXPECT_EQ(importer.unlock(handle), -1);
    const auto layout = importer.lockYCbCr(handle, 3, {2, 4, 8, 16});
    EXPECT_EQ(spy.locked, (std::array<int64_t, 6>{3, 2, 4, 8, 16, 0}));
    EXPECT_EQ(std::tuple(layout.y, layout.cb, layout.cr),
              (std::tuple<void*, void*, void*>(bytes, bytes + 2048, bytes + 2049)));
    EXPECT_EQ(std::tuple(layout.yStride, layout.cStride, layout.chromaStep),
              std::tuple(64U, 70U, 2U));
    EXPECT_EQ(importer.unlock(handle), -1);
    EXPECT_EQ(said(), Lines());

    const int fence = unlockWith(1, 0, STDERR_FILENO);
    EXPECT_GT(fence, STDERR_FILENO);  // a duplicate
    importer.closeFence(fence);
    for (const auto& [descriptors, integers, fd] : {std::tuple(1, 0, -7), {2, 0, 2}, {1, 1, 2}})
        EXPECT_EQ(unlockWith(descriptors, integers, fd), -1);
    for (const size_t size : {size_t{INT32_MAX}, size_t{1} << 31, (size_t{1} << 32) + 64})
        EXPECT_EQ(importer.lock(handle, 3, size), nullptr);
    EXPECT_EQ(said(), (Lines{"E operator(): bad release fence FD -1",
                             "E operator(): bad release fence numInts 0 numFds 2",
                             "E operator(): bad release fence numInts 1 numFds 1",
                             "E operator(): failed to lock error 3!",  // of the mapper, by its size
                             "E lock: size 2147483648 is over 31 bits",
                             "E lock: size 4294967360 is over 31 bits"}));
    const int64_t frees = host::mapperCounters().frees;
    importer.freeBuffer(handle);
    EXPECT_EQ(host::mapperCounters().frees, frees + 1);
    // The service was fetched once, and 2.0 only where there is no 3.0.
    EXPECT_EQ(std::pair(scope.asked3(), scope.asked2()), std::pair(1, GetParam() ? 0 : 1));
}

TEST_P(ImporterTest, TellsHowACallOfTheMapperFailedAndGoesOn) {
    const buffer_handle_t raw = handle;
    for (const int fault : {-2, -1, 1, 2, 3, 5, 7}) {
        for (const Call& call : calls) {
            handle = raw;
            ASSERT_TRUE(importer.importBuffer(handle));
            ASSERT_NE(importer.lock(handle, 3, 64), nullptr);
            native_handle_t* const fence = native_handle_create(1, 0);  // of the standard input
            spy.releaseFence.setTo(fence);
            spy.fault = [fault] { return fault; };
            EXPECT_TRUE(call.givesNothing()) << call.name << fault;
            spy.fault = nullptr;
            spy.releaseFence.setTo(nullptr);
            native_handle_delete(fence);
            Lines lines;  // the refusal of an import or of a free is silent
            if (fault == -1)
                lines = {"E " + call.failed +
                         " failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"};
            if (fault > 0 && call.name.find("Buffer") == std::string::npos)
                lines = {"E operator(): failed to " + call.name + " error " +
                         std::to_string(fault) + "!"};
            EXPECT_EQ(said(), lines);
            if (call.name != "freeBuffer") importer.freeBuffer(handle);
        }
    }
}

TEST_P(ImporterTest, AsksAgainWhileThereIsNoMapper) {
    native_handle_t* const own = native_handle_create(1, 1);
    const auto imports = [&](int descriptors, int integers) {
        own->numFds = descriptors;
        own->numInts = integers;
        handle = own;
        return importer.importBuffer(handle);
    };
    for (int round = 0; round < 2; ++round) {
        std::optional<host::ScopedMapper> none(std::in_place, nullptr, nullptr);
        EXPECT_TRUE(imports(0, 0));
        EXPECT_EQ(handle, nullptr);
        importer.freeBuffer(nullptr);
        handle = buffer.handle();
        Lines lines;
        for (const Call& call : calls) {
            EXPECT_TRUE(call.givesNothing());
            // Neither of the first two connects.
            if (lines.size() >= 2)
                lines.emplace_back("E initializeLocked: cannnot acccess graphics mapper HAL!");
            lines.push_back("E " + call.name + ": mMapperV3 and mMapperV2 are both null!");
        }
        EXPECT_EQ(said(), lines);
        EXPECT_EQ(std::pair(none->asked3(), none->asked2()), std::pair(3, 3));
        // One that appears is found, and forgotten by cleanup(). Half empty is not empty.
        none.reset();
        EXPECT_FALSE(imports(1, 0) || imports(0, 1));
        handle = buffer.handle();
        EXPECT_TRUE(importer.importBuffer(handle));
        importer.freeBuffer(handle);
        importer.cleanup();
    }
    native_handle_delete(own);
}

TEST_P(ImporterTest, IsLockedInsideEveryMapperCallButUnlock) {
    buffer_handle_t other = handle;
    ASSERT_TRUE(importer.importBuffer(handle));
    const auto lock = [&] { importer.lock(handle, 3, 64); };
    const auto unlock = [&] { importer.unlock(handle); };
    const auto refused = [&] { importer.lock(handle, 0, 64); };  // without a usage
    expectInside([&] { importer.importBuffer(other); }, Other::WAITS, refused);
    expectInside([&] { importer.freeBuffer(other); }, Other::WAITS, refused);
    expectInside(lock, Other::WAITS, refused);
    expectInside(unlock, Other::GOES_ON, refused);
    expectInside([&] { importer.lockYCbCr(handle, 3, {0, 0, 64, 32}); }, Other::WAITS, refused);
    expectInside(refused, Other::GOES_ON, [&] { importer.cleanup(); });
    EXPECT_NE(importer.lock(handle, 3, 64), nullptr);  // connects anew
    unlock();
    importer.freeBuffer(handle);
}

INSTANTIATE_TEST_SUITE_P(HasMapper3, ImporterTest, testing::Bool());

TEST(ImporterAloneTest, TurnsFenceHandlesIntoDescriptors) {
    LogLines log;
    const HandleImporter importer;
    native_handle_t* const fence = native_handle_create(2, 0);
    int fd = 99;
    EXPECT_TRUE(importer.importFence(nullptr, fd));
    EXPECT_EQ(fd, -1);
    const auto import = [&](int count, int descriptor) {
        fd = 99;
        fence->numFds = count;
        fence->data[0] = descriptor;
        const bool isTaken = importer.importFence(fence, fd);
        return std::pair(isTaken, fd);
    };
    EXPECT_EQ(import(0, STDERR_FILENO), std::pair(true, -1));
    EXPECT_EQ(import(1, -3), std::pair(false, -1));
    EXPECT_EQ(import(2, STDERR_FILENO), std::pair(false, 99));
    EXPECT_EQ(import(-1, STDERR_FILENO), std::pair(false, 99));
    EXPECT_GT(import(1, STDERR_FILENO), std::pair(true, STDERR_FILENO));
    importer.closeFence(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    native_handle_delete(fence);
    EXPECT_EQ(
        log.said("HandleImporter"),
        (Lines{"E failed to dup fence fd -3", "E invalid fence handle with 2 file descriptors",
               "E invalid fence handle with -1 file descriptors"}));
    importer.closeFence(-1);
    const int input = dup(STDIN_FILENO);
    importer.closeFence(STDIN_FILENO);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(input, STDIN_FILENO);
    close(input);
}

}  // namespace testing_support
