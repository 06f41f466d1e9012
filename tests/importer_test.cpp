// The handle importer, against the real mapper behind both versions of its service.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "HandleImporter.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "support/stress.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::helper::HandleImporter;
using android::hardware::camera::common::V1_0::helper::YCbCrLayout;

namespace {
constexpr const char* kTag = "HandleImporter";
}  // namespace

template <typename Spy>
class ImporterTest : public testing::Test {
protected:
    static auto real() {
        if constexpr (std::is_same_v<Spy, SpyMapper3>) {
            return host::realMapper3();
        } else {
            return host::realMapper2();
        }
    }
    static android::sp<mapper3::IMapper> as3(const android::sp<Spy>& spy) {
        if constexpr (std::is_same_v<Spy, SpyMapper3>) return spy;
        return nullptr;
    }

    /** What another thread's operation does when it comes while this one is inside the mapper. */
    void expectInside(const std::function<void()>& operation, Other expected,
                      const std::function<void()>& other) {
        std::optional<Meanwhile> meanwhile;
        spy->during = [&] { meanwhile.emplace(other, expected); };
        operation();
        EXPECT_TRUE(meanwhile.has_value());
    }

    const android::sp<Spy> spy = new Spy(real());
    const android::sp<SpyMapper2> unused = new SpyMapper2(host::realMapper2());
    const host::ScopedMapper scope{as3(spy), [this]() -> android::sp<mapper2::IMapper> {
                                       if constexpr (std::is_same_v<Spy, SpyMapper2>) return spy;
                                       return unused;
                                   }()};
    LogLines log;
    const host::Buffer buffer = allocate(64, 32);
    HandleImporter importer;
};

using BothVersions = testing::Types<SpyMapper3, SpyMapper2>;
struct VersionName {
    template <typename Spy>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Spy, SpyMapper3> ? "Mapper3" : "Mapper2";
    }
};
TYPED_TEST_SUITE(ImporterTest, BothVersions, VersionName);

TYPED_TEST(ImporterTest, ImportsLocksAndFrees) {
    buffer_handle_t handle = this->buffer.handle();
    ASSERT_TRUE(this->importer.importBuffer(handle));
    ASSERT_NE(handle, this->buffer.handle());
    EXPECT_EQ(handle, this->spy->imported[0]);

    auto* const bytes = static_cast<uint8_t*>(this->importer.lock(handle, 0x100000033, 2048));
    ASSERT_NE(bytes, nullptr);
    bytes[5] = 77;
    EXPECT_EQ(this->buffer.bytes()[5], 77);
    EXPECT_EQ(this->spy->usage, 0x100000033U);
    EXPECT_EQ(this->spy->region.left, 0);
    EXPECT_EQ(this->spy->region.top, 0);
    EXPECT_EQ(this->spy->region.width, 2048);
    EXPECT_EQ(this->spy->region.height, 1);
    EXPECT_EQ(this->importer.unlock(handle), -1);

    const YCbCrLayout layout = this->importer.lockYCbCr(handle, 3, {2, 4, 8, 16});
    EXPECT_EQ(this->spy->region.left, 2);
    EXPECT_EQ(this->spy->region.height, 16);
    EXPECT_EQ(layout.y, bytes);
    EXPECT_EQ(layout.cb, bytes + 2048);
    EXPECT_EQ(layout.cr, bytes + 2049);
    EXPECT_EQ(layout.yStride, 64U);
    EXPECT_EQ(layout.cStride, 64U);
    EXPECT_EQ(layout.chromaStep, 2U);
    EXPECT_EQ(this->importer.unlock(handle), -1);
    EXPECT_TRUE(this->log.lines().empty());
    EXPECT_EQ(this->importer.lock(handle, 3, INT32_MAX), nullptr);  // it fits, but not the buffer
    EXPECT_EQ(this->log.take(kTag), Lines{"E operator(): failed to lock error 3!"});
    EXPECT_EQ(this->spy->fences, 0);
    this->importer.freeBuffer(handle);
    EXPECT_EQ(this->spy->freed, this->spy->imported);
    // The service was fetched once, and 2.0 only where there is no 3.0.
    EXPECT_EQ(this->scope.asked3(), 1);
    EXPECT_EQ(this->scope.asked2(), (std::is_same_v<TypeParam, SpyMapper2> ? 1 : 0));
}

TYPED_TEST(ImporterTest, TellsHowACallOfTheMapperFailedAndGoesOn) {
    HandleImporter& tested = this->importer;
    buffer_handle_t handle = nullptr;
    const struct {
        std::function<bool()> givesNothing;
        std::string refused;  ///< the line, without the error's number
        std::string died;
    } calls[] = {
        {[&] {
             buffer_handle_t raw = this->buffer.handle();
             return !tested.importBuffer(raw) && raw == this->buffer.handle();
         },
         "", "importBufferInternal: mapper importBuffer"},
        {[&] { return tested.lock(handle, 3, 64) == nullptr; }, "lock", "lock: mapper call"},
        {[&] {
             const YCbCrLayout layout = tested.lockYCbCr(handle, 3, {0, 0, 64, 32});
             return layout.y == nullptr && layout.cStride == 0;
         },
         "lockYCbCr", "lockYCbCr: mapper call"},
        {[&] { return tested.unlock(handle) == -1; }, "unlock", "unlock: mapper call"},
        {[&] { return tested.freeBuffer(handle), true; }, "", "freeBuffer: mapper freeBuffer"}};
    for (const int fault : {-1, 1, 2, 3, 5, 7}) {
        for (const auto& call : calls) {
            handle = this->buffer.handle();
            ASSERT_TRUE(tested.importBuffer(handle));
            ASSERT_NE(tested.lock(handle, 3, 64), nullptr);
            this->spy->fault = [fault] { return fault; };
            EXPECT_TRUE(call.givesNothing()) << call.died << fault;
            this->spy->fault = nullptr;
            Lines lines;  // the refusal of an import is silent
            if (fault < 0) {
                lines = {"E " + call.died +
                         " failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"};
            } else if (!call.refused.empty()) {
                lines = {"E operator(): failed to " + call.refused + " error " +
                         std::to_string(fault) + "!"};
            }
            EXPECT_EQ(this->log.take(kTag), lines);
            if (this->spy->freed.empty()) tested.freeBuffer(handle);
            this->spy->freed.clear();
        }
    }
    EXPECT_EQ(tested.lock(handle, 3, (size_t{1} << 32) + 64), nullptr);
    EXPECT_EQ(tested.lock(handle, 3, size_t{1} << 31), nullptr);
    EXPECT_EQ(this->log.said(kTag), (Lines{"E lock: size 4294967360 is over 31 bits",
                                           "E lock: size 2147483648 is over 31 bits"}));
}

TYPED_TEST(ImporterTest, HandsOutADuplicateOfTheReleaseFence) {
    buffer_handle_t handle = this->buffer.handle();
    ASSERT_TRUE(this->importer.importBuffer(handle));
    const auto unlockWith = [&](int descriptors, int integers, int descriptor) {
        native_handle_t* const fence = native_handle_create(descriptors, integers);
        if (descriptors > 0) fence->data[0] = descriptor;
        this->spy->releaseFence.setTo(fence);
        this->importer.lockYCbCr(handle, 3, {0, 0, 64, 32});
        const int result = this->importer.unlock(handle);
        this->spy->releaseFence.setTo(nullptr);
        native_handle_delete(fence);
        return result;
    };
    const int fence = unlockWith(1, 0, STDERR_FILENO);
    EXPECT_GT(fence, STDERR_FILENO);
    this->importer.closeFence(fence);
    EXPECT_EQ(unlockWith(1, 0, -7), -1);
    EXPECT_EQ(unlockWith(2, 0, STDERR_FILENO), -1);
    EXPECT_EQ(unlockWith(1, 1, STDERR_FILENO), -1);
    EXPECT_EQ(this->log.said(kTag), (Lines{"E operator(): bad release fence FD -1",
                                           "E operator(): bad release fence numInts 0 numFds 2",
                                           "E operator(): bad release fence numInts 1 numFds 1"}));
    this->importer.freeBuffer(handle);
}

TYPED_TEST(ImporterTest, IsLockedInsideEveryMapperCallButUnlock) {
    HandleImporter& tested = this->importer;
    buffer_handle_t handle = this->buffer.handle();
    buffer_handle_t other = this->buffer.handle();
    ASSERT_TRUE(tested.importBuffer(handle));
    const auto lock = [&] { tested.lock(handle, 3, 64); };
    const auto unlock = [&] { tested.unlock(handle); };
    const auto refused = [&] { tested.lock(handle, 0, 64); };  // without a usage

    this->expectInside([&] { tested.importBuffer(other); }, Other::WAITS, refused);
    this->expectInside([&] { tested.freeBuffer(other); }, Other::WAITS, refused);
    this->expectInside(lock, Other::WAITS, refused);
    this->expectInside(unlock, Other::GOES_ON, refused);
    this->expectInside([&] { tested.lockYCbCr(handle, 3, {0, 0, 64, 32}); }, Other::WAITS, refused);
    // What takes no lock does not wait for it either.
    this->expectInside(refused, Other::GOES_ON, unlock);
    this->expectInside(refused, Other::GOES_ON, [&] { tested.cleanup(); });
    EXPECT_EQ(this->spy->getStrongCount(), 2);  // the registry's and the test's
    lock();                                     // connects anew
    unlock();
    tested.freeBuffer(handle);
}

TEST(ImporterAloneTest, ConnectsLazilyAndAsksAgainWhileThereIsNoMapper) {
    LogLines log;
    const host::ScopedMapper none(nullptr, nullptr);
    HandleImporter importer;
    native_handle_t* const empty = native_handle_create(0, 0);
    buffer_handle_t handle = empty;
    EXPECT_TRUE(importer.importBuffer(handle));
    EXPECT_EQ(handle, nullptr);
    importer.freeBuffer(nullptr);
    EXPECT_TRUE(log.lines().empty());
    native_handle_delete(empty);

    const host::Buffer buffer = allocate(4, 4);
    handle = buffer.handle();
    importer.freeBuffer(handle);
    EXPECT_EQ(importer.unlock(handle), -1);
    EXPECT_EQ(none.asked3() + none.asked2(), 0);  // neither connects
    EXPECT_FALSE(importer.importBuffer(handle));
    EXPECT_EQ(importer.lock(handle, 3, 4), nullptr);
    EXPECT_EQ(importer.lockYCbCr(handle, 3, {0, 0, 4, 4}).y, nullptr);
    EXPECT_EQ(none.asked3(), 3);
    EXPECT_EQ(none.asked2(), 3);
    const std::string hal = "E initializeLocked: cannnot acccess graphics mapper HAL!";
    const std::string null = ": mMapperV3 and mMapperV2 are both null!";
    EXPECT_EQ(log.said(kTag),
              (Lines{"E freeBuffer" + null, "E unlock" + null, hal, "E importBuffer" + null, hal,
                     "E lock" + null, hal, "E lockYCbCr" + null}));

    // A mapper that appears is found, and forgotten by cleanup().
    {
        const host::ScopedMapper real(host::realMapper3(), nullptr);
        ASSERT_TRUE(importer.importBuffer(handle));
        importer.freeBuffer(handle);
    }
    importer.cleanup();
    handle = buffer.handle();
    EXPECT_FALSE(importer.importBuffer(handle));
    EXPECT_EQ(none.asked3(), 5);            // once by the real mapper's scope, once more now
    for (const int descriptors : {0, 1}) {  // half empty is not empty
        native_handle_t* const half = native_handle_create(descriptors, 1 - descriptors);
        handle = half;
        EXPECT_FALSE(importer.importBuffer(handle));
        native_handle_delete(half);
    }
}

TEST(ImporterAloneTest, TurnsFenceHandlesIntoDescriptors) {
    LogLines log;
    const HandleImporter importer;
    int fd = 99;
    EXPECT_TRUE(importer.importFence(nullptr, fd));
    EXPECT_EQ(fd, -1);
    native_handle_t* const fence = native_handle_create(2, 0);
    fence->numFds = 0;
    fd = 99;
    EXPECT_TRUE(importer.importFence(fence, fd));
    EXPECT_EQ(fd, -1);
    fence->numFds = 1;
    fence->data[0] = STDERR_FILENO;
    EXPECT_TRUE(importer.importFence(fence, fd));
    EXPECT_GT(fd, STDERR_FILENO);
    importer.closeFence(fd);
    importer.closeFence(-1);
    const int input = dup(STDIN_FILENO);
    importer.closeFence(STDIN_FILENO);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(input, STDIN_FILENO);
    close(input);
    fence->data[0] = -3;
    EXPECT_FALSE(importer.importFence(fence, fd));
    EXPECT_EQ(fd, -1);
    fd = 99;
    for (const int count : {2, -1}) {
        fence->numFds = count;
        EXPECT_FALSE(importer.importFence(fence, fd));
        EXPECT_EQ(fd, 99);
    }
    native_handle_delete(fence);
    EXPECT_EQ(log.said(kTag), (Lines{"E failed to dup fence fd -3",
                                     "E invalid fence handle with 2 file descriptors",
                                     "E invalid fence handle with -1 file descriptors"}));
}

}  // namespace testing_support
