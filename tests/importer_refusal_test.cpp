// What the handle importer makes of a mapper that gives something along with each refusal.

#include <gtest/gtest.h>

#include "HandleImporter.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::helper::HandleImporter;

namespace {
/** Gives something along with each refusal and each failure on the way. */
struct ContraryMapper : public SpyMapper3 {
    using SpyMapper3::SpyMapper3;
    static constexpr auto kRefused = mapper3::Error::BAD_VALUE;
    bool isSilent = false;  ///< an import is not even refused

    Return<void> importBuffer(const Handle& /*raw*/, importBuffer_cb answer) override {
        if (isSilent) return {};
        answer(mapper3::Error::NONE, this);
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT, "gone");
    }
    Return<void> lock(void* /*buffer*/, uint64_t /*usage*/, const Rect& /*region*/,
                      const Handle& /*fence*/, lock_cb answer) override {
        answer(kRefused, this, 1, 1);
        return {};
    }
    Return<void> lockYCbCr(void* /*buffer*/, uint64_t /*usage*/, const Rect& /*region*/,
                           const Handle& /*fence*/, lockYCbCr_cb answer) override {
        answer(kRefused, {this, this, this, 1, 1, 2});
        return {};
    }
    Return<void> unlock(void* /*buffer*/, unlock_cb answer) override {
        answer(kRefused, releaseFence);
        return {};
    }
};
}  // namespace

TEST(ImporterRefusalTest, KeepsNothingThatComesWithARefusal) {
    LogLines log;
    const android::sp<ContraryMapper> mapper = new ContraryMapper(host::realMapper3());
    const host::ScopedMapper scope(mapper, nullptr);
    native_handle_t* const fence = native_handle_create(1, 0);  // of the standard input
    mapper->releaseFence.setTo(fence);
    HandleImporter importer;
    const host::Buffer buffer = allocate(4, 4);
    buffer_handle_t handle = buffer.handle();
    for (const bool isSilent : {false, true}) {
        mapper->isSilent = isSilent;
        EXPECT_FALSE(importer.importBuffer(handle));
        EXPECT_EQ(handle, buffer.handle());
    }
    EXPECT_EQ(importer.lock(handle, 3, 4), nullptr);
    EXPECT_EQ(importer.lockYCbCr(handle, 3, {0, 0, 4, 4}).y, nullptr);
    EXPECT_EQ(importer.unlock(handle), -1);
    native_handle_delete(fence);
}

}  // namespace testing_support
