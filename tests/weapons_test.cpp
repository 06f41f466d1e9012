// Memory that may cross between processes, at its worst.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

#include "host/mapper.h"
#include "host/properties.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

class WeaponsTest : public TransportFixture {
protected:
    WeaponsTest() {
        host::setProperty("vendor.zoru.flipped", "true");
        setUpStream();
    }
    ~WeaponsTest() override { host::clearProperty("vendor.zoru.flipped"); }

    /** So many bytes that cannot shrink. */
    static UniqueFd memory(size_t bytes) {
        UniqueFd fd(memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        EXPECT_EQ(ftruncate(fd.get(), static_cast<off_t>(bytes)), 0);
        EXPECT_EQ(fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
        return fd;
    }
    /** Whether a buffer of this memory is taken, which is square if a side is given. */
    bool isTaken(uint64_t id, const UniqueFd& fd, int side = 0) {
        native_handle_t* const claim = native_handle_clone(buffer.handle());
        close(std::exchange(claim->data[0], fd.get()));
        if (side != 0) std::fill_n(&claim->data[2], 4, side);
        Return<Status> answer = remote->processCaptureRequest(requestFor(1, id, claim));
        native_handle_delete(claim);
        return answer.withDefault(Status::INTERNAL_ERROR) == Status::OK;
    }
    static uint8_t byteAt(const UniqueFd& fd, off_t at) {
        uint8_t byte = 0;
        EXPECT_EQ(pread(fd.get(), &byte, 1, at), 1);
        return byte;
    }
    static void write(const UniqueFd& fd, off_t at, uint8_t byte) {
        EXPECT_EQ(pwrite(fd.get(), &byte, 1, at), 1);
    }
};

TEST_F(WeaponsTest, TurnsNoMoreThanMemoryClaims) {
    constexpr off_t kClaimed = 16 * 12;
    const UniqueFd large = memory(1 << 20);
    write(large, 0, 1);
    write(large, kClaimed, 2);
    EXPECT_EQ(ftruncate(large.get(), 0), -1);
    // The second time it is known and sealed: the mapping stays, and there is no other one.
    for (const off_t turnedTo : {16 * 8 - 1, 0}) {
        EXPECT_TRUE(isTaken(1, large));
        serveOne();
        deliveries.waitFor(turnedTo == 0 ? 2 : 1);
        EXPECT_EQ(byteAt(large, turnedTo), 1);
        EXPECT_EQ(byteAt(large, kClaimed), 2);
        EXPECT_EQ(fcntl(large.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
    }
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    EXPECT_FALSE(isTaken(2, large));
    EXPECT_TRUE(isTaken(3, memory(kClaimed)));
    EXPECT_FALSE(isTaken(4, memory(kClaimed - 1)));
}

TEST_F(WeaponsTest, TakesTheSameMemoryInTwoBuffers) {
    if (std::string(SANITIZERS) == "thread") GTEST_SKIP() << "it is a race, the client's own";
    const UniqueFd shared = memory(16 * 12);
    const int64_t mappings = host::mapperCounters().mappings;
    EXPECT_TRUE(isTaken(1, shared));
    EXPECT_TRUE(isTaken(3, shared));
    for (int i = 0; i < 100; ++i) {
        session->sendCaptureResult(resultFor(requestFor(1, 1, nullptr)));
        android_ycbcr planes = {};
        const sp<GraphicBuffer> other = session->getBufferForId(3);
        ASSERT_EQ(other->lockYCbCr(0x33, &planes), 0);
        std::fill_n(static_cast<uint8_t*>(planes.y), 16 * 8, static_cast<uint8_t>(i));
        EXPECT_EQ(other->unlock(), 0);
    }
    deliveries.waitFor(100);
    EXPECT_EQ(byteAt(shared, 5), 99);  // all of it one value: turned or not
    EXPECT_EQ(host::mapperCounters().mappings, mappings + 1);
}

TEST_F(WeaponsTest, TurnsTheLargestBufferWhileTheOthersGoOn) {
    if (std::string(SANITIZERS) == "thread") GTEST_SKIP() << "its shadow of 256 MiB is too much";
    constexpr int kSide = 13376;
    expectStatus(remote->configure(configurationOf(0, kSide, kSide)), Status::OK);
    const UniqueFd sparse = memory(host::kMaxBufferBytes);
    write(sparse, 3, 7);
    EXPECT_TRUE(isTaken(1, sparse, kSide));
    serveOne();
    EXPECT_TRUE(remote->ping().isOk());
    // A busy machine may take more than the usual patience for so many bytes.
    for (int i = 0; i < 5 && !eventually([&] { return deliveries.count() == 1; }); ++i) {
    }
    EXPECT_EQ(byteAt(sparse, off_t{kSide} * kSide - 4), 7);
    EXPECT_EQ(byteAt(sparse, 3), 0);
}

}  // namespace testing_support
