// What the interfaces' records, handles and results own, and what ends the process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace testing_support {

using namespace android::hardware;  // NOLINT

TEST(RecordsTest, CopiesOwnMovesEmptyAndFailuresAreEmptyToo) {
    native_handle_t* const raw = native_handle_create(1, 2);
    EXPECT_EQ(raw->data[0] | raw->data[1] | raw->data[2], 0);
    raw->data[0] = STDERR_FILENO;
    raw->data[1] = 42;
    const hidl_handle borrowed(raw);
    hidl_handle copy(borrowed);  // owns, also as the copy of one that does not
    ASSERT_NE(copy.getNativeHandle(), nullptr);
    EXPECT_EQ(fcntl(copy->data[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(copy->data[1], 42);
    const hidl_handle moved(std::move(copy));
    EXPECT_EQ(copy.getNativeHandle(), nullptr);  // NOLINT: what a move leaves is the question
    copy.setTo(native_handle_clone(raw), true);
    copy.setTo(native_handle_clone(raw), true);  // lets go of the one before
    copy = raw;                                  // so does this, and owns nothing
    copy.setTo(raw);
    raw->numFds = 3;  // of three descriptors the second cannot be duplicated
    raw->data[1] = -1;
    EXPECT_EQ(hidl_handle(borrowed).getNativeHandle(), nullptr);
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);  // what the third would have been is not closed
    raw->numFds = 1;
    raw->data[0] = dup(STDERR_FILENO);
    raw->version = 13;
    EXPECT_NE(native_handle_close(raw), 0);
    EXPECT_NE(native_handle_delete(raw), 0);
    raw->version = 12;
    EXPECT_EQ(fcntl(raw->data[0], F_GETFD), 0);
    EXPECT_EQ(native_handle_close(raw), 0);
    errno = 77;
    EXPECT_EQ(native_handle_close(raw), 0);  // a second time, which close() refuses
    EXPECT_EQ(errno, 77);
    native_handle_delete(raw);
    for (const int count : {-1, 1025}) {
        EXPECT_EQ(native_handle_create(count, 0), nullptr);
        EXPECT_EQ(native_handle_create(0, count), nullptr);
    }
    // What belongs to another is copied, not moved away, when a vector grows.
    hidl_string element = "one";
    hidl_vec<hidl_string> vector;
    vector.setToExternal(&element, 1);
    vector.resize(2);
    EXPECT_EQ(vector[0], "one");
    EXPECT_EQ(element, "one");
}

TEST(ReturnDeathTest, EndsTheProcessWhenNobodyLooks) {
    const auto failed = [] { return Status::fromStatusT(android::DEAD_OBJECT, "gone"); };
    const Return<void> examined(failed());
    EXPECT_FALSE(examined.isOk());
    EXPECT_EQ(examined.description(), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'");
    EXPECT_EQ(Return<int>(failed()).withDefault(5), 5);
    EXPECT_DEATH({ const Return<void> ignored(failed()); }, "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(Return<void>{failed()} = Return<void>(), "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(static_cast<void>(int(Return<int>(failed()))), "failed HIDL call");
    EXPECT_TRUE(Status::fromStatusT(android::OK, "").isOk());
    hidl_vec<char> bytes;
    EXPECT_DEATH(bytes.setToExternal(nullptr, size_t{1} << 32), "over 32 bits");
}

}  // namespace testing_support
